/* Tests only: preloaded into a run of the real nxindexer, it fails one call of a family of C library file
 * operations the way the real fault does, or kills the process there, and can trace every such call.
 *
 *   NXFAULT_FAMILY  open (for writing) | write | close (of what was open for writing) | read | rename | unlink |
 *                   mkdir | sync; the failure's errno is
 *                   ENOSPC for open, write and close, EIO for read, rename and sync, EACCES for unlink and mkdir
 *   NXFAULT_NTH     fail the N-th call of the family (1-based); 0 or unset: every call
 *   NXFAULT_MATCH   count only calls whose path (or the fd's path) contains this text
 *   NXFAULT_SKIP    never count calls whose path contains one of these ':'-separated texts (e.g. "/logs/:/proc/")
 *   NXFAULT_ACTION  fail (default) | kill (SIGKILL at that call) | powercut (a kill that first removes every directory
 *                   this run created whose entry its parent has not been synced to since, as a power cut may drop it)
 *   NXFAULT_DROP    with powercut, drop only such directories whose path contains one of these ':'-separated texts
 *   NXFAULT_TRACE   file that gets one line per call of any family: "<family> <path>"
 *   NXFAULT_COUNT   file that gets "<calls> <failed>" of the family at exit, followed by " <path>" of the failed call
 *                   when one failed; with a kill it gets "<calls> killed <path>" just before the kill
 *
 * read covers read, pread and fread; a failed fread or fwrite sets the stream's error indicator as the real one does.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const char* const kFamilies[] = {"open", "write", "close", "read", "rename", "unlink", "mkdir", "sync"};
enum { OPEN, WRITE, CLOSE, READ, RENAME, UNLINK, MKDIR, SYNC };
static const int kErrno[] = {ENOSPC, ENOSPC, ENOSPC, EIO, EIO, EACCES, EACCES, EIO};

static int g_family = -1, g_kill, g_powerCut;
static long g_nth, g_calls, g_failed;
static char g_failedPath[4096]; /* the call that failed, for NXFAULT_COUNT */
static __thread int g_inside; /* our own calls are not counted */

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

__attribute__((constructor)) static void setUp(void)
{
    const char *family = getenv("NXFAULT_FAMILY"), *action = getenv("NXFAULT_ACTION");
    for (int i = 0; family && i < 8; ++i)
        if (strcmp(family, kFamilies[i]) == 0)
            g_family = i;
    g_nth = getenv("NXFAULT_NTH") ? atol(getenv("NXFAULT_NTH")) : 0;
    g_powerCut = action && strcmp(action, "powercut") == 0;
    g_kill = g_powerCut || (action && strcmp(action, "kill") == 0);
}

/* Writes to the file that variable names, if any, with the C library's own calls; g_inside stays set, so that nothing
 * after the count at exit or at a kill is counted, and the trace resets it. */
static void put(const char* variable, int flags, const char* format, ...)
{
    const char* path = getenv(variable);
    g_inside = 1;
    const int fd = path ? REAL(open)(path, O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0644) : -1;
    if (fd >= 0) {
        va_list args;
        va_start(args, format);
        vdprintf(fd, format, args);
        va_end(args);
        REAL(close)(fd);
    }
}
__attribute__((destructor)) static void tearDown(void)
{
    put("NXFAULT_COUNT", O_TRUNC, "%ld %ld%s%s\n", g_calls, g_failed, g_failed ? " " : "", g_failedPath);
}

static void fdPath(int fd, char* path, size_t size)
{
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = readlink(link, path, size - 1);
    path[n > 0 ? n : 0] = '\0';
}

/* True when path contains one of the ':'-separated texts of list. */
static int listed(const char* list, const char* path)
{
    for (const char* text = list; path && text && *text;) {
        const char* end = strchr(text, ':');
        const size_t length = end ? (size_t)(end - text) : strlen(text);
        if (length > 0 && memmem(path, strlen(path), text, length))
            return 1;
        text = end ? end + 1 : NULL;
    }
    return 0;
}

/* Directories made by this run, and whether their entry is on disk yet. */
static struct {
    char path[1024];
    int durable;
} g_made[256];
static int g_madeCount;

