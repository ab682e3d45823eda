#ifndef NXI_FILEIO_H
#define NXI_FILEIO_H

// File access for a program that runs as root on files other components
// write: nothing is opened through a symbolic link at the last path
// component, nothing but a regular file is opened (a FIFO would block for
// ever), and what replaces a file is on disk before the rename that
// installs it. Every operation reports failure as a value with errno set
// (ELOOP for a symbolic link); none of them logs.

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <optional>
#include <sys/types.h>

namespace fileio {

// Every file the program creates or replaces: written by its owner alone,
// read by the components that use the index. The program's own umask (022)
// leaves these modes as they are.
constexpr mode_t kFileMode = 0644;
constexpr mode_t kDirectoryMode = 0755;

// fopen with the stdio modes the program uses ("rb", "rb+", "wb+", "ab+",
// "a+"), refusing a symbolic link or anything but a regular file. A file
// opened to be written has kFileMode when created or truncated, and no more
// than it when added to; one to be truncated that another user owns or that
// has other names is replaced by a new file. nullptr with errno set when
// refused or when the open fails.
FILE* openFile(const char* path, const char* mode);

// open(2) for reading with the refusals of openFile; the file's size in
// *size. -1 with errno set when refused or when the open fails.
int openForReading(const char* path, qint64* size);
// Reads up to length bytes from offset (fewer at the end of the file or on
// an error, with errno set); returns how many arrived.
size_t readUpTo(int fd, void* buffer, size_t length, qint64 offset);
// True when exactly length bytes arrived from offset.
bool readAt(int fd, void* buffer, size_t length, qint64 offset);
void closeFd(int fd);

// Flushes the stream and puts its data on disk; false when either fails.
bool syncFile(FILE* file);
// Puts the directory's entries (renames, new and removed names) on disk.
bool syncDirectory(const QString& directory);

// mkdir(2) of one level with kDirectoryMode.
bool makeDirectory(const QString& path);
// The directory that holds path's last component ("a/b/" gives "a").
QString parentDirectory(const QString& path);

// A directory only this user may enter, for files nobody else may see or
// plant: created with mode 0700 in one step, or accepted when it already is
// such a directory of this user (not a link). False with errno set otherwise.
bool privateDirectory(const QString& path);

// Takes an exclusive flock(2) on the directory without waiting: the file
// descriptor that holds it until the process ends, or -1 with errno set
// (EWOULDBLOCK: another process holds it). No file is created for it.
int lockDirectory(const QString& path);

// True when something exists at path, symbolic links followed (a link to
// nothing does not exist): what commonfun::PathFileExists says, without Qt.
bool exists(const char* path);

// True when an entry exists at path and is not a regular file (a symbolic
// link, a directory, a device, a FIFO): such an entry is never read as data.
bool isSpecialEntry(const QString& path);

// The whole contents of the regular file at path, at most maxSize bytes;
// nullopt with errno set when it is missing (ENOENT), refused, larger (EFBIG)
// or cannot be read.
std::optional<QByteArray> readAll(const QString& path, qint64 maxSize);

// Replaces the file at path by one holding bytes: a new file beside it
// ("<path>.new") is written, synced and renamed over it, so the file holds the old or the new
// text whole, never less, whenever the machine stops. The rename itself may
// still be undone by a power loss: callers that need the new name on disk
// sync the directory. False (errno set) when anything fails; the new file is
// then removed again. A symbolic link at path is refused.
bool replaceContents(const QString& path, const QByteArray& bytes);

// Creates a new file at path (never an existing one, never through a link)
// holding bytes; not synced. For the program's own scratch files.
bool writeNewFile(const QString& path, const QByteArray& bytes);

// rename(2): replaces destination in one step, never copies.
bool renameFile(const QString& source, const QString& destination);

// True when both names lead to the same file (same device and inode,
// symbolic links followed).
bool sameFile(const QString& first, const QString& second);

}  // namespace fileio

#endif
