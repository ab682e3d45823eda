// The real nxindexer in a temporary installation: start lines, exit status and the walk over DB types and volumes.
#include "indexformat.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

TEST(EndToEndWalk, WithoutIdxndTheStartLinesAndOneError)
{
    nxtest::TempInstall install;
    ASSERT_EQ(install.runIndexer(), 0);
    const QString log = install.logBodies().join('\n');
    EXPECT_TRUE(QRegularExpression(
        "^\\[INFO\\]  \\[LoggerStarted\\] :: Build Date: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\n"
        "\\[INFO\\]  \\[main\\] :: -{26}Build Date : 2024-12-12 04:30 PM -{28}\n"
        "\\[ERROR\\]  \\[nxi::StartLoop\\] :: \\[0x[0-9A-F]{8}\\]: Error:Does not exist idxnd folder!$").match(log)
                    .hasMatch()) << log;
    EXPECT_FALSE(QDir(install.host() + "/idxnd").exists());
}

// Volumes 00 to 99 are closed, wdx100 is the newest and holds only its uncounted file 0000; wdx102 lies past the gap
// at wdx101, wgx is not walked, and wfx has no volume at all.
TEST(EndToEndWalk, EachTypeUpToItsFirstMissingVolumeWithThreeDigitsAfter99)
{
    nxtest::TempInstall install;
    auto source = [&](const QString& db) { return nxformat::sourceFilePath(install.host(), db, 0); };
    const QString stop = "Error:Could not get .yn files for following indexer type- ";
    QStringList expected = {"In get DB type"};
    for (int volume = 0; volume <= 100; ++volume) {
        nxtest::writeFile(source(QString::asprintf("wdx%02d", volume)), {});
        expected << (volume < 100 ? QString::asprintf("Indexing for DB - wdx%02d", volume)
                                  : "DB count to be indexed is zero!");
    }
    nxtest::writeFile(source("wdx102"), {});
    nxtest::writeFile(source("wgx00"), {});
    expected << stop + source("wdx101") << "In get DB type" << stop + source("wfx00");

    ASSERT_EQ(install.runIndexer(), 0);
    const QRegularExpression walk("In get DB type|Indexing for DB|DB count to be indexed|Could not get \\.yn");
    QStringList lines;
    for (const QString& body : install.logBodies().filter(walk))
        lines << body.section(" :: ", 1).remove(QRegularExpression("^\\[0x[0-9A-F]{8}\\]: "));
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(QDir(install.host() + "/idxn/wdx100").exists());
}

} // namespace
