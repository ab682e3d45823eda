// Bad input that no other test meets: source file paths longer than the
// 512-byte buffer the indexer formats them into.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

TEST(EndToEndBadInput, OverLongSourcePathsAreSkippedWithOneLineEachPass)
{
    // An installation root deep enough that every source path passes 511 bytes.
    QTemporaryDir base;
    const QString deep = base.path() + "/" + QString(240, 'd') + "/" + QString(240, 'e');
    ASSERT_TRUE(QDir().mkpath(deep));
    const QByteArray tmp = qgetenv("TMPDIR");
    qputenv("TMPDIR", deep.toUtf8());
    nxtest::TempInstall install;
    tmp.isNull() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", tmp);
    const QString host = install.host();
    for (int f = 0; f < 2; ++f)
        nxtest::writeSource(host, "wdx00", f, nxtest::sampleSourceBuckets(f, 5));
    nxtest::writeSource(host, "wdx01", 0, nxtest::sampleSourceBuckets(0, 6));
    nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 3);
    ASSERT_GT(nxformat::sourceFilePath(host, "wdx00", 0).toUtf8().size(), 511);

    ASSERT_EQ(install.runIndexerWith({}, 60000), 0);
    // Each bucket's sizing pass names both files; nothing is sized, so nothing is collected.
    QStringList expected;
    for (int bucket = 0; bucket < 256; ++bucket) {
        expected << QString::asprintf("[TRACE]  [nxi::StartIndexer] :: %02x", bucket);
        for (int f = 0; f < 2; ++f)
            expected << "[ERROR]  [nxi::CalculateSizeOfIndex] :: Error: Path too long for the following yn file- " +
                            nxformat::sourceFilePath(host, "wdx00", f);
    }
    QStringList lines = install.logBodies().filter(QRegularExpression("StartIndexer\\] :: [0-9a-f]{2}$|Path too long"));
    lines.replaceInStrings(QRegularExpression(":: \\[0x[0-9A-F]{8}\\]: "), ":: ");
    EXPECT_EQ(lines, expected);
    // The database keeps no index, no marks and no status file.
    EXPECT_TRUE(QDir(nxformat::indexDirPath(host, "wdx00")).isEmpty());
    EXPECT_FALSE(nxtest::exists(nxformat::helperProgressPath(host, "wdx00")));
    EXPECT_FALSE(nxtest::exists(nxformat::statusFilePath(host, "wdx00")));
    EXPECT_FALSE(nxtest::exists(nxformat::pendingStatusFilePath(host, "wdx00")));
}

} // namespace
