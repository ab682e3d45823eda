#include "commonfun.h"

#include "fileio.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

commonfun* commonfun::instance = nullptr;

commonfun* commonfun::getInstance()
{
    if (instance == nullptr)
        instance = new commonfun();
    return instance;
}

qint64 commonfun::GetFileSize(QString& path) { return QFileInfo(path).size(); }

bool commonfun::PathFileExists(QString path) { return fileio::exists(path.toUtf8().constData()); }

bool commonfun::DeleteFile(QString path)
{
    QFile file(path);
    return file.remove();
}

// A move is one rename(2) over the destination: there is no moment without
// a file at the destination, and nothing is ever copied. Two names of one
// file (relative and absolute, "..", a hard link) are refused, so that the
// move never makes a file disappear under one of its names. The look at the
// source that tells whether it exists also serves that comparison. A move
// onto a free name, the rotation's usual case, needs neither look: one
// rename that refuses to replace does it, and only a taken destination (or a
// file system without that refusal) goes the long way.
bool commonfun::MoveFile(QString source, QString destination)
{
    const QByteArray from = source.toUtf8(), to = destination.toUtf8();
    if (from.isEmpty())
        return false;
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0) {
        errno = ENOENT;  // as the look at the free destination would have left it
        return true;
    }
    if (errno != EEXIST && errno != EINVAL)
        return false;  // no source (ENOENT), or the rename itself failed
    struct stat moving, replaced;
    if (::stat(from.constData(), &moving) != 0)
        return false;  // as PathFileExists: nothing there, links followed
    if (::stat(to.constData(), &replaced) == 0 && moving.st_dev == replaced.st_dev &&
        moving.st_ino == replaced.st_ino) {
        errno = EINVAL;
        return false;
    }
    const Status status = fileio::renameFile(source, destination);
    if (!status.isOk())
        errno = status.code();
    return status.isOk();
}
