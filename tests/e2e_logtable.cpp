// The whole log of representative runs of the real nxindexer, line by line:
// every report's tag, reporting operation and message, in order. A report
// names the operation that owns its step, whichever helper made it.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <functional>
#include <gtest/gtest.h>

namespace {

using nxtest::TempInstall;

struct Report {
    QString tag, name, message;
    bool operator==(const Report& o) const { return tag == o.tag && name == o.name && message == o.message; }
};
std::ostream& operator<<(std::ostream& os, const Report& r)
{
    return os << r.tag.toStdString() << " " << r.name.toStdString() << " :: " << r.message.toStdString();
}

// "[ERROR]  [nxi::X] :: [0x00000002]: text" -> {"ERROR", "nxi::X", "text"}.
std::vector<Report> reportsOf(const TempInstall& install)
{
    static const QRegularExpression body("^\\[(\\w+)\\]  \\[([^\\]]*)\\] :: (?:\\[0x[0-9A-F]{8}\\]: )?(.*)$");
    std::vector<Report> reports;
    for (const QString& line : install.logBodies()) {
        const QRegularExpressionMatch m = body.match(line);
        reports.push_back(m.hasMatch() ? Report{m.captured(1), m.captured(2), m.captured(3)}
                                       : Report{"?", "?", line});
    }
    return reports;
}

// The reports a run writes, built from what each step of a run reports.
struct Expected {
    const TempInstall& install;
    std::vector<Report> reports;

    void error(const char* name, const QString& message) { reports.push_back({"ERROR", name, message}); }
    void trace(const char* name, const QString& message) { reports.push_back({"TRACE", name, message}); }
    QString source(const QString& db, int file) const { return nxformat::sourceFilePath(install.host(), db, file); }
    void walkEnd(const QString& db)
    {
        error("nxi::IsToStopIndexing",
              "Error:Could not get .yn files for following indexer type- " + source(db, 0));
    }
};

// A closed volume wdx00 (files 0 to 3, DB-COUNT 5) and the newest volume
// wdx01 that holds only its file 0000, so that its run ends at once.
struct Installation {
    TempInstall install;
    QVector<QVector<QByteArray>> files;  // wdx00's files 0 and 3; 1 is missing, 2 is short

