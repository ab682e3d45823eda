// The real nxindexer on generated databases: every file it writes, byte for byte, after a first, an incremental
// and an idle run and with a truncated source file; the whole log of representative runs, line by line, where each
// report names the operation that owns its step; the walk over DB types and volumes; source paths too long for their
// buffer.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QSettings>
#include <functional>
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

const QString kNothingToIndex = "DB count to be indexed is zero!";

// The lines a run's log must hold, without time stamps; "[code] " stands for an error code.
struct ExpectedLog {
    explicit ExpectedLog(const QString& host) : host(host) {}
    QString host;
    QStringList lines = {
        "[INFO]  [LoggerStarted] :: Build Date: <date>",
        "[INFO]  [main] :: " + QString(26, '-') + "Build Date : 2024-12-12 04:30 PM " + QString(28, '-')};
    QString last;  // the last report added
    int repeats = 0;

    // The logger writes a run of identical reports as the first one and a count line.
    void add(const char* tag, const char* name, const QString& message)
    {
        const QString line =
            QString("[%1]  [%2] :: ").arg(tag, name) + (tag == QString("ERROR") ? "[code] " : "") + message;
        repeats = line == last ? repeats + 1 : 0;
        if (repeats > 1)
            lines.removeLast();
        lines << (repeats ? QString::asprintf("Repeated [%05d] times.", repeats) : line);
        last = line;
    }
    void walkType() { add("TRACE", "nxi::StartLoop", "In get DB type"); }
    void walkEnd(const QString& db)
    {
        add("ERROR", "nxi::IsToStopIndexing",
            "Error:Could not get .yn files for following indexer type- " + nxformat::sourceFilePath(host, db, 0));
    }
    // A database's run: every bucket with what bucketLines adds, unless the line stop ends it first.
    void database(const QString& db, const std::function<void(int)>& bucketLines = {}, const QString& stop = {})
    {
        add("ERROR", "nxi::StartIndexer", "In StartIndexer");
        if (!stop.isEmpty())
            return add("ERROR", "nxi::StartIndexer", stop);
        add("TRACE", "nxi::StartIndexer", "Indexing for DB - " + db);
        for (int bucket = 0; bucket < 256; ++bucket) {
            add("TRACE", "nxi::StartIndexer", QString::asprintf("%02x", bucket));
            if (bucketLines)
                bucketLines(bucket);
        }
    }
    // The newest volume wdx01 with only its file 0000 (or what stop says), then the end of the walks of wdx and wfx.
    void newestAndEnd(const QString& stop = kNothingToIndex)
    {
        database("wdx01", {}, stop);
        walkEnd("wdx02");
        walkType();
        walkEnd("wfx00");
    }

    void check(const TempInstall& install) const
    {
        const QStringList actual =
            install.logBodies()
                .replaceInStrings(QRegularExpression(" :: \\[0x[0-9A-F]{8}\\]: "), " :: [code] ")
                .replaceInStrings(QRegularExpression("(Build Date: )\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d$"),
                                  "\\1<date>");
        for (int i = 0; i < qMin(actual.size(), lines.size()); ++i)
            ASSERT_EQ(actual[i], lines[i]) << "line " << i + 1;
        EXPECT_EQ(actual.size(), lines.size());
    }
};

// A closed wdx00 (files 0 and 3; 1 missing, 2 40 bytes short; DB-COUNT 5) and a newest wdx01 with only file 0000.
struct Installation : TempInstall {
    QVector<QByteArray> files[2] = {nxtest::sampleSourceBuckets(0, 7), nxtest::sampleSourceBuckets(3, 7)};
    ExpectedLog log{host()};

    Installation()
    {
        nxtest::writeSource(host(), "wdx00", 0, files[0]);
        nxtest::writeSource(host(), "wdx00", 3, files[1]);
        nxtest::writeFile(source(2), QByteArray(40, '\0'));
        nxtest::writeSource(host(), "wdx01", 0, nxtest::sampleSourceBuckets(0, 9));
        nxtest::writeDbCount(host(), "/idxval.ini", "WDX00", 5);
    }
    QString source(int file) const { return nxformat::sourceFilePath(host(), "wdx00", file); }
    bool hasRecords(int bucket) const { return !(files[0][bucket] + files[1][bucket]).isEmpty(); }

    // The run: wdx00 up to stop (wdx01 too when stopsBoth), or every bucket with what bucketExtra adds, then wdx01's
    // short run and the end of both walks. The sizing pass (and the collecting one for a bucket with records) finds
    // file 1 missing and, past bucket 8, the 40-byte file 2 too short for the bucket's slot.
    void expectRun(const std::function<void(int)>& bucketExtra = {}, const QString& stop = {}, bool stopsBoth = false)
    {
        ASSERT_EQ(runIndexer(), 0);
        log.walkType();
        auto bucketLines = [&](int bucket) {
            for (int pass = 0; pass < (hasRecords(bucket) ? 2 : 1); ++pass) {
                log.add("ERROR", "nxi::CalculateSizeOfIndex", "Yn File Not exist : " + source(1));
                if (bucket > 8)
                    log.add("ERROR", "nxi::GetIndexHighAndLow",
                            "Error: ReadFile failed for the following file- " + source(2));
            }
            if (bucketExtra)
                bucketExtra(bucket);
        };
        log.database("wdx00", bucketLines, stop);
        log.newestAndEnd(stopsBoth ? stop : kNothingToIndex);
        log.check(*this);
    }
};

