// The real nxindexer under faults and hostile files: a full disk at each INI
// save, entries that block a save, symbolic links planted at every name the
// indexer writes or reads, and the order in which data reaches the disk.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

using nxtest::readFile;
using nxtest::TempInstall;

// wdx00 (a closed volume) indexed once from files 0 and 1; file 2 is new
// for the run under test.
struct IndexedInstallation {
    TempInstall install;
    QString host = install.host();

    IndexedInstallation()
    {
        for (int f = 0; f < 3; ++f)
            nxtest::writeSource(host, "wdx00", f, nxtest::sampleSourceBuckets(f, 3));
        QFile::rename(nxformat::sourceFilePath(host, "wdx00", 2), host + "/file2");
        nxtest::writeSource(host, "wdx01", 0, nxtest::sampleSourceBuckets(0, 4));
        nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 3);
        EXPECT_EQ(install.runIndexer(), 0);
        QFile::rename(host + "/file2", nxformat::sourceFilePath(host, "wdx00", 2));
        nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 4);
        QFile::remove(install.logPath());
    }
    // The first count buckets that file 2 adds records to.
    QVector<int> newBuckets(int count) const
    {
        const QVector<QByteArray> buckets = nxtest::sampleSourceBuckets(2, 3);
        QVector<int> found;
        for (int bucket = 0; bucket < 256 && found.size() < count; ++bucket)
            if (!buckets[bucket].isEmpty())
                found << bucket;
        return found;
    }
    QString progress() const { return nxformat::helperProgressPath(host, "wdx00"); }
    QString sizeRecord() const { return nxformat::sbfSizeRecordPath(host); }
    int run(const QStringList& environment = {}) const { return install.runIndexerWith(environment, 60000); }
    QStringList errors(const QString& text) const { return install.logBodies().filter(text); }
};

QString errorLine(const QString& name, int code, const QString& message)
{
    return QString("[ERROR]  [nxi::%1] :: [0x%2]: %3").arg(name, QString::number(code, 16).toUpper().rightJustified(8, '0'), message);
}

TEST(EndToEndSafety, FullDiskAtAnIniSaveKeepsTheFileAndIsLogged)
{
    const struct { const char* file; const char* reporter; } cases[] = {
        {"wdx00hl.ini", "Updateini"}, {"sbf_check_yn.ini", "StartIndexer"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        IndexedInstallation db;
        const QString path = QString(c.file) == "wdx00hl.ini" ? db.progress() : db.sizeRecord();
        const QByteArray before = readFile(path);
        ASSERT_FALSE(before.isEmpty());
        ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=write", QString("NXFAULT_MATCH=") + c.file}),
                  0);
        EXPECT_EQ(readFile(path), before);
        const QStringList lines = db.errors("Error:WritePrivateProfileString failed for the following file- ");
        ASSERT_FALSE(lines.isEmpty());
        for (const QString& line : lines)
            EXPECT_EQ(line.toStdString(), errorLine(c.reporter, ENOSPC,
                                      "Error:WritePrivateProfileString failed for the following file- " + path).toStdString());
        EXPECT_TRUE(QDir(QFileInfo(path).path()).entryList({QString(c.file) + ".*"}, QDir::Files).isEmpty());
    }
}

TEST(EndToEndSafety, FullDiskAtTheNewStatusFileEndsTheRunWithALine)
{
    IndexedInstallation db;
    ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=close", "NXFAULT_MATCH=wdx00.sbftmp"}), 0);
    const QString path = nxformat::pendingStatusFilePath(db.host, "wdx00");
    EXPECT_EQ(db.errors("Error:fwrite failed"),
              QStringList{errorLine("StartIndexer", ENOSPC, "Error:fwrite failed for the following file- " + path)});
    EXPECT_FALSE(nxtest::exists(path));
    EXPECT_TRUE(db.errors("Indexing for DB - wdx00").isEmpty());
}

TEST(EndToEndSafety, EntriesAtTheOldLockNamesDoNotBlockASave)
{
    IndexedInstallation db;
    QDir().mkpath(db.sizeRecord() + ".lock");
    QDir().mkpath(db.progress() + ".lock");
    nxtest::writeFile(db.progress() + ".lock/inside", "x");
    ASSERT_EQ(db.run(), 0);  // -1 when it had not ended within the bound
    EXPECT_TRUE(readFile(db.progress()).contains(QString::asprintf("\n%02x=02\n", db.newBuckets(1).first()).toUtf8()));
    EXPECT_TRUE(readFile(db.sizeRecord()).contains("wdx00.sbf="));
}

