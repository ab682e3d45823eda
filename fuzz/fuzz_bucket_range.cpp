// The bucket range of a source file: the input is the file, its first byte
// (which lies in the start table's slot 0, never read) picks the bucket. The
// range the indexer finds must be the one the file's bytes give; a range it
// accepts is allocated and copied, and the copy must be the file's bytes.
// Then a copy from an offset the input picks into the table's spare records
// (it succeeds exactly when the file holds all the bytes asked for, and
// leaves nothing behind when it fails), and a copy larger than the room left,
// which must be refused without a byte written.
#include "fuzz_support.h"

#include "indexformat.h"
#include "nxi.h"
#include "nxitestdoor.h"

#include <cstring>

using nxfuzz::expectedBucketRange;
using nxfuzz::recordOffset;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const int bucket = size > 0 ? data[0] : 0;
    nxfuzz::ScratchHost host;
    nxi indexer;
    indexer.m_HostPath = host.path();
    std::strcpy(indexer.m_DbName, "wdx00");
    QByteArray path = nxformat::sourceFilePath(host.path(), "wdx00", 0).toUtf8();
    nxfuzz::writeFile(QString::fromUtf8(path), data, size);

    DWORD low = 0xA5A5A5A5u;
    DWORD high = 0x5A5A5A5Au;
    const bool found = indexer.GetIndexHighAndLow(path.data(), bucket, &low, &high);
    const nxfuzz::BucketRange expected = expectedBucketRange(data, size, bucket);
    FUZZ_CHECK(found == expected.ok, "bucket %02x of a %zu-byte file: found %d, expected %d (low %u, high %u)", bucket,
               size, found, expected.ok, expected.low, expected.high);
    if (!found)
        return 0;
    FUZZ_CHECK(low == expected.low && high == expected.high, "bucket %02x: range %u..%u, expected %u..%u", bucket, low,
               high, expected.low, expected.high);

    // Room for the range and up to 3 spare records.
    const DWORD rangeBytes = (high - low) * 16;
    const DWORD spareBytes = size > 1 ? DWORD(data[1] % 4) * 16 : 0;
    bool hasHelper = false;
    DWORD allocSize = 0;
    const bool allocated = indexer.AllocateIndexBuffer(bucket, rangeBytes + spareBytes, &hasHelper, &allocSize);
    const bool fitsBucket = (rangeBytes + spareBytes) / 16 <= nxformat::kMaxBucketRecords;
    FUZZ_CHECK(allocated == fitsBucket, "allocation of %u bytes: %d", rangeBytes + spareBytes, allocated);
    if (!allocated) {
        FUZZ_CHECK(indexer.m_EntryTable == nullptr, "a refused allocation left a table");
        return 0;
    }
    FUZZ_CHECK(!hasHelper && allocSize == rangeBytes + spareBytes, "no helper file, yet hasHelper %d, allocSize %u",
               hasHelper, allocSize);
    unsigned char* const table = indexer.m_EntryTable;
    FUZZ_CHECK(table != nullptr && indexer.m_EntryCursor == table, "table %p, cursor %p", static_cast<void*>(table),
               static_cast<void*>(indexer.m_EntryCursor));

    const uint64_t rangeOffset = recordOffset(low);
    FUZZ_CHECK(indexer.ReadIndexBuffer(path.data(), DWORD(rangeOffset), rangeBytes),
               "copy of %u bytes from %llu failed", rangeBytes, static_cast<unsigned long long>(rangeOffset));
    FUZZ_CHECK(indexer.m_EntryCursor == table + rangeBytes, "cursor moved by %td, expected %u",
               indexer.m_EntryCursor - table, rangeBytes);
    FUZZ_CHECK(rangeBytes == 0 || std::memcmp(table, data + rangeOffset, rangeBytes) == 0,
               "copied range differs from the file");

    // Any offset the input picks, for exactly the spare room.
    const DWORD offset = size >= 4 ? nxfuzz::le16(data + 2) : 0;
    const bool inFile = spareBytes == 0 || uint64_t(offset) + spareBytes <= size;  // reading nothing always succeeds
    const bool copied = indexer.ReadIndexBuffer(path.data(), offset, spareBytes);
    FUZZ_CHECK(copied == inFile, "copy of %u bytes from %u of a %zu-byte file: %d", spareBytes, offset, size, copied);
    unsigned char* const spare = table + rangeBytes;
    if (copied) {
        FUZZ_CHECK(indexer.m_EntryCursor == spare + spareBytes, "cursor after the spare copy");
        FUZZ_CHECK(spareBytes == 0 || std::memcmp(spare, data + offset, spareBytes) == 0, "spare copy differs");
    } else {
        FUZZ_CHECK(indexer.m_EntryCursor == spare, "a failed copy moved the cursor");
        for (DWORD i = 0; i < spareBytes; ++i)
            FUZZ_CHECK(spare[i] == 0, "a failed copy left byte %u behind", i);
    }

    // More than the table holds: refused, nothing written, the bucket marked as given up.
    const size_t roomLeft = size_t(allocSize) - size_t(indexer.m_EntryCursor - table);
    unsigned char* const cursorBefore = indexer.m_EntryCursor;
    FUZZ_CHECK(!NxiTestDoor::entryTableOverflowed(indexer), "overflow flagged before any oversized copy");
    FUZZ_CHECK(!indexer.ReadIndexBuffer(path.data(), 0, DWORD(roomLeft) + 16), "oversized copy accepted");
    FUZZ_CHECK(NxiTestDoor::entryTableOverflowed(indexer) && indexer.m_EntryCursor == cursorBefore,
               "oversized copy: overflow %d, cursor moved by %td", NxiTestDoor::entryTableOverflowed(indexer),
               indexer.m_EntryCursor - cursorBefore);

    NxiTestDoor::releaseIndexBuffer(indexer);
    FUZZ_CHECK(indexer.m_EntryTable == nullptr, "table still set after release");
    return 0;
}
