// The state files that tell a run what to index: DB-COUNT, next volume, source file count, progress marks.
#include "indexer_fixture.h"

#include <climits>
#include <map>
#include <vector>

namespace {

using StateFiles = IndexerTest;

TEST_F(StateFiles, DbCountComesFromTheFileOfTheDatabase)
{
    nxtest::writeFile(host() + "/idxval.ini", "[DB-COUNT]\nWDX00=43\nWFX01=7\nWFX00=99\n");
    nxtest::writeFile(host() + "/wfx_idxval.ini", "[DB-COUNT]\nWFX00=12\n");
    const char *shared = "/idxval.ini", *own = "/wfx_idxval.ini";
    const std::tuple<const char*, int, const char*> cases[] = {
        {"wdx00", 43, shared}, {"wfx01", 7, shared}, {"wfx00", 12, own}, {"wdx01", 0, shared}};
    for (const auto& [db, count, file] : cases) {
        useDatabase(db);
        EXPECT_EQ(m_Indexer.GetValDBCount(), count) << db;
        EXPECT_EQ(m_Indexer.m_ValIniPath, host() + file) << db;
    }
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(StateFiles, NextVolumeDecidesFullIndexingAndWhereCountingStarts)
{
    // The end-to-end walk shows wdx99 closed by wdx100.
    auto touchSource = [&](const char* db, int n) { nxtest::writeFile(nxformat::sourceFilePath(host(), db, n), {}); };
    char wdx00[] = "wdx00", empty[] = "";
    touchSource("wdx00", 0);
    EXPECT_FALSE(m_Indexer.IsToDoFullIndexing(wdx00));
    EXPECT_EQ(m_Indexer.GetDBCount(), 0);  // newest volume: counted from file 1
    touchSource("wdx01", 0);
    EXPECT_TRUE(m_Indexer.IsToDoFullIndexing(wdx00));
    EXPECT_FALSE(m_Indexer.IsToDoFullIndexing(empty));
    m_Indexer.m_FullIndexing = true;
    EXPECT_EQ(m_Indexer.GetDBCount(), 1);
    for (int n : {1, 2, 3, 4, 6})  // 6 comes after a gap: not counted
        touchSource("wdx00", n);
    EXPECT_EQ(m_Indexer.GetDBCount(), 5);
    m_Indexer.m_FullIndexing = false;
    EXPECT_EQ(m_Indexer.GetDBCount(), 4);
}

TEST_F(StateFiles, ProgressFileWrittenSortedAndReadByItsTokenRules)
{
    // The slots getHlpINIData sets from the file; it leaves the others as they were.
    using Marks = std::map<int, int>;
    const QString path = host() + "/wdx00hl.ini";
    auto readMarks = [&] {
        std::vector<int> read(256, INT_MIN);
        m_Indexer.getHlpINIData(read.data(), path);
        Marks marks;
        for (int bucket = 0; bucket < 256; ++bucket)
            if (read[size_t(bucket)] != INT_MIN)
                marks[bucket] = read[size_t(bucket)];
        return marks;
    };
    // Updateini keeps the keys sorted; 04 is missing, so 1a is read in its place and ignored.
    m_Indexer.m_HlIniPath = path;
    const std::pair<int, int> updates[] = {{26, 7}, {3, -1}, {0, 123}, {1, 4}, {2, 4}};
    for (auto [bucket, mark] : updates)
        m_Indexer.Updateini(bucket, mark);
    EXPECT_EQ(nxtest::readFile(path), QByteArray("[hlpr]\n00=123\n01=04\n02=04\n03=-1\n1a=07\n"));
    EXPECT_EQ(readMarks(), Marks({{0, 123}, {1, 4}, {2, 4}, {3, -1}}));
    EXPECT_TRUE(takeLog().isEmpty());

    QByteArray all = "[hlpr]\n";  // every bucket, then one past the last: ignored
    Marks allMarks;
    for (int bucket = 0; bucket < 256; ++bucket) {
        all += QString::asprintf("%02x=%02d\n", bucket, bucket % 50).toUtf8();
        allMarks[bucket] = bucket % 50;
    }
    const std::pair<QByteArray, Marks> cases[] = {
        {"[hlpr]\n00=05\n01=-1\n02=07\n", {{0, 5}, {1, -1}, {2, 7}}},
        {"[hlpr]\n00=05\n01=05\n03=05\n", {{0, 5}, {1, 5}}},  // 03 arrives where 02 was due
        {"[hlpr]\n01=05\n02=05\n", {}},  // 01 consumed in 00's place
        {"[hlpr]\n00=1\n01=2\n02=3\n03=4\n04=\n05=6\n", {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, -1}, {5, 6}}},
        {"[hlpr]\n00=1\n01=2\n02=3\n03=4\n04\n05=6\n", {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, -1}}},  // the end
        {"[hlpr]\r\n\r\n00=05\r\n\r\n\r\n01=123\r\n", {{0, 5}, {1, 123}}},
        {"[hlpr]\n00\n01=3\n", {{0, -1}, {1, 3}}},  // 00 without "=" clears slot 0 and goes on
        {"[hlpr]\n00=-2000000000\n01=99999999999\n", {{0, -1}, {1, 2147483646}}},
        {"[hlpr]\n", {}},
        {"", {}},
        {all + "100=7\n", allMarks}};
    for (const auto& [text, marks] : cases) {
        nxtest::writeFile(path, text);
        EXPECT_EQ(readMarks(), marks) << text.left(100).constData();
    }
}

}  // namespace
