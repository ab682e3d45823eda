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

enum class SlotRead { Ok, SeekFailed, ReadFailed };

// Reads count consecutive 32-bit slots of the bucket start table from offset on.
SlotRead readStartSlots(FILE* file, DWORD offset, DWORD* slots, int count)
{
    if (fseek(file, long(offset), SEEK_SET) != 0)
        return SlotRead::SeekFailed;
    for (int i = 0; i < count; ++i) {
        unsigned char bytes[4];
        if (fread(bytes, 1, sizeof bytes, file) != sizeof bytes)
            return SlotRead::ReadFailed;
        slots[i] = nxformat::readLE32(bytes);
    }
    return SlotRead::Ok;
}

// Bucket 0 starts at record 0 and reads only the start of bucket 1; bucket
// 255 reads its own start and ends with the file (taken by the caller).
SlotRead readBucketStartSlots(FILE* file, int bucket, DWORD* range)
{
    if (bucket == 0)
        return readStartSlots(file, nxformat::bucketStartSlotOffset(1), range + 1, 1);
    int slots = bucket < nxformat::kBucketCount - 1 ? 2 : 1;
    return readStartSlots(file, nxformat::bucketStartSlotOffset(bucket), range, slots);
}

} // namespace

bool nxi::GetIndexHighAndLow(char* path, int bucket, DWORD* low, DWORD* high)
{
    FILE* file = fileio::openFile(path, "rb");
    if (!file) {
        int err = errno;
        NXI_ERROR("Could not open following db file- %s - code -> %d ", path, err);
        return false;
    }
    // range[0] is low, range[1] high.
    DWORD range[2] = {0, 0};
    SlotRead read = readBucketStartSlots(file, bucket, range);
    if (read == SlotRead::SeekFailed) {
        if (bucket == 0)
            NXI_ERROR("Error: SetFilePointer failed for following file - %s", path);
        else
            NXI_ERROR("SetFilePointer failed for following file - %s", path);
    } else if (read == SlotRead::ReadFailed) {
        NXI_ERROR("Error: ReadFile failed for the following file- %s", path);
    }
    fclose(file);
    if (read != SlotRead::Ok)
        return false;

    QString pathText = QString::fromUtf8(path);
    uint64_t fileSize = uint64_t(m_CommonFun->GetFileSize(pathText));
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
        NXI_ERROR("Error: Corrupt bucket range in the following file- %s (bucket %02x, low %u, high %u)", path,
                  bucket, range[0], range[1]);
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

    FILE* file = fileio::openFile(path, "rb");
    if (!file) {
        int err = errno;
        NXI_ERROR("Could not open following db file: %s - code -> %d ", path, err);
        return false;
    }
    if (fseek(file, long(offset), SEEK_SET) != 0) {
        int err = errno;
        NXI_ERROR("Error: SetFilePointer failed for following file(read buffer) -> %d ", err);
        errno = err;
        NXI_ERROR("%s", path);  // the path as plain text
        fclose(file);
        return false;
    }
    size_t got = length > 0 ? fread(m_EntryCursor, 1, length, file) : 0;
    if (got != length) {
        // Leave no partial range behind: the next range fills the same place.
        memset(m_EntryCursor, 0, got);
        NXI_ERROR("Error: ReadFile failed for the following file(read buffer) - %s", path);
        fclose(file);
        return false;
    }
    fclose(file);
    m_EntryCursor += got & ~size_t(nxformat::kRecordSize - 1);
    return true;
}
