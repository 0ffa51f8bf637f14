#include "OutputTable.h"

#include "AgentOptions.h"
#include "JsonOutput.h"
#include "NatsOutput.h"
#include "NoneOutput.h"
#include "RawOutput.h"
#include "TextOutput.h"

namespace Agent {
namespace {

struct Row {
    const char* name;  // --format=NAME, or the scheme of --output=NAME://...
    bool is_url;
    std::unique_ptr<Output> (*make)(const OutputContext&);
};

const Row kRows[] = {
    {"text", false,
     [](const OutputContext& c) -> std::unique_ptr<Output> { return std::make_unique<TextOutput>(c.fd, c.types); }},
    {"raw", false,
     [](const OutputContext& c) -> std::unique_ptr<Output> { return std::make_unique<RawOutput>(c.fd, c.types); }},
    {"json", false,
     [](const OutputContext& c) -> std::unique_ptr<Output> { return std::make_unique<JsonOutput>(c.fd, c.types); }},
    {"none", false, [](const OutputContext&) -> std::unique_ptr<Output> { return std::make_unique<NoneOutput>(); }},
    {"nats", true,
     [](const OutputContext& c) -> std::unique_ptr<Output> {
         return std::make_unique<NatsOutput>(c.options.nats, c.types);
     }},
};

}  // namespace

std::string OutputTable::FormatNames() {
    std::string names;
    for (const Row& row : kRows) {
        if (!row.is_url) names += (names.empty() ? "" : ", ") + std::string(row.name);
    }
    return names;
}

bool OutputTable::IsFormat(const std::string& name) {
    for (const Row& row : kRows) {
        if (!row.is_url && name == row.name) return true;
    }
    return false;
}

std::unique_ptr<Output> OutputTable::Make(const OutputContext& context) {
    const std::string& url = context.options.output_url;
    const std::string name = url.empty() ? context.options.format : url.substr(0, url.find("://"));
    for (const Row& row : kRows) {
        if (row.is_url == !url.empty() && name == row.name) return row.make(context);
    }
    return nullptr;
}

}  // namespace Agent
