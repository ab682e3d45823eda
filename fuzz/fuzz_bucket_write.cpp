// A whole bucket through the writer. The input is split into a helper file
// and one or two source files of database wdx00, and the bucket goes through
// the steps of an indexing run: sizing pass, allocation, helper load,
// collecting pass, sort, write and rotation. Each step is checked against
// what the files' bytes give: the size, the allocation (refused exactly when
// the bucket passes 65,535 records), the table's bytes before and after the
// sort, and the three index files and the status file block byte for byte.
//
// Input: byte 0 the bucket; byte 1 flags; bytes 2-3 the helper file's length;
// bytes 4-5 the first source file's length when there are two; bytes 6-7 the
// helper file's padding; the rest is cut into the helper file and the source
// files in that order.
#include "fuzz_support.h"

#include "indexformat.h"
#include "nxi.h"
#include "nxitestdoor.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <array>
#include <utility>
#include <cstring>
#include <vector>

namespace {

constexpr int kHeaderSize = 8;
constexpr uint8_t kTwoSourceFiles = 0x01;
constexpr uint8_t kHelperFile = 0x02;
constexpr uint8_t kFileZeroMissing = 0x04;  // sources start at file 1; file 0 is visited and missing
constexpr uint8_t kWriteTwice = 0x08;  // a second run rotates the first run's files away
// Helper grown with zeros to about 65,535 records, when all three bits are set:
// such a bucket costs a hundred times an ordinary one, so it stays the rarer case.
constexpr uint8_t kPadHelper = 0x70;

constexpr uint32_t kRecord = 16;
constexpr uint32_t kLimitBytes = 65535 * kRecord;

struct Files {
    QByteArray helper;
    std::vector<QByteArray> sources;
    int firstSourceNumber = 0;
};

Files splitInput(const uint8_t* data, size_t size)
{
    Files files;
    const uint8_t flags = data[1];
    const char* rest = reinterpret_cast<const char*>(data + kHeaderSize);
    size_t left = size - kHeaderSize;
    auto take = [&](size_t wanted) {
        const size_t length = std::min(wanted, left);
        QByteArray piece(rest, int(length));
        rest += length;
        left -= length;
        return piece;
    };
    if (flags & kHelperFile) {
        files.helper = take(nxfuzz::le16(data + 2));
        if ((flags & kPadHelper) == kPadHelper) {
            // Around the limit: 1,048,560 bytes less up to 255 records, plus up to 15 bytes.
            const int padded = int(kLimitBytes - kRecord * data[6] + (data[7] % 16));
            if (files.helper.size() < padded)
                files.helper.append(QByteArray(padded - files.helper.size(), '\0'));
        }
    }
    if (flags & kTwoSourceFiles)
        files.sources.push_back(take(nxfuzz::le16(data + 4)));
    files.sources.push_back(take(left));
    files.firstSourceNumber = (flags & kFileZeroMissing) ? 1 : 0;
    return files;
}

// The table the allocation and the two passes must leave: the helper file's
// whole records, then each source file's range in file order, then zeros
// where the helper's trailing part record was counted.
QByteArray expectedTable(const Files& files, int bucket)
{
    const int helperWhole = files.helper.size() & ~int(kRecord - 1);
    QByteArray table = files.helper.left(helperWhole);
    for (const QByteArray& source : files.sources) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(source.constData());
        const nxfuzz::BucketRange range = nxfuzz::expectedBucketRange(bytes, size_t(source.size()), bucket);
        if (range.ok)
            table += source.mid(int(nxfuzz::recordOffset(range.low)), int((range.high - range.low) * kRecord));
    }
    table.append(QByteArray(files.helper.size() - helperWhole, '\0'));
    return table;
}

using Record = std::array<unsigned char, kRecord>;

std::vector<Record> recordsOf(const QByteArray& table, uint32_t count)
{
    std::vector<Record> records(count);
    if (count > 0)
        std::memcpy(records.data(), table.constData(), size_t(count) * kRecord);
    return records;
}

uint32_t keyOf(const Record& record) { return nxfuzz::le32(record.data()); }

