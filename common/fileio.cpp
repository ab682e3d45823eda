#include "fileio.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fileio {

namespace {

// open(2) flags for an fopen mode; truncation is done after the open, once
// the entry is known to be a regular file.
int openFlags(const char* mode, bool* truncate)
{
    const bool update = std::strchr(mode, '+') != nullptr;
    *truncate = mode[0] == 'w';
    switch (mode[0]) {
    case 'r': return update ? O_RDWR : O_RDONLY;
    case 'w': return (update ? O_RDWR : O_WRONLY) | O_CREAT;
    case 'a': return (update ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
    default: return -1;
    }
}

// errno for an entry that is not a regular file.
int specialEntryError(mode_t mode) { return S_ISDIR(mode) ? EISDIR : EINVAL; }

// Closes fd keeping the errno of the failure that made us give up.
void closeKeepingErrno(int fd)
{
    const int err = errno;
    ::close(fd);
    errno = err;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = ENOSPC;
            return false;
        }
        data += written;
        size -= size_t(written);
    }
    return true;
}

// Creates the new file beside path under its one fixed name: whatever a
// killed save left there (or a link planted there) is removed first, so
// nothing piles up and nothing is written through a link.
int createSibling(const QByteArray& path, mode_t mode, QByteArray* name)
{
    *name = path + ".new";
    ::unlink(name->constData());
    return ::open(name->constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
}

// open(2) without following a link and without waiting on a FIFO, then only
// a regular file is kept: -1 with errno set otherwise.
int openRegular(const char* path, int flags, struct stat* info)
{
    const int fd = ::open(path, flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kFileMode);
    if (fd < 0)
        return -1;
    if (::fstat(fd, info) != 0) {
        closeKeepingErrno(fd);
        return -1;
    }
    if (!S_ISREG(info->st_mode)) {
        ::close(fd);
        errno = specialEntryError(info->st_mode);
        return -1;
    }
    return fd;  // O_NONBLOCK means nothing for a regular file
}

// A file that another user owns, or that has other names, is not truncated
// and reused: it is removed and a new file of the program's own is made.
bool isOwnFile(const struct stat& info) { return info.st_uid == ::geteuid() && info.st_nlink == 1; }

int replaceByOwnFile(int fd, const char* path, int flags, struct stat* info)
{
    ::close(fd);
    if (::unlink(path) != 0)
        return -1;
    return openRegular(path, flags | O_CREAT | O_EXCL, info);
}

// A file the program writes gets the fixed mode when it is made anew
// (truncated); one it adds to keeps a stricter mode, but loses setuid, setgid
// and every write bit but its owner's.
bool fixMode(int fd, const struct stat& info, bool truncate)
{
    const mode_t mode = info.st_mode & 07777, wanted = truncate ? kFileMode : mode & kFileMode;
    return mode == wanted || ::fchmod(fd, wanted) == 0;
}

}  // namespace

FILE* openFile(const char* path, const char* mode)
{
    bool truncate = false;
    const int flags = openFlags(mode, &truncate);
    if (flags < 0) {
        errno = EINVAL;
        return nullptr;
    }
    struct stat info;
    int fd = openRegular(path, flags, &info);
    if (fd >= 0 && truncate && !isOwnFile(info))
        fd = replaceByOwnFile(fd, path, flags, &info);
    if (fd < 0)
        return nullptr;
    const bool writes = (flags & (O_WRONLY | O_RDWR)) != 0;
    if ((writes && !fixMode(fd, info, truncate)) || (truncate && info.st_size != 0 && ::ftruncate(fd, 0) != 0)) {
        closeKeepingErrno(fd);
        return nullptr;
    }
    FILE* file = ::fdopen(fd, mode);
    if (!file)
        closeKeepingErrno(fd);
    return file;
}

int openForReading(const char* path, qint64* size)
{
    struct stat info;
    const int fd = openRegular(path, O_RDONLY, &info);
    if (fd >= 0)
        *size = info.st_size;
    return fd;
}

