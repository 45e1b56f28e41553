// run OUTPUT COMMAND...: runs the command once, its output into the file OUTPUT, and prints
// "SECONDS CPU-SECONDS PEAK-KIB STATUS". A small program for this, because what a process took
// in memory before it became the command counts as the command's peak.
#include "floor.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

[[noreturn]] static void become_command(const char *output, char **command) {
    const int in = must(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null");
    const int out = must(open(output, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), output);
    must(dup2(in, STDIN_FILENO), "dup2");
    must(dup2(out, STDOUT_FILENO), "dup2");
    must(dup2(out, STDERR_FILENO), "dup2");
    execv(command[0], command);
    fail(command[0]);
}

static double monotonic_seconds() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

static double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: run OUTPUT COMMAND...\n");
        return 1;
    }
    const double start = monotonic_seconds();
    const pid_t child = must(fork(), "fork");
    if (child == 0)
        become_command(argv[1], argv + 2);
    int status = 0;
    rusage usage = {};
    must(wait4(child, &status, 0, &usage), "wait4");
    const double taken = monotonic_seconds() - start;
    printf("%.6f %.6f %ld %d\n", taken, seconds(usage.ru_utime) + seconds(usage.ru_stime),
           usage.ru_maxrss, status);
    return 0;
}
