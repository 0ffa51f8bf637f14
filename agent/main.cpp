// ftrace-agent: prints kernel trace events through libftrace_module.so.

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <signal.h>

#include <exception>
#include <iostream>

#include "FtraceAgent.h"
#include "PrintableText.h"
#include "StandardStreams.h"

int main(int argc, char** argv) {
    if (!Agent::StandardStreams::OpenClosedOnDevNull()) return 71;  // EX_OSERR
    // A closed output pipe must end the run through the normal stop path (so
    // that the events are switched off), not kill the process.
    signal(SIGPIPE, SIG_IGN);

    Poco::AutoPtr<Agent::FtraceAgent> agent = new Agent::FtraceAgent();
    try {
        agent->init(argc, argv);
    } catch (const Poco::Exception& e) {
        std::cerr << "ftrace-agent: " << Agent::PrintableText::Escape(e.displayText()) << "; see ftrace-agent --help"
                  << std::endl;
        return Agent::FtraceAgent::kExitUserError;
    } catch (const std::exception& e) {
        std::cerr << "ftrace-agent: " << Agent::PrintableText::Escape(e.what()) << "; see ftrace-agent --help"
                  << std::endl;
        return Agent::FtraceAgent::kExitUserError;
    }
    return agent->run();
}
