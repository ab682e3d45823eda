// nxbenchrun: runs one program and writes what it cost to a result file.
//
//   nxbenchrun RESULT [NAME=VALUE]... -- PROGRAM [ARG]...
//
// The NAME=VALUE pairs are added to the program's environment only. The
// result file gets one "name value" line each: status (the raw wait status),
// wall_ns, user_us, sys_us, maxrss_kib, then the program's /proc/<pid>/io
// lines (rchar, wchar, syscr, syscw, read_bytes, write_bytes, ...).
//
// The benchmark runs every measured program through this small process: a
// program's peak resident set counts the pages it shared with the process
// that forked it until it executed, so it must be forked from something
// small. The I/O counters are read after the program has exited and before
// it is reaped, when they are complete. Only the C library is used, which
// keeps this process's own resident set small.
//
// Exit status: 0 when the result was written, whatever the program's own
// status; 2 on bad arguments or when the program could not be run or measured.
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

int usage()
{
    std::fputs("usage: nxbenchrun RESULT [NAME=VALUE]... -- PROGRAM [ARG]...\n", stderr);
    return 2;
}

long long nanoseconds(const timespec& t) { return (long long)t.tv_sec * 1000000000LL + t.tv_nsec; }
long long microseconds(const timeval& t) { return (long long)t.tv_sec * 1000000LL + t.tv_usec; }

} // namespace

int main(int argc, char** argv)
{
    if (argc < 4)
        return usage();
    int separator = 2;
    while (separator < argc && std::strcmp(argv[separator], "--") != 0) {
        if (!std::strchr(argv[separator], '='))
            return usage();
        ++separator;
    }
    if (separator + 1 >= argc)
        return usage();

    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("nxbenchrun: fork");
        return 2;
    }
    if (pid == 0) {
        for (int i = 2; i < separator; ++i)
            putenv(argv[i]);
        const int devNull = open("/dev/null", O_WRONLY);
        if (devNull >= 0)
            dup2(devNull, STDOUT_FILENO);
        execv(argv[separator + 1], argv + separator + 1);
        std::fprintf(stderr, "nxbenchrun: cannot run %s: %s\n", argv[separator + 1], std::strerror(errno));
        _exit(127);
    }

    siginfo_t info;
    while (waitid(P_PID, pid_t(pid), &info, WEXITED | WNOWAIT) != 0) {
        if (errno != EINTR) {
            std::perror("nxbenchrun: waitid");
            return 2;
        }
    }
    timespec end;
    clock_gettime(CLOCK_MONOTONIC, &end);

    char ioPath[64];
    std::snprintf(ioPath, sizeof ioPath, "/proc/%d/io", int(pid));
    char io[1024] = {};
    const int ioFd = open(ioPath, O_RDONLY);
    ssize_t ioSize = ioFd >= 0 ? read(ioFd, io, sizeof io - 1) : -1;
    if (ioFd >= 0)
        close(ioFd);
    if (ioSize < 0)
        ioSize = 0;
    io[ioSize] = '\0';
    for (char* c = io; *c; ++c)
        if (*c == ':')
            *c = ' ';

    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid) {
        std::perror("nxbenchrun: wait4");
        return 2;
    }

    FILE* result = std::fopen(argv[1], "w");
    if (!result) {
        std::fprintf(stderr, "nxbenchrun: cannot write %s: %s\n", argv[1], std::strerror(errno));
        return 2;
    }
    std::fprintf(result, "status %d\nwall_ns %lld\nuser_us %lld\nsys_us %lld\nmaxrss_kib %ld\n%s", status,
                 nanoseconds(end) - nanoseconds(start), microseconds(usage.ru_utime), microseconds(usage.ru_stime),
                 usage.ru_maxrss, io);
    return std::fclose(result) == 0 ? 0 : 2;
}