static int removeEntry(const char* path, const struct stat* info, int type, struct FTW* walk)
{
    (void)info, (void)type, (void)walk;
    REAL(remove)(path);
    return 0;
}

/* True when this call is to fail (errno is then set); kills when asked to. */
static int fault(int family, const char* path, const char* to)
{
    if (g_inside)
        return 0;
    const int saved = errno;
    put("NXFAULT_TRACE", O_APPEND, "%s %s%s%s\n", kFamilies[family], path, to ? " " : "", to ? to : "");
    g_inside = 0;
    errno = saved;
    const char *match = getenv("NXFAULT_MATCH"), *skip = getenv("NXFAULT_SKIP");
    if (family != g_family || (match && !strstr(path, match) && !(to && strstr(to, match))))
        return 0;
    if (listed(skip, path) || listed(skip, to) || (++g_calls != g_nth && g_nth != 0))
        return 0;
    snprintf(g_failedPath, sizeof g_failedPath, "%s%s%s", path, to ? " " : "", to ? to : "");
    if (g_kill) {
        put("NXFAULT_COUNT", O_TRUNC, "%ld killed %s\n", g_calls, g_failedPath);
        for (int i = g_madeCount - 1; g_powerCut && i >= 0; --i)
            if (!g_made[i].durable && (!getenv("NXFAULT_DROP") || listed(getenv("NXFAULT_DROP"), g_made[i].path)))
                nftw(g_made[i].path, removeEntry, 16, FTW_DEPTH | FTW_PHYS);
        raise(SIGKILL);
    }
    ++g_failed;
    errno = kErrno[family];
    return 1;
}

/* Regular files only (and directories being synced): pipes and terminals pass. */
static int faultFd(int family, int fd)
{
    struct stat info;
    char path[4096];
    if (g_inside || (family != g_family && !getenv("NXFAULT_TRACE")) || fstat(fd, &info) != 0 ||
        !(S_ISREG(info.st_mode) || (family == SYNC && S_ISDIR(info.st_mode))))
        return 0;
    fdPath(fd, path, sizeof path);
    return fault(family, path, NULL);
}
static int faultStream(int family, FILE* stream)
{
    if (!faultFd(family, fileno(stream)))
        return 0;
    stream->_flags |= _IO_ERR_SEEN;
    return 1;
}

#define OPEN_WRAPPER(name, call, ...)                                                                \
    int name(__VA_ARGS__, int flags, ...)                                                            \
    {                                                                                                \
        va_list args;                                                                                \
        va_start(args, flags);                                                                       \
        mode_t mode = (flags & (O_CREAT | O_TMPFILE)) ? va_arg(args, mode_t) : 0;                    \
        va_end(args);                                                                                \
        if ((flags & (O_WRONLY | O_RDWR | O_CREAT | O_TRUNC | O_APPEND)) && fault(OPEN, path, NULL)) \
            return -1;                                                                               \
        return REAL(name) call;                                                                      \
    }
OPEN_WRAPPER(open, (path, flags, mode), const char* path)
OPEN_WRAPPER(open64, (path, flags, mode), const char* path)
OPEN_WRAPPER(openat, (dirfd, path, flags, mode), int dirfd, const char* path)
OPEN_WRAPPER(openat64, (dirfd, path, flags, mode), int dirfd, const char* path)
/* name(params) returns failed when faulty holds, else what the C library's name returns; the checked forms are the
 * ones a program built with _FORTIFY_SOURCE calls. */
