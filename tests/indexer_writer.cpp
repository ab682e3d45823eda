// The writer: key, payload and entry files, the bucket block, the rotation, and every failure.
#include "indexer_fixture.h"

namespace {

const nxformat::IndexFile kFiles[] = {nxformat::IndexFile::Key, nxformat::IndexFile::Payload,
                                      nxformat::IndexFile::Entry};

class Writer : public IndexerTest
{
protected:
    QByteArray read(IndexFile f, int bucket = 0x4c, Generation g = Generation::Current)
    {
        return nxtest::readFile(indexPath(f, g, bucket));
    }
    QByteArray status() { return nxtest::readFile(m_Indexer.m_SbfTmpPath); }
    // What the three files hold for the one record 0x4c0000<salt>: group 00 at 0.
    static QByteArray contentOf(IndexFile file, uint32_t salt)
    {
        QByteArray record = nxtest::makeRecord(0x4c000000 + salt, salt);
        return file == IndexFile::Entry     ? record
               : file == IndexFile::Payload ? record.mid(4)
                                            : record.left(2) + QByteArray(2, '\0') + QByteArray(510, '\xff');
    }
    QStringList existing()
    {
        return QDir(m_Indexer.m_IdxnDbPath).entryList(QDir::Files) + QDir(m_Indexer.m_HlpPath).entryList(QDir::Files);
    }
};

TEST_F(Writer, RecordsByteForByteWithEachGroupsFirstPosition)
{
    // Six records of the groups 00, 00, 05, 05, 05, ff, handed over in reverse order.
    const uint8_t groups[] = {0x00, 0x00, 0x05, 0x05, 0x05, 0xff};
    QByteArray sorted, reversed, payloads;
    for (uint32_t i = 0; i < 6; ++i) {
        QByteArray record = nxtest::makeRecord(0x3f000000 | uint32_t(groups[i]) << 16 | (0x0100 + i), i);
        sorted += record;
        reversed.prepend(record);
        payloads += record.mid(4);
    }
    const QByteArray keys = QByteArray::fromHex("000101010201030104010501");
    QByteArray groupTable = QByteArray(512, '\xff').replace(0, 2, QByteArray(2, '\0'));
    groupTable.replace(2 * 0x05, 2, QByteArray::fromHex("0200")).replace(2 * 0xff, 2, QByteArray::fromHex("0500"));
    ASSERT_TRUE(writeBucket(0x3f, reversed));
    EXPECT_EQ(read(IndexFile::Key, 0x3f), keys + groupTable);
    EXPECT_EQ(read(IndexFile::Payload, 0x3f), payloads);
    EXPECT_EQ(read(IndexFile::Entry, 0x3f), sorted);
    EXPECT_EQ(status(), QByteArray(1024, '\0') + QByteArray::fromHex("06000000") + groupTable + keys);
    EXPECT_EQ(m_Indexer.m_SbfOffsets[0x3f], 1024u);
    EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(Writer, FullBucketSizes)
{
    // 65,535 records, the last of which opens group 01 at 65,534.
    QByteArray records;
    for (uint32_t i = 0; i < 65534; ++i)
        records += nxtest::makeRecord(i, i);
    records += nxtest::makeRecord(0x00010000, 0);
    const nxtest::ExpectedBucket expected = nxtest::expectedBucket(records);
    ASSERT_TRUE(writeBucket(1, records));
    EXPECT_EQ(read(IndexFile::Key, 1).right(512).left(4), QByteArray::fromHex("0000feff"));
    EXPECT_TRUE(read(IndexFile::Key, 1) == expected.keyFile && read(IndexFile::Payload, 1) == expected.payloadFile &&
                read(IndexFile::Entry, 1) == expected.entryFile);  // not printed: a megabyte each
    EXPECT_EQ(status().size(), 1024 + 131586);
    EXPECT_TRUE(status() == QByteArray(1024, '\0') + expected.block);
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
    NxiTestDoor::sortEntryTable(m_Indexer, allocSize);
    ASSERT_TRUE(m_Indexer.WriteAllIndexing(9, allocSize));
    EXPECT_EQ(read(IndexFile::Entry, 9), helper.mid(16, 16) + added + helper.left(16) + QByteArray(8, '\0'));
    EXPECT_EQ(read(IndexFile::Key, 9).size(), 3 * 2 + 512);
}

TEST_F(Writer, FailureBeforeTheRotationLeavesNoCurrentFiles)
{
    // A directory at the file's name, or a link (to /dev/full) that is never opened; file 3 is the status file.
    const QString notOpenable = "Error:Could not open following file for writing- ";
    const struct {
        int file;
        bool link;
        QString message;
        int pendingLeft;
    } cases[] = {{0, false, notOpenable, 0},
                 {1, false, notOpenable, 1},
                 {2, false, "Error:Could not open following file for helper writing- ", 2},
                 {1, true, notOpenable, 1},
                 {3, false, "", 3},
                 {3, true, "", 3}};
    for (const auto& c : cases) {
        useDatabase(QString("wdx1%1").arg(&c - cases));
        QString target = c.file < 3 ? indexPath(kFiles[c.file], Generation::Pending, 0x21) : m_Indexer.m_SbfTmpPath;
        QFile::remove(target);
        c.link ? QFile::link("/dev/full", target) : QDir().mkpath(target);
        EXPECT_FALSE(writeBucket(0x21, nxtest::makeRecord(0x21000001, 1))) << qPrintable(target);
        EXPECT_EQ(
            takeLog(),
            c.message.isEmpty()
                ? errorLog(
                      "WriteAllIndexing",
                      QString("Could not open following file for writing- code -> %1 ").arg(c.link ? ELOOP : EISDIR)) +
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

TEST_F(Writer, RotationReplacesAllThreeOrPutsBackTheFilesAlreadyMoved)
{
    // The file whose move is blocked; -1: none, a stale previous key file instead, which goes too.
    const struct {
        int failing;
        bool oldVersions;
    } cases[] = {{-1, true}, {0, true}, {1, true}, {2, true}, {1, false}};
    const QStringList onlyCurrent = {"4c.d", "4c.m", "4c.hl"};
    for (const auto& c : cases) {
        useDatabase(QString("wdx2%1").arg(&c - cases));
        if (c.oldVersions) {
            ASSERT_TRUE(writeBucket(0x4c, contentOf(IndexFile::Entry, 1)));
            EXPECT_EQ(existing(), onlyCurrent);
        }
        if (c.failing < 0) {
            nxtest::writeFile(indexPath(IndexFile::Key, Generation::Previous, 0x4c), "stale copy");
        } else {  // a directory at the current name, and one at the previous name that keeps it there
            QFile::remove(indexPath(kFiles[c.failing], Generation::Current, 0x4c));
            QDir().mkpath(indexPath(kFiles[c.failing], Generation::Current, 0x4c) + "/in-the-way");
            QDir().mkpath(indexPath(kFiles[c.failing], Generation::Previous, 0x4c) + "/in-the-way");
        }
        EXPECT_EQ(writeBucket(0x4c, contentOf(IndexFile::Entry, 2)), c.failing < 0);
        const QString moveFailed = "Error:MoveFileEx failed for the following file- ",
                      blocked = c.failing < 0 ? "" : indexPath(kFiles[c.failing], Generation::Pending, 0x4c);
        EXPECT_EQ(takeLog(), c.failing < 0 ? QStringList() : errorLog("WriteAllIndexing", moveFailed + blocked));
        EXPECT_NE(m_Indexer.m_SbfOffsets[0x4c], 0u);  // appended before the rotation
        EXPECT_TRUE(c.failing >= 0 || existing() == onlyCurrent);
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(qPrintable(QString("failing %1, file %2, old %3").arg(c.failing).arg(i).arg(c.oldVersions)));
            IndexFile file = kFiles[i];
            // A file moved in stays unless the failure puts an old one back; one not reached keeps the old.
            const bool moved = c.failing < 0 || i < c.failing, old = c.oldVersions && c.failing >= 0 && i != c.failing;
            EXPECT_EQ(read(file), old ? contentOf(file, 1) : moved ? contentOf(file, 2) : QByteArray());
            EXPECT_EQ(read(file, 0x4c, Generation::Pending), moved ? QByteArray() : contentOf(file, 2));
            EXPECT_EQ(QFileInfo(indexPath(file, Generation::Current, 0x4c)).isDir(), i == c.failing);
            EXPECT_EQ(nxtest::exists(indexPath(file, Generation::Previous, 0x4c)), i == c.failing);
        }
    }
}

}  // namespace
