// Size text and directory measurement on real trees.
#include "Common.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(CommonSize, SizeText)
{
    const struct {
        quint64 size;
        const char* text;
    } rows[] = {
        {0, "0.00 bytes"},
        {1, "1.00 bytes"},
        {1023, "1023.00 bytes"},
        {1024, "1.00 KB"},
        {1536, "1.50 KB"},
        {1048575, "1024.00 KB"},
        {1048576, "1.00 MB"},
        {5492165909ULL, "5.11 GB"},
        {1099511627776ULL, "1.00 TB"},
        {1125899906842624ULL, "1024.00 TB"},
        {18446744073709551615ULL, "16777216.00 TB"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Common::getSizeInString(row.size), QString(row.text)) << row.size;
}

class CommonPathSize : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_Dir.isValid()); }
    QString tree(const QString& name = QString()) const
    {
        return m_Dir.path() + "/tree" + (name.isEmpty() ? "" : "/" + name);
    }
    void write(const QString& path, int bytes) { nxtest::writeFile(path, QByteArray(bytes, 'x')); }
    QTemporaryDir m_Dir;
};

TEST_F(CommonPathSize, MissingFileAndEmptyDirectory)
{
    EXPECT_EQ(Common::getPathSize(tree("missing")), 0);
    EXPECT_EQ(Common::getPathSize(""), 0);
    ASSERT_TRUE(QDir().mkpath(tree()));
    EXPECT_EQ(Common::getPathSize(tree()), 0);
    write(tree("f"), 37);
    EXPECT_EQ(Common::getPathSize(tree("f")), 37);
    ASSERT_EQ(::mkfifo(QFile::encodeName(tree("fifo")).constData(), 0600), 0);
    EXPECT_EQ(Common::getPathSize(tree("fifo")), 0);
}

// Each step adds one kind of entry to the tree; only visible files and what
// links lead to count.
TEST_F(CommonPathSize, TreeTotalsAsEntriesAreAdded)
{
    write(tree("a"), 100);
    write(tree(".b"), 50);
    write(tree("c/d"), 10);
    EXPECT_EQ(Common::getPathSize(tree()), 110);

    write(tree(".hidden/big"), 4000);
    EXPECT_EQ(Common::getPathSize(tree()), 110);

    ASSERT_EQ(::mkfifo(QFile::encodeName(tree("c/fifo")).constData(), 0600), 0);
    EXPECT_EQ(Common::getPathSize(tree()), 110);

    ASSERT_TRUE(QFile::link(tree("nowhere"), tree("broken")));
    EXPECT_EQ(Common::getPathSize(tree()), 110);

    write(m_Dir.path() + "/outside", 1000);
    ASSERT_TRUE(QFile::link(m_Dir.path() + "/outside", tree("c/tofile")));
    EXPECT_EQ(Common::getPathSize(tree("c/tofile")), 1000);
    EXPECT_EQ(Common::getPathSize(tree()), 1110);

    // A second way into the same subtree counts it again: 10 + 1000.
    ASSERT_TRUE(QFile::link(tree("c"), tree("again")));
    EXPECT_EQ(Common::getPathSize(tree()), 2120);
}

TEST_F(CommonPathSize, CycleOfDirectoryLinksEnds)
{
    write(tree("x"), 3);
    write(tree("a/b/f"), 5);
    ASSERT_TRUE(QFile::link(tree(), tree("a/b/up")));
    ASSERT_TRUE(QFile::link("../a", tree("a/self")));
    EXPECT_EQ(Common::getPathSize(tree()), 8);
    // Entered through the link, the cycle ends at the tree itself: 5 + 3.
    EXPECT_EQ(Common::getPathSize(tree("a/b/up")), 8);
    EXPECT_EQ(Common::getPathSize(tree("a")), 8);
}

TEST_F(CommonPathSize, UnreadableDirectoryAddsNothing)
{
    if (::geteuid() == 0)
        GTEST_SKIP() << "root reads every directory, so none can be made unreadable";
    write(tree("a"), 100);
    write(tree("locked/f"), 10);
    ASSERT_TRUE(QFile::setPermissions(tree("locked"), QFileDevice::WriteOwner));
    EXPECT_EQ(Common::getPathSize(tree()), 100);
    QFile::setPermissions(tree("locked"), QFileDevice::ReadOwner | QFileDevice::WriteOwner
                                              | QFileDevice::ExeOwner);
}

} // namespace
