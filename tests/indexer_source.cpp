// Bucket ranges of a source file and their copy into the entry table.
#include "indexer_fixture.h"

namespace {

class SourceFile : public IndexerTest
{
protected:
    // The 1,184-byte example: 10 records, bucket starts 2, 2, 5, then 10.
    QByteArray example()
    {
        QVector<QByteArray> buckets(4);
        for (uint32_t r = 0; r < 10; ++r)
            buckets[r < 2 ? 0 : r < 5 ? 2 : 3] += nxtest::makeRecord(1000 + r, r);
        return nxformat::buildSourceFile(buckets);
    }
    // GetIndexHighAndLow on file 0, as {low, high}, or {} when it failed.
    std::vector<DWORD> range(int bucket)
    {
        DWORD low = 0, high = 0;
        QByteArray path = sourcePath(0).toUtf8();
        if (!m_Indexer.GetIndexHighAndLow(path.data(), bucket, &low, &high))
            return {};
        return {low, high};
    }
    QString pathText() { return sourcePath(0); }
};

TEST_F(SourceFile, RangesOfTheWorkedExample)
{
    QByteArray file = example();
    ASSERT_EQ(file.size(), 1184);
    for (bool scribbled : {false, true}) {
        if (scribbled)
            file.replace(0, 4, "\xff\xff\xff\xff");  // bucket 0 never reads bytes 0-3
        nxtest::writeFile(sourcePath(0), file);
        const struct { int bucket; DWORD low, high; } cases[] = {
            {0, 0, 2}, {1, 2, 2}, {2, 2, 5}, {3, 5, 10}, {254, 10, 10}, {255, 10, 10}};
        for (const auto& c : cases)
            EXPECT_EQ(range(c.bucket), (std::vector<DWORD>{c.low, c.high})) << "bucket " << c.bucket;
    }
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(SourceFile, LastBucketEndsWithTheLastWholeRecord)
{
    QVector<QByteArray> buckets(256);
    for (uint32_t r = 0; r < 10; ++r)
        buckets[r < 8 ? 0 : 255] += nxtest::makeRecord(r, r);
    nxtest::writeFile(sourcePath(0), nxformat::buildSourceFile(buckets) + "1234567");
    EXPECT_EQ(range(255), (std::vector<DWORD>{8, 10}));
}

TEST_F(SourceFile, FileTooShortForItsSlots)
{
    const struct { int bucket; int size; } cases[] = {{0, 7}, {5, 27}, {254, 1023}, {255, 1023}};
    for (const auto& c : cases) {
        nxtest::writeFile(sourcePath(0), example().left(c.size));
        EXPECT_TRUE(range(c.bucket).empty()) << c.bucket;
        EXPECT_EQ(takeLog(), QStringList{errorLine("GetIndexHighAndLow",
                                                   "Error: ReadFile failed for the following file- " + pathText())})
            << c.bucket;
    }
}

TEST_F(SourceFile, CorruptStartTableIsRefused)
{
    const struct { int bucket; DWORD slot, value; const char* logged; } cases[] = {
        {3, 4 * 4, 4, "bucket 03, low 5, high 4"},             // start of 4 below start of 3
        {4, 4 * 5, 11, "bucket 04, low 10, high 11"},          // end past the 10 records
        {255, 4 * 255, 0xFFFFFFF0u, "bucket ff, low 4294967280, high 10"}};  // start past the end
    for (const auto& c : cases) {
        QByteArray file = example();
        file.replace(int(c.slot), 4, le32(c.value));
        nxtest::writeFile(sourcePath(0), file);
        EXPECT_TRUE(range(c.bucket).empty()) << c.bucket;
        EXPECT_EQ(takeLog(), QStringList{errorLine("GetIndexHighAndLow",
                                                   "Error: Corrupt bucket range in the following file- " +
                                                       pathText() + " (" + c.logged + ")")});
    }
}

TEST_F(SourceFile, MissingFileLogsItsCodeTwice)
{
    EXPECT_TRUE(range(1).empty());
    EXPECT_EQ(takeLog(true), QStringList{"[ERROR]  [nxi::GetIndexHighAndLow] :: [0x00000002]: Could not open "
                                         "following db file- " + pathText() + " - code -> 2 "});
}

TEST_F(SourceFile, RangeIsCopiedToTheCursor)
{
    QByteArray file = example();
    nxtest::writeFile(sourcePath(0), file);
    loadTable(2, QByteArray(64, '\xaa'));
    QByteArray path = sourcePath(0).toUtf8();
    unsigned char* start = m_Indexer.m_EntryTable;

    EXPECT_TRUE(m_Indexer.ReadIndexBuffer(path.data(), 1056, 0));  // an empty range reads nothing
    EXPECT_TRUE(m_Indexer.ReadIndexBuffer(path.data(), 1056, 48));
    EXPECT_EQ(m_Indexer.m_EntryCursor, start + 48);
    EXPECT_EQ(tableBytes(48), file.mid(1056, 48));

    // A read that comes up short zeroes what arrived and keeps the cursor.
    EXPECT_FALSE(m_Indexer.ReadIndexBuffer(path.data(), 1184 - 8, 16));
    EXPECT_FALSE(m_Indexer.ReadIndexBuffer(path.data(), 5000, 16));
    EXPECT_EQ(m_Indexer.m_EntryCursor, start + 48);
    EXPECT_EQ(tableBytes(16, 48), QByteArray(8, '\0') + QByteArray(8, '\xaa'));
    QString shortRead = errorLine("ReadIndexBuffer", "Error: ReadFile failed for the following file(read buffer) - " +
                                                         pathText());
    EXPECT_EQ(takeLog(), (QStringList{shortRead, shortRead}));

    // More than the table holds: nothing is copied and the bucket is marked.
    EXPECT_FALSE(m_Indexer.m_EntryTableOverflow);
    EXPECT_FALSE(m_Indexer.ReadIndexBuffer(path.data(), 1024, 32));
    EXPECT_TRUE(m_Indexer.m_EntryTableOverflow);
    EXPECT_EQ(tableBytes(8, 48), QByteArray(8, '\0'));
    EXPECT_EQ(takeLog(), QStringList{errorLine("ReadIndexBuffer",
                                               "Error: Entry table too small for the following file(read buffer) - " +
                                                   pathText() + " (32 bytes, room for 16)")});

    QByteArray missing = sourcePath(9).toUtf8();
    EXPECT_FALSE(m_Indexer.ReadIndexBuffer(missing.data(), 1024, 0));
    EXPECT_EQ(takeLog(), QStringList{errorLine("ReadIndexBuffer", "Could not open following db file: " +
                                                                      sourcePath(9) + " - code -> 2 ")});
}

} // namespace
