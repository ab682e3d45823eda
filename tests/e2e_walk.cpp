// The real nxindexer in a temporary installation: start lines, exit status
// and the walk over DB types and volumes.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

using nxtest::TempInstall;

const char* const kBanner =
    "[INFO]  [main] :: --------------------------Build Date : 2024-12-12 04:30 PM ----------------------------";

void touchFirstFile(const TempInstall& install, const QString& db)
{
    nxtest::writeFile(nxformat::sourceFilePath(install.host(), db, 0), QByteArray());
}

// The log lines that show the walk: which volume each run is for and where each walk ends.
QStringList walkLines(const TempInstall& install)
{
    const QRegularExpression walk("In get DB type|Indexing for DB|DB count to be indexed|Could not get \\.yn");
    QStringList lines;
    for (const QString& body : install.logBodies())
        if (walk.match(body).hasMatch())
            lines << body.section(" :: ", 1).remove(QRegularExpression("^\\[0x[0-9A-F]{8}\\]: "));
    return lines;
}

QString stopLine(const TempInstall& install, const QString& db)
{
    return "Error:Could not get .yn files for following indexer type- " + install.host() + "/idxnd/" + db +
           "0000.yn";
}

TEST(EndToEndWalk, WithoutIdxndNothingIsIndexed)
{
    TempInstall install;
    ASSERT_EQ(install.runIndexer(), 0);
    const QStringList log = install.logBodies();
    ASSERT_EQ(log.size(), 3);
    EXPECT_TRUE(QRegularExpression("^\\[INFO\\]  \\[LoggerStarted\\] :: Build Date: "
                                   "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d$")
                    .match(log[0])
                    .hasMatch())
        << log[0].toStdString();
    EXPECT_EQ(log[1], kBanner);
    EXPECT_TRUE(QRegularExpression("^\\[ERROR\\]  \\[nxi::StartLoop\\] :: \\[0x[0-9A-F]{8}\\]: "
                                   "Error:Does not exist idxnd folder!$")
                    .match(log[2])
                    .hasMatch())
        << log[2].toStdString();
    EXPECT_FALSE(QDir(install.host() + "/idxnd").exists());
}

TEST(EndToEndWalk, WalksEachTypeUpToTheFirstMissingVolume)
{
    TempInstall install;
    touchFirstFile(install, "wdx00");
    touchFirstFile(install, "wdx01");
    touchFirstFile(install, "wdx03");  // after the gap at wdx02: never reached
    touchFirstFile(install, "wgx00");  // wgx is not walked
    ASSERT_EQ(install.runIndexer(), 0);
    const QStringList expected = {
        "In get DB type",
        "Indexing for DB - wdx00",          // closed volume: file 0000 counts
        "DB count to be indexed is zero!",  // newest volume: only 0000, which does not count
        stopLine(install, "wdx02"),
        "In get DB type",
        stopLine(install, "wfx00"),
    };
    EXPECT_EQ(walkLines(install), expected);
    EXPECT_FALSE(install.logBodies().join("\n").contains("wgx"));
}

TEST(EndToEndWalk, VolumeAfter99HasThreeDigits)
{
    TempInstall install;
    for (int volume = 0; volume <= 100; ++volume)
        touchFirstFile(install, QString::asprintf("wdx%02d", volume));
    touchFirstFile(install, "wfx00");
    ASSERT_EQ(install.runIndexer(), 0);
    const QStringList lines = walkLines(install);
    EXPECT_TRUE(lines.contains("Indexing for DB - wdx99"));
    EXPECT_FALSE(lines.contains("Indexing for DB - wdx100"));  // the newest volume
    EXPECT_EQ(lines.count("DB count to be indexed is zero!"), 2);  // wdx100 and wfx00
    EXPECT_EQ(lines.filter("Could not get .yn").mid(0, 1), QStringList{stopLine(install, "wdx101")});
    EXPECT_TRUE(QDir(install.host() + "/idxn/wdx100").exists());
}

} // namespace
