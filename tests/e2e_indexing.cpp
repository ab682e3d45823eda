// The real nxindexer on generated databases: every written file is read back
// and compared with what a correct run must produce from the records that
// went in, across a first, an incremental and an idle run.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QMap>
#include <QSettings>
#include <gtest/gtest.h>

namespace {

using nxtest::TempInstall;
using nxtest::readFile;

struct Database {
    QString name;
    QMap<int, QVector<QByteArray>> files;  // file number -> records of each bucket
};

Database generate(const TempInstall& install, const QString& name, int firstFile, int lastFile, uint32_t salt)
{
    Database db{name, {}};
    for (int f = firstFile; f <= lastFile; ++f) {
        db.files[f] = nxtest::sampleSourceBuckets(f, salt);
        nxtest::writeSource(install.host(), name, f, db.files[f]);
    }
    return db;
}

QByteArray recordsOf(const Database& db, int bucket, int firstFile, int lastFile)
{
    QByteArray records;
    for (int f = firstFile; f <= lastFile; ++f)
        records += db.files.value(f).value(bucket);
    return records;
}

QString bucketFile(const TempInstall& install, const QString& db, nxformat::IndexFile file, int bucket)
{
    const QString dir = file == nxformat::IndexFile::Entry ? nxformat::entryDirPath(install.host(), db)
                                                           : nxformat::indexDirPath(install.host(), db);
    return dir + "/" + nxformat::indexFileName(file, nxformat::Generation::Current, bucket);
}

// Checks every bucket's three files, the status file and the progress marks
// against the records merged in the last run: files firstFile to lastFile,
// plus the bucket's helper records.
void expectIndexed(const TempInstall& install, const Database& db, int firstFile, int lastFile,
                   const QMap<int, QByteArray>& helpers = {})
{
    const QByteArray status = readFile(nxformat::statusFilePath(install.host(), db.name));
    ASSERT_GE(status.size(), 1024) << db.name.toStdString();
    QByteArray expectedStatus(1024, '\0');
    QByteArray progress = "[hlpr]\n";
    for (int bucket = 0; bucket < 256; ++bucket) {
        const QByteArray records = helpers.value(bucket) + recordsOf(db, bucket, firstFile, lastFile);
        if (records.isEmpty())
            continue;
        const nxtest::ExpectedBucket expected = nxtest::expectedBucket(records);
        SCOPED_TRACE(QString("%1 bucket %2").arg(db.name).arg(bucket).toStdString());
        EXPECT_EQ(readFile(bucketFile(install, db.name, nxformat::IndexFile::Key, bucket)), expected.keyFile);
        EXPECT_EQ(readFile(bucketFile(install, db.name, nxformat::IndexFile::Payload, bucket)), expected.payloadFile);
        EXPECT_EQ(readFile(bucketFile(install, db.name, nxformat::IndexFile::Entry, bucket)), expected.entryFile);
        nxformat::writeLE32(reinterpret_cast<unsigned char*>(expectedStatus.data()) + 4 * bucket,
                            uint32_t(expectedStatus.size()));
        expectedStatus += expected.block;
        progress += QString::asprintf("%02x=%02d\n", bucket, lastFile).toUtf8();
    }
    EXPECT_EQ(status, expectedStatus) << db.name.toStdString();
    EXPECT_FALSE(nxtest::exists(nxformat::pendingStatusFilePath(install.host(), db.name)));
    EXPECT_EQ(readFile(nxformat::helperProgressPath(install.host(), db.name)), progress);
}


QString sizeRecord(const TempInstall& install, const QString& db)
{
    QSettings ini(nxformat::sbfSizeRecordPath(install.host()), QSettings::IniFormat);
    return ini.value(QString("SBF_Size/%1.sbf").arg(db)).toString();
}

// Names of the files under the DB host directory, to show that nothing else changed.
QMap<QString, QByteArray> snapshot(const QString& dir)
{
    QMap<QString, QByteArray> files;
    for (const QFileInfo& info : QDir(dir).entryInfoList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (info.isDir()) {
            const QMap<QString, QByteArray> inner = snapshot(info.filePath());
            for (auto it = inner.begin(); it != inner.end(); ++it)
                files.insert(it.key(), it.value());
        } else if (!info.fileName().endsWith(".log"))
            files.insert(info.filePath(), readFile(info.filePath()));
    }
    return files;
}

TEST(EndToEndIndexing, FirstIncrementalAndIdleRuns)
{
    TempInstall install;
    Database wdx00 = generate(install, "wdx00", 0, 2, 1);
    const Database wdx01 = generate(install, "wdx01", 0, 1, 2);
    nxtest::writeDbCount(install.host(), "/idxval.ini", "WDX00", 4);
    QSettings(install.host() + "/idxval.ini", QSettings::IniFormat).setValue("DB-COUNT/WDX01", 3);

    ASSERT_EQ(install.runIndexer(), 0);
    expectIndexed(install, wdx00, 0, 2);
    expectIndexed(install, wdx01, 0, 1);  // the newest volume: its file 0000 is merged too
    const QByteArray wdx00Status = readFile(nxformat::statusFilePath(install.host(), "wdx00"));
    EXPECT_EQ(sizeRecord(install, "wdx00"), QString("%1#NXI").arg(wdx00Status.size()));
    const QByteArray wdx01Status = readFile(nxformat::statusFilePath(install.host(), "wdx01"));

    // New source files, a higher DB-COUNT and a helper file for bucket 10.
    for (int f = 3; f <= 4; ++f) {
        wdx00.files[f] = nxtest::sampleSourceBuckets(f, 1);
        nxtest::writeSource(install.host(), "wdx00", f, wdx00.files[f]);
    }
    QSettings(install.host() + "/idxval.ini", QSettings::IniFormat).setValue("DB-COUNT/WDX00", 6);
    const QByteArray helper = nxtest::sampleRecord(0x10, 90001) + nxtest::sampleRecord(0x10, 90002);
    nxtest::writeFile(nxformat::helperFilePath(install.host(), "wdx00", 0x10), helper);

    ASSERT_EQ(install.runIndexer(), 0);
    expectIndexed(install, wdx00, 3, 4, {{0x10, helper}});
    EXPECT_EQ(readFile(nxformat::statusFilePath(install.host(), "wdx01")), wdx01Status);  // nothing new: kept
    EXPECT_EQ(sizeRecord(install, "wdx01"), QString("%1#NXI").arg(wdx01Status.size()));
    const QMap<QString, QByteArray> afterIncremental = snapshot(install.host());
    for (const QString& path : afterIncremental.keys())
        EXPECT_FALSE(path.endsWith("new") || path.endsWith("old") || path.endsWith(".sbftmp")) << path.toStdString();

    ASSERT_EQ(install.runIndexer(), 0);  // nothing new anywhere
    EXPECT_EQ(snapshot(install.host()), afterIncremental);
}

TEST(EndToEndIndexing, FirstWfxVolumeAndAVolumeWithOnlyFileZero)
{
    TempInstall install;
    generate(install, "wdx00", 0, 0, 3);
    const Database wfx00 = generate(install, "wfx00", 0, 1, 4);
    nxtest::writeDbCount(install.host(), "/wfx_idxval.ini", "WFX00", 3);
    nxtest::writeDbCount(install.host(), "/idxval.ini", "WFX00", 0);  // not the file for wfx00

    ASSERT_EQ(install.runIndexer(), 0);
    expectIndexed(install, wfx00, 0, 1);
    EXPECT_EQ(install.logBodies().filter("DB count to be indexed is zero!").size(), 1);  // wdx00 only
    EXPECT_FALSE(nxtest::exists(nxformat::pendingStatusFilePath(install.host(), "wdx00")));
    EXPECT_FALSE(nxtest::exists(nxformat::statusFilePath(install.host(), "wdx00")));
    EXPECT_TRUE(QDir(nxformat::entryDirPath(install.host(), "wdx00")).exists());
    EXPECT_TRUE(QDir(nxformat::indexDirPath(install.host(), "wdx00")).exists());
}

TEST(EndToEndIndexing, DirectoriesThatCannotBeCreatedEndTheRunNotTheWalk)
{
    TempInstall install;
    generate(install, "wdx00", 0, 1, 5);
    generate(install, "wdx01", 0, 1, 6);
    nxtest::writeFile(install.host() + "/idxn", "a file where the index root belongs");

    ASSERT_EQ(install.runIndexer(), 0);
    const QString message = "Error: Could not create idxn directory in txhost - " + install.host() + "/idxn/";
    EXPECT_EQ(install.logBodies().filter(message).size(), 2);  // once per volume
    for (const char* db : {"wdx00", "wdx01"})
        EXPECT_EQ(readFile(nxformat::pendingStatusFilePath(install.host(), db)), QByteArray(1024, '\0')) << db;
}

TEST(EndToEndIndexing, TruncatedSourceFileSkipsTheRangesPastItsEnd)
{
    TempInstall install;
    const Database wdx00 = generate(install, "wdx00", 0, 1, 7);
    generate(install, "wdx01", 0, 0, 8);
    nxtest::writeDbCount(install.host(), "/idxval.ini", "WDX00", 3);
    // Cut file 1 after the records of buckets 0..99.
    const QString file1 = nxformat::sourceFilePath(install.host(), "wdx00", 1);
    int keep = 1024;
    for (int bucket = 0; bucket < 100; ++bucket)
        keep += wdx00.files[1][bucket].size();
    nxtest::writeFile(file1, readFile(file1).left(keep + 5));

    ASSERT_EQ(install.runIndexer(), 0);
    Database seen = wdx00;
    for (int bucket = 100; bucket < 256; ++bucket)
        seen.files[1][bucket].clear();
    expectIndexed(install, seen, 0, 1);
    // From bucket 100 on every range of file 1 lies past the end: 125 buckets
    // with records in file 0 fail in both passes (the second time as a repeat
    // of the same line), the 31 without any only in the sizing pass.
    const QStringList log = install.logBodies();
    EXPECT_EQ(log.filter("[ERROR]").filter(file1).size(), 125 + 31);
    EXPECT_EQ(log.filter("Repeated [00001] times.").size(), 125);
}

} // namespace
