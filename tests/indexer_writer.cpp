// The writer: key, payload and entry files, the bucket block, the rotation, and every failure.
#include "indexer_fixture.h"

namespace {

const nxformat::IndexFile kFiles[] = {nxformat::IndexFile::Key, nxformat::IndexFile::Payload,
                                      nxformat::IndexFile::Entry};

class Writer : public IndexerTest
{
protected:
    QByteArray read(IndexFile f, Generation g, int bucket = 0x4c) { return nxtest::readFile(indexPath(f, g, bucket)); }
    QByteArray status() { return nxtest::readFile(m_Indexer.m_SbfTmpPath); }
    // What the three files hold for the one record 0x4c0000<salt>: group 00 at 0.
    static QByteArray contentOf(IndexFile file, uint32_t salt)
    {
        QByteArray record = nxtest::makeRecord(0x4c000000 + salt, salt);
        return file == IndexFile::Entry ? record : file == IndexFile::Payload
            ? record.mid(4) : record.left(2) + QByteArray(2, '\0') + QByteArray(510, '\xff');
    }
    QStringList existing()
    {
        return QDir(m_Indexer.m_IdxnDbPath).entryList(QDir::Files) + QDir(m_Indexer.m_HlpPath).entryList(QDir::Files);
    }
};

TEST_F(Writer, TwoRecordsByteForByte)
{
    QByteArray larger = nxtest::makeRecord(0x3f070201, 1), smaller = nxtest::makeRecord(0x3f070005, 2);
    ASSERT_TRUE(writeBucket(0x3f, larger + smaller));
    QByteArray groups = QByteArray(14, '\xff') + QByteArray(2, '\0') + QByteArray(496, '\xff');  // group 07 at 0
    EXPECT_EQ(read(IndexFile::Key, Generation::Current, 0x3f), QByteArray::fromHex("05000102") + groups);
    EXPECT_EQ(read(IndexFile::Payload, Generation::Current, 0x3f), smaller.mid(4) + larger.mid(4));
    EXPECT_EQ(read(IndexFile::Entry, Generation::Current, 0x3f), smaller + larger);
    EXPECT_EQ(status(), QByteArray(1024, '\0') + QByteArray::fromHex("02000000") + groups +
                            QByteArray::fromHex("05000102"));
    EXPECT_EQ(m_Indexer.m_SbfOffsets[0x3f], 1024u);
    EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(Writer, SizesFollowTheRecordCount)
{
    // One record, and a full bucket whose last record opens group 01 at 65,534.
    const struct { int count, key, payload, entry, block; } cases[] = {
        {1, 514, 12, 16, 518}, {65535, 131582, 786420, 1048560, 131586}};
    for (int bucket = 0; bucket < 2; ++bucket) {
        const auto& c = cases[bucket];
        QByteArray records;
        for (int i = 0; i + 1 < c.count; ++i)
            records += nxtest::makeRecord(uint32_t(i), uint32_t(i));
        records += nxtest::makeRecord(0x00010000, 0);
        int before = status().size();
        ASSERT_TRUE(writeBucket(bucket, records));
        QByteArray keyFile = read(IndexFile::Key, Generation::Current, bucket);
        EXPECT_EQ(keyFile.size(), c.key);
        EXPECT_EQ(keyFile.right(512).left(4), QByteArray::fromHex(bucket ? "0000feff" : "ffff0000"));
        EXPECT_EQ(read(IndexFile::Payload, Generation::Current, bucket).size(), c.payload);
        EXPECT_EQ(read(IndexFile::Entry, Generation::Current, bucket).size(), c.entry);
        EXPECT_EQ(status().size() - before, c.block);
    }
}

TEST_F(Writer, HelperRemainderStaysUnsortedInTheEntryFile)
{
    // A 40-byte helper file and one new record: a 56-byte table, 3 records sorted.
    QByteArray helper = nxtest::makeRecord(0x09000300, 1) + nxtest::makeRecord(0x09000100, 2) + "HHHHHHHH";
    QByteArray added = nxtest::makeRecord(0x09000200, 3);
    nxtest::writeFile(helperPath(9), helper);
    DWORD allocSize = allocate(9, 16);
    EXPECT_EQ(allocSize, 56u);
    EXPECT_TRUE(m_Indexer.ReadHelperFile(9));
    std::memcpy(m_Indexer.m_EntryCursor, added.constData(), 16);
    m_Indexer.SortEntryTable(allocSize);
    ASSERT_TRUE(m_Indexer.WriteAllIndexing(9, allocSize));
    EXPECT_EQ(read(IndexFile::Entry, Generation::Current, 9), helper.mid(16, 16) + added + helper.left(16) +
                                                                  QByteArray(8, '\0'));
    EXPECT_EQ(read(IndexFile::Key, Generation::Current, 9).size(), 3 * 2 + 512);
}

TEST_F(Writer, FailureBeforeTheRotationLeavesNoCurrentFiles)
{
    // A directory at the file's name, or a symbolic link (to /dev/full), which
    // is never opened; file 3 is the status file. Files already written stay pending.
    const QString notOpenable = "Error:Could not open following file for writing- ";
    const struct { int file; bool link; QString message; int pendingLeft; } cases[] = {
        {0, false, notOpenable, 0}, {1, false, notOpenable, 1},
        {2, false, "Error:Could not open following file for helper writing- ", 2},
        {1, true, notOpenable, 1}, {3, false, "", 3}, {3, true, "", 3}};
    for (const auto& c : cases) {
        useDatabase(QString("wdx1%1").arg(&c - cases));
        QString target = c.file < 3 ? indexPath(kFiles[c.file], Generation::Pending, 0x21) : m_Indexer.m_SbfTmpPath;
        QFile::remove(target);
        c.link ? QFile::link("/dev/full", target) : QDir().mkpath(target);
        EXPECT_FALSE(writeBucket(0x21, nxtest::makeRecord(0x21000001, 1))) << qPrintable(target);
        EXPECT_EQ(takeLog(), c.message.isEmpty()
            ? errorLog("WriteAllIndexing", QString("Could not open following file for writing- code -> %1 ")
                                               .arg(c.link ? ELOOP : EISDIR)) +
                  errorLog("WriteAllIndexing", target)
            : errorLog("WriteAllIndexing", c.message + target));
        if (c.file < 3) {
            EXPECT_EQ(status(), QByteArray(1024, '\0'));
        }
        EXPECT_EQ(m_Indexer.m_SbfOffsets[0x21], 0u);
        EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(nxtest::exists(indexPath(kFiles[i], Generation::Current, 0x21))) << qPrintable(target);
            EXPECT_EQ(QFileInfo(indexPath(kFiles[i], Generation::Pending, 0x21)).isFile(), i < c.pendingLeft) << i;
        }
    }
}

TEST_F(Writer, FirstAndSecondIndexingLeaveOnlyCurrentNames)
{
    ASSERT_TRUE(writeBucket(0x4c, contentOf(IndexFile::Entry, 1)));
    EXPECT_EQ(existing(), (QStringList{"4c.d", "4c.m", "4c.hl"}));
    nxtest::writeFile(indexPath(IndexFile::Key, Generation::Previous, 0x4c), "stale copy");
    ASSERT_TRUE(writeBucket(0x4c, contentOf(IndexFile::Entry, 2)));
    EXPECT_EQ(existing(), (QStringList{"4c.d", "4c.m", "4c.hl"}));  // the stale previous copy is gone too
    for (IndexFile file : kFiles)
        EXPECT_EQ(read(file, Generation::Current), contentOf(file, 2));
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(Writer, FailedMovePutsBackTheFilesAlreadyMoved)
{
    const struct { int failing; bool oldVersions; } cases[] = {{0, true}, {1, true}, {2, true}, {1, false}};
    for (const auto& c : cases) {
        useDatabase(QString("wdx2%1").arg(&c - cases));
        EXPECT_TRUE(!c.oldVersions || writeBucket(0x4c, contentOf(IndexFile::Entry, 1)));
        // A directory at the current name, and one at the previous name that keeps it there.
        QFile::remove(indexPath(kFiles[c.failing], Generation::Current, 0x4c));
        QDir().mkpath(indexPath(kFiles[c.failing], Generation::Current, 0x4c) + "/in-the-way");
        QDir().mkpath(indexPath(kFiles[c.failing], Generation::Previous, 0x4c) + "/in-the-way");
        EXPECT_FALSE(writeBucket(0x4c, contentOf(IndexFile::Entry, 2)));
        EXPECT_EQ(takeLog(), errorLog("WriteAllIndexing", "Error:MoveFileEx failed for the following file- " +
                                                              indexPath(kFiles[c.failing], Generation::Pending, 0x4c)));
        EXPECT_NE(m_Indexer.m_SbfOffsets[0x4c], 0u);  // appended before the rotation
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(qPrintable(QString("failing %1, file %2, old %3").arg(c.failing).arg(i).arg(c.oldVersions)));
            IndexFile file = kFiles[i];
            // Moved in and put back; with nothing to put back the new one stays.
            QByteArray current = i < c.failing ? contentOf(file, c.oldVersions ? 1 : 2)
                                 : i > c.failing && c.oldVersions ? contentOf(file, 1) : QByteArray();
            EXPECT_EQ(read(file, Generation::Current), current);
            EXPECT_EQ(read(file, Generation::Pending), i < c.failing ? QByteArray() : contentOf(file, 2));
            EXPECT_EQ(QFileInfo(indexPath(file, Generation::Current, 0x4c)).isDir(), i == c.failing);
            EXPECT_EQ(QFileInfo(indexPath(file, Generation::Previous, 0x4c)).isDir(), i == c.failing);
        }
    }
}

} // namespace