// Symbolic links planted at names the indexer writes or reads: the file they
// point to is never written or read, and a line names each link. Links that
// do not stop the run share one run; %1 is a bucket that file 2 adds to.
TEST(EndToEndSafety, SymbolicLinksAreNeverFollowed)
{
    const QString notOpenable = "Error:Could not open following file for writing- ";
    const QString refused = "Error:Refused the following file, not a regular file- ";
    struct Link { QString name; const char* reporter; QString message; };
    const QVector<QVector<Link>> runs = {
        {{"idxn/wdx00/%1.mnew", "WriteAllIndexing", notOpenable},
         {"idxn/wdx00/%2.dnew", "WriteAllIndexing", notOpenable},
         {"hl/wdx00/hlp/%3.hlnew", "WriteAllIndexing", "Error:Could not open following file for helper writing- "},
         {"hl/wdx00%4.hl", "AllocateIndexBuffer", refused},
         {"hl/wdx00/wdx00hl.ini", "getHlpINIData", "Error:Could not read the following file- "},
         {"sbf_check_yn.ini", "StartIndexer", "Error:WritePrivateProfileString failed for the following file- "}},
        {{"wdx00.sbftmp", "StartIndexer", notOpenable}},
        {{"idxval.ini", "GetValDBCount", refused}},
    };
    for (const QVector<Link>& links : runs) {
        SCOPED_TRACE(links.first().name.toStdString());
        IndexedInstallation db;
        QTemporaryDir outside;
        // Records a reader must never see in the index, in a file only its owner may read.
        const QByteArray secret = nxtest::makeRecord(0x00aa0000, 0x5ec2e7).repeated(4);
        const QString target = outside.filePath("secret");
        nxtest::writeFile(target, secret);
        QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner);
        QStringList paths;
        for (const Link& link : links) {
            QString name = link.name;
            const QVector<int> buckets = db.newBuckets(4);
            for (int i = 0; i < buckets.size(); ++i)
                name.replace(QString("%%1").arg(i + 1), QString::asprintf("%02x", buckets[i]));
            paths << db.host + "/" + name;
            QFile::remove(paths.last());
            ASSERT_TRUE(QFile::link(target, paths.last()));
        }

        ASSERT_EQ(db.run(), 0);
        EXPECT_EQ(readFile(target), secret);
        for (int i = 0; i < links.size(); ++i) {
            EXPECT_TRUE(QFileInfo(paths[i]).isSymLink());
            const QString message = links[i].message + paths[i];
            const QStringList lines = db.errors(message);
            ASSERT_FALSE(lines.isEmpty()) << message.toStdString();
            if (links[i].message != refused) {  // open(2) refused it: ELOOP
                EXPECT_EQ(lines.first().toStdString(), errorLine(links[i].reporter, ELOOP, message).toStdString());
            }
            EXPECT_TRUE(lines.first().startsWith(QString("[ERROR]  [nxi::%1] :: ").arg(links[i].reporter)));
        }
        for (int bucket = 0; bucket < 256; ++bucket) {
            const QString entryFile = nxformat::entryDirPath(db.host, "wdx00") + QString::asprintf("/%02x.hl", bucket);
            EXPECT_FALSE(readFile(entryFile).contains(secret.left(16))) << bucket;
            EXPECT_FALSE(QFileInfo(entryFile).isSymLink());
        }
    }
}

// Every file is on disk before the rename that installs it, and a bucket's
// directories before its mark: a power loss never leaves a mark ahead of data.
TEST(EndToEndSafety, DataReachesTheDiskBeforeItIsInstalledAndMarked)
{
    IndexedInstallation db;
    QTemporaryDir traceDir;
    const QString trace = traceDir.filePath("trace");
    ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_TRACE=" + trace}), 0);
    const QStringList calls = QString::fromUtf8(readFile(trace)).split('\n', Qt::SkipEmptyParts);
    QSet<QString> synced;  // files and directories synced since their last change
    int installs = 0, marks = 0;
    for (const QString& call : calls) {
        const QStringList words = call.split(' ');
        if (words[0] == "sync") {
            synced.insert(words[1]);
        } else if (words[0] == "rename" && words.size() == 3 && words[2].startsWith(db.host)) {
            const QString from = words[1], to = words[2];
            if (from.endsWith("new") || from.endsWith(".sbftmp") || to.endsWith(".ini")) {
                EXPECT_TRUE(synced.contains(from)) << "installed before it was synced: " << call.toStdString();
                ++installs;
            }
            if (to.endsWith("wdx00hl.ini")) {
                for (const QString& dir : {nxformat::indexDirPath(db.host, "wdx00"), nxformat::entryDirPath(db.host, "wdx00")})
                    EXPECT_TRUE(synced.contains(dir)) << "mark written before " << dir.toStdString() << " was synced";
                ++marks;
            }
            synced.remove(QFileInfo(to).path());  // a new name in that directory
        }
    }
    EXPECT_GT(installs, 3 * 100);
    EXPECT_GT(marks, 100);
}

} // namespace
