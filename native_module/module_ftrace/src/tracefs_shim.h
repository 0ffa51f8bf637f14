#pragma once
// The few libtracefs calls the module needs, behind a C header that compiles
// as C++ (libtracefs 1.6's own header does not). Implemented in tracefs_shim.c.

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

struct tracefs_instance;

// Handle on an instance that already exists under the default tracing
// directory; a null name is the top instance. libtracefs 1.6 refuses to
// describe a named instance that is not there yet, so this is null for a
// name whose directory does not exist (ftrace_shim_instance_create makes it).
struct tracefs_instance* ftrace_shim_instance_alloc(const char* name);

// Creates the instance directory `name`, or adopts an existing one; a null
// name is the top instance, which always exists and is therefore adopted.
// Returns 0 when the directory was created now, 1 when it already existed and
// -1 on failure. On success *instance is replaced by the handle libtracefs
// returned (the old one is freed); on failure it is left as it was.
int ftrace_shim_instance_create(const char* name, struct tracefs_instance** instance);

int ftrace_shim_instance_destroy(struct tracefs_instance* instance);
void ftrace_shim_instance_free(struct tracefs_instance* instance);
// Both return malloc'ed text (release with ftrace_shim_put_tracing_file), or
// null. A null handle yields null here, never the top instance's paths: for
// the module it only means the instance could not be set up.
char* ftrace_shim_instance_get_dir(struct tracefs_instance* instance);
char* ftrace_shim_instance_get_file(struct tracefs_instance* instance, const char* file);
void ftrace_shim_put_tracing_file(char* name);

// The tracing directory libtracefs uses (mounting tracefs if needed), or null.
const char* ftrace_shim_tracing_dir(void);
// Points libtracefs at another tracing directory (tests use a temporary copy);
// null returns to the system's tracing directory.
int ftrace_shim_set_tracing_dir(const char* dir);
bool ftrace_shim_instance_exists(const char* name);

#ifdef __cplusplus
}
#endif