    Installation()
    {
        for (int f : {0, 3}) {
            files.append(nxtest::sampleSourceBuckets(f, 7));
            nxtest::writeSource(install.host(), "wdx00", f, files.last());
        }
        nxtest::writeFile(nxformat::sourceFilePath(install.host(), "wdx00", 2), QByteArray(40, '\0'));
        nxtest::writeSource(install.host(), "wdx01", 0, nxtest::sampleSourceBuckets(0, 9));
        nxtest::writeDbCount(install.host(), "/idxval.ini", "WDX00", 5);
    }
    bool hasRecords(int bucket) const { return !(files[0][bucket] + files[1][bucket]).isEmpty(); }
};

// What the sizing (and, for a bucket with records, the collecting) pass
// reports: file 1 is missing; the 40-byte file 2 holds the start slots of
// buckets 0 to 8 (all 0: empty ranges) and too few bytes for the others.
void expectPasses(Expected& e, const Installation& db, int bucket)
{
    const int passes = db.hasRecords(bucket) ? 2 : 1;
    for (int pass = 0; pass < passes; ++pass) {
        e.error("nxi::CalculateSizeOfIndex", "Yn File Not exist : " + e.source("wdx00", 1));
        if (bucket > 8)
            e.error("nxi::GetIndexHighAndLow", "Error: ReadFile failed for the following file- " + e.source("wdx00", 2));
    }
}

// The whole run: wdx00 up to the step that stops it, then wdx01's short
// run, the end of both walks. bucketExtra adds what a bucket reports after
// its passes; stopAt, when set, is the report that ends wdx00's run early
// (and wdx01's too when stopsBoth).
std::vector<Report> expectedRun(const Installation& db, std::function<void(Expected&, int)> bucketExtra,
                                const QString& stopAt = QString(), bool stopsBoth = false)
{
    Expected e{db.install, {}};
    e.reports.push_back({"INFO", "main",
                         "--------------------------Build Date : 2024-12-12 04:30 PM ----------------------------"});
    e.trace("nxi::StartLoop", "In get DB type");
    e.error("nxi::StartIndexer", "In StartIndexer");
    if (!stopAt.isEmpty()) {
        e.error("nxi::StartIndexer", stopAt);
    } else {
        e.trace("nxi::StartIndexer", "Indexing for DB - wdx00");
        for (int bucket = 0; bucket < 256; ++bucket) {
            e.trace("nxi::StartIndexer", QString::asprintf("%02x", bucket));
            expectPasses(e, db, bucket);
            if (bucketExtra)
                bucketExtra(e, bucket);
        }
    }
    e.error("nxi::StartIndexer", "In StartIndexer");
    e.error("nxi::StartIndexer", stopsBoth ? stopAt : "DB count to be indexed is zero!");
    e.walkEnd("wdx02");
    e.trace("nxi::StartLoop", "In get DB type");
    e.walkEnd("wfx00");
    return e.reports;
}

// The logger writes a run of identical reports as the first one and a count line.
std::vector<Report> collapsed(const std::vector<Report>& reports)
{
    std::vector<Report> lines;
    for (size_t i = 0; i < reports.size();) {
        size_t same = 1;
        while (i + same < reports.size() && reports[i + same] == reports[i])
            ++same;
        lines.push_back(reports[i]);
        if (same > 1)
            lines.push_back({"?", "?", QString::asprintf("Repeated [%05d] times.", int(same - 1))});
        i += same;
    }
    return lines;
}

void expectLog(const Installation& db, const std::vector<Report>& reports)
{
    const std::vector<Report> expected = collapsed(reports);
    std::vector<Report> actual = reportsOf(db.install);
    ASSERT_FALSE(actual.empty());
    EXPECT_EQ(actual.front().name, "LoggerStarted");
    actual.erase(actual.begin());
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(actual[i], expected[i]) << "report " << i;
}

TEST(EndToEndLog, FirstRunWithMissingAndShortFiles)
{
    Installation db;
    ASSERT_EQ(db.install.runIndexer(), 0);
    expectLog(db, expectedRun(db, nullptr));
}

TEST(EndToEndLog, WriterFailureIsReportedByTheWriterAndTheRunGoesOn)
{
    Installation db;
    int failing = 0;
    while (!db.hasRecords(failing))
        ++failing;
    const QString pendingKey = db.install.host() + QString::asprintf("/idxn/wdx00/%02x.mnew", failing);
    ASSERT_TRUE(QDir().mkpath(pendingKey));  // a directory where the pending key file goes
    ASSERT_EQ(db.install.runIndexer(), 0);
    expectLog(db, expectedRun(db, [&](Expected& e, int bucket) {
                  if (bucket == failing)
                      e.error("nxi::WriteAllIndexing", "Error:Could not open following file for writing- " + pendingKey);
              }));
    EXPECT_TRUE(nxtest::exists(db.install.host() + "/wdx00.sbf"));  // the other buckets were written
}

TEST(EndToEndLog, DirectoryFailuresEndTheDatabasesRun)
{
    struct Case {
        const char* blockedByFile;  // a plain file where the run needs a directory
        const char* message;
        bool stopsBoth;  // wdx01 needs the same directory
    } cases[] = {
        {"idxn", "Error: Could not create idxn directory in txhost - %1/idxn/", true},
        {"idxn/wdx00", "Error: Could not create idxn db directory in txhost - %1/idxn/wdx00", false},
        {"hl/wdx00/hlp", "Could not create helper directory in Talvex application data path!", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.blockedByFile);
        Installation db;
        nxtest::writeFile(db.install.host() + "/" + c.blockedByFile, "x");
        ASSERT_EQ(db.install.runIndexer(), 0);
        expectLog(db, expectedRun(db, nullptr, QString(c.message).arg(db.install.host()), c.stopsBoth));
        // The status file under construction stays with its zeroed head.
        EXPECT_EQ(nxtest::readFile(db.install.host() + "/wdx00.sbftmp"), QByteArray(1024, '\0'));
    }
}

} // namespace
