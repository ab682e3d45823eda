// One database's run: directories, the status file under construction, the
// paced loop over the 256 buckets, and the completion of the status file.
#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxi.h"
#include "nxilog.h"

#include <QDir>
#include <QThread>

#include <cstdio>
#include <cstring>

namespace {

constexpr unsigned long kBucketPauseMs = 50;

// Makes sure the directory exists (creating one level) and that its entry is
// on disk in its parent before any mark or status file relies on what it
// holds: *created says whether the directory is there. The parent is synced
// at every run, not only after a mkdir: a run killed between the two leaves a
// directory whose entry a power cut may still take away.
Status ensureDirectory(const QString& path, bool* created)
{
    const Status made = QDir(path).exists() ? Status::ok() : fileio::makeDirectory(path);
    *created = made.isOk();
    return made.isOk() ? fileio::syncDirectory(fileio::parentDirectory(path)) : made;
}

// The status file head: the 256 block offsets, little-endian.
void encodeStatusHead(const uint32_t* offsets, unsigned char* head)
{
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket)
        nxformat::writeLE32(head + 4 * bucket, offsets[bucket]);
}

}  // namespace

void nxi::StartIndexer(char* dbName)
{
    NXI_ERROR("In StartIndexer");
    std::memset(m_DbName, 0, sizeof m_DbName);
    std::strncpy(m_DbName, dbName, sizeof m_DbName - 1);
    std::memset(m_SbfOffsets, 0, sizeof m_SbfOffsets);
    m_SbfTmpPath = nxformat::pendingStatusFilePath(m_HostPath, m_DbName);
    m_SbfPath = nxformat::statusFilePath(m_HostPath, m_DbName);

    // Without a status file whose head is in place, blocks appended later
    // would end up where the head belongs: the run ends instead.
    if (!CreateStatusFile(NXI_OPERATION))
        return;
    if (!PrepareDirectories(NXI_OPERATION))
        return;

    m_FullIndexing = false;
    if (IsToDoFullIndexing(m_DbName))
        m_FullIndexing = true;
    if (GetDBCount() == 0) {
        NXI_ERROR("DB count to be indexed is zero!");
        DeleteFile(m_SbfTmpPath);
        return;
    }

    int lastMerged[nxformat::kBucketCount];
    for (int& mark : lastMerged)
        mark = -1;
    getHlpINIData(lastMerged, m_HlIniPath);
    NXI_TRACE("Indexing for DB - %s", m_DbName);
    const int dbCount = GetValDBCount();

    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        QThread::msleep(kBucketPauseMs);
        IndexBucket(bucket, lastMerged[bucket], dbCount, NXI_OPERATION);
    }
    m_SourceFiles.closeAll();
    CompleteStatusFile(NXI_OPERATION);
}

bool nxi::CreateStatusFile(const char* reportAs)
{
    const QByteArray path = m_SbfTmpPath.toUtf8();
    FILE* file = nullptr;
    const Status opened = fileio::openFile(path.constData(), "wb+", &file);
    if (!opened.isOk()) {
        NXI_FAILED_AS(reportAs, opened, "Error:Could not open following file for writing- %s", path.constData());
        return false;
    }
    unsigned char head[nxformat::kStatusHeadSize] = {};
    encodeStatusHead(m_SbfOffsets, head);
    // A full disk often shows only at the close, when the buffered head
    // reaches the file: that is the same failed write.
    bool written = std::fwrite(head, sizeof head, 1, file) == 1;
    written = std::fclose(file) == 0 && written;
    if (!written) {
        NXI_ERROR_AS(reportAs, "Error:fwrite failed for the following file- %s", path.constData());
        DeleteFile(m_SbfTmpPath);
        return false;
    }
    return true;
}

