#include "commonfun.h"

#include "fileio.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>

commonfun* commonfun::instance = nullptr;

commonfun* commonfun::getInstance()
{
    if (instance == nullptr)
        instance = new commonfun();
    return instance;
}

qint64 commonfun::GetFileSize(QString& path)
{
    return QFileInfo(path).size();
}

bool commonfun::PathFileExists(QString path)
{
    return fileio::exists(path.toUtf8().constData());
}

bool commonfun::DeleteFile(QString path)
{
    QFile file(path);
    return file.remove();
}

// A move is one rename(2) over the destination: there is no moment without
// a file at the destination, and nothing is ever copied. Two names of one
// file (relative and absolute, "..", a hard link) are refused, so that the
// move never makes a file disappear under one of its names.
bool commonfun::MoveFile(QString source, QString destination)
{
    if (!PathFileExists(source))
        return false;
    if (fileio::sameFile(source, destination)) {
        errno = EINVAL;
        return false;
    }
    const Status status = fileio::renameFile(source, destination);
    if (!status.isOk())
        errno = status.code();
    return status.isOk();
}
