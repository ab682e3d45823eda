// The writer: key, payload and entry files, the bucket block, the rotation, and every failure.
#include "indexer_fixture.h"

namespace {

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

// Six records of the groups 00, 00, 05, 05, 05, ff, then a full bucket whose last of 65,535 records opens group 01 at
// 65,534, each handed over in reverse order, against the files worked out independently of the indexer.
TEST_F(Writer, RecordsByteForByteWithEachGroupsFirstPosition)
{
    const uint8_t groups[] = {0x00, 0x00, 0x05, 0x05, 0x05, 0xff};
    QByteArray six, full;
    for (uint32_t i = 0; i < 6; ++i)
        six += nxtest::makeRecord(0x3f000000 | uint32_t(groups[i]) << 16 | (0x0100 + i), i);
    for (uint32_t i = 0; i < 65534; ++i)
        full += nxtest::makeRecord(i, i);
    full += nxtest::makeRecord(0x00010000, 0);
    // The six's block by hand: count, group table, keys.
    QByteArray groupTable = QByteArray(512, '\xff').replace(0, 2, QByteArray(2, '\0'));
    groupTable.replace(2 * 0x05, 2, QByteArray::fromHex("0200")).replace(2 * 0xff, 2, QByteArray::fromHex("0500"));
    const QByteArray keys = QByteArray::fromHex("000101010201030104010501");
    ASSERT_EQ(nxtest::expectedBucket(six).block, QByteArray::fromHex("06000000") + groupTable + keys);
    QByteArray statusFile(1024, '\0');
    for (const auto& [bucket, records] : {std::pair(0x3f, six), std::pair(0x01, full)}) {
        QByteArray reversed;
        for (int at = records.size() - 16; at >= 0; at -= 16)
            reversed += records.mid(at, 16);
        ASSERT_TRUE(writeBucket(bucket, reversed));
        const nxtest::ExpectedBucket expected = nxtest::expectedBucket(records);
        // Not printed: a megabyte each for the full bucket.
        EXPECT_TRUE(read(IndexFile::Key, bucket) == expected.keyFile) << bucket;
        EXPECT_TRUE(read(IndexFile::Payload, bucket) == expected.payloadFile) << bucket;
        EXPECT_TRUE(read(IndexFile::Entry, bucket) == expected.entryFile) << bucket;
        EXPECT_EQ(m_Indexer.m_SbfOffsets[bucket], DWORD(statusFile.size()));
        EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
        statusFile += expected.block;
    }
    EXPECT_TRUE(status() == statusFile);
    EXPECT_TRUE(takeLog().isEmpty());
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
    const QString notOpenable = "Error:Could not open following file for writing- ",
                  notOpenableEntry = "Error:Could not open following file for helper writing- ",
                  code = "Could not open following file for writing- code -> %1 ", isDir = code.arg(EISDIR),
                  isLink = code.arg(ELOOP);
    // A directory at the file's name, or a link (to /dev/full) that is never opened; file 3 is the status file, whose
    // line is followed by one of the path alone. Last, how many pending files are left.
    const std::tuple<int, bool, QString, int> cases[] = {
        {0, false, notOpenable, 0}, {1, false, notOpenable, 1}, {2, false, notOpenableEntry, 2},
        {1, true, notOpenable, 1},  {3, false, isDir, 3},       {3, true, isLink, 3}};
    int database = 10;
    for (const auto& [file, link, message, pendingLeft] : cases) {
        useDatabase(QString("wdx%1").arg(database++));
        QString target = file < 3 ? indexPath(IndexFile(file), Generation::Pending, 0x21) : m_Indexer.m_SbfTmpPath;
        QFile::remove(target);
        link ? QFile::link("/dev/full", target) : QDir().mkpath(target);
        EXPECT_FALSE(writeBucket(0x21, nxtest::makeRecord(0x21000001, 1))) << target;
        EXPECT_EQ(takeLog(), file < 3 ? errorLog("WriteAllIndexing", message + target)
                                      : errorLog("WriteAllIndexing", message) + errorLog("WriteAllIndexing", target));
        EXPECT_TRUE(file == 3 || status() == QByteArray(1024, '\0'));
        EXPECT_EQ(m_Indexer.m_SbfOffsets[0x21], 0u);
        EXPECT_EQ(m_Indexer.m_EntryTable, nullptr);
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(nxtest::exists(indexPath(IndexFile(i), Generation::Current, 0x21))) << target;
            EXPECT_EQ(QFileInfo(indexPath(IndexFile(i), Generation::Pending, 0x21)).isFile(), i < pendingLeft) << i;
        }
    }
}

TEST_F(Writer, RotationReplacesAllThreeOrPutsBackTheFilesAlreadyMoved)
{
    // The file whose move is blocked (-1: none, a stale previous key file instead, which goes too), and whether the
    // bucket had files before.
    const std::pair<int, bool> cases[] = {{-1, true}, {0, true}, {1, true}, {2, true}, {1, false}};
    const QStringList onlyCurrent = {"4c.d", "4c.m", "4c.hl"};
    int database = 20;
    for (const auto& [failing, oldVersions] : cases) {
        useDatabase(QString("wdx%1").arg(database++));
        if (oldVersions) {
            ASSERT_TRUE(writeBucket(0x4c, contentOf(IndexFile::Entry, 1)));
            EXPECT_EQ(existing(), onlyCurrent);
        }
        if (failing < 0) {
            nxtest::writeFile(indexPath(IndexFile::Key, Generation::Previous, 0x4c), "stale copy");
        } else {  // a directory at the current name, and one at the previous name that keeps it there
            QFile::remove(indexPath(IndexFile(failing), Generation::Current, 0x4c));
            QDir().mkpath(indexPath(IndexFile(failing), Generation::Current, 0x4c) + "/in-the-way");
            QDir().mkpath(indexPath(IndexFile(failing), Generation::Previous, 0x4c) + "/in-the-way");
        }
        EXPECT_EQ(writeBucket(0x4c, contentOf(IndexFile::Entry, 2)), failing < 0);
        const QString moveFailed = "Error:MoveFileEx failed for the following file- ",
                      blocked = failing < 0 ? "" : indexPath(IndexFile(failing), Generation::Pending, 0x4c);
        EXPECT_EQ(takeLog(), failing < 0 ? QStringList() : errorLog("WriteAllIndexing", moveFailed + blocked));
        EXPECT_NE(m_Indexer.m_SbfOffsets[0x4c], 0u);  // appended before the rotation
        EXPECT_TRUE(failing >= 0 || existing() == onlyCurrent);
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(qPrintable(QString("failing %1, file %2, old %3").arg(failing).arg(i).arg(oldVersions)));
            const IndexFile file = IndexFile(i);  // key, payload and entry file
            // A file moved in stays unless the failure puts an old one back; one not reached keeps the old.
            const bool moved = failing < 0 || i < failing, old = oldVersions && failing >= 0 && i != failing;
            EXPECT_EQ(read(file), old ? contentOf(file, 1) : moved ? contentOf(file, 2) : QByteArray());
            EXPECT_EQ(read(file, 0x4c, Generation::Pending), moved ? QByteArray() : contentOf(file, 2));
            EXPECT_EQ(QFileInfo(indexPath(file, Generation::Current, 0x4c)).isDir(), i == failing);
            EXPECT_EQ(nxtest::exists(indexPath(file, Generation::Previous, 0x4c)), i == failing);
        }
    }
}

}  // namespace
