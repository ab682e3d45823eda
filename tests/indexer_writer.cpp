// The index file writer: key, payload and entry files, the bucket block,
// and every failure before the rotation.
#include "indexer_fixture.h"

namespace {

class Writer : public IndexerTest
{
protected:
    QByteArray current(IndexFile file, int bucket)
    {
        return nxtest::readFile(indexPath(file, Generation::Current, bucket));
    }
    QByteArray status() { return nxtest::readFile(m_Indexer.m_SbfTmpPath); }
    static QByteArray groupTable(std::initializer_list<std::pair<int, uint16_t>> positions)
    {
        QByteArray table(512, '\xff');
        for (auto [group, position] : positions)
            table.replace(2 * group, 2, le32(position).left(2));
        return table;
    }
};

TEST_F(Writer, TwoRecordsByteForByte)
{
    QByteArray larger = nxtest::makeRecord(0x3f070201, 1);  // 01 02 07 3f
    QByteArray smaller = nxtest::makeRecord(0x3f070005, 2); // 05 00 07 3f
    ASSERT_TRUE(writeBucket(0x3f, larger + smaller));
    QByteArray groups = groupTable({{7, 0}});
    EXPECT_EQ(current(IndexFile::Key, 0x3f), QByteArray::fromHex("05000102") + groups);
    EXPECT_EQ(current(IndexFile::Payload, 0x3f), smaller.mid(4) + larger.mid(4));
    EXPECT_EQ(current(IndexFile::Entry, 0x3f), smaller + larger);
    EXPECT_EQ(status(), QByteArray(1024, '\0') + QByteArray::fromHex("02000000") + groups +
                            QByteArray::fromHex("05000102"));
    EXPECT_EQ(m_Indexer.m_SbfOffsets[0x3f], 1024u);
    EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(Writer, SizesFollowTheRecordCount)
{
    // One record, and a full bucket whose last record opens group 01 at 65,534.
    QByteArray one = nxtest::makeRecord(0x00ab1234, 1);
    QByteArray full;
    for (uint32_t i = 0; i < 65534; ++i)
        full += nxtest::makeRecord(i, i);
    full += nxtest::makeRecord(0x00010000, 0);
    const struct { QByteArray records; int count; QByteArray groups; } cases[] = {
        {one, 1, groupTable({{0xab, 0}})}, {full, 65535, groupTable({{0, 0}, {1, 65534}})}};
    for (int bucket = 0; bucket < 2; ++bucket) {
        const auto& c = cases[bucket];
        DWORD before = DWORD(status().size());
        ASSERT_TRUE(writeBucket(bucket, c.records));
        QByteArray keyFile = current(IndexFile::Key, bucket);
        EXPECT_EQ(keyFile.size(), 2 * c.count + 512);
        EXPECT_EQ(current(IndexFile::Payload, bucket).size(), 12 * c.count);
        EXPECT_EQ(current(IndexFile::Entry, bucket).size(), 16 * c.count);
        EXPECT_EQ(DWORD(status().size()) - before, DWORD(4 + 512 + 2 * c.count));
        EXPECT_EQ(keyFile.right(512), c.groups);
        auto block = nxformat::parseBucketBlock(status(), m_Indexer.m_SbfOffsets[bucket]);
        ASSERT_TRUE(block);
        EXPECT_EQ(m_Indexer.m_SbfOffsets[bucket], before);
        EXPECT_EQ(block->count, DWORD(c.count));
        EXPECT_EQ(block->keys, nxformat::parseKeyFile(keyFile)->keys);
        EXPECT_EQ(block->groupTable, nxformat::parseKeyFile(keyFile)->groupTable);
    }
    EXPECT_EQ(cases[1].records.size(), 65535 * 16);
    EXPECT_EQ(current(IndexFile::Key, 1).size(), 131582);
}

TEST_F(Writer, HelperRemainderStaysUnsortedInTheEntryFile)
{
    // A 40-byte helper file and one new record: allocSize 56, 3 records sorted.
    QByteArray helper = nxtest::makeRecord(0x09000300, 1) + nxtest::makeRecord(0x09000100, 2) + "HHHHHHHH";
    nxtest::writeFile(helperPath(9), helper);
    QVector<QByteArray> buckets(256);
    buckets[9] = nxtest::makeRecord(0x09000200, 3);
    writeSource(0, buckets);
    int lastFile = 0;
    DWORD size = m_Indexer.CalculateSizeOfIndex(9, 0, false, &lastFile, 2), allocSize = 0;
    bool hasHelper = false;
    ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(9, size, &hasHelper, &allocSize));
    EXPECT_TRUE(hasHelper);
    EXPECT_EQ(allocSize, 56u);
    EXPECT_TRUE(m_Indexer.ReadHelperFile(9));
    m_Indexer.CalculateSizeOfIndex(9, 0, true, &lastFile, 2);
    m_Indexer.SortEntryTable(allocSize);
    ASSERT_TRUE(m_Indexer.WriteAllIndexing(9, allocSize));
    EXPECT_EQ(current(IndexFile::Entry, 9), helper.mid(16, 16) + buckets[9] + helper.left(16) + QByteArray(8, '\0'));
    EXPECT_EQ(current(IndexFile::Key, 9).size(), 3 * 2 + 512);
    EXPECT_EQ(current(IndexFile::Payload, 9).size(), 3 * 12);
}

TEST_F(Writer, FailureBeforeTheAppendLeavesNoBlock)
{
    // Each failure is provoked on disk; the bucket's files already written
    // stay under their pending names and nothing else changes.
    enum class Provoke { DirectoryAtPendingName, NoEntryDirectory, FullDevice };
    const struct {
        IndexFile file;
        Provoke how;
        const char* message;
        QList<IndexFile> leftPending;
    } cases[] = {
        {IndexFile::Key, Provoke::DirectoryAtPendingName, "Error:Could not open following file for writing- ", {}},
        {IndexFile::Payload, Provoke::DirectoryAtPendingName, "Error:Could not open following file for writing- ",
         {IndexFile::Key}},
        {IndexFile::Entry, Provoke::DirectoryAtPendingName,
         "Error:Could not open following file for helper writing- ", {IndexFile::Key, IndexFile::Payload}},
        {IndexFile::Entry, Provoke::NoEntryDirectory, "Error:Could not open following file for helper writing- ",
         {IndexFile::Key, IndexFile::Payload}},
        {IndexFile::Payload, Provoke::FullDevice, "Error:fwrite failed for the following file- ", {IndexFile::Key}},
    };
    int round = 0;
    for (const auto& c : cases) {
        useDatabase(qPrintable(QString("wdx%1").arg(10 + round++)));
        QString target = indexPath(c.file, Generation::Pending, 0x21);
        if (c.how == Provoke::DirectoryAtPendingName)
            QDir().mkpath(target);
        else if (c.how == Provoke::NoEntryDirectory)
            QDir(m_Indexer.m_HlpPath).removeRecursively();
        else
            QFile::link("/dev/full", target);
        QString message = c.message + target;
        EXPECT_FALSE(writeBucket(0x21, nxtest::makeRecord(0x21000001, 1))) << qPrintable(message);
        EXPECT_EQ(takeLog(), QStringList{errorLine("WriteAllIndexing", message)});
        EXPECT_EQ(status(), QByteArray(1024, '\0')) << qPrintable(message);
        EXPECT_EQ(m_Indexer.m_SbfOffsets[0x21], 0u);
        EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
        for (IndexFile file : {IndexFile::Key, IndexFile::Payload, IndexFile::Entry}) {
            EXPECT_FALSE(nxtest::exists(indexPath(file, Generation::Current, 0x21))) << qPrintable(message);
            EXPECT_EQ(QFileInfo(indexPath(file, Generation::Pending, 0x21)).isFile(), c.leftPending.contains(file))
                << qPrintable(message);
        }
    }
    EXPECT_EQ(nxtest::readFile(indexPath(IndexFile::Key, Generation::Pending, 0x21)),
              QByteArray::fromHex("0100") + groupTable({{0, 0}}));
}

TEST_F(Writer, StatusFileFailuresLeaveTheSlotAtZero)
{
    QString directory = m_Indexer.m_SbfTmpPath;
    QFile::remove(directory);
    QDir().mkpath(directory);
    EXPECT_FALSE(writeBucket(1, nxtest::makeRecord(1, 1)));
    EXPECT_EQ(takeLog(true), (QStringList{"[ERROR]  [nxi::WriteAllIndexing] :: [0x00000015]: Could not open "
                                          "following file for writing- code -> 21 ",
                                          "[ERROR]  [nxi::WriteAllIndexing] :: [0x00000015]: " + directory}));

    m_Indexer.m_SbfTmpPath = "/dev/full";  // every write on it comes up short
    EXPECT_FALSE(writeBucket(2, nxtest::makeRecord(2, 2)));
    EXPECT_EQ(takeLog(),
              QStringList{errorLine("WriteAllIndexing", "Error:fwrite failed for the following file- /dev/full")});
    for (int bucket : {1, 2}) {
        EXPECT_EQ(m_Indexer.m_SbfOffsets[bucket], 0u);
        EXPECT_FALSE(nxtest::exists(indexPath(IndexFile::Key, Generation::Current, bucket)));
        EXPECT_TRUE(nxtest::exists(indexPath(IndexFile::Entry, Generation::Pending, bucket)));
    }
}

} // namespace
