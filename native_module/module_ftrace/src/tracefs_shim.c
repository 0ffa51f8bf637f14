#include "tracefs_shim.h"

#include <stdlib.h>
#include <string.h>
#include <tracefs.h>

#if defined(__SANITIZE_ADDRESS__)
#define FTRACE_SHIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FTRACE_SHIM_ASAN 1
#endif
#endif
#ifdef FTRACE_SHIM_ASAN
#include <sanitizer/lsan_interface.h>
#endif

struct tracefs_instance* ftrace_shim_instance_alloc(const char* name) {
    return tracefs_instance_alloc(NULL, name);
}

int ftrace_shim_instance_create(const char* name, struct tracefs_instance** instance) {
    /* The name is passed in rather than read from *instance: for a
     * directory that does not exist yet there is no handle to read it from,
     * and a null name would quietly adopt the top instance. */
#ifdef FTRACE_SHIM_ASAN
    /* libtracefs 1.6 loses its path buffer when mkdir fails. */
    __lsan_disable();
#endif
    struct tracefs_instance* made = tracefs_instance_create(name);
#ifdef FTRACE_SHIM_ASAN
    __lsan_enable();
#endif
    if (made == NULL) return -1;
    int result = tracefs_instance_is_new(made) ? 0 : 1;
    if (instance) {
        tracefs_instance_free(*instance);
        *instance = made;
    } else {
        tracefs_instance_free(made);
    }
    return result;
}

int ftrace_shim_instance_destroy(struct tracefs_instance* instance) { return tracefs_instance_destroy(instance); }
void ftrace_shim_instance_free(struct tracefs_instance* instance) { tracefs_instance_free(instance); }

char* ftrace_shim_instance_get_dir(struct tracefs_instance* instance) {
    return instance ? tracefs_instance_get_dir(instance) : NULL;
}

char* ftrace_shim_instance_get_file(struct tracefs_instance* instance, const char* file) {
    char* path = instance ? tracefs_instance_get_file(instance, file) : NULL;
#ifdef FTRACE_SHIM_ASAN
    /* Kept for good by TraceFS::file. Marked here, because a suppression by
     * function name cannot match: this call is a tail call and libc's
     * asprintf has no frame pointer, so the leak's stack never shows it. */
    if (path) __lsan_ignore_object(path);
#endif
    return path;
}

void ftrace_shim_put_tracing_file(char* name) { tracefs_put_tracing_file(name); }
const char* ftrace_shim_tracing_dir(void) { return tracefs_tracing_dir(); }

int ftrace_shim_set_tracing_dir(const char* dir) {
    /* libtracefs copies the text; the cast only satisfies its non-const prototype. */
    return tracefs_set_tracing_dir((char*)dir);
}

bool ftrace_shim_instance_exists(const char* name) { return tracefs_instance_exists(name); }
