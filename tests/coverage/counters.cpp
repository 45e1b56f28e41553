// For the build that counts what is executed: its counters are written when a process ends by
// exit(). These stand before the ways out that know nothing of it (linked by --wrap).
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <iterator>

extern "C" {

void __gcov_dump();
void __gcov_reset();

[[noreturn]] void __real__exit(int status);
int __real_execvp(const char *file, char *const arguments[]);

// Tells whom it is traced by that the next calls write counters, or that they are over: see
// COUNTERS_MARK in tests/faults/trace.cpp. The call only fails.
static void tell_tracer(bool is_writing) {
    constexpr long COUNTERS_MARK = 0x7b78;
    syscall(SYS_getpriority, COUNTERS_MARK, static_cast<long>(is_writing));
}

// Tests leave some processes no room for files, which the counters are written to, or memory.
static void __attribute__((destructor)) give_room() {
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    const rlimit many = {1024, 1024};
    tell_tracer(true);
    prctl(PR_SET_PDEATHSIG, 0); // half a file of counters spoils those of every other process
    setrlimit(RLIMIT_FSIZE, &none);
    setrlimit(RLIMIT_AS, &none);
    setrlimit(RLIMIT_NOFILE, &many);
}

[[noreturn]] void __wrap__exit(int status) {
    give_room();
    __gcov_dump();
    __real__exit(status);
}

int __wrap_execvp(const char *file, char *const arguments[]) {
    tell_tracer(true);
    __gcov_dump();
    __gcov_reset(); // where exec fails, the process goes on counting
    tell_tracer(false);
    return __real_execvp(file, arguments);
}

// For execl() too: the paths that it is given have a slash, and are not searched for.
int __wrap_execlp(const char *file, const char *first, ...) {
    char *list[32] = {const_cast<char *>(first)};
    va_list arguments;
    va_start(arguments, first);
    for (size_t i = 1; list[i - 1] != nullptr && i < std::size(list) - 1; i++)
        list[i] = va_arg(arguments, char *);
    va_end(arguments);
    return __wrap_execvp(file, list);
}

int __wrap_execl(const char *file, const char *first, ...) __attribute__((alias("__wrap_execlp")));

} // extern "C"
