// The sort order and size record; a bucket's entry table from source and helper files.
#include "indexer_fixture.h"

namespace {

TEST(IndexFormat, CompareOrdersByTheWrappedKeyDifference)
{
    const struct {
        uint32_t first, second;
    } cases[] = {{66049, 66051}, {0x80000001u, 0}, {0, 0x7FFFFFFFu}};
    for (const auto& c : cases) {
        QByteArray first = nxtest::makeRecord(c.first, 1), second = nxtest::makeRecord(c.second, 2);
        EXPECT_LT(compare(first.constData(), second.constData()), 0) << c.first << " vs " << c.second;
        EXPECT_GT(compare(second.constData(), first.constData()), 0) << c.first << " vs " << c.second;
    }
    EXPECT_EQ(compare(nxtest::makeRecord(7, 3).constData(), nxtest::makeRecord(7, 4).constData()), 0);
}

TEST(IndexFormat, SbfSizeRecordValue)
{
    // The indexer's own records ("%d#NXI" under "wdx00.sbf") are read back end to end.
    EXPECT_EQ(nxformat::parseSbfSizeValue("3540#NXI"), 3540);
    EXPECT_EQ(nxformat::parseSbfSizeValue(nxformat::sbfSizeValue(-1)), -1);
    for (const char* bad : {"3540", "#NXI", " 3540#NXI", "+3540#NXI", "35a0#NXI", "3540#nxi", "99999999999#NXI"})
        EXPECT_EQ(nxformat::parseSbfSizeValue(bad), std::nullopt) << bad;
}

constexpr int kBucket = 7;

class EntryTable : public IndexerTest
{
protected:
    // The 1,184-byte example: 10 records, bucket starts 2, 2, 5, then 10 (with inBucket2 3).
    static QByteArray example(uint32_t inBucket2 = 3)
    {
        QVector<QByteArray> buckets(4);
        for (uint32_t r = 0; r < 7 + inBucket2; ++r)
            buckets[r < 2 ? 0 : r < 2 + inBucket2 ? 2 : 3] += nxtest::makeRecord(1000 + r, r);
        return nxformat::buildSourceFile(buckets);
    }
    // GetIndexHighAndLow on file 0 as {low, high}, or {} when it failed.
    std::vector<DWORD> range(int bucket)
    {
        DWORD low = 0, high = 0;
        bool read = m_Indexer.GetIndexHighAndLow(sourcePath(0).toUtf8().data(), bucket, &low, &high);
        return read ? std::vector<DWORD>{low, high} : std::vector<DWORD>{};
    }
    // Source file n gets n + 1 records in kBucket, keys descending across files.
    QByteArray writeSource(int n)
    {
        QVector<QByteArray> buckets(256);
        for (int r = 0; r <= n; ++r)
            buckets[kBucket] += nxtest::makeRecord(uint32_t(0x07000000 - 16 * n + r), uint32_t(n * 10 + r));
        nxtest::writeFile(sourcePath(n), nxformat::buildSourceFile(buckets));
        return buckets[kBucket];
    }
    DWORD pass(bool collect, int dbCount, int firstFile = 0, int* lastFile = nullptr)
    {
        int last = 0;
        return m_Indexer.CalculateSizeOfIndex(kBucket, firstFile, collect, lastFile ? lastFile : &last, dbCount);
    }
};

TEST_F(EntryTable, RangesOfTheWorkedExampleAndRefusedOnes)
{
    const QString path = sourcePath(0), readFailed = "Error: ReadFile failed for the following file- " + path,
                  corrupt = "Error: Corrupt bucket range in the following file- " + path + " (bucket ";
    auto patched = [](int slot, const char* hex) { return example().replace(4 * slot, 4, QByteArray::fromHex(hex)); };
    ASSERT_EQ(example().size(), 1184);
    // Bucket 0 never reads bytes 0-3; bucket 255 ends with the last whole record.
    const QByteArray worked = patched(0, "ffffffff") + nxtest::makeRecord(1, 1) + nxtest::makeRecord(2, 2) + "1234567";
    using Range = std::vector<DWORD>;
    const struct {
        int bucket;
        QByteArray file;
        Range range;
        QString message;
    } cases[] = {{0, worked, {0, 2}, {}},
                 {1, worked, {2, 2}, {}},
                 {2, worked, {2, 5}, {}},
                 {3, worked, {5, 10}, {}},
                 {254, worked, {10, 10}, {}},
                 {255, worked, {10, 12}, {}},
                 {0, example().left(7), {}, readFailed},
                 {5, example().left(27), {}, readFailed},  // too short for the slots
                 {254, example().left(1023), {}, readFailed},
                 {255, example().left(1023), {}, readFailed},
                 {3, patched(4, "04000000"), {}, corrupt + "03, low 5, high 4)"},  // start of 4 below start of 3
                 {4, patched(5, "0b000000"), {}, corrupt + "04, low 10, high 11)"},  // end past the 10 records
                 {255, patched(255, "f0ffffff"), {}, corrupt + "ff, low 4294967280, high 10)"},
                 {1, QByteArray(), {}, "Could not open following db file- " + path + " - code -> 2 "}};  // no file
    for (const auto& c : cases) {
        // A new file each time: one rewritten in place within a tick of the clock would read as it was.
        QFile::remove(path);
        if (!c.file.isEmpty())
            nxtest::writeFile(path, c.file);
        EXPECT_EQ(range(c.bucket), c.range) << "bucket " << c.bucket << " " << qPrintable(c.message);
        EXPECT_EQ(takeLog(), c.message.isEmpty() ? QStringList() : errorLog("GetIndexHighAndLow", c.message));
    }
}

TEST_F(EntryTable, PassesVisitFilesUpToDbCountMinusTwoSkippingMissingAndCorrupt)
{
    QByteArray kept = writeSource(0) + writeSource(3);
    writeSource(2);
    writeSource(4);
    nxtest::writeFile(sourcePath(2), nxtest::readFile(sourcePath(2)).replace(32, 4, QByteArray::fromHex("63000000")));
    QStringList skipped = errorLog("CalculateSizeOfIndex", "Yn File Not exist : " + sourcePath(1)) +
                          errorLog("GetIndexHighAndLow", "Error: Corrupt bucket range in the following file- " +
                                                             sourcePath(2) + " (bucket 07, low 0, high 99)");
    const struct {
        int firstFile, dbCount;
        DWORD size;
        int lastFile;
    } cases[] = {{0, 5, 16 * (1 + 4), 3}, {3, 5, 16 * 4, 3}, {4, 5, 0, 3}, {6, 5, 0, 5}, {0, 1, 0, -1}, {0, 0, 0, -1}};
    for (const auto& c : cases) {
        int lastFile = 99;
        EXPECT_EQ(pass(false, c.dbCount, c.firstFile, &lastFile), c.size) << c.firstFile << "/" << c.dbCount;
        EXPECT_EQ(lastFile, c.lastFile) << c.firstFile << "/" << c.dbCount;
        EXPECT_EQ(takeLog(), c.firstFile == 0 && c.dbCount == 5 ? skipped : QStringList());
    }
    ASSERT_EQ(allocate(kBucket, DWORD(kept.size())), DWORD(kept.size()));
    pass(true, 5);
    EXPECT_EQ(tableBytes(kept.size()), kept);
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable + kept.size());
    EXPECT_EQ(takeLog(), skipped);

