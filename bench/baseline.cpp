// nxbaseline [--sync] HOST: the least work that gives the indexer's output in
// the DB host directory HOST, the benchmark's yardstick. Per database each
// source file's start table is read once; per bucket, one pread per file, the
// indexer's sort, each index file and the status block written once; then the
// status file's head and the INI files. --sync adds an fdatasync of every file
// before its rename and an fsync of the directories before the INI files: the
// indexer's guarantees with the fewest syncs. Input is expected well-formed (no
// file missing, helper files of whole records); anything else stops it.
#include "fileio.h"
#include "indexformat.h"
#include "status.h"

#include <QDir>
#include <QSettings>
#include <QVector>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <sys/uio.h>
#include <unistd.h>

namespace {

using namespace nxformat;

constexpr int kBuckets = kBucketCount;
constexpr size_t kMaxRecords = kMaxBucketRecords;
constexpr size_t kMaxTable = kMaxRecords * kRecordSize;

// The outcome of a read or write that had to move wanted bytes.
Status moved(ssize_t done, size_t wanted, const QString& what)
{
    if (done < 0)
        return Status::fromErrno(what);
    return size_t(done) == wanted ? Status::ok() : Status::error(EIO, what + " (short)");
}

// Closes fd after what was done with it, synced first when asked.
Status closeFile(int fd, Status status, bool sync, const QString& path)
{
    if (status.isOk() && sync && ::fdatasync(fd) != 0)
        status = Status::fromErrno("fdatasync " + path);
    if (::close(fd) != 0 && status.isOk())
        status = Status::fromErrno("close " + path);
    return status;
}

int createFile(const QString& path)
{
    return ::open(path.toUtf8().constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, fileio::kFileMode);
}

Status installFile(const QString& pending, const QString& current, const iovec& bytes, bool sync)
{
    const int fd = createFile(pending);
    if (fd < 0)
        return Status::fromErrno("open " + pending);
    const Status written = moved(::write(fd, bytes.iov_base, bytes.iov_len), bytes.iov_len, "write " + pending);
    const Status status = closeFile(fd, written, sync, pending);
    return status.isOk() ? fileio::renameFile(pending, current) : status;
}

struct Source {
    int fd = -1;
    qint64 size = 0;
    unsigned char head[kSourceHeadSize];
};

// One database's run; its descriptors close with it.
class Database
{
public:
    Database(const QString& host, const QString& name, bool sync) : m_Host(host), m_Name(name), m_Sync(sync) {}
    ~Database()
    {
        for (const Source& source : m_Sources)
            if (source.fd >= 0)
                ::close(source.fd);
        if (m_StatusFd >= 0)
            ::close(m_StatusFd);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    Status index();

private:
    Status openSources(int firstFile, int endFile);
    Status loadHelper(int bucket, size_t* size);
    Status collect(int bucket, int firstFile, int endFile, size_t* size);
    Status write(int bucket, size_t size);
    Status complete();
    QString sourcePath(int number) const { return sourceFilePath(m_Host, m_Name, number); }
    // Writes an index file under its pending name and renames it over its current name.
    Status install(IndexFile file, int bucket, const iovec& bytes) const
    {
        const QString dir = file == IndexFile::Entry ? entryDirPath(m_Host, m_Name) : indexDirPath(m_Host, m_Name);
        return installFile(dir + "/" + indexFileName(file, Generation::Pending, bucket),
                           dir + "/" + indexFileName(file, Generation::Current, bucket), bytes, m_Sync);
    }

    const QString m_Host, m_Name;
    const bool m_Sync;
    int m_FirstOpened = 0;
    QVector<Source> m_Sources;  // file numbers from m_FirstOpened on
    std::optional<int> m_NewMarks[kBuckets];  // for the buckets the run wrote
    int m_StatusFd = -1;
    unsigned char m_StatusHead[kStatusHeadSize] = {};  // block offsets, 0 for a bucket not written
    DWORD m_StatusEnd = kStatusHeadSize;  // 256 blocks of 65,535 keys stay far below 4 GiB
    // The table, the key file's bytes (key list, group table), the payload
    // list. Only the pages a bucket uses are ever touched.
    std::unique_ptr<unsigned char[]> m_Buffer{
        new (std::nothrow) unsigned char[kMaxTable + (kKeySize + kPayloadSize) * kMaxRecords + kGroupTableSize]};
};

Status Database::index()
{
    if (!QDir().mkpath(indexDirPath(m_Host, m_Name)) || !QDir().mkpath(entryDirPath(m_Host, m_Name)))
        return Status::error(EIO, "create the index directories of " + m_Name);
    // The newest volume of a DB type counts only from its file 0001 on.
    const QString next = QString::asprintf("%s%02d", qPrintable(m_Name.chopped(2)), m_Name.right(2).toInt() + 1);
    if (!fileio::exists(sourceFilePath(m_Host, next, 0).toUtf8().constData()) &&
        !fileio::exists(sourcePath(1).toUtf8().constData()))
        return Status::ok();
    if (!m_Buffer)
        return Status::error(ENOMEM, "allocate the bucket buffer");

    int marks[kBuckets];
    std::fill(std::begin(marks), std::end(marks), -1);
    QByteArray progress;
    if (fileio::readAll(helperProgressPath(m_Host, m_Name), 1 << 20, &progress).isOk())
        parseProgressMarks(progress, marks);
    QSettings counts(dbCountFilePath(m_Host, m_Name), QSettings::IniFormat);
    const int dbCount = counts.value(QString(kDbCountSection) + "/" + m_Name.toUpper(), 0).toInt();
    const int endFile = std::max(dbCount, 0) - 1;  // files are merged up to DB-COUNT - 2

    Status status = openSources(*std::min_element(std::begin(marks), std::end(marks)) + 1, endFile);
    for (int bucket = 0; bucket < kBuckets && status.isOk(); ++bucket) {
        size_t size = 0;
        status = collect(bucket, marks[bucket] + 1, endFile, &size);
        if (status.isOk() && size > 0) {
            status = write(bucket, size);
            m_NewMarks[bucket] = endFile - 1;
        }
    }
    return status.isOk() ? complete() : status;
}

Status Database::openSources(int firstFile, int endFile)
{
    m_FirstOpened = firstFile;
    m_Sources.resize(std::max(endFile - firstFile, 0));
    Status status;
    for (int number = firstFile; number < endFile && status.isOk(); ++number) {
        Source& file = m_Sources[number - firstFile];
        status = fileio::openForReading(sourcePath(number).toUtf8().constData(), &file.fd, &file.size);
        if (!status.isOk())
            file.fd = -1;
        else
            status = moved(::pread(file.fd, file.head, sizeof file.head, 0), sizeof file.head,
                           "read the start table of " + sourcePath(number));
    }
    return status;
}

// Reads the bucket's helper file, if it has one, into the head of the table.
Status Database::loadHelper(int bucket, size_t* size)
{
    const QString path = helperFilePath(m_Host, m_Name, bucket);
    int fd = -1;
    qint64 fileSize = 0;
    const Status opened = fileio::openForReading(path.toUtf8().constData(), &fd, &fileSize);
    if (!opened.isOk())
        return opened.code() == ENOENT ? Status::ok() : opened;
    *size = size_t(fileSize);
    const Status read = fileSize > qint64(kMaxTable) || fileSize % kRecordSize != 0
                            ? Status::error(EINVAL, "index " + path + " (too large, or a part record)")
                            : moved(::pread(fd, m_Buffer.get(), *size, 0), *size, "read " + path);
    return closeFile(fd, read, false, path);
}

// Loads the bucket's table: the helper file's records, then the bucket's
// range of each file to merge. *size stays 0 when the files hold none.
Status Database::collect(int bucket, int firstFile, int endFile, size_t* size)
{
    size_t cursor = 0;
    Status status = firstFile < endFile ? loadHelper(bucket, &cursor) : Status::ok();
    const size_t helperSize = cursor;
    for (int number = firstFile; number < endFile && status.isOk(); ++number) {
        const Source& file = m_Sources[number - m_FirstOpened];
        const uint64_t fileSize = uint64_t(file.size);
        // Bucket 0 starts at record 0; bucket 255 ends with the file's last whole record.
        const DWORD low = bucket == 0 ? 0 : readLE32(file.head + bucketStartSlotOffset(bucket));
        const DWORD high = bucket == kBuckets - 1 ? DWORD(std::min<uint64_t>(sourceWholeRecords(fileSize), UINT32_MAX))
                                                  : readLE32(file.head + bucketStartSlotOffset(bucket + 1));
        const size_t length = size_t(high - low) * kRecordSize;
        if (!sourceRangeIsValid(low, high, fileSize) || length > kMaxTable - cursor)
            status = Status::error(EINVAL, QString::asprintf("index bucket %02x of ", bucket) + sourcePath(number));
        else if (length > 0)
            status = moved(::pread(file.fd, m_Buffer.get() + cursor, length, off_t(sourceRecordOffset(low))), length,
                           "read " + sourcePath(number));
        cursor += length;
    }
    *size = status.isOk() && cursor > helperSize ? cursor : 0;
    return status;
}

// Sorts the table, installs the bucket's three files and appends its block to
// the status file.
Status Database::write(int bucket, size_t size)
{
    const DWORD count = DWORD(size / kRecordSize);
    unsigned char* const table = m_Buffer.get();
    unsigned char* const keys = table + size;
    unsigned char* const groups = keys + kKeySize * count;
    unsigned char* const payloads = groups + kGroupTableSize;
    sortEntryRecords(table, count);
    splitSortedTable(table, count, keys, payloads, groups);
    Status status = install(IndexFile::Key, bucket, {keys, keyFileSize(count)});
    if (status.isOk())
        status = install(IndexFile::Payload, bucket, {payloads, payloadFileSize(count)});
    if (status.isOk())
        status = install(IndexFile::Entry, bucket, {table, size});
    if (!status.isOk())
        return status;

    const QString pending = pendingStatusFilePath(m_Host, m_Name);
    if (m_StatusFd < 0 && (m_StatusFd = createFile(pending)) < 0)
        return Status::fromErrno("open " + pending);
    unsigned char countBytes[kBlockCountSize];
    writeLE32(countBytes, count);
    const iovec block[] = {{countBytes, sizeof countBytes}, {groups, kGroupTableSize}, {keys, kKeySize * count}};
    const DWORD offset = m_StatusEnd;
    writeLE32(m_StatusHead + sizeof(DWORD) * bucket, offset);
    m_StatusEnd += bucketBlockSize(count);
    return moved(::pwritev(m_StatusFd, block, 3, offset), m_StatusEnd - offset, "write " + pending);
}

// Writes the status file's head, installs the file, then writes the INI files.
Status Database::complete()
{
    if (m_StatusFd < 0)
        return Status::ok();  // nothing new: no file of the index changes
    const QString pending = pendingStatusFilePath(m_Host, m_Name);
    Status status =
        moved(::pwrite(m_StatusFd, m_StatusHead, sizeof m_StatusHead, 0), sizeof m_StatusHead, "write " + pending);
    status = closeFile(m_StatusFd, status, m_Sync, pending);
    m_StatusFd = -1;
    if (status.isOk())
        status = fileio::renameFile(pending, statusFilePath(m_Host, m_Name));
    for (const QString& dir : {indexDirPath(m_Host, m_Name), entryDirPath(m_Host, m_Name), m_Host})
        if (status.isOk() && m_Sync)
            status = fileio::syncDirectory(dir);
    if (!status.isOk())
        return status;

    QSettings sizeRecord(sbfSizeRecordPath(m_Host), QSettings::IniFormat);
    sizeRecord.setValue(QString(kSbfSizeSection) + "/" + sbfSizeKey(m_Name), sbfSizeValue(int(m_StatusEnd)));
    QSettings progress(helperProgressPath(m_Host, m_Name), QSettings::IniFormat);
    for (int bucket = 0; bucket < kBuckets; ++bucket)
        if (m_NewMarks[bucket])
            progress.setValue(QString::asprintf("%s/%02x", kHelperProgressSection, bucket),
                              QString::asprintf("%02d", *m_NewMarks[bucket]));
    sizeRecord.sync();
    progress.sync();
    const bool written = sizeRecord.status() == QSettings::NoError && progress.status() == QSettings::NoError;
    return written ? Status::ok() : Status::error(EIO, "write the INI files of " + m_Name);
}

}  // namespace

int main(int argc, char** argv)
{
    const bool sync = argc == 3 && std::strcmp(argv[1], "--sync") == 0;
    if (argc != 2 + int(sync) || argv[argc - 1][0] == '-' || argv[argc - 1][0] == '\0') {
        std::fprintf(stderr, "usage: nxbaseline [--sync] HOST\n");
        return 2;
    }
    const QString host = QDir(QString::fromUtf8(argv[argc - 1])).absolutePath();
    for (const char* type : {"wdx", "wfx"}) {
        for (int volume = 0;; ++volume) {
            const QString name = QString::asprintf("%s%02d", type, volume);
            if (!fileio::exists(sourceFilePath(host, name, 0).toUtf8().constData()))
                break;
            if (const Status indexed = Database(host, name, sync).index(); !indexed.isOk()) {
                std::fprintf(stderr, "nxbaseline: %s\n", qPrintable(indexed.toString()));
                return 1;
            }
        }
    }
    return 0;
}
