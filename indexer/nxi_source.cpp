// Reading the source files: one bucket's record range from the bucket start
// table, and the copy of such a range into the entry table.
#include "nxi.h"

#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxilog.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Bucket 0 starts at record 0 and takes only the start of bucket 1; bucket
// 255 takes its own start and ends with the file (taken by the caller). Only
// those 4 or 8 bytes of the start table are used; false when the file is too
// short to hold them.
bool bucketStartSlots(const SourceFiles::File& file, int bucket, DWORD* range)
{
    const int first = bucket == 0 ? 1 : bucket;
    const int count = bucket == 0 || bucket == nxformat::kBucketCount - 1 ? 1 : 2;
    const size_t offset = nxformat::bucketStartSlotOffset(first);
    if (offset + 4 * size_t(count) > file.headSize)
        return false;
    for (int i = 0; i < count; ++i)
        range[(bucket == 0 ? 1 : 0) + i] = nxformat::readLE32(file.head + offset + 4 * i);
    return true;
}

}  // namespace

bool nxi::GetIndexHighAndLow(char* path, int bucket, DWORD* low, DWORD* high)
{
    const SourceFiles::File* file = m_SourceFiles.open(path);
    if (!file) {
        int err = errno;
        NXI_ERROR("Could not open following db file- %s - code -> %d ", path, err);
        return false;
    }
    // range[0] is low, range[1] high.
    DWORD range[2] = {0, 0};
    if (!bucketStartSlots(*file, bucket, range)) {
        NXI_ERROR("Error: ReadFile failed for the following file- %s", path);
        return false;
    }

    const uint64_t fileSize = uint64_t(file->size);
    if (bucket == nxformat::kBucketCount - 1) {
        if (DWORD(fileSize) == 0) {
            NXI_ERROR("Error: Getfilesize failed for following file - %s", path);
            return false;
        }
        range[1] = DWORD(std::min<uint64_t>(nxformat::sourceWholeRecords(fileSize), UINT32_MAX));
    }
    // A corrupt start table must not lead to a read or an allocation of a
    // wrapped length, so such a range fails like an unreadable one.
    if (!nxformat::sourceRangeIsValid(range[0], range[1], fileSize)) {
        NXI_ERROR("Error: Corrupt bucket range in the following file- %s (bucket %02x, low %u, high %u)", path, bucket,
                  range[0], range[1]);
        return false;
    }
    *low = range[0];
    *high = range[1];
    return true;
}

bool nxi::ReadIndexBuffer(char* path, DWORD offset, DWORD length)
{
    // The sizing pass measured the table; a file that grew since must not
    // write past its end. The run gives up such a bucket.
    size_t room = m_EntryCursor ? size_t(m_EntryTableEnd - m_EntryCursor) : 0;
    if (length > room) {
        NXI_ERROR("Error: Entry table too small for the following file(read buffer) - %s (%u bytes, room for %zu)",
                  path, length, room);
        m_EntryTableOverflow = true;
        return false;
    }

    const SourceFiles::File* file = m_SourceFiles.open(path);
    if (!file) {
        int err = errno;
        NXI_ERROR("Could not open following db file: %s - code -> %d ", path, err);
        return false;
    }
    // One positioned read straight into the table: no seek that could fail.
    size_t got = 0;
    fileio::readAt(file->fd, m_EntryCursor, length, offset, &got);  // a failed read leaves errno for the line below
    if (got != length) {
        // Leave no partial range behind: the next range fills the same place.
        memset(m_EntryCursor, 0, got);
        NXI_ERROR("Error: ReadFile failed for the following file(read buffer) - %s", path);
        return false;
    }
    m_EntryCursor += got & ~size_t(nxformat::kRecordSize - 1);
    return true;
}
