// The whole log of representative runs, line by line: each report names the operation that owns its step.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <functional>
#include <gtest/gtest.h>

namespace {

// A closed wdx00 (files 0 and 3; 1 missing, 2 40 bytes short; DB-COUNT 5) and a newest wdx01 with only file 0000.
struct Installation : nxtest::TempInstall {
    QVector<QByteArray> files[2] = {nxtest::sampleSourceBuckets(0, 7), nxtest::sampleSourceBuckets(3, 7)};
    QStringList expected;  // the log's lines after the start line, time stamps and error codes removed

    Installation()
    {
        nxtest::writeSource(host(), "wdx00", 0, files[0]);
        nxtest::writeSource(host(), "wdx00", 3, files[1]);
        nxtest::writeFile(source("wdx00", 2), QByteArray(40, '\0'));
        nxtest::writeSource(host(), "wdx01", 0, nxtest::sampleSourceBuckets(0, 9));
        nxtest::writeDbCount(host(), "/idxval.ini", "WDX00", 5);
    }
    QString source(const QString& db, int file) const { return nxformat::sourceFilePath(host(), db, file); }
    bool hasRecords(int bucket) const { return !(files[0][bucket] + files[1][bucket]).isEmpty(); }
    void add(const char* tag, const char* name, const QString& message)
    {
        expected << QString("[%1]  [%2] :: ").arg(tag, name) + message;
    }

    // The run: wdx00 up to stopAt (wdx01 too when stopsBoth), or every bucket with what bucketExtra adds, then
    // wdx01's short run and the end of both walks. The sizing pass (and the collecting one for a bucket with
    // records) finds file 1 missing and, past bucket 8, the 40-byte file 2 too short for the bucket's slot.
    void expectRun(const std::function<void(int)>& bucketExtra = {}, const QString& stopAt = {}, bool stopsBoth = false)
    {
        add("INFO", "main", "--------------------------Build Date : 2024-12-12 04:30 PM ----------------------------");
        add("TRACE", "nxi::StartLoop", "In get DB type");
        add("ERROR", "nxi::StartIndexer", "In StartIndexer");
        if (!stopAt.isEmpty())
            add("ERROR", "nxi::StartIndexer", stopAt);
        else
            add("TRACE", "nxi::StartIndexer", "Indexing for DB - wdx00");
        for (int bucket = 0; stopAt.isEmpty() && bucket < 256; ++bucket) {
            add("TRACE", "nxi::StartIndexer", QString::asprintf("%02x", bucket));
            for (int pass = 0; pass < (hasRecords(bucket) ? 2 : 1); ++pass) {
                add("ERROR", "nxi::CalculateSizeOfIndex", "Yn File Not exist : " + source("wdx00", 1));
                if (bucket > 8)
                    add("ERROR", "nxi::GetIndexHighAndLow",
                        "Error: ReadFile failed for the following file- " + source("wdx00", 2));
            }
            if (bucketExtra)
                bucketExtra(bucket);
        }
        add("ERROR", "nxi::StartIndexer", "In StartIndexer");
        add("ERROR", "nxi::StartIndexer", stopsBoth ? stopAt : "DB count to be indexed is zero!");
        const QString walkEnd = "Error:Could not get .yn files for following indexer type- ";
        add("ERROR", "nxi::IsToStopIndexing", walkEnd + source("wdx02", 0));
        add("TRACE", "nxi::StartLoop", "In get DB type");
        add("ERROR", "nxi::IsToStopIndexing", walkEnd + source("wfx00", 0));

        // The logger writes a run of identical reports as the first one and a count line.
        QStringList lines;
        for (int i = 0; i < expected.size();) {
            int same = 1;
            while (i + same < expected.size() && expected[i + same] == expected[i])
                ++same;
            lines << expected[i];
            if (same > 1)
                lines << QString::asprintf("Repeated [%05d] times.", same - 1);
            i += same;
        }
        QStringList actual =
            logBodies().replaceInStrings(QRegularExpression("^(\\[ERROR\\] .*) \\[0x[0-9A-F]{8}\\]: "), "\\1 ");
        ASSERT_FALSE(actual.isEmpty());
        const QString start = actual.takeFirst();
        EXPECT_TRUE(start.startsWith("[INFO]  [LoggerStarted] :: ")) << start;
        ASSERT_EQ(actual.size(), lines.size());
        for (int i = 0; i < lines.size(); ++i)
            ASSERT_EQ(actual[i], lines[i]) << "line " << i;
    }
};

TEST(EndToEndLog, FirstRunWithMissingAndShortFiles)
{
    Installation db;
    ASSERT_EQ(db.runIndexer(), 0);
    db.expectRun();
}

TEST(EndToEndLog, WriterFailureIsReportedByTheWriterAndTheRunGoesOn)
{
    Installation db;
    int failing = 0;
    while (!db.hasRecords(failing))
        ++failing;
    const QString pendingKey = db.host() + QString::asprintf("/idxn/wdx00/%02x.mnew", failing);
    ASSERT_TRUE(QDir().mkpath(pendingKey));  // a directory where the pending key file goes
    ASSERT_EQ(db.runIndexer(), 0);
    db.expectRun([&](int bucket) {
        if (bucket == failing)
            db.add("ERROR", "nxi::WriteAllIndexing", "Error:Could not open following file for writing- " + pendingKey);
    });
    EXPECT_TRUE(nxtest::exists(db.host() + "/wdx00.sbf"));  // the other buckets were written
}

TEST(EndToEndLog, DirectoryFailuresEndTheDatabasesRun)
{
    const struct {
        const char *blockedByFile, *message;  // a plain file where the run needs a directory
        bool stopsBoth;  // wdx01 needs the same directory
    } cases[] = {
        {"idxn", "Error: Could not create idxn directory in txhost - %1/idxn/", true},
        {"idxn/wdx00", "Error: Could not create idxn db directory in txhost - %1/idxn/wdx00", false},
        {"hl/wdx00/hlp", "Could not create helper directory in Talvex application data path!", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.blockedByFile);
        Installation db;
        nxtest::writeFile(db.host() + "/" + c.blockedByFile, "x");
        ASSERT_EQ(db.runIndexer(), 0);
        db.expectRun({}, QString(c.message).arg(db.host()), c.stopsBoth);
        // The status file under construction stays with its zeroed head.
        EXPECT_EQ(nxtest::readFile(db.host() + "/wdx00.sbftmp"), QByteArray(1024, '\0'));
    }
}

}  // namespace
