#include "commonfun.h"

#include "fileio.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
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
// source that tells whether it exists also serves that comparison.
bool commonfun::MoveFile(QString source, QString destination)
{
    const QByteArray from = source.toUtf8(), to = destination.toUtf8();
    struct stat moving, replaced;
    if (from.isEmpty() || ::stat(from.constData(), &moving) != 0)
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