bool nxi::PrepareDirectories(const char* reportAs)
{
    // Each step's directory, or the step's own line when it cannot be created.
    auto ready = [reportAs](const QString& path, const char* notCreated) {
        bool created = false;
        const Status status = ensureDirectory(path, &created);
        if (status.isOk())
            return true;
        if (created)
            NXI_FAILED_AS(reportAs, status, kDirectorySyncFailed, fileio::parentDirectory(path).toUtf8().constData());
        else if (notCreated)
            NXI_FAILED_AS(reportAs, status, notCreated, path.toUtf8().constData());
        return false;
    };

    m_HlPath = QString::asprintf("%s/hl/", m_HostPath.toUtf8().constData());
    // A helper root that cannot be created shows below, at the database's helper directory; one that
    // exists but could not be made durable ends the run here.
    if (!ready(m_HlPath, nullptr) && QDir(m_HlPath).exists())
        return false;
    m_IdxnDbPath = QString::asprintf("%s/idxn/", m_HostPath.toUtf8().constData());
    if (!ready(m_IdxnDbPath, "Error: Could not create idxn directory in txhost - %s"))
        return false;
    m_IdxnDbPath += m_DbName;
    if (!ready(m_IdxnDbPath, "Error: Could not create idxn db directory in txhost - %s"))
        return false;
    m_HlDbPath = m_HlPath + m_DbName;
    if (!ready(m_HlDbPath, "Error: Could not create idx directory in Talvex root path!"))
        return false;
    m_HlIniPath = QString::asprintf("%s/%shl.ini", m_HlDbPath.toUtf8().constData(), m_DbName);
    // The same directory again: already durable unless something removed it meanwhile.
    if (!QDir(m_HlDbPath).exists() && !ready(m_HlDbPath, "Could not create helper directory in hl path!"))
        return false;
    m_HlpPath = QString::asprintf("%s/hlp", m_HlDbPath.toUtf8().constData());
    return ready(m_HlpPath, "Could not create helper directory in Talvex application data path!");
}

// Merges one bucket's new records with its helper file, writes its index
// files and records how far it got. A bucket that fails keeps its old mark,
// so the same source files are taken again next time.
void nxi::IndexBucket(int bucket, int lastMergedFile, int dbCount, const char* reportAs)
{
    char bucketName[50] = {};
    std::snprintf(bucketName, sizeof bucketName, "%02x", bucket);
    NXI_TRACE_AS(reportAs, bucketName);

    const int firstFile = lastMergedFile + 1;
    int lastFile = 0;
    const DWORD size = CalculateSizeOfIndex(bucket, firstFile, false, &lastFile, dbCount);
    if (size == 0)
        return;

    DWORD allocSize = 0;
    bool hasHelper = false;
    if (!AllocateIndexBuffer(bucket, size, &hasHelper, &allocSize))
        return;
    if (hasHelper)
        ReadHelperFile(bucket);
    lastFile = 0;
    CalculateSizeOfIndex(bucket, firstFile, true, &lastFile, dbCount);
    if (m_EntryTableOverflow) {
        // A source or helper file grew between the passes; what was copied
        // is incomplete, so nothing of this bucket is written.
        ReleaseIndexBuffer();
        return;
    }

    SortEntryTable(allocSize);
    if (WriteAllIndexing(bucket, allocSize))
        Updateini(bucket, lastFile);
    else
        Updateini(bucket, lastMergedFile);
}

void nxi::CompleteStatusFile(const char* reportAs)
{
    const QByteArray path = m_SbfTmpPath.toUtf8();
    FILE* file = nullptr;
    const Status opened = fileio::openFile(path.constData(), "rb+", &file);
    if (!opened.isOk()) {
        NXI_FAILED_AS(reportAs, opened, "Error:Could not open following file for writing - %s", path.constData());
        DeleteFile(m_SbfTmpPath);
        return;
    }
    std::fseek(file, 0, SEEK_END);
    const DWORD size = DWORD(std::ftell(file));
    std::fseek(file, 0, SEEK_SET);

    // The head's offsets are written last: until now a reader could not have
    // told a block from a half-written one. The whole file, blocks and head,
    // is on disk before the rename below installs it.
    unsigned char head[nxformat::kStatusHeadSize];
    encodeStatusHead(m_SbfOffsets, head);
    bool written = std::fwrite(head, sizeof head, 1, file) == 1 && fileio::syncFile(file).isOk();
    written = std::fclose(file) == 0 && written;
    if (!written)
        NXI_ERROR_AS(reportAs, "Error:fwrite failed for the following file- %s", path.constData());

    if (size <= nxformat::kStatusHeadSize) {
        DeleteFile(m_SbfTmpPath);  // no bucket written: the previous status file stays
        return;
    }
    const QString sizeRecord = nxformat::sbfSizeRecordPath(m_HostPath);
    if (!m_CommonFun->WritePrivateProfileString(nxformat::kSbfSizeSection, nxformat::sbfSizeKey(m_DbName),
                                                nxformat::sbfSizeValue(int(size)), sizeRecord))
        NXI_ERROR_AS(reportAs, kIniWriteFailed, sizeRecord.toUtf8().constData());
    if (!m_CommonFun->MoveFile(m_SbfTmpPath, m_SbfPath))
        NXI_ERROR_AS(reportAs, "Error:MoveFileEx failed for the following file- %s", path.constData());
    else if (const Status synced = fileio::syncDirectory(m_HostPath); !synced.isOk())
        NXI_FAILED_AS(reportAs, synced, kDirectorySyncFailed, m_HostPath.toUtf8().constData());
}
