#include "fileio.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fileio {

namespace {

QString named(const char* action, const QByteArray& path) { return QString(action) + " " + QString::fromUtf8(path); }

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

bool sameTime(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

FileIdentity identityFrom(const struct stat& info)
{
    return {info.st_dev, info.st_ino, info.st_size, info.st_mtim, info.st_ctim};
}

// errno for an entry that is not a regular file.
int specialEntryError(mode_t mode) { return S_ISLNK(mode) ? ELOOP : S_ISDIR(mode) ? EISDIR : EINVAL; }

// A failure of the call just made, with fd closed.
Status failedClosing(int fd, const char* action, const QByteArray& path)
{
    const Status status = Status::fromErrno(named(action, path));
    ::close(fd);
    return status;
}

Status writeAllTo(int fd, const char* data, size_t size, const QByteArray& path)
{
    while (size > 0) {
        const ssize_t written = ::write(fd, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return Status::fromErrno(named("write", path));
        if (written == 0)
            return Status::error(ENOSPC, named("write", path));
        data += written;
        size -= size_t(written);
    }
    return Status::ok();
}

// open(2) without following a link and without waiting on a FIFO, then only
// a regular file is kept.
Status openRegular(const QByteArray& path, int flags, int* fd, struct stat* info)
{
    *fd = ::open(path.constData(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kFileMode);
    if (*fd < 0)
        return Status::fromErrno(named("open", path));
    if (::fstat(*fd, info) != 0)
        return failedClosing(*fd, "fstat", path);
    if (!S_ISREG(info->st_mode)) {
        ::close(*fd);
        return Status::error(specialEntryError(info->st_mode), named("open (not a regular file)", path));
    }
    return Status::ok();  // O_NONBLOCK means nothing for a regular file
}

// A file that another user owns, or that has other names, is not truncated
// and reused: it is removed and a new file of the program's own is made.
bool isOwnFile(const struct stat& info)
{
    static const uid_t user = ::geteuid();  // the program never changes it
    return info.st_uid == user && info.st_nlink == 1;
}

Status replaceByOwnFile(int* fd, const QByteArray& path, int flags, struct stat* info)
{
    ::close(*fd);
    if (::unlink(path.constData()) != 0)
        return Status::fromErrno(named("unlink", path));
    return openRegular(path, flags | O_CREAT | O_EXCL, fd, info);
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

Status openDescriptor(const char* path, const char* mode, int* fd, qint64* size)
{
    *fd = -1;
    const QByteArray name(path);
    bool truncate = false;
    const int flags = openFlags(mode, &truncate);
    if (flags < 0)
        return Status::error(EINVAL, named("open (bad mode)", name));
    struct stat info;
    Status status = openRegular(name, flags, fd, &info);
    if (status.isOk() && truncate && !isOwnFile(info))
        status = replaceByOwnFile(fd, name, flags, &info);
    if (!status.isOk())
        return status;
    const bool writes = (flags & (O_WRONLY | O_RDWR)) != 0;
    if (writes && !fixMode(*fd, info, truncate))
        return failedClosing(*fd, "fchmod", name);
    if (truncate && info.st_size != 0 && ::ftruncate(*fd, 0) != 0)
        return failedClosing(*fd, "ftruncate", name);
    *size = truncate ? 0 : info.st_size;
    return Status::ok();
}

Status openFile(const char* path, const char* mode, FILE** file)
{
    *file = nullptr;
    int fd = -1;
    qint64 size = 0;
    const Status status = openDescriptor(path, mode, &fd, &size);
    if (!status.isOk())
        return status;
    *file = ::fdopen(fd, mode);
    return *file ? Status::ok() : failedClosing(fd, "fdopen", QByteArray(path));
}

Status syncFile(FILE* file)
{
    if (std::fflush(file) != 0)
        return Status::fromErrno("write (flush)");
    return ::fdatasync(fileno(file)) == 0 ? Status::ok() : Status::fromErrno("fdatasync");
}

Status writeAll(int fd, const void* data, size_t size)
{
    return writeAllTo(fd, static_cast<const char*>(data), size, "(descriptor)");
}

Status openForReading(const char* path, int* fd, qint64* size)
{
    struct stat info;
    const Status status = openRegular(QByteArray(path), O_RDONLY, fd, &info);
    if (status.isOk())
        *size = info.st_size;
    return status;
}

Status readAt(int fd, void* buffer, size_t length, qint64 offset, size_t* got)
{
    *got = 0;
    while (*got < length) {
        const ssize_t n = ::pread(fd, static_cast<char*>(buffer) + *got, length - *got, off_t(offset) + off_t(*got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return Status::fromErrno("pread");
        if (n == 0)
            break;
        *got += size_t(n);
    }
    return Status::ok();
}

void closeFd(int fd) { ::close(fd); }

Status readAll(const QString& path, qint64 maxSize, QByteArray* contents)
{
    const QByteArray name = path.toUtf8();
    FILE* file = nullptr;
    Status status = openFile(name.constData(), "rb", &file);
    if (!status.isOk())
        return status;
    struct stat info;
    if (::fstat(fileno(file), &info) != 0) {
        status = Status::fromErrno(named("fstat", name));
    } else if (info.st_size > maxSize) {
        status = Status::error(EFBIG, named("read (too large)", name));
    } else {
        QByteArray data(int(info.st_size), '\0');
        if (std::fread(data.data(), 1, size_t(data.size()), file) == size_t(data.size()))
            *contents = data;
        else
            status = Status::error(std::ferror(file) ? errno : EIO, named("read", name));
    }
    std::fclose(file);
    return status;
}

bool operator==(const FileIdentity& a, const FileIdentity& b)
{
    return a.device == b.device && a.inode == b.inode && a.size == b.size && sameTime(a.modified, b.modified) &&
           sameTime(a.changed, b.changed);
}

Status identityOf(const QString& path, FileIdentity* identity)
{
    const QByteArray name = path.toUtf8();
    struct stat info;
    if (::lstat(name.constData(), &info) != 0)
        return Status::fromErrno(named("lstat", name));
    if (!S_ISREG(info.st_mode))
        return Status::error(specialEntryError(info.st_mode), named("use (not a regular file)", name));
    *identity = identityFrom(info);
    return Status::ok();
}

Status replaceContents(const QString& path, const QByteArray& bytes, FileIdentity* written)
{
    FileIdentity present;
    const Status looked = identityOf(path, &present);
    if (!looked.isOk() && looked.code() != ENOENT)
        return looked;  // not a regular file, or no look possible
    return replaceRegularFile(path, bytes, written);
}

Status replaceRegularFile(const QString& path, const QByteArray& bytes, FileIdentity* written)
{
    // The new file beside the old one has one fixed name: whatever a killed
    // save left there (or a link planted there) is removed first, so nothing
    // piles up and nothing is written through a link. It never inherits the
    // old file's mode or owner.
    const QByteArray target = path.toUtf8(), sibling = target + ".new";
    ::unlink(sibling.constData());
    const int fd = ::open(sibling.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode);
    if (fd < 0)
        return Status::fromErrno(named("open", sibling));
    Status status = ::fchmod(fd, kFileMode) == 0 ? writeAllTo(fd, bytes.constData(), size_t(bytes.size()), sibling)
                                                 : Status::fromErrno(named("fchmod", sibling));
    if (status.isOk() && ::fdatasync(fd) != 0)
        status = Status::fromErrno(named("fdatasync", sibling));
    if (status.isOk() && ::rename(sibling.constData(), target.constData()) != 0)
        status = Status::fromErrno(named("rename", sibling));
    // The rename changed the file's change time: its identity is taken after it.
    struct stat info;
    if (status.isOk() && written)
        *written = ::fstat(fd, &info) == 0 ? identityFrom(info) : FileIdentity();
    if (::close(fd) != 0 && status.isOk())
        status = Status::fromErrno(named("close", sibling));
    if (!status.isOk())
        ::unlink(sibling.constData());
    return status;
}

Status writeNewFile(const QString& path, const QByteArray& bytes)
{
    const QByteArray name = path.toUtf8();
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0)
        return Status::fromErrno(named("open", name));
    Status status = writeAllTo(fd, bytes.constData(), size_t(bytes.size()), name);
    if (::close(fd) != 0 && status.isOk())
        status = Status::fromErrno(named("close", name));
    return status;
}

Status renameFile(const QString& source, const QString& destination)
{
    const QByteArray from = source.toUtf8();
    return ::rename(from.constData(), destination.toUtf8().constData()) == 0 ? Status::ok()
                                                                             : Status::fromErrno(named("rename", from));
}

Status makeDirectory(const QString& path)
{
    const QByteArray name = path.toUtf8();
    return ::mkdir(name.constData(), kDirectoryMode) == 0 ? Status::ok() : Status::fromErrno(named("mkdir", name));
}

Status syncDirectory(const QString& directory)
{
    const QByteArray name = directory.toUtf8();
    const int fd = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return Status::fromErrno(named("open", name));
    if (::fsync(fd) != 0)
        return failedClosing(fd, "fsync", name);
    return ::close(fd) == 0 ? Status::ok() : Status::fromErrno(named("close", name));
}

Status privateDirectory(const QString& path)
{
    const QByteArray name = path.toUtf8();
    if (::mkdir(name.constData(), 0700) == 0)
        return Status::ok();
    struct stat info;
    if (errno != EEXIST || ::lstat(name.constData(), &info) != 0)
        return Status::fromErrno(named("mkdir", name));
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() || (info.st_mode & 077) != 0)
        return Status::error(EPERM, named("use (not a private directory of this user)", name));
    return Status::ok();
}

Status lockDirectory(const QString& path)
{
    const QByteArray name = path.toUtf8();
    const int fd = ::open(name.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return Status::fromErrno(named("open", name));
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0)
        return failedClosing(fd, "flock", name);
    return Status::ok();  // fd stays open: the lock is held until the process ends
}

QString parentDirectory(const QString& path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith('/'))
        trimmed.chop(1);
    const int slash = trimmed.lastIndexOf('/');
    return slash < 0 ? QString(".") : slash == 0 ? QString("/") : trimmed.left(slash);
}

bool exists(const char* path) { return path[0] != '\0' && ::access(path, F_OK) == 0; }

bool isSpecialEntry(const QString& path)
{
    struct stat info;
    return ::lstat(path.toUtf8().constData(), &info) == 0 && !S_ISREG(info.st_mode);
}

}  // namespace fileio
