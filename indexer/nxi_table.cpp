// One bucket's entry table: sizing and collecting its source ranges, its
// allocation, the helper file at its head, and its sort order.
#include "nxi.h"

#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxilog.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <sys/stat.h>

namespace {

// Source file paths are formatted into a buffer of this size.
constexpr size_t kSourcePathBufferSize = 512;

}  // namespace

DWORD nxi::CalculateSizeOfIndex(int bucket, int firstFile, bool fill, int* lastFile, int dbCount)
{
    // Summed in 64 bits and saturated, so that a bucket too large for the
    // format is seen as such by AllocateIndexBuffer instead of wrapping.
    uint64_t total = 0;
    int fileNumber = firstFile;
    m_SourceFiles.watchChanges();  // each pass reads the files as they are now
    for (; fileNumber < int64_t(dbCount) - 1; ++fileNumber) {
        m_SourceFiles.forgetLook();  // what the last file's test saw
        const QByteArray& name = m_SourceFiles.path(m_HostPath, m_DbName, fileNumber);
        if (size_t(name.size()) >= kSourcePathBufferSize) {
            NXI_ERROR("Error: Path too long for the following yn file- %s", name.constData());
            continue;
        }
        char path[kSourcePathBufferSize];
        std::memcpy(path, name.constData(), size_t(name.size()) + 1);
        if (!m_SourceFiles.exists(path)) {
            NXI_ERROR("Yn File Not exist : %s", path);
            continue;
        }
        DWORD low = 0;
        DWORD high = 0;
        if (!GetIndexHighAndLow(path, bucket, &low, &high))
            continue;
        // GetIndexHighAndLow has checked the range, so neither value wraps.
        DWORD rangeSize = (high - low) * nxformat::kRecordSize;
        total += rangeSize;
        if (fill)
            ReadIndexBuffer(path, DWORD(nxformat::sourceRecordOffset(low)), rangeSize);
    }
    m_SourceFiles.forgetLook();
    *lastFile = fileNumber - 1;
    return DWORD(std::min<uint64_t>(total, UINT32_MAX));
}

bool nxi::AllocateIndexBuffer(int bucket, DWORD size, bool* hasHelper, DWORD* allocSize)
{
    ReleaseIndexBuffer();
    m_EntryTableOverflow = false;
    *allocSize = 0;

    uint64_t total = size;
    const QByteArray helperPath = nxformat::helperFilePath(m_HostPath, QString::fromUtf8(m_DbName), bucket).toUtf8();
    struct stat helper;
    if (::lstat(helperPath.constData(), &helper) != 0) {
        // No helper file.
    } else if (!S_ISREG(helper.st_mode)) {
        // A link or a directory is not a helper file: its target's bytes must
        // never end up in the index.
        NXI_ERROR(kSpecialEntryRefused, helperPath.constData());
    } else {
        DWORD helperSize = DWORD(helper.st_size);
        if (helperSize != 0) {
            total += helperSize;
            *hasHelper = true;
        }
    }
    // Positions in the index files are 16-bit, so a larger bucket can't be
    // written; it is refused before anything is allocated.
    if (total / nxformat::kRecordSize > nxformat::kMaxBucketRecords || total > UINT32_MAX) {
        NXI_ERROR("Error: Bucket %02x too large to index - %llu bytes, more than %u records", bucket,
                  static_cast<unsigned long long>(total), nxformat::kMaxBucketRecords);
        return false;
    }

    m_EntryTable = static_cast<unsigned char*>(calloc(size_t(total), 1));
    if (!m_EntryTable)
        return false;
    m_EntryCursor = m_EntryTable;
    m_EntryTableEnd = m_EntryTable + total;
    *allocSize = DWORD(total);
    return true;
}

bool nxi::ReadHelperFile(int bucket)
{
    QString name = nxformat::helperFilePath(m_HostPath, QString::fromUtf8(m_DbName), bucket);
    QByteArray path = name.toUtf8();
    int fd = -1;
    qint64 fileSize = 0;
    const Status opened = fileio::openForReading(path.constData(), &fd, &fileSize);
    if (!opened.isOk()) {
        if (m_CommonFun->PathFileExists(name))  // a file that is not there is no failure
            NXI_FAILED(opened, "Error:Unable to get file size! - %s", path.constData());
        return false;
    }
    DWORD size = DWORD(fileSize);
    size_t room = m_EntryCursor ? size_t(m_EntryTableEnd - m_EntryCursor) : 0;
    bool loaded = false;
    if (size == 0) {
        // Nothing to load and nothing to report.
    } else if (size > room) {
        // The file grew since it was counted into the table.
        NXI_ERROR("Error: Entry table too small for the following file(helper buffer) - %s (%u bytes, room for %zu)",
                  path.constData(), size, room);
        m_EntryTableOverflow = true;
    } else {
        size_t got = 0;
        fileio::readAt(fd, m_EntryCursor, size, 0, &got);  // a failed read leaves errno for the line below
        loaded = got == size;
        if (loaded) {
            m_EntryCursor += got & ~size_t(nxformat::kRecordSize - 1);
        } else {
            memset(m_EntryCursor, 0, got);
            NXI_ERROR("ReadFile failed for the following file(helper buffer) - %s", path.constData());
        }
    }
    fileio::closeFd(fd);
    return loaded;
}

void nxi::SortEntryTable(DWORD allocSize)
{
    size_t tableSize = m_EntryTable ? size_t(m_EntryTableEnd - m_EntryTable) : 0;
    size_t count = std::min<size_t>(allocSize, tableSize) / nxformat::kRecordSize;
    if (count < 2)
        return;
    nxformat::sortEntryRecords(m_EntryTable, count);
}

void nxi::ReleaseIndexBuffer()
{
    free(m_EntryTable);
    m_EntryTable = nullptr;
    m_EntryCursor = nullptr;
    m_EntryTableEnd = nullptr;
}

int compare(const void* a, const void* b)
{
    return nxformat::compareKeys(nxformat::recordKey(static_cast<const unsigned char*>(a)),
                                 nxformat::recordKey(static_cast<const unsigned char*>(b)));
}
