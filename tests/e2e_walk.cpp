// The real nxindexer in a temporary installation: start lines, exit status
// and the walk over DB types and volumes.
#include "indexformat.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

using nxtest::TempInstall;

TEST(EndToEndWalk, WithoutIdxndTheStartLinesAndOneError)
{
    TempInstall install;
    ASSERT_EQ(install.runIndexer(), 0);
    const QString log = install.logBodies().join('\n');
    EXPECT_TRUE(QRegularExpression(
        "^\\[INFO\\]  \\[LoggerStarted\\] :: Build Date: \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\n"
        "\\[INFO\\]  \\[main\\] :: -{26}Build Date : 2024-12-12 04:30 PM -{28}\n"
        "\\[ERROR\\]  \\[nxi::StartLoop\\] :: \\[0x[0-9A-F]{8}\\]: Error:Does not exist idxnd folder!$").match(log)
                    .hasMatch()) << log.toStdString();
    EXPECT_FALSE(QDir(install.host() + "/idxnd").exists());
}

// Volumes 00 to 99 are closed (file 0000 counts), wdx100 is the newest and
// holds only file 0000, which does not count; wdx102 lies past the gap at
// wdx101, and wgx is not walked. wfx has no volume at all.
TEST(EndToEndWalk, EachTypeUpToItsFirstMissingVolumeWithThreeDigitsAfter99)
{
    TempInstall install;
    auto stop = [&](const char* db) {
        return "Error:Could not get .yn files for following indexer type- " +
               nxformat::sourceFilePath(install.host(), db, 0);
    };
    QStringList expected = {"In get DB type"};
    auto touch = [&](const QString& db) { nxtest::writeFile(nxformat::sourceFilePath(install.host(), db, 0), {}); };
    for (int volume = 0; volume <= 100; ++volume) {
        touch(QString::asprintf("wdx%02d", volume));
        expected << (volume < 100 ? QString::asprintf("Indexing for DB - wdx%02d", volume)
                                  : "DB count to be indexed is zero!");
    }
    touch("wdx102");
    touch("wgx00");
    expected << stop("wdx101") << "In get DB type" << stop("wfx00");

    ASSERT_EQ(install.runIndexer(), 0);
    const QRegularExpression walk("In get DB type|Indexing for DB|DB count to be indexed|Could not get \\.yn");
    QStringList lines;
    for (const QString& body : install.logBodies().filter(walk))
        lines << body.section(" :: ", 1).remove(QRegularExpression("^\\[0x[0-9A-F]{8}\\]: "));
    EXPECT_EQ(lines, expected);
    EXPECT_TRUE(QDir(install.host() + "/idxn/wdx100").exists());
}

} // namespace