TEST(EndToEndLog, FirstRunWithMissingAndShortFiles) { Installation().expectRun(); }

TEST(EndToEndLog, WriterFailureIsReportedByTheWriterAndTheRunGoesOn)
{
    Installation db;
    int failing = 0;
    while (!db.hasRecords(failing))
        ++failing;
    const QString pendingKey = db.host() + QString::asprintf("/idxn/wdx00/%02x.mnew", failing);
    ASSERT_TRUE(QDir().mkpath(pendingKey));  // a directory where the pending key file goes
    db.expectRun([&](int bucket) {
        if (bucket == failing)
            db.log.add("ERROR", "nxi::WriteAllIndexing",
                       "Error:Could not open following file for writing- " + pendingKey);
    });
    EXPECT_TRUE(nxtest::exists(db.host() + "/wdx00.sbf"));  // the other buckets were written
}

TEST(EndToEndLog, DirectoryFailuresEndTheDatabasesRun)
{
    const struct {
        const char *blockedByFile, *message;  // a plain file where the run needs a directory, and what is logged
        bool stopsBoth;  // wdx01 needs the same directory
    } cases[] = {
        {"idxn", "Error: Could not create idxn directory in txhost - <host>/idxn/", true},
        {"idxn/wdx00", "Error: Could not create idxn db directory in txhost - <host>/idxn/wdx00", false},
        {"hl/wdx00/hlp", "Could not create helper directory in Talvex application data path!", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.blockedByFile);
        Installation db;
        nxtest::writeFile(db.host() + "/" + c.blockedByFile, "x");
        db.expectRun({}, QString(c.message).replace("<host>", db.host()), c.stopsBoth);
        // The status file under construction stays with its zeroed head.
        EXPECT_EQ(readFile(db.host() + "/wdx00.sbftmp"), QByteArray(1024, '\0'));
    }
}

TEST(EndToEndWalk, WithoutIdxndTheStartLinesAndOneError)
{
    TempInstall install;
    ASSERT_EQ(install.runIndexer(), 0);
    ExpectedLog log{install.host()};
    log.add("ERROR", "nxi::StartLoop", "Error:Does not exist idxnd folder!");
    log.check(install);
    EXPECT_FALSE(QDir(install.host() + "/idxnd").exists());
}

// Volumes 00 to 99 are closed, wdx100 is the newest and holds only its uncounted file 0000; wdx102 lies past the gap
// at wdx101, wgx is not walked, and wfx has no volume at all.
TEST(EndToEndWalk, EachTypeUpToItsFirstMissingVolumeWithThreeDigitsAfter99)
{
    TempInstall install;
    ExpectedLog log{install.host()};
    log.walkType();
    for (int volume = 0; volume <= 100; ++volume) {
        const QString db = QString::asprintf("wdx%02d", volume);
        nxtest::writeFile(nxformat::sourceFilePath(install.host(), db, 0), {});
        log.database(db, {}, volume < 100 ? QString() : kNothingToIndex);
    }
    for (const char* db : {"wdx102", "wgx00"})
        nxtest::writeFile(nxformat::sourceFilePath(install.host(), db, 0), {});
    log.walkEnd("wdx101");
    log.walkType();
    log.walkEnd("wfx00");
    ASSERT_EQ(install.runIndexer(), 0);
    log.check(install);
    EXPECT_TRUE(QDir(install.host() + "/idxn/wdx100").exists());
}

// Source file paths longer than the 512-byte buffer they are formatted into.
TEST(EndToEndBadInput, OverLongSourcePathsAreSkippedWithOneLineEachPass)
{
    QTemporaryDir base;
    const QString deep = base.path() + "/" + QString(240, 'd') + "/" + QString(240, 'e');
    ASSERT_TRUE(QDir().mkpath(deep));
    TempInstall install(deep);
    const QString host = install.host();
    install.addSample(2, 3);
    ASSERT_GT(nxformat::sourceFilePath(host, "wdx00", 0).toUtf8().size(), 511);

    ASSERT_EQ(install.runIndexer({}, 60000), 0);
    // Each bucket's sizing pass names both files; nothing is sized, so nothing is collected.
    ExpectedLog log{host};
    log.walkType();
    log.database("wdx00", [&](int) {
        for (int f = 0; f < 2; ++f)
            log.add("ERROR", "nxi::CalculateSizeOfIndex",
                    "Error: Path too long for the following yn file- " + nxformat::sourceFilePath(host, "wdx00", f));
    });
    log.newestAndEnd();
    log.check(install);
    // The database keeps no index, no marks and no status file.
    EXPECT_TRUE(QDir(nxformat::indexDirPath(host, "wdx00")).isEmpty());
    for (const QString& path : {nxformat::helperProgressPath(host, "wdx00"), nxformat::statusFilePath(host, "wdx00"),
                                nxformat::pendingStatusFilePath(host, "wdx00")})
        EXPECT_FALSE(nxtest::exists(path)) << path;
}

}  // namespace
