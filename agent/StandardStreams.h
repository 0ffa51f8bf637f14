#pragma once
// Standard input, output and error that were closed when the process started
// are opened on /dev/null. Otherwise the next file the process opens (the
// instance lock, a log file) would take their numbers and receive whatever is
// printed to them. Call it first in main(), before anything opens a file.

namespace Agent {

class StandardStreams {
public:
    // False when /dev/null cannot be opened.
    static bool OpenClosedOnDevNull();
};

}  // namespace Agent