    // File 3 grew since the sizing pass: nothing is copied past the table.
    nxtest::writeFile(sourcePath(3), nxtest::readFile(sourcePath(4)));
    allocate(kBucket, DWORD(kept.size()));
    pass(true, 5);
    EXPECT_TRUE(NxiTestDoor::entryTableOverflowed(m_Indexer));
    EXPECT_EQ(tableBytes(kept.size()), kept.left(16) + QByteArray(64, '\0'));
    QString tooSmall = "Error: Entry table too small for the following file(read buffer) - " + sourcePath(3);
    EXPECT_EQ(takeLog(), skipped + errorLog("ReadIndexBuffer", tooSmall + " (80 bytes, room for 64)"));
    allocate(kBucket, 16);
    EXPECT_FALSE(NxiTestDoor::entryTableOverflowed(m_Indexer));
}

// Records with equal keys end in table order (helper file, then source files in order), also where keys 2^31 or
// more apart order by the wrapped difference (2^31 + 1, then 2^31 + 5, then 0).
TEST_F(EntryTable, SortKeepsRecordsWithEqualKeysInTableOrder)
{
    const std::vector<uint32_t> keySets[] = {{0x07000001, 0x07000002, 0x0702FF00, 0x07A10005},
                                             {0x80000001, 0x80000005, 0}};
    for (const auto& keys : keySets) {
        // Origin 0 is the helper file, 1 and 2 are source files 0 and 1.
        auto keyOf = [&](int origin, int r) { return keys[size_t(r * 7 + origin) % keys.size()]; };
        QByteArray records[3];
        for (int origin = 0; origin < 3; ++origin)
            for (int r = 0; r < 24; ++r)
                records[origin] += nxtest::makeRecord(keyOf(origin, r), uint32_t(100 * origin + r));
        nxtest::writeFile(helperPath(kBucket), records[0]);
        for (int file = 0; file < 2; ++file) {
            QVector<QByteArray> buckets(256);
            buckets[kBucket] = records[file + 1];
            nxtest::writeFile(sourcePath(file), nxformat::buildSourceFile(buckets));
        }
        const DWORD allocSize = allocate(kBucket, 2 * 24 * 16);
        ASSERT_TRUE(m_Indexer.ReadHelperFile(kBucket));
        pass(true, 3);
        NxiTestDoor::sortEntryTable(m_Indexer, allocSize);
        QByteArray expected;
        for (uint32_t key : keys)
            for (int origin = 0; origin < 3; ++origin)
                for (int r = 0; r < 24; ++r)
                    if (keyOf(origin, r) == key)
                        expected += records[origin].mid(16 * r, 16);
        EXPECT_EQ(tableBytes(int(allocSize)).toHex().toStdString(), expected.toHex().toStdString()) << keys.back();
        NxiTestDoor::releaseIndexBuffer(m_Indexer);
    }
}

