// Sizing and collecting a bucket's entry table, its allocation and its sort.
#include "indexer_fixture.h"

namespace {

constexpr int kBucket = 7;

class EntryTable : public IndexerTest
{
protected:
    // Source file n gets n + 1 records in kBucket, keys descending across files.
    QByteArray writeSources(std::initializer_list<int> fileNumbers)
    {
        QByteArray all;
        for (int n : fileNumbers) {
            QVector<QByteArray> buckets(256);
            for (int r = 0; r <= n; ++r)
                buckets[kBucket] += nxtest::makeRecord(uint32_t(0x07000000 - 16 * n + r), uint32_t(n * 10 + r));
            writeSource(n, buckets);
            all += buckets[kBucket];
        }
        return all;
    }
    DWORD sizingPass(int firstFile, int dbCount, int* lastFile)
    {
        return m_Indexer.CalculateSizeOfIndex(kBucket, firstFile, false, lastFile, dbCount);
    }
    void collectingPass(int dbCount)
    {
        int lastFile = 0;
        m_Indexer.CalculateSizeOfIndex(kBucket, 0, true, &lastFile, dbCount);
    }
};

TEST_F(EntryTable, SizingVisitsFilesUpToDbCountMinusTwo)
{
    writeSources({0, 1, 2, 3, 4});
    const struct { int firstFile, dbCount; DWORD size; int lastFile; } cases[] = {
        {0, 5, 16 * (1 + 2 + 3 + 4), 3}, {2, 5, 16 * (3 + 4), 3}, {4, 5, 0, 3},
        {6, 5, 0, 5}, {0, 1, 0, -1}, {0, 0, 0, -1}};
    for (const auto& c : cases) {
        int lastFile = 99;
        EXPECT_EQ(sizingPass(c.firstFile, c.dbCount, &lastFile), c.size) << c.firstFile << "/" << c.dbCount;
        EXPECT_EQ(lastFile, c.lastFile) << c.firstFile << "/" << c.dbCount;
    }
}

TEST_F(EntryTable, CollectingPassCopiesRangesInFileOrder)
{
    QByteArray expected = writeSources({0, 1, 2, 3});
    writeSources({4});
    int lastFile = 0;
    DWORD size = sizingPass(0, 5, &lastFile), allocSize = 0;
    bool hasHelper = false;
    ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(kBucket, size, &hasHelper, &allocSize));
    EXPECT_FALSE(hasHelper);
    EXPECT_EQ(allocSize, size);
    collectingPass(5);
    EXPECT_EQ(tableBytes(int(size)), expected);
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable + size);
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(EntryTable, MissingOrCorruptFilesAreSkippedAndLogged)
{
    QByteArray kept = writeSources({0}) + writeSources({3});
    writeSources({2});
    QByteArray corrupt = nxtest::readFile(sourcePath(2));
    corrupt.replace(4 * (kBucket + 1), 4, le32(99));
    nxtest::writeFile(sourcePath(2), corrupt);
    int lastFile = 0;
    DWORD size = sizingPass(0, 5, &lastFile), allocSize = 0;
    EXPECT_EQ(size, DWORD(kept.size()));
    bool hasHelper = false;
    ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(kBucket, size, &hasHelper, &allocSize));
    collectingPass(5);
    EXPECT_EQ(tableBytes(int(size)), kept);
    QString missing = errorLine("CalculateSizeOfIndex", "Yn File Not exist : " + sourcePath(1));
    QString refused = errorLine("GetIndexHighAndLow", "Error: Corrupt bucket range in the following file- " +
                                                          sourcePath(2) + " (bucket 07, low 0, high 99)");
    EXPECT_EQ(takeLog(), (QStringList{missing, refused, missing, refused}));
}

TEST_F(EntryTable, PathLongerThanItsBufferIsSkipped)
{
    m_Indexer.m_HostPath = host() + "/" + QString(490, 'x');  // 511 bytes would still fit
    int lastFile = 0;
    EXPECT_EQ(sizingPass(0, 2, &lastFile), 0u);
    EXPECT_EQ(lastFile, 0);
    EXPECT_EQ(takeLog(), QStringList{errorLine("CalculateSizeOfIndex", "Error: Path too long for the following yn "
                                                                       "file- " + m_Indexer.m_HostPath +
                                                                       "/idxnd/wdx000000.yn")});
}

