// The sort order and size record; a bucket's entry table from source and helper files.
#include "indexer_fixture.h"

namespace {

TEST(IndexFormat, CompareOrdersByTheWrappedKeyDifference)
{
    // Each pair ascends, keys 2^31 or more apart by the wrapped difference; equal keys tie whatever the payload.
    const std::pair<uint32_t, uint32_t> pairs[] = {{66049, 66051}, {0x80000001u, 0}, {0, 0x7FFFFFFFu}, {7, 7}};
    for (auto [low, high] : pairs) {
        const QByteArray first = nxtest::makeRecord(low, 3), second = nxtest::makeRecord(high, 4);
        const int order = low == high ? 0 : -1;
        EXPECT_EQ(std::clamp(compare(first.constData(), second.constData()), -1, 1), order) << low << " vs " << high;
        EXPECT_EQ(std::clamp(compare(second.constData(), first.constData()), -1, 1), -order) << low << " vs " << high;
    }
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
using Range = std::vector<DWORD>;

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
    Range range(int bucket)
    {
        DWORD low = 0, high = 0;
        bool read = m_Indexer.GetIndexHighAndLow(sourcePath(0).toUtf8().data(), bucket, &low, &high);
        return read ? Range{low, high} : Range{};
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
};

// The range of a bucket in whatever file 0's path names at each step: a new file (one rewritten in place within a tick
// of the clock would read as it was), the same file rewritten in place, none, or a link. A source file stays open with
// its start table read once, yet each call reads what a fresh open would.
TEST_F(EntryTable, RangesOfTheWorkedExampleAndRefusedOnes)
{
    const QString path = sourcePath(0), copy = path + ".copy",
                  readFailed = "Error: ReadFile failed for the following file- " + path,
                  corrupt = "Error: Corrupt bucket range in the following file- " + path + " (bucket ",
                  opened = "Could not open following db file- " + path + " - code -> %1 ";
    auto patched = [](int slot, const char* hex) { return example().replace(4 * slot, 4, QByteArray::fromHex(hex)); };
    ASSERT_EQ(example().size(), 1184);
    const QByteArray worked = patched(0, "ffffffff") + nxtest::makeRecord(1, 1) + nxtest::makeRecord(2, 2) + "1234567";
    const std::tuple<QString, QByteArray, int, Range, QString> steps[] = {
        {"new", worked, 0, {0, 2}, ""},  // bytes 0-3 are never read
        {"new", worked, 1, {2, 2}, ""},
        {"new", worked, 2, {2, 5}, ""},
        {"new", worked, 3, {5, 10}, ""},
        {"new", worked, 254, {10, 10}, ""},
        {"new", worked, 255, {10, 12}, ""},  // up to the last whole record
        {"new", example().left(7), 0, {}, readFailed},
        {"new", example().left(27), 5, {}, readFailed},  // too short for the slots
        {"new", example().left(1023), 254, {}, readFailed},
        {"new", example().left(1023), 255, {}, readFailed},
        {"new", patched(4, "04000000"), 3, {}, corrupt + "03, low 5, high 4)"},  // start of 4 below start of 3
        {"new", patched(5, "0b000000"), 4, {}, corrupt + "04, low 10, high 11)"},  // end past the 10 records
        {"new", patched(255, "f0ffffff"), 255, {}, corrupt + "ff, low 4294967280, high 10)"},
        {"new", example(), 2, {2, 5}, ""},
        {"rewrite", example(4), 2, {2, 6}, ""},  // one record more in bucket 2
        {"new", example(), 2, {2, 5}, ""},
        {"remove", {}, 2, {}, opened.arg(ENOENT)},
        {"new", example(), 2, {2, 5}, ""},
        {"link", example(), 2, {}, opened.arg(ELOOP)}};
    for (const auto& [change, bytes, bucket, expected, message] : steps) {
        if (change == "rewrite") {
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::ReadWrite));  // the same inode
            file.write(bytes);
        } else {  // the file goes; a new one written beside it is renamed or linked to in its place
            nxtest::writeFile(copy, bytes);
            QFile::remove(path);
            ASSERT_TRUE(change == "remove" || (change == "new" ? QFile::rename(copy, path) : QFile::link(copy, path)));
        }
        EXPECT_EQ(range(bucket), expected) << change << " bucket " << bucket << " " << message;
        EXPECT_EQ(takeLog(), message.isEmpty() ? QStringList() : errorLog("GetIndexHighAndLow", message));
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
    // The first file and DB-COUNT; the size of the ranges found and the last file visited.
    const std::tuple<int, int, DWORD, int> cases[] = {
        {0, 5, 16 * (1 + 4), 3}, {3, 5, 16 * 4, 3}, {4, 5, 0, 3}, {6, 5, 0, 5}, {0, 1, 0, -1}, {0, 0, 0, -1}};
    int lastFile = 99;
    for (const auto& [firstFile, dbCount, size, last] : cases) {
        lastFile = 99;
        EXPECT_EQ(m_Indexer.CalculateSizeOfIndex(kBucket, firstFile, false, &lastFile, dbCount), size)
            << firstFile << "/" << dbCount;
        EXPECT_EQ(lastFile, last) << firstFile << "/" << dbCount;
        EXPECT_EQ(takeLog(), firstFile == 0 && dbCount == 5 ? skipped : QStringList());
    }
    ASSERT_EQ(allocate(kBucket, DWORD(kept.size())), DWORD(kept.size()));
    m_Indexer.CalculateSizeOfIndex(kBucket, 0, true, &lastFile, 5);
    EXPECT_EQ(tableBytes(kept.size()), kept);
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable + kept.size());
    EXPECT_EQ(takeLog(), skipped);

