#include "TraceFS.h"

#include <exception>

#include "FtraceLog.h"
#include "SDK/LoggerUtils.h"
#include "tracefs_shim.h"

TraceFS::TraceFS(const std::string& name)
    : instance(ftrace_shim_instance_alloc(name.empty() ? nullptr : name.c_str()), ftrace_shim_instance_free) {
    // An empty name must reach libtracefs as null (the top instance), never as
    // "" (which would name the instances directory itself).
    tracefs_instance* handle = instance.release();
    const int result = ftrace_shim_instance_create(name.empty() ? nullptr : name.c_str(), &handle);
    instance.reset(handle);

    switch (result) {
        case 0:
            created = true;
            valid = true;
            break;
        case 1:
            // Left behind by an earlier run (or made by someone else): used,
            // but never removed by us.
            valid = true;
            break;
        default: {
            Poco::Logger* root = nullptr;
            try {
                root = SDK::LoggerUtils::GetInstance()->GetRootLogger();
            } catch (const std::exception&) {
            }
            FTRACE_LOG_TO(root, 4, "Failed to init FtraceFS(%d), perhaps not support", result);
            break;
        }
    }
}

TraceFS::~TraceFS() {
    if (created) ftrace_shim_instance_destroy(instance.get());
    instance.reset();
}

std::string TraceFS::dir() const {
    char* path = ftrace_shim_instance_get_dir(instance.get());
    if (path == nullptr) return std::string();
    std::string text(path);
    ftrace_shim_put_tracing_file(path);
    return text;
}

std::string TraceFS::file(const std::string& name) const {
    // The buffer libtracefs allocated is deliberately kept, not handed back.
    const char* path = ftrace_shim_instance_get_file(instance.get(), name.c_str());
    return path == nullptr ? std::string() : std::string(path);
}