TEST_F(EntryTable, OversizedBucketIsRefusedBeforeAllocation)
{
    const struct { DWORD size; int helperBytes; bool accepted; } cases[] = {
        {65535 * 16, 0, true}, {65535 * 16 - 15, 15 + 15, true},
        {65535 * 16, 16, false}, {0xFFFFFFFFu, 0, false}};
    for (const auto& c : cases) {
        nxtest::writeFile(helperPath(kBucket), QByteArray(c.helperBytes, '\x01'));
        bool hasHelper = false;
        DWORD allocSize = 1;
        EXPECT_EQ(m_Indexer.AllocateIndexBuffer(kBucket, c.size, &hasHelper, &allocSize), c.accepted) << c.size;
        EXPECT_EQ(m_Indexer.m_EntryTable != nullptr, c.accepted);
        EXPECT_EQ(allocSize, c.accepted ? c.size + DWORD(c.helperBytes) : 0);
        QStringList refused{errorLine("AllocateIndexBuffer", QString("Error: Bucket 07 too large to index - %1 "
                                                                      "bytes, more than 65535 records")
                                                                  .arg(quint64(c.size) + c.helperBytes))};
        EXPECT_EQ(takeLog(), c.accepted ? QStringList() : refused);
        m_Indexer.ReleaseIndexBuffer();
    }
}

TEST_F(EntryTable, RangeThatGrewBetweenThePassesIsNotCopied)
{
    QByteArray first = writeSources({0});
    writeSources({1});
    int lastFile = 0;
    DWORD size = sizingPass(0, 3, &lastFile), allocSize = 0;
    bool hasHelper = false;
    ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(kBucket, size, &hasHelper, &allocSize));
    QVector<QByteArray> grown(256);
    grown[kBucket] = nxtest::makeRecord(1, 1) + nxtest::makeRecord(2, 2) + nxtest::makeRecord(3, 3);
    writeSource(1, grown);
    collectingPass(3);
    EXPECT_TRUE(m_Indexer.m_EntryTableOverflow);
    EXPECT_EQ(tableBytes(int(size)), first + QByteArray(32, '\0'));
    EXPECT_EQ(takeLog(), QStringList{errorLine("ReadIndexBuffer",
                                               "Error: Entry table too small for the following file(read buffer) - " +
                                                   sourcePath(1) + " (48 bytes, room for 32)")});
    bool again = false;
    ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(kBucket, size, &again, &allocSize));
    EXPECT_FALSE(m_Indexer.m_EntryTableOverflow);
}

TEST_F(EntryTable, SortFollowsCompare)
{
    // Narrow spans sort ascending; trailing bytes of a part record stay put.
    QByteArray narrow;
    for (uint32_t key : {0x07000503u, 0x07000001u, 0x07ff0000u, 0x07000002u, 0x07050000u})
        narrow += nxtest::makeRecord(key, key);
    loadTable(kBucket, narrow + "tail");
    m_Indexer.SortEntryTable(DWORD(narrow.size()) + 4);
    QByteArray sorted = tableBytes(narrow.size() + 4);
    for (int i = 0; i + 1 < 5; ++i)
        EXPECT_LT(nxformat::recordKey(reinterpret_cast<const unsigned char*>(sorted.constData()) + 16 * i),
                  nxformat::recordKey(reinterpret_cast<const unsigned char*>(sorted.constData()) + 16 * (i + 1)));
    EXPECT_TRUE(sorted.endsWith("tail"));
    EXPECT_EQ(sorted.left(16), nxtest::makeRecord(0x07000001u, 0x07000001u));

    // Keys 2^31 or more apart: the order compare() gives, 2^31 + 1 before 0.
    QByteArray wide = nxtest::makeRecord(0, 0) + nxtest::makeRecord(0x80000001u, 1);
    m_Indexer.ReleaseIndexBuffer();
    loadTable(kBucket, wide);
    m_Indexer.SortEntryTable(32);
    EXPECT_EQ(tableBytes(32), wide.mid(16) + wide.left(16));
}

} // namespace