    // File 3 grew since the sizing pass: nothing is copied past the table.
    nxtest::writeFile(sourcePath(3), nxtest::readFile(sourcePath(4)));
    allocate(kBucket, DWORD(kept.size()));
    m_Indexer.CalculateSizeOfIndex(kBucket, 0, true, &lastFile, 5);
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
        int lastFile = 0;
        m_Indexer.CalculateSizeOfIndex(kBucket, 0, true, &lastFile, 3);
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
    const QString path = helperPath(kBucket);
    const QByteArray letters = QByteArray("abcdefghijklmnopqrstuvwxyz").repeated(3);
    const DWORD full = 65535 * 16, most = 0xFFFFFFFFu;  // a full bucket's bytes; the most a size can say
    const QString tooLarge = "Error: Bucket 07 too large to index - %1 bytes, more than 65535 records";
    const QStringList overFull = errorLog("AllocateIndexBuffer", tooLarge.arg(full + 16)),
                      overMost = errorLog("AllocateIndexBuffer", tooLarge.arg(most));
    const QString grew = "Error: Entry table too small for the following file(helper buffer) - " + path;
    const QStringList tooSmall = errorLog("ReadHelperFile", grew + " (64 bytes, room for 48)");
    const QStringList directory =
        errorLog("AllocateIndexBuffer", "Error:Refused the following file, not a regular file- " + path) +
        errorLog("ReadHelperFile", "Error:Unable to get file size! - " + path);
    // The new bytes; the helper's size when sized and when read (-1: gone by then; -2: a directory, last as it stays);
    // whether the table is allocated; the log. A full bucket less 15 bytes still fits 30 helper bytes, and a helper
    // with no new bytes fills its table exactly.
    const std::tuple<DWORD, int, int, bool, QStringList> cases[] = {
        {16, 48, 48, true, {}},        {16, 50, 50, true, {}},          {16, 0, 0, true, {}},
        {16, 32, -1, true, {}},        {16, 32, 64, true, tooSmall},    {full, 0, 0, true, {}},
        {full - 15, 30, 30, true, {}}, {full, 16, 16, false, overFull}, {most, 0, 0, false, overMost},
        {0, 48, 48, true, {}},         {16, -2, -2, true, directory}};
    for (const auto& [size, sized, read, fits, log] : cases) {
        SCOPED_TRACE(testing::Message() << size << " bytes, helper " << sized << " then " << read);
        QFile::remove(path);
        sized == -2 ? void(QDir().mkpath(path)) : nxtest::writeFile(path, letters.left(sized));
        bool hasHelper = false, loaded = sized == read && sized > 0;
        DWORD allocSize = 1;
        EXPECT_EQ(m_Indexer.AllocateIndexBuffer(kBucket, size, &hasHelper, &allocSize), fits);
        EXPECT_EQ(allocSize, fits ? size + DWORD(std::max(sized, 0)) : 0);
        EXPECT_EQ(hasHelper, sized > 0);
        EXPECT_EQ(m_Indexer.m_EntryTable != nullptr, fits);
        if (fits) {
            if (read != sized)
                read < 0 ? void(QFile::remove(path)) : nxtest::writeFile(path, letters.left(read));
            EXPECT_EQ(m_Indexer.ReadHelperFile(kBucket), loaded);
            EXPECT_EQ(m_Indexer.m_EntryCursor - m_Indexer.m_EntryTable, loaded ? sized & ~15 : 0);
            EXPECT_EQ(tableBytes(loaded ? sized : 16), loaded ? letters.left(sized) : QByteArray(16, '\0'));
            EXPECT_EQ(NxiTestDoor::entryTableOverflowed(m_Indexer), read == 64);
        }
        EXPECT_EQ(takeLog(), log);
        NxiTestDoor::releaseIndexBuffer(m_Indexer);
    }
}

}  // namespace
