#include "apps/korvane-preview/Confinement.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace korvane {

namespace {

#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
constexpr rlim_t mostMemory = rlim_t(2) << 30; // bytes
#endif
constexpr rlim_t mostFiles = 256;
constexpr rlim_t mostSeconds = 10;

#if defined(__x86_64__)
constexpr unsigned machine = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned machine = AUDIT_ARCH_AARCH64;
#else
constexpr unsigned machine = 0; // its calls are not known: no filter
#endif

void limit(__rlimit_resource what, rlim_t most)
{
    const rlimit both{most, most};
    ::setrlimit(what, &both);
}

constexpr sock_filter load(std::size_t offset) { return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, unsigned(offset)); }
constexpr sock_filter give(unsigned verdict) { return BPF_STMT(BPF_RET | BPF_K, verdict); }
constexpr unsigned refused = SECCOMP_RET_ERRNO | EPERM;

/// `verdict` for one call.
#define KORVANE_CALL(number, verdict) BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1), give(verdict)

void filterCalls()
{
    const sock_filter program[] = {
        load(offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, machine, 1, 0),
        give(SECCOMP_RET_KILL_PROCESS),
        load(offsetof(seccomp_data, nr)),
        KORVANE_CALL(__NR_socket, refused),
        KORVANE_CALL(__NR_connect, refused),
        KORVANE_CALL(__NR_execve, refused),
        KORVANE_CALL(__NR_execveat, refused),
        KORVANE_CALL(__NR_ptrace, refused),
        KORVANE_CALL(__NR_process_vm_readv, refused),
        KORVANE_CALL(__NR_process_vm_writev, refused),
        KORVANE_CALL(__NR_kill, refused),
        KORVANE_CALL(__NR_unlinkat, refused),
        KORVANE_CALL(__NR_renameat2, refused),
        KORVANE_CALL(__NR_mkdirat, refused),
        KORVANE_CALL(__NR_linkat, refused),
        KORVANE_CALL(__NR_symlinkat, refused),
        KORVANE_CALL(__NR_truncate, refused),
        KORVANE_CALL(__NR_fchmodat, refused),
#if defined(__x86_64__)
        KORVANE_CALL(__NR_fork, refused),
        KORVANE_CALL(__NR_vfork, refused),
        KORVANE_CALL(__NR_open, refused),
        KORVANE_CALL(__NR_creat, refused),
        KORVANE_CALL(__NR_unlink, refused),
        KORVANE_CALL(__NR_rename, refused),
        KORVANE_CALL(__NR_renameat, refused),
        KORVANE_CALL(__NR_mkdir, refused),
        KORVANE_CALL(__NR_rmdir, refused),
        KORVANE_CALL(__NR_link, refused),
        KORVANE_CALL(__NR_symlink, refused),
        KORVANE_CALL(__NR_chmod, refused),
#endif
        // Its flags lie behind a pointer, which no filter follows; the C library then takes `openat`.
        KORVANE_CALL(437 /* openat2 */, SECCOMP_RET_ERRNO | ENOSYS),
        // Files are opened for reading only.
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
        load(offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_WRONLY | O_RDWR | O_CREAT | O_TRUNC, 0, 1),
        give(refused),
        give(SECCOMP_RET_ALLOW),
    };
    const sock_fprog filter{sizeof program / sizeof program[0], const_cast<sock_filter *>(program)};
    ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter);
}

#undef KORVANE_CALL

} // namespace

void confine()
{
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    ::prctl(PR_SET_DUMPABLE, 0);
    limit(RLIMIT_CORE, 0);
    limit(RLIMIT_FSIZE, 0);
    limit(RLIMIT_NOFILE, mostFiles);
#if !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer)
    limit(RLIMIT_AS, mostMemory); // sanitizers reserve far more than they use
#endif
    if (machine)
        filterCalls();
}

void allowProcessorTime()
{
    rusage used{};
    ::getrusage(RUSAGE_SELF, &used);
    const rlimit more{rlim_t(used.ru_utime.tv_sec + used.ru_stime.tv_sec) + 1 + mostSeconds, RLIM_INFINITY};
    ::setrlimit(RLIMIT_CPU, &more);
}

} // namespace korvane
