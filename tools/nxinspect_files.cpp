#include "nxinspect.h"

#include "fileio.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>

namespace nxinspect {

namespace {

const QRegularExpression kDatabaseName("^([a-z]{3})(\\d{2,6})$");

// Walk order of the DB types the indexer knows; others sort after them.
int typeRank(const QString& type)
{
    static const QStringList walkOrder{"wdx", "wfx", "wgx"};
    int rank = walkOrder.indexOf(type);
    return rank < 0 ? walkOrder.size() : rank;
}

bool walkOrderLess(const QString& a, const QString& b)
{
    QString typeA = a.left(3), typeB = b.left(3);
    if (typeRank(typeA) != typeRank(typeB))
        return typeRank(typeA) < typeRank(typeB);
    if (typeA != typeB)
        return typeA < typeB;
    return a.mid(3).toInt() < b.mid(3).toInt();
}

}  // namespace

QString hostOf(const QString& root) { return root + "/db/txhost"; }

bool isDatabaseName(const QString& name) { return kDatabaseName.match(name).hasMatch(); }

QStringList indexedDatabases(const QString& host)
{
    QStringList names = QDir(host + "/idxn").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& status : QDir(host).entryList(QStringList{"*.sbf", "*.sbftmp"}, QDir::Files))
        names << status.left(status.lastIndexOf('.'));
    QStringList databases;
    for (const QString& name : names)
        if (isDatabaseName(name) && !databases.contains(name))
            databases << name;
    std::sort(databases.begin(), databases.end(), walkOrderLess);
    return databases;
}

QString indexFilePath(const QString& host, const QString& db, nxformat::IndexFile file, nxformat::Generation generation,
                      int bucket)
{
    QString dir =
        file == nxformat::IndexFile::Entry ? nxformat::entryDirPath(host, db) : nxformat::indexDirPath(host, db);
    return dir + "/" + nxformat::indexFileName(file, generation, bucket);
}

Status readWholeFile(const QString& path, QByteArray* bytes) { return fileio::readAll(path, kMaxReadSize, bytes); }

QString Violation::text() const
{
    QStringList pieces{file};
    if (bucket >= 0)
        pieces << QString::asprintf("bucket %02x", bucket);
    if (!where.isEmpty())
        pieces << where;
    return pieces.join(", ") + ": " + problem;
}

}  // namespace nxinspect