#define WRAP(type, name, failed, faulty, params, args) \
    type name params { return (faulty) ? failed : ((type(*) params)dlsym(RTLD_NEXT, #name))args; }
#define OPENS(mode) (strpbrk(mode, "wa+") && fault(OPEN, path, NULL))
WRAP(FILE*, fopen, NULL, OPENS(mode), (const char* path, const char* mode), (path, mode))
WRAP(FILE*, fopen64, NULL, OPENS(mode), (const char* path, const char* mode), (path, mode))
WRAP(ssize_t, write, -1, faultFd(WRITE, fd), (int fd, const void* data, size_t size), (fd, data, size))
WRAP(size_t, fwrite, 0, faultStream(WRITE, stream), (const void* data, size_t size, size_t count, FILE* stream),
     (data, size, count, stream))
WRAP(ssize_t, read, -1, faultFd(READ, fd), (int fd, void* data, size_t size), (fd, data, size))
WRAP(ssize_t, pread, -1, faultFd(READ, fd), (int fd, void* data, size_t size, off_t at), (fd, data, size, at))
WRAP(ssize_t, pread64, -1, faultFd(READ, fd), (int fd, void* data, size_t size, off64_t at), (fd, data, size, at))
WRAP(size_t, fread, 0, faultStream(READ, stream), (void* data, size_t size, size_t count, FILE* stream),
     (data, size, count, stream))
WRAP(ssize_t, __read_chk, -1, faultFd(READ, fd), (int fd, void* data, size_t size, size_t room), (fd, data, size, room))
WRAP(ssize_t, __pread_chk, -1, faultFd(READ, fd), (int fd, void* data, size_t size, off_t at, size_t room),
     (fd, data, size, at, room))
WRAP(ssize_t, __pread64_chk, -1, faultFd(READ, fd), (int fd, void* data, size_t size, off64_t at, size_t room),
     (fd, data, size, at, room))
WRAP(size_t, __fread_chk, 0, faultStream(READ, stream),
     (void* data, size_t room, size_t size, size_t count, FILE* stream), (data, room, size, count, stream))
WRAP(int, rename, -1, fault(RENAME, from, to), (const char* from, const char* to), (from, to))
WRAP(int, renameat, -1, fault(RENAME, from, to), (int fromDir, const char* from, int toDir, const char* to),
     (fromDir, from, toDir, to))
WRAP(int, renameat2, -1, fault(RENAME, from, to),
     (int fromDir, const char* from, int toDir, const char* to, unsigned flags), (fromDir, from, toDir, to, flags))
WRAP(int, unlink, -1, fault(UNLINK, path, NULL), (const char* path), (path))
WRAP(int, unlinkat, -1, fault(UNLINK, path, NULL), (int dirfd, const char* path, int flags), (dirfd, path, flags))
WRAP(int, remove, -1, fault(UNLINK, path, NULL), (const char* path), (path))
WRAP(int, fdatasync, -1, faultFd(SYNC, fd), (int fd), (fd))

/* A failing close of what was open for writing loses what was still buffered, as a full disk does; the stream or
 * descriptor is gone all the same, as on Linux. */
static int closeFails(FILE* stream, int fd)
{
    const int flags = stream ? 0 : fcntl(fd, F_GETFL);
    if ((stream ? !__fwritable(stream) : flags < 0 || (flags & O_ACCMODE) == O_RDONLY) || !faultFd(CLOSE, fd))
        return 0;
    if (stream)
        __fpurge(stream);
    stream ? REAL(fclose)(stream) : REAL(close)(fd);
    errno = kErrno[CLOSE];
    return 1;
}
WRAP(int, fclose, EOF, closeFails(stream, fileno(stream)), (FILE * stream), (stream))
WRAP(int, close, -1, closeFails(NULL, fd), (int fd), (fd))

int mkdir(const char* path, mode_t mode)
{
    const int result = fault(MKDIR, path, NULL) ? -1 : REAL(mkdir)(path, mode);
    char* real = result == 0 && g_madeCount < 256 ? realpath(path, NULL) : NULL;
    if (result == 0 && g_madeCount < 256)
        snprintf(g_made[g_madeCount++].path, sizeof g_made[0].path, "%s", real ? real : path);
    free(real);
    return result;
}
/* A synced directory holds the entries of the directories made in it for good. */
int fsync(int fd)
{
    const int result = faultFd(SYNC, fd) ? -1 : REAL(fsync)(fd);
    struct stat info;
    char dir[4096];
    if (result != 0 || fstat(fd, &info) != 0 || !S_ISDIR(info.st_mode))
        return result;
    fdPath(fd, dir, sizeof dir);
    const size_t n = strlen(dir);
    for (int i = 0; i < g_madeCount; ++i) {
        const char* slash = strrchr(g_made[i].path, '/');
        if (slash && (size_t)(slash - g_made[i].path) == (n == 1 ? 0 : n) && strncmp(g_made[i].path, dir, n) == 0)
            g_made[i].durable = 1;
    }
    return result;
}
