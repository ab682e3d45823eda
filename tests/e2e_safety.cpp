// The real nxindexer under a full disk, planted entries and links, and the order in which data reaches the disk.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QSet>
#include <gtest/gtest.h>

namespace {

using nxtest::readFile;

// wdx00 indexed once from files 0 and 1; file 2 is new for the run under test.
struct IndexedInstallation : nxtest::TempInstall {
    const QString host = nxtest::TempInstall::host(), progress = nxformat::helperProgressPath(host, "wdx00");
    const QString sizeRecord = nxformat::sbfSizeRecordPath(host);

    IndexedInstallation()
    {
        addSample(2, 3, 3);
        EXPECT_EQ(runIndexer(), 0);
        nxtest::writeSource(host, "wdx00", 2, nxtest::sampleSourceBuckets(2, 3));
        nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 4);
        QFile::remove(logPath());
    }
    QString newBucket(int nth) const  // the nth bucket that file 2 adds records to
    {
        const QVector<QByteArray> buckets = nxtest::sampleSourceBuckets(2, 3);
        for (int bucket = 0; bucket < 256; ++bucket)
            if (!buckets[bucket].isEmpty() && nth-- == 0)
                return QString::asprintf("%02x", bucket);
        return QString();
    }
    int run(const QStringList& environment = {}) const { return runIndexer(environment, 60000); }
    QStringList errors(const QString& text) const { return logBodies().filter(text); }
};

QString errorLine(const QString& name, int code, const QString& message)
{
    return QString::asprintf("[ERROR]  [nxi::%s] :: [0x%08X]: ", qPrintable(name), code) + message;
}

TEST(EndToEndSafety, FullDiskAtAnIniSaveKeepsTheFileAndIsLogged)
{
    for (const char* reporter : {"Updateini", "StartIndexer"}) {
        IndexedInstallation db;
        const QString path = reporter == QString("Updateini") ? db.progress : db.sizeRecord;
        const QString message = "Error:WritePrivateProfileString failed for the following file- " + path;
        SCOPED_TRACE(path.toStdString());
        const QByteArray before = readFile(path);
        ASSERT_FALSE(before.isEmpty());
        ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=write",
                          "NXFAULT_MATCH=" + QFileInfo(path).fileName()}),
                  0);
        EXPECT_EQ(readFile(path), before);
        const QStringList lines = db.errors(message);
        ASSERT_FALSE(lines.isEmpty());
        for (const QString& line : lines)
            EXPECT_EQ(line, errorLine(reporter, ENOSPC, message));
        EXPECT_EQ(QDir(QFileInfo(path).path()).entryList({QFileInfo(path).fileName() + ".*"}, QDir::Files),
                  QStringList());
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
    QDir().mkpath(db.sizeRecord + ".lock");
    nxtest::writeFile(db.progress + ".lock/inside", "x");
    ASSERT_EQ(db.run(), 0);  // -2 when it had not ended within the bound
    EXPECT_TRUE(readFile(db.progress).contains(("\n" + db.newBucket(0) + "=02\n").toUtf8()));
    EXPECT_TRUE(readFile(db.sizeRecord).contains("wdx00.sbf="));
}

// A link's target is never written or read and a line names each link; links that do not stop the run share one.
TEST(EndToEndSafety, SymbolicLinksAreNeverFollowed)
{
    const QString notOpenable = "Error:Could not open following file for writing- ";
    const QString refused = "Error:Refused the following file, not a regular file- ";
    struct Link {
        QString name;
        const char* reporter;
        QString message;
    };
    // %b: the bucket that file 2 adds records to at the link's place in its run.
    const QVector<QVector<Link>> runs = {
        {{"idxn/wdx00/%b.mnew", "WriteAllIndexing", notOpenable},
         {"idxn/wdx00/%b.dnew", "WriteAllIndexing", notOpenable},
         {"hl/wdx00/hlp/%b.hlnew", "WriteAllIndexing", "Error:Could not open following file for helper writing- "},
         {"hl/wdx00%b.hl", "AllocateIndexBuffer", refused},
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
        for (int i = 0; i < links.size(); ++i) {
            paths << db.host + "/" + QString(links[i].name).replace("%b", db.newBucket(i));
            QFile::remove(paths.last());
            ASSERT_TRUE(QFile::link(target, paths.last()));
        }
        ASSERT_EQ(db.run(), 0);
        EXPECT_EQ(readFile(target), secret);
        for (int i = 0; i < links.size(); ++i) {
            EXPECT_TRUE(QFileInfo(paths[i]).isSymLink());
            const QString message = links[i].message + paths[i];
            const QStringList lines = db.errors(message);
            ASSERT_FALSE(lines.isEmpty()) << message;
            if (links[i].message == refused)  // refused before open(2), which would have said ELOOP
                EXPECT_TRUE(lines.first().startsWith(QString("[ERROR]  [nxi::%1] :: ").arg(links[i].reporter)));
            else
                EXPECT_EQ(lines.first(), errorLine(links[i].reporter, ELOOP, message));
        }
        for (int bucket = 0; bucket < 256; ++bucket) {
            const QString entryFile = nxformat::entryDirPath(db.host, "wdx00") + QString::asprintf("/%02x.hl", bucket);
            EXPECT_FALSE(readFile(entryFile).contains(secret.left(16))) << bucket;
            EXPECT_FALSE(QFileInfo(entryFile).isSymLink());
        }
    }
}

// Every file is on disk before the rename that installs it, and a bucket's directories before its mark.
TEST(EndToEndSafety, DataReachesTheDiskBeforeItIsInstalledAndMarked)
{
    IndexedInstallation db;
    QTemporaryDir traceDir;
    const QString trace = traceDir.filePath("trace");
    ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_TRACE=" + trace}), 0);
    QSet<QString> synced;  // files and directories synced since their last change
    int installs = 0, marks = 0;
    for (const QString& call : QString::fromUtf8(readFile(trace)).split('\n', Qt::SkipEmptyParts)) {
        const QStringList words = call.split(' ');
        if (words[0] == "sync")
            synced.insert(words[1]);
        if (words[0] != "rename" || words.size() != 3 || !words[2].startsWith(db.host))
            continue;
        const QString from = words[1], to = words[2];
        if (from.endsWith("new") || from.endsWith(".sbftmp") || to.endsWith(".ini")) {
            EXPECT_TRUE(synced.contains(from)) << "installed before it was synced: " << call;
            ++installs;
        }
        if (to.endsWith("wdx00hl.ini")) {
            for (const QString& dir :
                 {nxformat::indexDirPath(db.host, "wdx00"), nxformat::entryDirPath(db.host, "wdx00")})
                EXPECT_TRUE(synced.contains(dir)) << "mark written before " << dir << " was synced";
            ++marks;
        }
        synced.remove(QFileInfo(to).path());  // a new name in that directory
    }
    EXPECT_GT(installs, 3 * 100);
    EXPECT_GT(marks, 100);
}

}  // namespace
