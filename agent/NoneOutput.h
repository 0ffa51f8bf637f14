#pragma once
// --format=none: messages are only counted (the summary still lists them).

#include "Output.h"

namespace Agent {

class NoneOutput : public Output {
public:
    void Write(const Engine::FtraceMessage&) override {}
};

}  // namespace Agent
