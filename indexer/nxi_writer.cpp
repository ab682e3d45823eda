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
#include <stdio_ext.h>
#include <memory>
#include <unistd.h>

using nxformat::Generation;
using nxformat::IndexFile;

namespace {

struct FreeDeleter {
    void operator()(unsigned char* p) const { free(p); }
};
using MallocBuffer = std::unique_ptr<unsigned char, FreeDeleter>;

// Zero-filled, one byte longer than asked.
MallocBuffer allocateListBuffer(DWORD size)
{
    return MallocBuffer(static_cast<unsigned char*>(calloc(size_t(size) + 1, 1)));
}

struct Chunk {
    const void* data;
    size_t size;
};

// Writes the chunks in order, each as one item, and flushes them; false
// after a short write.
template <size_t N>
bool writeChunks(FILE* file, const Chunk (&chunks)[N])
{
    for (const Chunk& chunk : chunks)
        if (chunk.size > 0 && fwrite(chunk.data, chunk.size, 1, file) != 1)
            return false;
    return fflush(file) == 0;
}

void logFwriteFailed(const char* reportAs, const QByteArray& path)
{
    NXI_ERROR_AS(reportAs, "Error:fwrite failed for the following file- %s", path.constData());
}

// The bucket's lists, converted from its sorted table.
struct BucketLists {
    Chunk keyList;
    Chunk payloadList;
    Chunk groupTable;
    Chunk entryTable;
};

// Writes the key, payload and entry files under their pending names (in
// that order in paths).
bool writePendingFiles(const QString (&paths)[3], const BucketLists& lists, const char* reportAs)
{
    struct PendingFile {
        IndexFile file;
        Chunk chunks[2];
        const char* openFailedMessage;
    };
    const PendingFile pendingFiles[] = {
        {IndexFile::Key, {lists.keyList, lists.groupTable}, "Error:Could not open following file for writing- %s"},
        {IndexFile::Payload, {lists.payloadList, {}}, "Error:Could not open following file for writing- %s"},
        {IndexFile::Entry, {lists.entryTable, {}}, "Error:Could not open following file for helper writing- %s"},
    };
    for (const PendingFile& pending : pendingFiles) {
        const QByteArray path = paths[int(pending.file)].toUtf8();
        FILE* file = nullptr;
        const Status opened = fileio::openFile(path.constData(), "wb+", &file);
        if (!opened.isOk()) {
            NXI_FAILED_AS(reportAs, opened, pending.openFailedMessage, path.constData());
            return false;
        }
        // On disk before the rotation's rename can install it.
        bool written = writeChunks(file, pending.chunks) && fileio::syncFile(file).isOk();
        written = fclose(file) == 0 && written;
        if (!written) {
            logFwriteFailed(reportAs, path);
            return false;
        }
    }
    return true;
}

// Appends the bucket block (count, group table, key list) to the status file
// and records its offset in the bucket's slot; a short append is cut off again
// and clears the slot.
bool appendBucketBlock(const QString& statusFile, DWORD count, const BucketLists& lists, const char* reportAs,
                       uint32_t* slot)
{
    const QByteArray statusPath = statusFile.toUtf8();
    FILE* status = nullptr;
    const Status opened = fileio::openFile(statusPath.constData(), "ab+", &status);
    if (!opened.isOk()) {
        NXI_FAILED_AS(reportAs, opened, "Could not open following file for writing- code -> %d ", opened.code());
        NXI_FAILED_AS(reportAs, opened, "%s", statusPath.constData());  // the path as plain text
        return false;
    }
    long blockOffset = fseek(status, 0, SEEK_END) == 0 ? ftell(status) : -1;
    if (blockOffset < 0 || uint64_t(blockOffset) > UINT32_MAX) {
        fclose(status);
        logFwriteFailed(reportAs, statusPath);
        return false;
    }
    unsigned char countBytes[nxformat::kBlockCountSize];
    nxformat::writeLE32(countBytes, count);
    *slot = DWORD(blockOffset);
    const Chunk block[] = {{countBytes, sizeof countBytes}, lists.groupTable, lists.keyList};
    bool written = writeChunks(status, block);
    if (!written) {
        // No partial block stays behind: what the stream still buffers is
        // dropped, so the close cannot write it after the cut.
        __fpurge(status);
        (void)!ftruncate(fileno(status), blockOffset);  // should the cut fail, no slot points at the rest
        *slot = 0;
    }
    written = fclose(status) == 0 && written;
    if (!written) {
        logFwriteFailed(reportAs, statusPath);
        return false;
    }
    return true;
}

} // namespace

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
    DWORD keyListSize = nxformat::kKeySize * count;
    MallocBuffer pbmem = allocateListBuffer(keyListSize);
    if (!pbmem) {
        int err = errno;
        NXI_ERROR("Could not allocate memory!(pbmem) code -> %d size -> %d", err, int(keyListSize));
        return false;
    }
    unsigned char groupTable[nxformat::kGroupTableSize];
    nxformat::splitSortedTable(m_EntryTable, count, pbmem.get(), pbdisk.get(), groupTable);
    const BucketLists lists{{pbmem.get(), keyListSize},
                            {pbdisk.get(), payloadListSize},
                            {groupTable, sizeof groupTable},
                            {m_EntryTable, size}};

    // The pending files are complete before the block is appended, so that a
    // bucket that fails leaves no partial block behind and its slot stays 0.
    const QString pending[3] = {IndexFilePath(IndexFile::Key, Generation::Pending, bucket),
                                IndexFilePath(IndexFile::Payload, Generation::Pending, bucket),
                                IndexFilePath(IndexFile::Entry, Generation::Pending, bucket)};
    if (!writePendingFiles(pending, lists, NXI_OPERATION))
        return false;
    if (!appendBucketBlock(m_SbfTmpPath, count, lists, NXI_OPERATION, &m_SbfOffsets[bucket]))
        return false;
    return RotateIndexFiles(bucket, NXI_OPERATION);
}

bool nxi::RotateIndexFiles(int bucket, const char* reportAs)
{
    // Key file first, then payload file, then entry file. Each current file
    // waits under its previous name until all three moves have succeeded; a
    // failed move puts back the files already moved.
    const IndexFile files[] = {IndexFile::Key, IndexFile::Payload, IndexFile::Entry};
    for (int moving = 0; moving < 3; ++moving) {
        QString current = IndexFilePath(files[moving], Generation::Current, bucket);
        QString pending = IndexFilePath(files[moving], Generation::Pending, bucket);
        m_CommonFun->MoveFile(current, IndexFilePath(files[moving], Generation::Previous, bucket));
        if (!m_CommonFun->MoveFile(pending, current)) {
            NXI_ERROR_AS(reportAs, "Error:MoveFileEx failed for the following file- %s", pending.toUtf8().constData());
            for (int moved = 0; moved < moving; ++moved)
                m_CommonFun->MoveFile(IndexFilePath(files[moved], Generation::Previous, bucket),
                                      IndexFilePath(files[moved], Generation::Current, bucket));
            return false;
        }
    }
    for (IndexFile file : files)
        DeleteFile(IndexFilePath(file, Generation::Previous, bucket));
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
