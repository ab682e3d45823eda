#ifndef NXI_FILEIO_H
#define NXI_FILEIO_H

// File access for a program that runs as root on files other components
// write: nothing is opened through a symbolic link at the last path
// component, nothing but a regular file is opened (a FIFO would block for
// ever), and what replaces a file is on disk before the rename that
// installs it. Every operation that can fail returns a Status made where the
// system call failed (ELOOP for a symbolic link); none of them logs.

#include "status.h"

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <ctime>
#include <sys/types.h>

namespace fileio {

// What tells one version of a file from another: the file itself (device and
// inode), its size, and when its data and its inode last changed. A write or
// a rename by anybody changes the times.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec modified = {};
    timespec changed = {};
};
bool operator==(const FileIdentity& a, const FileIdentity& b);

// Every file the program creates or replaces: written by its owner alone,
// read by the components that use the index. The program's own umask (022)
// leaves these modes as they are.
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;

// fopen with the stdio modes the program uses ("rb", "rb+", "wb+", "ab+",
// "a+") into *file, refusing a symbolic link or anything but a regular file.
// A file opened to be written has kFileMode when created or truncated, and no
// more than it when added to; one to be truncated that another user owns or
// that has other names is replaced by a new file.
Status openFile(const char* path, const char* mode, FILE** file);
// openFile without the stream: the descriptor in *fd and the file's size
// after the open in *size, for a writer that writes whole buffers itself.
Status openDescriptor(const char* path, const char* mode, int* fd, qint64* size);
// Flushes the stream and puts its data on disk.
Status syncFile(FILE* file);
// write(2) until every byte is written; ENOSPC when the file takes no more.
Status writeAll(int fd, const void* data, size_t size);

// open(2) for reading with the refusals of openFile: the descriptor in *fd,
// the file's size in *size.
Status openForReading(const char* path, int* fd, qint64* size);
// Reads up to length bytes from offset; *got says how many arrived (fewer
// only at the end of the file, or when a read failed).
Status readAt(int fd, void* buffer, size_t length, qint64 offset, size_t* got);
void closeFd(int fd);

// The whole contents of the regular file at path, at most maxSize bytes
// (EFBIG when larger, ENOENT when missing). A read that returns fewer bytes
// than the file held is a failure (EIO): a save made from them would drop
// the rest.
Status readAll(const QString& path, qint64 maxSize, QByteArray* contents);

// The identity of the regular file at path, a symbolic link not followed:
// ENOENT when nothing is there, ELOOP, EISDIR or EINVAL for an entry that is
// not a regular file.
Status identityOf(const QString& path, FileIdentity* identity);

// Replaces the file at path by one holding bytes: a new file beside it
// ("<path>.new") is written with kFileMode, synced and renamed over it, so
// the file holds the old or the new text whole, never less, whenever the
// machine stops. The rename itself may still be undone by a power loss:
// callers that need the new name on disk sync the directory. On failure the
// new file is removed again. A symbolic link at path is refused. *written,
// when given, gets the new file's identity once it stands at path.
Status replaceContents(const QString& path, const QByteArray& bytes, FileIdentity* written = nullptr);
// replaceContents without its look at path, for a caller that has just found
// a regular file there (identityOf).
Status replaceRegularFile(const QString& path, const QByteArray& bytes, FileIdentity* written = nullptr);
// Creates a new file at path (never an existing one, never through a link)
// holding bytes, mode 0600; not synced. For the program's own scratch files.
Status writeNewFile(const QString& path, const QByteArray& bytes);
// rename(2): replaces destination in one step, never copies.
Status renameFile(const QString& source, const QString& destination);

// mkdir(2) of one level with kDirectoryMode.
Status makeDirectory(const QString& path);
// Puts the directory's entries (renames, new and removed names) on disk.
Status syncDirectory(const QString& directory);
// A directory only this user may enter, for files nobody else may see or
// plant: created with mode 0700 in one step, or accepted when it already is
// such a directory of this user (not a link; EPERM otherwise).
Status privateDirectory(const QString& path);
// Takes an exclusive flock(2) on the directory without waiting (EWOULDBLOCK
// when another process holds it); the lock is held until the process ends.
// No file is created for it.
Status lockDirectory(const QString& path);

// The directory that holds path's last component ("a/b/" gives "a").
QString parentDirectory(const QString& path);
// True when something exists at path, symbolic links followed (a link to
// nothing does not exist): what commonfun::PathFileExists says, without Qt.
bool exists(const char* path);
// True when an entry exists at path and is not a regular file (a symbolic
// link, a directory, a device, a FIFO): such an entry is never read as data.
bool isSpecialEntry(const QString& path);

}  // namespace fileio

#endif
