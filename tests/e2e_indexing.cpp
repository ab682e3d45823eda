// The real nxindexer on generated databases: every file it writes, byte for byte, after a first, an incremental
// and an idle run, and with a truncated source file.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QSettings>
#include <gtest/gtest.h>

namespace {

using nxtest::readFile;
using nxtest::TempInstall;

struct Database {
    QString name;
    QMap<int, QVector<QByteArray>> files;  // file number -> records of each bucket
};

void addFiles(const TempInstall& install, Database& db, int firstFile, int lastFile, uint32_t salt)
{
    for (int f = firstFile; f <= lastFile; ++f) {
        db.files[f] = nxtest::sampleSourceBuckets(f, salt);
        nxtest::writeSource(install.host(), db.name, f, db.files[f]);
    }
}

// Every bucket's three files, the status file and the marks after a run that merged files firstFile to lastFile.
void expectIndexed(const TempInstall& install, const Database& db, int firstFile, int lastFile,
                   const QMap<int, QByteArray>& helpers = {})
{
    const QString host = install.host();
    QByteArray status(1024, '\0'), progress = "[hlpr]\n";
    for (int bucket = 0; bucket < 256; ++bucket) {
        QByteArray records = helpers.value(bucket);
        for (int f = firstFile; f <= lastFile; ++f)
            records += db.files.value(f).value(bucket);
        if (records.isEmpty())
            continue;
        const nxtest::ExpectedBucket expected = nxtest::expectedBucket(records);
        const QString name = QString::asprintf("/%02x", bucket), index = host + "/idxn/" + db.name + name;
        SCOPED_TRACE(qPrintable(db.name + name));
        EXPECT_EQ(readFile(index + ".m"), expected.keyFile);
        EXPECT_EQ(readFile(index + ".d"), expected.payloadFile);
        EXPECT_EQ(readFile(host + "/hl/" + db.name + "/hlp" + name + ".hl"), expected.entryFile);
        nxformat::writeLE32(reinterpret_cast<unsigned char*>(status.data()) + 4 * bucket, uint32_t(status.size()));
        status += expected.block;
        progress += QString::asprintf("%02x=%02d\n", bucket, lastFile).toUtf8();
    }
    EXPECT_EQ(readFile(host + "/" + db.name + ".sbf"), status) << qPrintable(db.name);
    EXPECT_FALSE(nxtest::exists(host + "/" + db.name + ".sbftmp"));
    EXPECT_EQ(readFile(host + "/hl/" + db.name + "/" + db.name + "hl.ini"), progress);
}

TEST(EndToEndIndexing, FirstIncrementalAndIdleRunsOfEveryKindOfVolume)
{
    TempInstall install;
    const QString host = install.host();
    Database wdx00{"wdx00", {}}, wdx01{"wdx01", {}}, wfx00{"wfx00", {}}, wfx01{"wfx01", {}};
    addFiles(install, wdx00, 0, 2, 1);
    addFiles(install, wdx01, 0, 1, 2);
    addFiles(install, wfx00, 0, 1, 4);
    addFiles(install, wfx01, 0, 0, 3);
    // WFX00 counts only in the file of the wfx databases.
    nxtest::writeFile(host + "/idxval.ini", "[DB-COUNT]\nWDX00=4\nWDX01=3\nWFX00=0\n");
    nxtest::writeDbCount(host, "/wfx_idxval.ini", "WFX00", 3);
    auto sizeRecord = [&](const char* db) {
        return QSettings(host + "/sbf_check_yn.ini", QSettings::IniFormat)
            .value(QString("SBF_Size/%1.sbf").arg(db))
            .toString();
    };

    ASSERT_EQ(install.runIndexer(), 0);
    expectIndexed(install, wdx00, 0, 2);
    expectIndexed(install, wdx01, 0, 1);  // the newest volume: its file 0000 is merged too
    expectIndexed(install, wfx00, 0, 1);
    const QByteArray wdx01Status = readFile(host + "/wdx01.sbf");
    EXPECT_EQ(sizeRecord("wdx00"), QString("%1#NXI").arg(readFile(host + "/wdx00.sbf").size()));
    // The newest volume with only its file 0000 has nothing to index: its directories are made, no status file.
    EXPECT_EQ(install.logBodies().filter("DB count to be indexed is zero!").size(), 1);
    EXPECT_FALSE(nxtest::exists(host + "/wfx01.sbftmp") || nxtest::exists(host + "/wfx01.sbf"));
    EXPECT_TRUE(QDir(host + "/hl/wfx01/hlp").exists() && QDir(host + "/idxn/wfx01").exists());

    // New source files, a higher DB-COUNT and a helper file for bucket 10.
    addFiles(install, wdx00, 3, 4, 1);
    nxtest::writeFile(host + "/idxval.ini", "[DB-COUNT]\nWDX00=6\nWDX01=3\n");
    const QByteArray helper = nxtest::sampleRecord(0x10, 90001) + nxtest::sampleRecord(0x10, 90002);
    nxtest::writeFile(host + "/hl/wdx0010.hl", helper);

    ASSERT_EQ(install.runIndexer(), 0);
    expectIndexed(install, wdx00, 3, 4, {{0x10, helper}});
    EXPECT_EQ(readFile(host + "/wdx01.sbf"), wdx01Status);  // nothing new: kept
    EXPECT_EQ(sizeRecord("wdx01"), QString("%1#NXI").arg(wdx01Status.size()));
    const QMap<QString, QByteArray> afterIncremental = nxtest::treeOf(host);
    for (const QString& path : afterIncremental.keys())
        EXPECT_FALSE(path.endsWith("new") || path.endsWith("old") || path.endsWith(".sbftmp")) << qPrintable(path);

    ASSERT_EQ(install.runIndexer(), 0);  // nothing new anywhere
    EXPECT_EQ(nxtest::treeOf(host), afterIncremental);
}

TEST(EndToEndIndexing, TruncatedSourceFileSkipsTheRangesPastItsEnd)
{
    TempInstall install;
    Database wdx00{"wdx00", {}}, wdx01{"wdx01", {}};
    addFiles(install, wdx00, 0, 1, 7);
    addFiles(install, wdx01, 0, 0, 8);
    nxtest::writeDbCount(install.host(), "/idxval.ini", "WDX00", 3);
    // Cut file 1 after the records of buckets 0..99.
    const QString file1 = nxformat::sourceFilePath(install.host(), "wdx00", 1);
    int keep = 1024;
    for (int bucket = 0; bucket < 100; ++bucket)
        keep += wdx00.files[1][bucket].size();
    nxtest::writeFile(file1, readFile(file1).left(keep + 5));

    ASSERT_EQ(install.runIndexer(), 0);
    for (int bucket = 100; bucket < 256; ++bucket)
        wdx00.files[1][bucket].clear();
    expectIndexed(install, wdx00, 0, 1);
    // Past bucket 99 the 125 buckets with records in file 0 fail in both passes (the second as a repeat), the 31
    // others in the sizing pass only.
    const QStringList log = install.logBodies();
    EXPECT_EQ(log.filter("[ERROR]").filter(file1).size(), 125 + 31);
    EXPECT_EQ(log.filter("Repeated [00001] times.").size(), 125);
}

}  // namespace
