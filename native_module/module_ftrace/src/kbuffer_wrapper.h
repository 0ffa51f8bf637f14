#pragma once
// libtraceevent's kbuffer.h has no C++ linkage guard of its own.
extern "C" {
#include <kbuffer.h>
}
#include <event-parse.h>
