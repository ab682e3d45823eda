#include "Common.h"

#include <QDir>
#include <QFileInfo>
#include <QSet>

QString Common::getSizeInString(quint64 size)
{
    static const char* const kUnits[] = {"bytes", "KB", "MB", "GB", "TB"};
    const int lastUnit = int(sizeof(kUnits) / sizeof(kUnits[0])) - 1;

    // The unit is chosen before rounding, so 1048575 shows as "1024.00 KB".
    double value = double(size);
    int unit = 0;
    while (value >= 1024.0 && unit < lastUnit) {
        value *= 0.0009765625;
        ++unit;
    }
    QString text;
    text.setNum(value, 'f', 2);
    return text + " " + kUnits[unit];
}

namespace {

// activeDirs holds the canonical paths of the directories being measured on
// the way down to path; a link back into one of them adds nothing, so a
// cycle of directory links ends while every other link is still followed.
qint64 measurePath(const QString& path, QSet<QString>& activeDirs)
{
    const QFileInfo info(path);
    if (!info.exists())
        return 0;
    if (info.isFile())
        return info.size();
    if (!info.isDir())
        return 0;

    const QString canonical = info.canonicalFilePath();
    if (activeDirs.contains(canonical))
        return 0;
    activeDirs.insert(canonical);

    // Without Hidden and System the listing leaves out dot entries, devices,
    // sockets, pipes and broken links.
    const QFileInfoList entries =
        QDir(path).entryInfoList(QDir::Dirs | QDir::Files | QDir::NoDotAndDotDot, QDir::NoSort);
    qint64 total = 0;
    for (const QFileInfo& entry : entries)
        total += measurePath(entry.absoluteFilePath(), activeDirs);

    activeDirs.remove(canonical);
    return total;
}

}  // namespace

qint64 Common::getPathSize(const QString& path)
{
    QSet<QString> activeDirs;
    return measurePath(path, activeDirs);
}