size_t readUpTo(int fd, void* buffer, size_t length, qint64 offset)
{
    size_t got = 0;
    while (got < length) {
        const ssize_t n = ::pread(fd, static_cast<char*>(buffer) + got, length - got, off_t(offset) + off_t(got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += size_t(n);
    }
    return got;
}

bool readAt(int fd, void* buffer, size_t length, qint64 offset) { return readUpTo(fd, buffer, length, offset) == length; }

void closeFd(int fd) { ::close(fd); }

bool syncFile(FILE* file) { return std::fflush(file) == 0 && ::fdatasync(fileno(file)) == 0; }

bool syncDirectory(const QString& directory)
{
    const int fd = ::open(directory.toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    if (::fsync(fd) != 0) {
        closeKeepingErrno(fd);
        return false;
    }
    return ::close(fd) == 0;
}

bool makeDirectory(const QString& path) { return ::mkdir(path.toUtf8().constData(), kDirectoryMode) == 0; }

QString parentDirectory(const QString& path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith('/'))
        trimmed.chop(1);
    const int slash = trimmed.lastIndexOf('/');
    return slash < 0 ? QString(".") : slash == 0 ? QString("/") : trimmed.left(slash);
}

bool privateDirectory(const QString& path)
{
    const QByteArray name = path.toUtf8();
    if (::mkdir(name.constData(), 0700) == 0)
        return true;
    struct stat info;
    if (errno != EEXIST || ::lstat(name.constData(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() || (info.st_mode & 077) != 0) {
        errno = EPERM;
        return false;
    }
    return true;
}

int lockDirectory(const QString& path)
{
    const int fd = ::open(path.toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        closeKeepingErrno(fd);
        return -1;
    }
    return fd;
}

bool exists(const char* path) { return path[0] != '\0' && ::access(path, F_OK) == 0; }

bool isSpecialEntry(const QString& path)
{
    struct stat info;
    return ::lstat(path.toUtf8().constData(), &info) == 0 && !S_ISREG(info.st_mode);
}

std::optional<QByteArray> readAll(const QString& path, qint64 maxSize)
{
    FILE* file = openFile(path.toUtf8().constData(), "rb");
    if (!file)
        return std::nullopt;
    struct stat info;
    std::optional<QByteArray> bytes;
    if (::fstat(fileno(file), &info) != 0) {
        // errno says why
    } else if (info.st_size > maxSize) {
        errno = EFBIG;
    } else {
        QByteArray data(int(info.st_size), '\0');
        // Fewer bytes than the file held, even without an error, is not its
        // contents: a save made from them would drop the rest.
        if (std::fread(data.data(), 1, size_t(data.size()), file) != size_t(data.size()))
            errno = EIO;
        else
            bytes = data;
    }
    const int err = errno;
    std::fclose(file);
    errno = err;
    return bytes;
}

bool replaceContents(const QString& path, const QByteArray& bytes)
{
    const QByteArray target = path.toUtf8();
    struct stat info;
    if (::lstat(target.constData(), &info) == 0) {
        if (!S_ISREG(info.st_mode)) {
            errno = S_ISLNK(info.st_mode) ? ELOOP : specialEntryError(info.st_mode);
            return false;
        }
    } else if (errno != ENOENT) {
        return false;
    }

    // The new file never inherits the old one's mode or owner: it is the
    // program's own, with the fixed mode.
    QByteArray sibling;
    const int fd = createSibling(target, kFileMode, &sibling);
    if (fd < 0)
        return false;
    bool written = ::fchmod(fd, kFileMode) == 0 && writeAll(fd, bytes.constData(), size_t(bytes.size())) &&
                   ::fdatasync(fd) == 0;
    if (written) {
        written = ::close(fd) == 0;
    } else {
        closeKeepingErrno(fd);
    }
    if (!written || ::rename(sibling.constData(), target.constData()) != 0) {
        const int err = errno;
        ::unlink(sibling.constData());
        errno = err;
        return false;
    }
    return true;
}

bool writeNewFile(const QString& path, const QByteArray& bytes)
{
    const int fd = ::open(path.toUtf8().constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    if (!writeAll(fd, bytes.constData(), size_t(bytes.size()))) {
        closeKeepingErrno(fd);
        return false;
    }
    return ::close(fd) == 0;
}

bool renameFile(const QString& source, const QString& destination)
{
    return ::rename(source.toUtf8().constData(), destination.toUtf8().constData()) == 0;
}

bool sameFile(const QString& first, const QString& second)
{
    struct stat a, b;
    return ::stat(first.toUtf8().constData(), &a) == 0 && ::stat(second.toUtf8().constData(), &b) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace fileio