TEST_F(EntryTable, AllocationCountsTheHelperWhichLoadsAtTheHeadUnlessItChanged)
{
    const QString path = helperPath(kBucket), notRegular = "Error:Refused the following file, not a regular file- ";
    const QByteArray letters = QByteArray("abcdefghijklmnopqrstuvwxyz").repeated(3);
    auto tooLarge = [](quint64 bytes) {
        return errorLog("AllocateIndexBuffer",
                        QString("Error: Bucket 07 too large to index - %1 bytes, more than 65535 records").arg(bytes));
    };
    const QStringList tooSmall = errorLog("ReadHelperFile",
                                          "Error: Entry table too small for the following file(helper "
                                          "buffer) - " +
                                              path + " (64 bytes, room for 48)");
    // The new bytes; the helper's size when sized and when read (-1: gone by then; -2: a directory, last as it stays).
    const struct {
        DWORD size;
        int sized, read;
        bool fits;
        QStringList log;
    } cases[] = {{16, 48, 48, true, {}},
                 {16, 50, 50, true, {}},
                 {16, 0, 0, true, {}},
                 {16, 32, -1, true, {}},
                 {16, 32, 64, true, tooSmall},
                 {65535 * 16, 0, 0, true, {}},
                 {65535 * 16 - 15, 15 + 15, 30, true, {}},
                 {65535 * 16, 16, 16, false, tooLarge(65535 * 16 + 16)},
                 {0xFFFFFFFFu, 0, 0, false, tooLarge(0xFFFFFFFFu)},
                 {16, -2, -2, true,
                  errorLog("AllocateIndexBuffer", notRegular + path) +
                      errorLog("ReadHelperFile", "Error:Unable to get file size! - " + path)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " bytes, helper " << c.sized << " then " << c.read);
        QFile::remove(path);
        c.sized == -2 ? void(QDir().mkpath(path)) : nxtest::writeFile(path, letters.left(c.sized));
        bool hasHelper = false, loaded = c.sized == c.read && c.sized > 0;
        DWORD allocSize = 1;
        EXPECT_EQ(m_Indexer.AllocateIndexBuffer(kBucket, c.size, &hasHelper, &allocSize), c.fits);
        EXPECT_EQ(allocSize, c.fits ? c.size + DWORD(std::max(c.sized, 0)) : 0);
        EXPECT_EQ(hasHelper, c.sized > 0);
        EXPECT_EQ(m_Indexer.m_EntryTable != nullptr, c.fits);
        if (c.fits) {
            if (c.read != c.sized)
                c.read < 0 ? void(QFile::remove(path)) : nxtest::writeFile(path, letters.left(c.read));
            EXPECT_EQ(m_Indexer.ReadHelperFile(kBucket), loaded);
            EXPECT_EQ(m_Indexer.m_EntryCursor - m_Indexer.m_EntryTable, loaded ? c.sized & ~15 : 0);
            EXPECT_EQ(tableBytes(loaded ? c.sized : 16), loaded ? letters.left(c.sized) : QByteArray(16, '\0'));
            EXPECT_EQ(NxiTestDoor::entryTableOverflowed(m_Indexer), c.read == 64);
        }
        EXPECT_EQ(takeLog(), c.log);
        NxiTestDoor::releaseIndexBuffer(m_Indexer);
    }
}

}  // namespace

// A source file stays open with its start table read once, yet each call reads what a fresh open would.
TEST_F(EntryTable, KeptSourceFilesFollowWhatThePathNamesNow)
{
    const QString path = sourcePath(0);
    const QString opened = "Could not open following db file- " + path + " - code -> %1 ";
    const struct {
        const char* change;
        std::vector<DWORD> range;
        QStringList log;
    } steps[] = {{"write", {2, 5}, {}},
                 {"rewrite", {2, 6}, {}},  // one record more in bucket 2, in place
                 {"replace", {2, 5}, {}},  // a new file renamed over it
                 {"remove", {}, errorLog("GetIndexHighAndLow", opened.arg(ENOENT))},
                 {"write", {2, 5}, {}},
                 {"link", {}, errorLog("GetIndexHighAndLow", opened.arg(ELOOP))}};  // to a copy, in its place
    for (const auto& step : steps) {
        const QString change = step.change;
        const QByteArray bytes = example(change == "rewrite" ? 4 : 3);
        if (change == "write") {
            nxtest::writeFile(path, bytes);
        } else if (change == "rewrite") {
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::ReadWrite));  // the same inode
            file.write(bytes);
        } else if (change == "replace") {
            nxtest::writeFile(path + ".new", bytes);
            ASSERT_TRUE(QFile::remove(path) && QFile::rename(path + ".new", path));
        } else {
            nxtest::writeFile(path + ".copy", bytes);
            ASSERT_TRUE(QFile::remove(path));
            if (change == "link") {
                ASSERT_TRUE(QFile::link(path + ".copy", path));
            }
        }
        EXPECT_EQ(range(2), step.range) << step.change;
        EXPECT_EQ(takeLog(), step.log) << step.change;
    }
}
