#pragma once
// The agent's outputs by name: --format=NAME picks a line format for
// standard output, --output=SCHEME://... a message system. A new output is
// one class and one row in OutputTable.cpp.

#include <memory>
#include <string>

#include "Output.h"

namespace Agent {

class AgentOptions;
class EventFieldTypes;

struct OutputContext {
    const AgentOptions& options;
    const EventFieldTypes& types;  // filled once the tracing instance exists
    int fd;                        // standard output
};

class OutputTable {
public:
    // "text, raw, json, none": the names --format takes.
    static std::string FormatNames();
    static bool IsFormat(const std::string& name);
    // The output the options choose.
    static std::unique_ptr<Output> Make(const OutputContext& context);
};

}  // namespace Agent
