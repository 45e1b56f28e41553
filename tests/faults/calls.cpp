#include "calls.h"

#include <sys/syscall.h>

#include <algorithm>

// Whatever reaches out of the process and can fail. Not in here: clocks, identities, signals'
// handlers and memory that is given back.
static constexpr system_call CALLS[] = {
    {SYS_access, "access", names::path},
    {SYS_brk, "brk", names::nothing},
    {SYS_chdir, "chdir", names::path},
    {SYS_chmod, "chmod", names::path},
    {SYS_chown, "chown", names::path},
    {SYS_clone, "fork", names::nothing},
    {SYS_clone3, "fork", names::nothing},
    {SYS_close, "close", names::fd},
    {SYS_connect, "connect", names::fd},
    {SYS_dup, "dup", names::fd},
    {SYS_dup2, "dup2", names::fd},
    {SYS_execve, "execve", names::path},
    {SYS_fchmod, "fchmod", names::fd},
    {SYS_fchown, "fchown", names::fd},
    {SYS_fchownat, "fchown", names::fd}, // of an open directory
    {SYS_fcntl, "fcntl", names::fd},
    {SYS_fdatasync, "fdatasync", names::fd},
    {SYS_flock, "flock", names::fd},
    {SYS_fork, "fork", names::nothing},
    {SYS_fstat, "fstat", names::fd},
    {SYS_fsync, "fsync", names::fd},
    {SYS_ftruncate, "ftruncate", names::fd},
    {SYS_getdents64, "getdents64", names::fd},
    {SYS_kill, "kill", names::nothing},
    {SYS_lchown, "lchown", names::path},
    {SYS_link, "link", names::two_paths},
    {SYS_linkat, "link", names::two_at},
    {SYS_lseek, "lseek", names::fd},
    {SYS_lstat, "lstat", names::path},
    {SYS_mkdir, "mkdir", names::path},
    {SYS_mkdirat, "mkdir", names::at},
    {SYS_mmap, "mmap", names::mapped},
    {SYS_newfstatat, "newfstatat", names::at},
    {SYS_open, "open", names::path},
    {SYS_openat, "openat", names::at},
    {SYS_openat2, "openat2", names::at},
    {SYS_pidfd_open, "pidfd_open", names::nothing},
    {SYS_pipe2, "pipe2", names::nothing},
    {SYS_poll, "poll", names::polled},
    {SYS_prctl, "prctl", names::nothing},
    {SYS_pread64, "pread64", names::fd},
    {SYS_pwrite64, "pwrite64", names::fd},
    {SYS_read, "read", names::fd},
    {SYS_readlink, "readlink", names::path},
    {SYS_rename, "rename", names::two_paths},
    {SYS_renameat, "rename", names::two_at},
    {SYS_renameat2, "rename", names::two_at},
    {SYS_rmdir, "rmdir", names::path},
    {SYS_sendmsg, "sendmsg", names::fd},
    {SYS_sendto, "sendto", names::fd},
    {SYS_setgroups, "setgroups", names::nothing},
    {SYS_setresgid, "setresgid", names::nothing},
    {SYS_setresuid, "setresuid", names::nothing},
    {SYS_socket, "socket", names::nothing},
    {SYS_stat, "stat", names::path},
    {SYS_statx, "statx", names::at},
    {SYS_symlink, "symlink", names::two_paths},
    {SYS_sync, "sync", names::nothing},
    {SYS_syncfs, "syncfs", names::fd},
    {SYS_unlink, "unlink", names::path},
    {SYS_unlinkat, "unlinkat", names::at},
    {SYS_utimensat, "utimensat", names::at},
    {SYS_vfork, "fork", names::nothing},
    {SYS_wait4, "wait4", names::nothing},
    {SYS_write, "write", names::fd},
    {SYS_writev, "writev", names::fd},
};

const system_call *find_call(long number) {
    const auto *found = std::find_if(std::begin(CALLS), std::end(CALLS),
                                     [number](const auto &call) { return call.number == number; });
    return found == std::end(CALLS) ? nullptr : found;
}
