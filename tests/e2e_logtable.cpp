// The whole log of representative runs, line by line: each report names the operation that owns its step; the walk
// over DB types and volumes; source paths too long for their buffer.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <functional>
#include <gtest/gtest.h>

namespace {

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

    void check(const nxtest::TempInstall& install) const
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
struct Installation : nxtest::TempInstall {
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
        EXPECT_EQ(nxtest::readFile(db.host() + "/wdx00.sbftmp"), QByteArray(1024, '\0'));
    }
}

TEST(EndToEndWalk, WithoutIdxndTheStartLinesAndOneError)
{
    nxtest::TempInstall install;
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
    nxtest::TempInstall install;
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
    nxtest::TempInstall install(deep);
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
