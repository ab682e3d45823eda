// Bad input that no other test meets: source file paths longer than the 512-byte buffer they are formatted into.
#include "indexformat.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

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
    QStringList expected;
    for (int bucket = 0; bucket < 256; ++bucket) {
        expected << QString::asprintf("[TRACE]  [nxi::StartIndexer] :: %02x", bucket);
        for (int f = 0; f < 2; ++f)
            expected << "[ERROR]  [nxi::CalculateSizeOfIndex] :: Error: Path too long for the following yn file- " +
                            nxformat::sourceFilePath(host, "wdx00", f);
    }
    QStringList lines = install.logBodies().filter(QRegularExpression("StartIndexer\\] :: [0-9a-f]{2}$|Path too long"));
    EXPECT_EQ(lines.replaceInStrings(QRegularExpression(":: \\[0x[0-9A-F]{8}\\]: "), ":: "), expected);
    // The database keeps no index, no marks and no status file.
    EXPECT_TRUE(QDir(nxformat::indexDirPath(host, "wdx00")).isEmpty());
    for (const QString& path : {nxformat::helperProgressPath(host, "wdx00"), nxformat::statusFilePath(host, "wdx00"),
                                nxformat::pendingStatusFilePath(host, "wdx00")})
        EXPECT_FALSE(nxtest::exists(path)) << path;
}

} // namespace
