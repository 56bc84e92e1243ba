// Preloaded into every program of the armhf root (scripts/setup-armhf).
// qemu-user 7.2 refuses clone(CLONE_PIDFD), which QProcess uses once
// waitid(P_PIDFD) shows that the kernel has pidfds; answering as a kernel
// without them makes QProcess start its programs with a plain fork.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

int waitid(idtype_t idtype, id_t id, siginfo_t* info, int options) {
    static int (*real)(idtype_t, id_t, siginfo_t*, int);
    if ((int)idtype == P_PIDFD) {
        errno = EINVAL;
        return -1;
    }
    if (!real)
        real = (int (*)(idtype_t, id_t, siginfo_t*, int))dlsym(RTLD_NEXT, "waitid");
    return real(idtype, id, info, options);
}

// Words are passed on as they came, so every argument keeps its register.
long syscall(long number, ...) {
    static long (*real)(long, ...);
    long a[6];
    va_list ap;
    va_start(ap, number);
    for (int i = 0; i < 6; ++i)
        a[i] = va_arg(ap, long);
    va_end(ap);
    if (number == SYS_waitid && a[0] == P_PIDFD) {
        errno = EINVAL;
        return -1;
    }
    if (!real)
        real = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}
