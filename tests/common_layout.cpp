// Installation root and layout, build stamp, size text and measurement.
#include "Common.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QLocale>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(CommonLayout, RootRuleExamples)
{
    const std::pair<const char*, const char*> rows[] = {{"/usr/lib/TalvexSuite/bin", "/usr/lib/TalvexSuite"},
                                                        {"/home/build/out/bin", "/home/build/out"},
                                                        {"/home/build/./out/x/../bin", "/home/build/out"},
                                                        {"/usr/local/bin", "/usr/lib/TalvexSuite"},
                                                        {"/opt/tool", "/opt"},
                                                        {"/opt", "/"}};
    for (const auto& [appDir, root] : rows)
        EXPECT_EQ(Common::rootPathForAppDir(appDir), QString(root)) << appDir;
}

// Run by the next test in a copy of this executable in <root>/bin, under a German locale Qt must not use.
TEST(CommonRelocated, DISABLED_LayoutAndBuildStamp)
{
    ASSERT_EQ(QLocale::system().language(), QLocale::German);
    const QString root = qEnvironmentVariable("NXTEST_ROOT");
    ASSERT_EQ(Common::getRootPath(), root);
    EXPECT_EQ(Common::getScanReportsPath(), root + "/reports/scanner");
    EXPECT_EQ(Common::getEdrDirPath(), root + "/settings/edr");
    const auto dirs = QDir::Dirs | QDir::NoDotAndDotDot;
    EXPECT_EQ(QDir(root).entryList(dirs), (QStringList{"bin", "reports", "settings"}));
    EXPECT_EQ(QDir(root + "/reports").entryList(dirs) + QDir(root + "/settings").entryList(dirs),
              (QStringList{"scanner", "edr"}));

    // The compiler's date and time, then the stamp in each of the formats.
    const char* formats[] = {"yyyy-MM-dd hh:mm:ss", "yyyy-MM-dd", "yyyy.MM.dd.0"};
    const char* rows[][5] = {{"Mar 28 2025", "13:08:05", "2025-03-28 13:08:05", "2025-03-28", "2025.03.28.0"},
                             {"Dec  9 1999", "00:00:59", "1999-12-09 00:00:59", "1999-12-09", "1999.12.09.0"}};
    for (const auto& row : rows)
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(Common::formatBuildStamp(row[0], row[1], formats[i]), QString(row[2 + i]));
    for (const char* bad : {"Mrz 28 2025", "Feb 30 2025", ""})
        EXPECT_EQ(Common::formatBuildStamp(bad, "13:08:05", "yyyy-MM-dd"), QString()) << bad;
    EXPECT_TRUE(Common::getBuildDateTime().startsWith(Common::getBuildDate() + " "));
    EXPECT_EQ(Common::getBuildVersion(), Common::getBuildDate().replace('-', '.') + ".0");
}

TEST(CommonRelocated, LayoutAndBuildStampInACopyUnderAGermanLocale)
{
    QTemporaryDir dir;
    const QString root = QFileInfo(dir.path()).canonicalFilePath() + "/install";
    const QString copy = root + "/bin/nxtest_common";
    ASSERT_TRUE(QDir().mkpath(root + "/bin") && QFile::copy(QCoreApplication::applicationFilePath(), copy));
    const nxtest::Output child =
        nxtest::run(copy, {"--gtest_filter=CommonRelocated.DISABLED_*", "--gtest_also_run_disabled_tests"},
                    {"NXTEST_ROOT=" + root, "LC_ALL=de_DE.UTF-8"});
    EXPECT_TRUE(child.out.contains("[  PASSED  ] 1 test.")) << child.out << child.err;
}

TEST(CommonSize, SizeText)
{
    const std::pair<quint64, const char*> rows[] = {
        {0, "0.00 bytes"},       {1, "1.00 bytes"},          {1023, "1023.00 bytes"},       {1024, "1.00 KB"},
        {1536, "1.50 KB"},       {1048575, "1024.00 KB"},    {1048576, "1.00 MB"},          {5492165909, "5.11 GB"},
        {1ULL << 40, "1.00 TB"}, {1ULL << 50, "1024.00 TB"}, {UINT64_MAX, "16777216.00 TB"}};
    for (const auto& [size, text] : rows)
        EXPECT_EQ(Common::getSizeInString(size), QString(text)) << size;
}

// Only visible files and what links lead to count; a cycle of links ends; an unreadable directory adds nothing.
TEST(CommonSize, PathSizeOfARealTree)
{
    QTemporaryDir dir;
    const QString t = dir.path() + "/tree";
    for (const auto& file : {std::make_pair("/a", 100), {"/.b", 50}, {"/.hidden/big", 4000}, {"/c/d", 10}})
        nxtest::writeFile(t + file.first, QByteArray(file.second, 'x'));
    nxtest::writeFile(dir.path() + "/outside", QByteArray(1000, 'x'));
    nxtest::writeFile(t + "/locked/f", "x");
    ASSERT_EQ(::mkfifo(QFile::encodeName(t + "/c/fifo").constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(t + "/nowhere", t + "/broken"));
    ASSERT_TRUE(QFile::link(dir.path() + "/outside", t + "/c/tofile"));
    ASSERT_TRUE(QFile::link(t, t + "/c/up"));
    ASSERT_TRUE(QFile::link("../c", t + "/c/self"));
    // Root reads every directory: its "locked" still holds one byte.
    const qint64 locked = ::geteuid() == 0 ? 1 : 0;
    ASSERT_TRUE(QFile::setPermissions(t + "/locked", QFileDevice::WriteOwner));
    EXPECT_EQ(Common::getPathSize(""), 0);
    EXPECT_EQ(Common::getPathSize(t + "/c/fifo"), 0);
    EXPECT_EQ(Common::getPathSize(t), 1110 + locked);
    // Entered below the top, the cycle through "up" still counts the rest once: 1010 + 100.
    EXPECT_EQ(Common::getPathSize(t + "/c"), 1110 + locked);
    // A second way into the same subtree counts it again.
    ASSERT_TRUE(QFile::link(t + "/c", t + "/again"));
    EXPECT_EQ(Common::getPathSize(t), 2120 + locked);
    QFile::setPermissions(t + "/locked", QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
}

}  // namespace
