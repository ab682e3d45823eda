// Rotation of a bucket's pending files into place, and its undoing.
#include "indexer_fixture.h"

namespace {

constexpr int kBucket = 0x4c;
const nxformat::IndexFile kFiles[] = {nxformat::IndexFile::Key, nxformat::IndexFile::Payload,
                                       nxformat::IndexFile::Entry};

class Rotation : public IndexerTest
{
protected:
    QByteArray version(uint32_t salt) { return nxtest::makeRecord(0x4c000000 + salt, salt); }
    QByteArray read(IndexFile file, Generation generation)
    {
        return nxtest::readFile(indexPath(file, generation, kBucket));
    }
    QByteArray contentOf(IndexFile file, uint32_t salt)
    {
        QByteArray record = version(salt);
        if (file == IndexFile::Entry)
            return record;
        if (file == IndexFile::Payload)
            return record.mid(4);
        return record.left(2) + QByteArray(2, '\0') + QByteArray(510, '\xff');  // group 00 at position 0
    }
    // The names of the bucket's nine that exist, as "<generation><file>".
    QStringList existing()
    {
        QStringList names;
        for (IndexFile file : kFiles)
            for (Generation generation : {Generation::Pending, Generation::Current, Generation::Previous})
                if (nxtest::exists(indexPath(file, generation, kBucket)))
                    names << nxformat::indexFileName(file, generation, kBucket);
        return names;
    }
    // A move onto the current name fails while a directory stands there and
    // another one at the previous name keeps it from moving aside.
    void blockCurrentName(IndexFile file)
    {
        QFile::remove(indexPath(file, Generation::Current, kBucket));
        QDir().mkpath(indexPath(file, Generation::Current, kBucket) + "/in-the-way");
        QDir().mkpath(indexPath(file, Generation::Previous, kBucket) + "/in-the-way");
    }
};

TEST_F(Rotation, FirstAndSecondIndexingLeaveOnlyCurrentNames)
{
    ASSERT_TRUE(writeBucket(kBucket, version(1)));
    EXPECT_EQ(existing(), (QStringList{"4c.m", "4c.d", "4c.hl"}));
    EXPECT_EQ(read(IndexFile::Entry, Generation::Current), version(1));

    nxtest::writeFile(indexPath(IndexFile::Key, Generation::Previous, kBucket), "stale copy");
    ASSERT_TRUE(writeBucket(kBucket, version(2)));
    EXPECT_EQ(existing(), (QStringList{"4c.m", "4c.d", "4c.hl"}));
    EXPECT_EQ(read(IndexFile::Entry, Generation::Current), version(2));
    EXPECT_EQ(read(IndexFile::Payload, Generation::Current), version(2).mid(4));
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(Rotation, FailedMovePutsBackTheFilesAlreadyMoved)
{
    const struct { int failing; bool oldVersions; } cases[] = {{0, true}, {1, true}, {2, true}, {1, false}};
    int round = 0;
    for (const auto& c : cases) {
        useDatabase(qPrintable(QString("wdx%1").arg(20 + round++)));
        if (c.oldVersions) {
            ASSERT_TRUE(writeBucket(kBucket, version(1)));
        }
        blockCurrentName(kFiles[c.failing]);
        EXPECT_FALSE(writeBucket(kBucket, version(2)));
        QString failedMove = "Error:MoveFileEx failed for the following file- " +
                             indexPath(kFiles[c.failing], Generation::Pending, kBucket);
        EXPECT_EQ(takeLog(), QStringList{errorLine("WriteAllIndexing", failedMove)});
        EXPECT_NE(m_Indexer.m_SbfOffsets[kBucket], 0u);  // appended before the rotation
        for (int i = 0; i < 3; ++i) {
            SCOPED_TRACE(qPrintable(QString("failing %1, file %2, old %3").arg(c.failing).arg(i).arg(c.oldVersions)));
            QByteArray pending = read(kFiles[i], Generation::Pending), current = read(kFiles[i], Generation::Current);
            if (i < c.failing) {
                // Moved in and put back; with nothing to put back the new one stays.
                EXPECT_EQ(current, contentOf(kFiles[i], c.oldVersions ? 1 : 2));
                EXPECT_FALSE(nxtest::exists(indexPath(kFiles[i], Generation::Pending, kBucket)));
            } else {
                EXPECT_EQ(pending, contentOf(kFiles[i], 2));
                QByteArray unchanged = c.oldVersions ? contentOf(kFiles[i], 1) : QByteArray();
                EXPECT_EQ(QFileInfo(indexPath(kFiles[i], Generation::Current, kBucket)).isDir(), i == c.failing);
                EXPECT_EQ(current, i == c.failing ? QByteArray() : unchanged);
            }
            EXPECT_EQ(QFileInfo(indexPath(kFiles[i], Generation::Previous, kBucket)).isDir(), i == c.failing);
        }
    }
}

} // namespace