uint64_t mix(uint64_t x)
{
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// The same for any order of the same records: a sum and an xor of one hash
// per record (sorting a copy of 65,535 records per input would be slow).
std::pair<uint64_t, uint64_t> fingerprint(const std::vector<Record>& records)
{
    uint64_t sum = 0;
    uint64_t bits = 0;
    for (const Record& record : records) {
        uint64_t halves[2];
        std::memcpy(halves, record.data(), sizeof halves);
        const uint64_t hash = mix(halves[0] ^ mix(halves[1]));
        sum += hash;
        bits ^= hash;
    }
    return {sum, bits};
}

// Key file, payload file and status file block of a sorted table.
struct IndexBytes {
    QByteArray keyFile;
    QByteArray payloadFile;
    QByteArray block;
};

IndexBytes expectedIndex(const std::vector<Record>& sorted)
{
    QByteArray keys;
    QByteArray payloads;
    uint16_t firstOfGroup[256];
    std::fill(firstOfGroup, firstOfGroup + 256, uint16_t(0xFFFF));
    for (size_t i = 0; i < sorted.size(); ++i) {
        const Record& record = sorted[i];
        keys.append(reinterpret_cast<const char*>(record.data()), 2);
        payloads.append(reinterpret_cast<const char*>(record.data()) + 4, 12);
        if (firstOfGroup[record[2]] == 0xFFFF)
            firstOfGroup[record[2]] = uint16_t(i);
    }
    QByteArray groups;
    for (uint16_t slot : firstOfGroup) {
        groups.append(char(slot & 0xFF));
        groups.append(char(slot >> 8));
    }
    const uint32_t count = uint32_t(sorted.size());
    QByteArray countBytes;
    for (int i = 0; i < 4; ++i)
        countBytes.append(char((count >> (8 * i)) & 0xFF));
    return {keys + groups, payloads, countBytes + groups + keys};
}

QString indexFile(const nxi& indexer, nxformat::IndexFile file, nxformat::Generation generation, int bucket)
{
    const QString dir = file == nxformat::IndexFile::Entry ? indexer.m_HlpPath : indexer.m_IdxnDbPath;
    return dir + "/" + nxformat::indexFileName(file, generation, bucket);
}

// One pass of the bucket's steps, checked as it goes.
void indexBucket(nxi& indexer, const Files& files, int bucket)
{
    const int dbCount = files.firstSourceNumber + int(files.sources.size()) + 1;
    const QByteArray expected = expectedTable(files, bucket);
    const uint32_t helperSize = uint32_t(files.helper.size());
    const uint32_t newBytes = uint32_t(expected.size()) - helperSize;

    int lastFile = -2;
    const DWORD size = indexer.CalculateSizeOfIndex(bucket, 0, false, &lastFile, dbCount);
    FUZZ_CHECK(size == newBytes, "sizing pass: %u bytes, expected %u", size, newBytes);
    FUZZ_CHECK(lastFile == dbCount - 2, "sizing pass: last file %d, expected %d", lastFile, dbCount - 2);
    if (size == 0) {
        FUZZ_CHECK(indexer.m_EntryTable == nullptr, "a table without new records");
        return;
    }

    bool hasHelper = false;
    DWORD allocSize = 0;
    const bool allocated = indexer.AllocateIndexBuffer(bucket, size, &hasHelper, &allocSize);
    const uint64_t total = uint64_t(size) + helperSize;
    FUZZ_CHECK(allocated == (total / kRecord <= 65535), "allocation of %llu bytes: %d",
               static_cast<unsigned long long>(total), allocated);
    if (!allocated) {
        FUZZ_CHECK(indexer.m_EntryTable == nullptr, "a refused allocation left a table");
        return;
    }
    FUZZ_CHECK(allocSize == total && hasHelper == (helperSize > 0), "allocSize %u, hasHelper %d", allocSize, hasHelper);
    if (hasHelper)
        FUZZ_CHECK(indexer.ReadHelperFile(bucket), "helper file of %u bytes not loaded", helperSize);
    const DWORD collected = indexer.CalculateSizeOfIndex(bucket, 0, true, &lastFile, dbCount);
    FUZZ_CHECK(collected == size && lastFile == dbCount - 2, "collecting pass: %u bytes, last file %d", collected,
               lastFile);
    FUZZ_CHECK(!NxiTestDoor::entryTableOverflowed(indexer), "unchanged files overflowed the table");
    FUZZ_CHECK(indexer.m_EntryCursor == indexer.m_EntryTable + (helperSize & ~(kRecord - 1)) + size, "cursor at %td",
               indexer.m_EntryCursor - indexer.m_EntryTable);
    FUZZ_CHECK(std::memcmp(indexer.m_EntryTable, expected.constData(), allocSize) == 0,
               "table before the sort differs");

    NxiTestDoor::sortEntryTable(indexer, allocSize);
    const uint32_t count = allocSize / kRecord;
    const QByteArray table(reinterpret_cast<const char*>(indexer.m_EntryTable), int(allocSize));
    const std::vector<Record> sorted = recordsOf(table, count);
    FUZZ_CHECK(fingerprint(sorted) == fingerprint(recordsOf(expected, count)), "the sort lost or changed records");
    FUZZ_CHECK(table.mid(int(count * kRecord)) == expected.mid(int(count * kRecord)), "the sort moved the tail");
    if (count > 0) {
        auto byKey = [](const Record& a, const Record& b) { return keyOf(a) < keyOf(b); };
        std::vector<Record> stable = recordsOf(expected, count);
        const auto [lowest, highest] = std::minmax_element(stable.begin(), stable.end(), byKey);
        // Keys spanning less than 2^31 end in ascending order, equal keys in table order.
        if (keyOf(*highest) - keyOf(*lowest) < 0x80000000u) {
            std::stable_sort(stable.begin(), stable.end(), byKey);
            FUZZ_CHECK(sorted == stable, "not the stable ascending order");
        }
    }

    const QByteArray status = nxfuzz::readFile(indexer.m_SbfTmpPath);
    FUZZ_CHECK(indexer.WriteAllIndexing(bucket, allocSize), "writing %u records failed", count);
    FUZZ_CHECK(indexer.m_EntryTable == nullptr, "the writer left the table");

    using nxformat::Generation;
    using nxformat::IndexFile;
    const IndexBytes index = expectedIndex(sorted);
    const QByteArray keyFile = nxfuzz::readFile(indexFile(indexer, IndexFile::Key, Generation::Current, bucket));
    const QByteArray payloadFile =
        nxfuzz::readFile(indexFile(indexer, IndexFile::Payload, Generation::Current, bucket));
    const QByteArray entryFile = nxfuzz::readFile(indexFile(indexer, IndexFile::Entry, Generation::Current, bucket));
    FUZZ_CHECK(keyFile.size() == int(2 * count + 512) && keyFile == index.keyFile,
               "key file of %d bytes for %u records", int(keyFile.size()), count);
    FUZZ_CHECK(payloadFile.size() == int(12 * count) && payloadFile == index.payloadFile,
               "payload file of %d bytes for %u records", int(payloadFile.size()), count);
    FUZZ_CHECK(entryFile == table, "entry file of %d bytes for a table of %u", int(entryFile.size()), allocSize);
    const QByteArray newStatus = nxfuzz::readFile(indexer.m_SbfTmpPath);
    FUZZ_CHECK(indexer.m_SbfOffsets[bucket] == uint32_t(status.size()) && newStatus == status + index.block,
               "status file block at %u of %d bytes", indexer.m_SbfOffsets[bucket], int(newStatus.size()));
    for (IndexFile file : {IndexFile::Key, IndexFile::Payload, IndexFile::Entry})
        for (Generation generation : {Generation::Pending, Generation::Previous})
            FUZZ_CHECK(!nxfuzz::exists(indexFile(indexer, file, generation, bucket)), "%s left behind",
                       qPrintable(indexFile(indexer, file, generation, bucket)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < size_t(kHeaderSize))
        return 0;
    const int bucket = data[0];
    const Files files = splitInput(data, size);

    nxfuzz::ScratchHost host;
    nxi indexer;
    const QString db = "wdx00";
    indexer.m_HostPath = host.path();
    std::strcpy(indexer.m_DbName, "wdx00");
    indexer.m_SbfTmpPath = nxformat::pendingStatusFilePath(host.path(), db);
    indexer.m_IdxnDbPath = nxformat::indexDirPath(host.path(), db);
    indexer.m_HlDbPath = nxformat::helperDirPath(host.path(), db);
    indexer.m_HlpPath = nxformat::entryDirPath(host.path(), db);
    indexer.m_HlIniPath = nxformat::helperProgressPath(host.path(), db);
    QDir().mkpath(indexer.m_IdxnDbPath);
    QDir().mkpath(indexer.m_HlpPath);
    nxfuzz::writeFile(indexer.m_SbfTmpPath, QByteArray(1024, '\0'));
    if (data[1] & kHelperFile)  // possibly empty, which the allocation must not count
        nxfuzz::writeFile(nxformat::helperFilePath(host.path(), db, bucket), files.helper);
    for (size_t i = 0; i < files.sources.size(); ++i)
        nxfuzz::writeFile(nxformat::sourceFilePath(host.path(), db, files.firstSourceNumber + int(i)),
                          files.sources[i]);

    indexBucket(indexer, files, bucket);
    if (data[1] & kWriteTwice)
        indexBucket(indexer, files, bucket);
    return 0;
}
