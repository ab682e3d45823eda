// The index file writer: one bucket's sorted entry table becomes its key,
// payload and entry files and its block in the status file; the rotation
// then moves the three files into place.
#include "nxi.h"

#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxilog.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

using nxformat::Generation;
using nxformat::IndexFile;

namespace {

struct FreeDeleter {
    void operator()(unsigned char* p) const { free(p); }
};
using MallocBuffer = std::unique_ptr<unsigned char, FreeDeleter>;

// One byte longer than asked, that byte zero; the conversion fills the rest.
MallocBuffer allocateListBuffer(DWORD size)
{
    MallocBuffer buffer(static_cast<unsigned char*>(malloc(size_t(size) + 1)));
    if (buffer)
        buffer.get()[size] = 0;
    return buffer;
}

struct Chunk {
    const void* data;
    size_t size;
};

void logFwriteFailed(const char* reportAs, const QByteArray& path)
{
    NXI_ERROR_AS(reportAs, "Error:fwrite failed for the following file- %s", path.constData());
}

// The bucket's lists, converted from its sorted table. The bucket block
// (count, group table, key list) and the key file (key list, group table)
// each lie in one piece of the same buffer, so that each is one write.
struct BucketLists {
    Chunk block;
    Chunk keyFile;
    Chunk payloadList;
    Chunk entryTable;
};

// Writes bytes to fd and closes it, having put them on disk first when sync
// is set; false after a short write or a failed sync or close.
bool writeAndClose(int fd, const Chunk& bytes, bool sync)
{
    bool written = fileio::writeAll(fd, bytes.data, bytes.size).isOk() && (!sync || ::fdatasync(fd) == 0);
    return ::close(fd) == 0 && written;
}

// Writes the key, payload and entry files under their pending names (in
// that order in paths).
bool writePendingFiles(const QString (&paths)[3], const BucketLists& lists, const char* reportAs)
{
    struct PendingFile {
        IndexFile file;
        Chunk bytes;
        const char* openFailedMessage;
    };
    const PendingFile pendingFiles[] = {
        {IndexFile::Key, lists.keyFile, "Error:Could not open following file for writing- %s"},
        {IndexFile::Payload, lists.payloadList, "Error:Could not open following file for writing- %s"},
        {IndexFile::Entry, lists.entryTable, "Error:Could not open following file for helper writing- %s"},
    };
    for (const PendingFile& pending : pendingFiles) {
        const QByteArray path = paths[int(pending.file)].toUtf8();
        int fd = -1;
        qint64 size = 0;
        const Status opened = fileio::openDescriptor(path.constData(), "wb+", &fd, &size);
        if (!opened.isOk()) {
            NXI_FAILED_AS(reportAs, opened, pending.openFailedMessage, path.constData());
            return false;
        }
        // On disk before the rotation's rename can install it.
        if (!writeAndClose(fd, pending.bytes, true)) {
            logFwriteFailed(reportAs, path);
            return false;
        }
    }
    return true;
}

// Appends the bucket block to the status file and records its offset in the
// bucket's slot; a short append is cut off again and clears the slot.
bool appendBucketBlock(const QString& statusFile, const BucketLists& lists, const char* reportAs, uint32_t* slot)
{
    const QByteArray statusPath = statusFile.toUtf8();
    int fd = -1;
    qint64 blockOffset = 0;  // the file's end: the program alone appends to it
    const Status opened = fileio::openDescriptor(statusPath.constData(), "ab+", &fd, &blockOffset);
    if (!opened.isOk()) {
        NXI_FAILED_AS(reportAs, opened, "Could not open following file for writing- code -> %d ", opened.code());
        NXI_FAILED_AS(reportAs, opened, "%s", statusPath.constData());  // the path as plain text
        return false;
    }
    if (uint64_t(blockOffset) > UINT32_MAX) {
        ::close(fd);
        logFwriteFailed(reportAs, statusPath);
        return false;
    }
    *slot = DWORD(blockOffset);
    if (!fileio::writeAll(fd, lists.block.data, lists.block.size).isOk()) {
        // No partial block stays behind; should the cut fail, no slot points at the rest.
        (void)!ftruncate(fd, blockOffset);
        *slot = 0;
        ::close(fd);
        logFwriteFailed(reportAs, statusPath);
        return false;
    }
    if (::close(fd) != 0) {
        logFwriteFailed(reportAs, statusPath);
        return false;
    }
    return true;
}

}  // namespace

QString nxi::IndexFilePath(IndexFile file, Generation generation, int bucket) const
{
    QString name = nxformat::indexFileName(file, generation, bucket);
    if (file == IndexFile::Entry)
        return m_HlpPath + "/" + name;
    if (file == IndexFile::Key && generation == Generation::Pending)
        return nxformat::indexDirPath(m_HostPath, QString::fromUtf8(m_DbName)) + "/" + name;
    return m_IdxnDbPath + "/" + name;
}

