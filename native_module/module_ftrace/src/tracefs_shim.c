#include "tracefs_shim.h"

#include <stdlib.h>
#include <string.h>
#include <tracefs.h>

struct tracefs_instance* ftrace_shim_instance_alloc(const char* name) {
    return tracefs_instance_alloc(NULL, name);
}

int ftrace_shim_instance_create(struct tracefs_instance** instance) {
    const char* name = instance && *instance ? tracefs_instance_get_name(*instance) : NULL;
    struct tracefs_instance* created = tracefs_instance_create(name);
    if (created == NULL) return -1;
    int result = tracefs_instance_is_new(created) ? 0 : 1;
    if (instance) {
        if (*instance) tracefs_instance_free(*instance);
        *instance = created;
    } else {
        tracefs_instance_free(created);
    }
    return result;
}

int ftrace_shim_instance_destroy(struct tracefs_instance* instance) { return tracefs_instance_destroy(instance); }
void ftrace_shim_instance_free(struct tracefs_instance* instance) { tracefs_instance_free(instance); }
char* ftrace_shim_instance_get_dir(struct tracefs_instance* instance) { return tracefs_instance_get_dir(instance); }
char* ftrace_shim_instance_get_file(struct tracefs_instance* instance, const char* file) {
    return tracefs_instance_get_file(instance, file);
}
void ftrace_shim_put_tracing_file(char* name) { tracefs_put_tracing_file(name); }
const char* ftrace_shim_tracing_dir(void) { return tracefs_tracing_dir(); }

int ftrace_shim_set_tracing_dir(const char* dir) {
    /* libtracefs copies the text; the cast only satisfies its non-const prototype. */
    return tracefs_set_tracing_dir((char*)dir);
}

bool ftrace_shim_instance_exists(const char* name) { return tracefs_instance_exists(name); }
