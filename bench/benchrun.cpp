// nxbenchrun RESULT [NAME=VALUE]... -- PROGRAM [ARG]...: runs the program with
// the pairs added to its environment, stdout to /dev/null, and writes to RESULT
// status (the wait status), wall_ns, user_us, sys_us, maxrss_kib and the lines
// of /proc/<pid>/io, read once it has exited, before it is reaped. A program's
// peak RSS counts the pages it shared with the process that forked it, so the
// benchmark forks every program from this small process (C library only).
// Exit status: 0 when RESULT was written, 2 otherwise.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

long long nanoseconds(const timespec& t) { return t.tv_sec * 1000000000LL + t.tv_nsec; }
long long microseconds(const timeval& t) { return t.tv_sec * 1000000LL + t.tv_usec; }

int fail(const char* what)
{
    std::fprintf(stderr, "nxbenchrun: %s: %s\n", what, std::strerror(errno));
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    int separator = 2;
    while (separator < argc && std::strcmp(argv[separator], "--") != 0 && std::strchr(argv[separator], '='))
        ++separator;
    if (argc < 4 || separator + 1 >= argc || std::strcmp(argv[separator], "--") != 0) {
        std::fputs("usage: nxbenchrun RESULT [NAME=VALUE]... -- PROGRAM [ARG]...\n", stderr);
        return 2;
    }
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t pid = fork();
    if (pid < 0)
        return fail("fork");
    if (pid == 0) {
        for (int i = 2; i < separator; ++i)
            putenv(argv[i]);
        const int devNull = open("/dev/null", O_WRONLY);
        if (devNull >= 0)
            dup2(devNull, STDOUT_FILENO);
        execv(argv[separator + 1], argv + separator + 1);
        _exit(fail(argv[separator + 1]) + 125);
    }
    siginfo_t info;
    while (waitid(P_PID, pid_t(pid), &info, WEXITED | WNOWAIT) != 0)
        if (errno != EINTR)
            return fail("waitid");
    clock_gettime(CLOCK_MONOTONIC, &end);
    char path[64], io[1024];
    std::snprintf(path, sizeof path, "/proc/%d/io", int(pid));
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    const ssize_t got = fd >= 0 ? read(fd, io, sizeof io - 1) : -1;
    io[got > 0 ? got : 0] = '\0';
    if (fd >= 0)
        close(fd);
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid)
        return fail("wait4");
    FILE* result = std::fopen(argv[1], "w");
    if (!result)
        return fail(argv[1]);
    std::fprintf(result, "status %d\nwall_ns %lld\nuser_us %lld\nsys_us %lld\nmaxrss_kib %ld\n%s", status,
                 nanoseconds(end) - nanoseconds(start), microseconds(usage.ru_utime), microseconds(usage.ru_stime),
                 usage.ru_maxrss, io);
    return std::fclose(result) == 0 ? 0 : fail(argv[1]);
}