bool nxi::WriteAllIndexing(int bucket, DWORD size)
{
    // Frees the entry table however the writer ends.
    struct EntryTableRelease {
        nxi& owner;
        ~EntryTableRelease() { owner.ReleaseIndexBuffer(); }
    } release{*this};
    DWORD count = size / nxformat::kRecordSize;
    size_t tableSize = m_EntryTable ? size_t(m_EntryTableEnd - m_EntryTable) : 0;
    // Positions are 16-bit: a larger bucket (or a size beyond the table) is
    // refused before anything is converted.
    if (bucket < 0 || bucket >= nxformat::kBucketCount || count > nxformat::kMaxBucketRecords || size > tableSize) {
        NXI_ERROR("Error: Bucket %02x can't be written - %u bytes, table of %zu bytes", bucket, size, tableSize);
        return false;
    }

    DWORD payloadListSize = nxformat::kPayloadSize * count;
    MallocBuffer pbdisk = allocateListBuffer(payloadListSize);
    if (!pbdisk) {
        int err = errno;
        NXI_ERROR("Could not allocate memory!(pbdisk) code -> %d size -> %d", err, int(payloadListSize));
        return false;
    }
    // count, group table, key list, group table: the block, then the key file.
    DWORD keyListSize = nxformat::kKeySize * count;
    const DWORD blockSize = nxformat::bucketBlockSize(count);
    MallocBuffer pbmem = allocateListBuffer(blockSize + nxformat::kGroupTableSize);
    if (!pbmem) {
        int err = errno;
        NXI_ERROR("Could not allocate memory!(pbmem) code -> %d size -> %d", err, int(keyListSize));
        return false;
    }
    unsigned char* block = pbmem.get();
    unsigned char* groupTable = block + nxformat::kBlockCountSize;
    unsigned char* keyList = groupTable + nxformat::kGroupTableSize;
    nxformat::writeLE32(block, count);
    nxformat::splitSortedTable(m_EntryTable, count, keyList, pbdisk.get(), groupTable);
    memcpy(keyList + keyListSize, groupTable, nxformat::kGroupTableSize);
    const BucketLists lists{{block, blockSize},
                            {keyList, nxformat::keyFileSize(count)},
                            {pbdisk.get(), payloadListSize},
                            {m_EntryTable, size}};

    // The pending files are complete before the block is appended, so that a
    // bucket that fails leaves no partial block behind and its slot stays 0.
    const QString pending[3] = {IndexFilePath(IndexFile::Key, Generation::Pending, bucket),
                                IndexFilePath(IndexFile::Payload, Generation::Pending, bucket),
                                IndexFilePath(IndexFile::Entry, Generation::Pending, bucket)};
    if (!writePendingFiles(pending, lists, NXI_OPERATION))
        return false;
    if (!appendBucketBlock(m_SbfTmpPath, lists, NXI_OPERATION, &m_SbfOffsets[bucket]))
        return false;
    return RotateIndexFiles(bucket, NXI_OPERATION);
}

bool nxi::RotateIndexFiles(int bucket, const char* reportAs)
{
    // Key file first, then payload file, then entry file. Each current file
    // waits under its previous name until all three moves have succeeded; a
    // failed move puts back the files already moved.
    const IndexFile files[] = {IndexFile::Key, IndexFile::Payload, IndexFile::Entry};
    QString current[3], pending[3], previous[3];
    for (int i = 0; i < 3; ++i) {
        current[i] = IndexFilePath(files[i], Generation::Current, bucket);
        pending[i] = IndexFilePath(files[i], Generation::Pending, bucket);
        previous[i] = IndexFilePath(files[i], Generation::Previous, bucket);
    }
    for (int moving = 0; moving < 3; ++moving) {
        m_CommonFun->MoveFile(current[moving], previous[moving]);
        if (!m_CommonFun->MoveFile(pending[moving], current[moving])) {
            NXI_ERROR_AS(reportAs, "Error:MoveFileEx failed for the following file- %s",
                         pending[moving].toUtf8().constData());
            for (int moved = 0; moved < moving; ++moved)
                m_CommonFun->MoveFile(previous[moved], current[moved]);
            return false;
        }
    }
    for (const QString& path : previous)
        DeleteFile(path);
    // The new names are on disk before the caller records the bucket's mark,
    // so that a power loss never leaves a mark ahead of its files.
    for (const QString& directory : {m_IdxnDbPath, m_HlpPath}) {
        const Status synced = fileio::syncDirectory(directory);
        if (!synced.isOk()) {
            NXI_FAILED_AS(reportAs, synced, kDirectorySyncFailed, directory.toUtf8().constData());
            return false;
        }
    }
    return true;
}

bool nxi::DeleteFile(const QString& path) { return QFile::remove(path); }
