// The state files that tell a run what to index: DB-COUNT files, the next
// volume test, the source file count and the helper progress file.
#include "indexformat.h"
#include "nxi.h"
#include "testsupport.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <vector>

namespace {

class StateFiles : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Dir.isValid());
        m_Indexer.m_HostPath = m_Dir.path();
    }
    void useDatabase(const char* name) { std::snprintf(m_Indexer.m_DbName, sizeof m_Indexer.m_DbName, "%s", name); }
    void touchSource(const char* db, int fileNumber)
    {
        nxtest::writeFile(nxformat::sourceFilePath(m_Dir.path(), db, fileNumber), QByteArray());
    }
    std::vector<int> readMarks(const QByteArray& text)
    {
        const QString path = m_Dir.path() + "/progress.ini";
        nxtest::writeFile(path, text);
        std::vector<int> marks(256, -1);
        m_Indexer.getHlpINIData(marks.data(), path);
        return marks;
    }

    QTemporaryDir m_Dir;
    nxi m_Indexer;
};

TEST_F(StateFiles, DbCountComesFromTheFileOfTheDatabase)
{
    nxtest::writeFile(m_Dir.path() + "/idxval.ini", "[DB-COUNT]\nWDX00=43\nWFX01=7\nWFX00=99\n");
    nxtest::writeFile(m_Dir.path() + "/wfx_idxval.ini", "[DB-COUNT]\nWFX00=12\n");
    const struct { const char* db; int count; const char* file; } cases[] = {
        {"wdx00", 43, "/idxval.ini"}, {"wfx01", 7, "/idxval.ini"},
        {"wfx00", 12, "/wfx_idxval.ini"}, {"wdx01", 0, "/idxval.ini"}};
    for (const auto& c : cases) {
        useDatabase(c.db);
        EXPECT_EQ(m_Indexer.GetValDBCount(), c.count) << c.db;
        EXPECT_EQ(m_Indexer.m_ValIniPath, m_Dir.path() + c.file) << c.db;
    }
}

TEST_F(StateFiles, NextVolumeDecidesFullIndexingAndWhereCountingStarts)
{
    char wdx00[] = "wdx00", wdx99[] = "wdx99", empty[] = "";
    useDatabase("wdx00");
    touchSource("wdx00", 0);
    EXPECT_FALSE(m_Indexer.IsToDoFullIndexing(wdx00));
    EXPECT_EQ(m_Indexer.GetDBCount(), 0);  // newest volume: counted from file 1
    EXPECT_FALSE(m_Indexer.IsToDoFullIndexing(wdx99));
    touchSource("wdx01", 0);
    touchSource("wdx100", 0);
    EXPECT_TRUE(m_Indexer.IsToDoFullIndexing(wdx00));
    EXPECT_TRUE(m_Indexer.IsToDoFullIndexing(wdx99));  // wdx1000000.yn: the first file of wdx100
    EXPECT_FALSE(m_Indexer.IsToDoFullIndexing(empty));
    m_Indexer.m_FullIndexing = true;
    EXPECT_EQ(m_Indexer.GetDBCount(), 1);
    for (int n : {1, 2, 3, 4, 6})  // 6 comes after a gap: not counted
        touchSource("wdx00", n);
    EXPECT_EQ(m_Indexer.GetDBCount(), 5);
    m_Indexer.m_FullIndexing = false;
    EXPECT_EQ(m_Indexer.GetDBCount(), 4);
}

TEST_F(StateFiles, ProgressFileTokenRules)
{
    auto marksWith = [](std::vector<std::pair<int, int>> set) {
        std::vector<int> marks(256, -1);
        for (auto [bucket, mark] : set)
            marks[size_t(bucket)] = mark;
        return marks;
    };
    const struct { const char* text; std::vector<int> marks; } cases[] = {
        {"[hlpr]\n00=05\n01=-1\n02=07\n", marksWith({{0, 5}, {2, 7}})},
        {"[hlpr]\n00=05\n01=05\n03=05\n", marksWith({{0, 5}, {1, 5}})},  // 03 arrives where 02 was due
        {"[hlpr]\n01=05\n02=05\n", marksWith({})},                        // 01 consumed in 00's place
        {"[hlpr]\n00=1\n01=2\n02=3\n03=4\n04=\n05=6\n", marksWith({{0, 1}, {1, 2}, {2, 3}, {3, 4}, {5, 6}})},
        {"[hlpr]\n00=1\n01=2\n02=3\n03=4\n04\n05=6\n", marksWith({{0, 1}, {1, 2}, {2, 3}, {3, 4}})},
        {"[hlpr]\r\n\r\n00=05\r\n\r\n\r\n01=123\r\n", marksWith({{0, 5}, {1, 123}})},
        {"[hlpr]\n00\n01=3\n", marksWith({{1, 3}})},  // 00 without "=" clears slot 0 and goes on
        {"[hlpr]\n00=-2000000000\n01=99999999999\n", marksWith({{0, -1}, {1, 2147483646}})},
        {"[hlpr]\n", marksWith({})},
        {"", marksWith({})},
    };
    for (const auto& c : cases)
        EXPECT_EQ(readMarks(c.text), c.marks) << c.text;
}

TEST_F(StateFiles, ProgressFileOfAllBucketsReadsWhole)
{
    QByteArray text = "[hlpr]\n";
    for (int bucket = 0; bucket < 256; ++bucket)
        text += QString::asprintf("%02x=%02d\n", bucket, bucket % 50).toUtf8();
    text += "100=7\n";  // past the last bucket: ignored
    const std::vector<int> marks = readMarks(text);
    for (int bucket = 0; bucket < 256; ++bucket)
        ASSERT_EQ(marks[size_t(bucket)], bucket % 50) << bucket;
}

TEST_F(StateFiles, UpdateiniWritesSortedKeysThatReadBack)
{
    m_Indexer.m_HlIniPath = m_Dir.path() + "/wdx00hl.ini";
    m_Indexer.Updateini(26, 7);
    m_Indexer.Updateini(3, -1);
    m_Indexer.Updateini(0, 123);
    m_Indexer.Updateini(1, 4);
    m_Indexer.Updateini(2, 4);
    EXPECT_EQ(nxtest::readFile(m_Indexer.m_HlIniPath), QByteArray("[hlpr]\n00=123\n01=04\n02=04\n03=-1\n1a=07\n"));
    std::vector<int> marks(256, -1);
    m_Indexer.getHlpINIData(marks.data(), m_Indexer.m_HlIniPath);
    EXPECT_EQ(marks[0], 123);
    EXPECT_EQ(marks[2], 4);
    EXPECT_EQ(marks[3], -1);
    EXPECT_EQ(marks[26], -1);  // 04 is missing, so 1a is read in its place and ignored
}

} // namespace
