// The system calls that the tracer counts, and what in their arguments names a file.
#pragma once

#include <string_view>

enum class names {
    nothing,
    path,      // argument 0
    two_paths, // arguments 0 and 1
    fd,        // argument 0
    at,        // a directory's descriptor in argument 0, a path in 1
    two_at,    // the same, and another pair behind it
    mapped,    // a descriptor in argument 4, -1 for none
    polled,    // the first of the structures in argument 0
};

struct system_call {
    long number;
    std::string_view name;
    names named;
};

// Null for a call that is not counted.
const system_call *find_call(long number);
