// nxbaseline: the least work that gives the indexer's output, the yardstick
// of the benchmark. It walks the same databases as nxindexer, reads every new
// source record once (each source file's bucket start table once per
// database, then each bucket's range with one read straight into the bucket's
// table), sorts each bucket with the indexer's stable radix sort (the least
// work its order needs), writes the same key, payload, entry and status
// bytes, each file once, and the helper progress file and the SBF size
// record once per database with QSettings, so that their text is the
// indexer's.
//
//   nxbaseline [--sync] HOST
//
// HOST is the DB host directory (<root>/db/txhost). With --sync every file is
// fdatasync'ed before the rename that installs it, and the directories that
// received them are fsync'ed before the progress file records the new marks.
//
// It serves the benchmark only: it expects well-formed source files and stops
// with a message on anything else (bucket start table past the file, a bucket
// too large), where the indexer would log and go on. Exit status: 0 done,
// 1 failed (one line on stderr), 2 bad arguments.
#include "indexformat.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>
#include <vector>

using nxformat::Generation;
using nxformat::IndexFile;

namespace {

constexpr int kBucketCount = nxformat::kBucketCount;
constexpr int kDbNameSize = 10;

bool fail(const char* what, const QString& path)
{
    std::fprintf(stderr, "nxbaseline: %s: %s: %s\n", what, path.toUtf8().constData(), std::strerror(errno));
    return false;
}

bool exists(const QString& path)
{
    struct stat info;
    return ::stat(path.toUtf8().constData(), &info) == 0;
}

bool ensureDirectory(const QString& path)
{
    if (::mkdir(path.toUtf8().constData(), 0777) == 0 || errno == EEXIST)
        return true;
    return fail("cannot create directory", path);
}

bool syncDirectory(const QString& path)
{
    int fd = ::open(path.toUtf8().constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return fail("cannot open directory", path);
    bool synced = ::fsync(fd) == 0;
    ::close(fd);
    return synced || fail("cannot sync directory", path);
}

// Reads exactly length bytes at offset; false on an error or a short file.
bool readAt(int fd, unsigned char* buffer, size_t length, off_t offset)
{
    while (length > 0) {
        ssize_t got = ::pread(fd, buffer, length, offset);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        buffer += got;
        length -= size_t(got);
        offset += got;
    }
    return true;
}

// Writes the parts at offset (or at the file position when offset is -1).
bool writeParts(int fd, iovec* parts, int count, off_t offset)
{
    while (count > 0) {
        ssize_t put = offset < 0 ? ::writev(fd, parts, count) : ::pwritev(fd, parts, count, offset);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0)
            return false;
        if (offset >= 0)
            offset += put;
        while (count > 0 && size_t(put) >= parts->iov_len) {
            put -= ssize_t(parts->iov_len);
            ++parts;
            --count;
        }
        if (count > 0) {
            parts->iov_base = static_cast<char*>(parts->iov_base) + put;
            parts->iov_len -= size_t(put);
        }
    }
    return true;
}

// Writes a file under its pending name and renames it to its current name,
// which replaces the previous version in one step.
bool installFile(const QString& pending, const QString& current, iovec* parts, int count, bool sync)
{
    const QByteArray pendingPath = pending.toUtf8();
    int fd = ::open(pendingPath.constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return fail("cannot create", pending);
    bool written = writeParts(fd, parts, count, -1) && (!sync || ::fdatasync(fd) == 0);
    written = ::close(fd) == 0 && written;
    if (!written)
        return fail("cannot write", pending);
    if (::rename(pendingPath.constData(), current.toUtf8().constData()) != 0)
        return fail("cannot rename", pending);
    return true;
}

// The marks the indexer's reader takes from the helper progress file: the
// first line is skipped, then the n-th key line must carry bucket n; the
// first key that is missing or out of place leaves its slot and (for a line
// without "=") every later slot at -1.
void readProgressMarks(const QString& path, int* marks)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    nxformat::parseProgressMarks(file.readAll(), marks);
}

struct SourceFile {
    int fd = -1;
    uint64_t size = 0;
    DWORD starts[kBucketCount] = {};  // bucket start table; slot 0 is not used
};

struct Range {
    DWORD low = 0;
    DWORD high = 0;
};

Range bucketRange(const SourceFile& source, int bucket)
{
    Range range;
    range.low = bucket == 0 ? 0 : source.starts[bucket];
    range.high = bucket == kBucketCount - 1
                     ? DWORD(std::min<uint64_t>(nxformat::sourceWholeRecords(source.size), UINT32_MAX))
                     : source.starts[bucket + 1];
    return range;
}

// A growing heap buffer whose bytes are not cleared: every byte that is used
// is written first.
class Buffer
{
public:
    unsigned char* reserve(size_t size)
    {
        if (size > m_Capacity) {
            m_Data.reset(new (std::nothrow) unsigned char[size]);
            m_Capacity = m_Data ? size : 0;
        }
        return m_Data.get();  // null when the allocation failed
    }

private:
    std::unique_ptr<unsigned char[]> m_Data;
    size_t m_Capacity = 0;
};

class Database
{
public:
    Database(const QString& host, const QString& name, bool sync) : m_Host(host), m_Name(name), m_Sync(sync) {}
    ~Database()
    {
        for (SourceFile& source : m_Sources)
            if (source.fd >= 0)
                ::close(source.fd);
        if (m_StatusFd >= 0)
            ::close(m_StatusFd);
    }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool index();

private:
    bool openSources(int firstFile, int endFile);
    bool indexBucket(int bucket, int firstFile, int endFile);
    bool appendBlock(int bucket, DWORD count, unsigned char* groupTable, unsigned char* keyList);
    bool complete();
    QString bucketName(int bucket) const { return m_Name + QString::asprintf(" bucket %02x", bucket); }

    QString m_Host;
    QString m_Name;
    bool m_Sync;
    int m_FirstOpened = 0;
    std::vector<SourceFile> m_Sources;  // file numbers from m_FirstOpened on; fd -1 when missing
    int m_Marks[kBucketCount];
    int m_NewMarks[kBucketCount];
    bool m_Written[kBucketCount] = {};
    DWORD m_Offsets[kBucketCount] = {};
    int m_StatusFd = -1;
    uint64_t m_StatusEnd = nxformat::kStatusHeadSize;
    Buffer m_Table;
    Buffer m_KeyList;
    Buffer m_PayloadList;
};

bool Database::index()
{
    const QString helperRoot = m_Host + "/hl";
    if (!ensureDirectory(helperRoot) || !ensureDirectory(m_Host + "/idxn") ||
        !ensureDirectory(nxformat::indexDirPath(m_Host, m_Name)) ||
        !ensureDirectory(nxformat::helperDirPath(m_Host, m_Name)) ||
        !ensureDirectory(nxformat::entryDirPath(m_Host, m_Name)))
        return false;

    // The newest volume of a DB type counts only from its file 0001 on.
    const QString type = m_Name.left(m_Name.size() - 2);
    const int volume = m_Name.right(2).toInt();
    const bool closed = exists(QString::asprintf("%s/idxnd/%s%02d0000.yn", m_Host.toUtf8().constData(),
                                                 type.toUtf8().constData(), volume + 1));
    if (!closed && !exists(nxformat::sourceFilePath(m_Host, m_Name, 1)))
        return true;

    std::fill(std::begin(m_Marks), std::end(m_Marks), -1);
    readProgressMarks(nxformat::helperProgressPath(m_Host, m_Name), m_Marks);
    QSettings counts(nxformat::dbCountFilePath(m_Host, m_Name), QSettings::IniFormat);
    const int dbCount = counts.value(QString(nxformat::kDbCountSection) + "/" + m_Name.toUpper(), 0).toInt();
    // Files are merged up to DB-COUNT - 2.
    const int endFile = int(std::max<int64_t>(int64_t(dbCount) - 1, INT_MIN));

    const int firstOfAll = *std::min_element(std::begin(m_Marks), std::end(m_Marks)) + 1;
    if (!openSources(firstOfAll, endFile))
        return false;
    for (int bucket = 0; bucket < kBucketCount; ++bucket)
        if (!indexBucket(bucket, m_Marks[bucket] + 1, endFile))
            return false;
    return complete();
}

bool Database::openSources(int firstFile, int endFile)
{
    m_FirstOpened = firstFile;
    if (endFile <= firstFile)
        return true;
    m_Sources.resize(endFile - firstFile);
    for (int number = firstFile; number < endFile; ++number) {
        const QString path = nxformat::sourceFilePath(m_Host, m_Name, number);
        SourceFile& source = m_Sources[number - firstFile];
        source.fd = ::open(path.toUtf8().constData(), O_RDONLY | O_CLOEXEC);
        if (source.fd < 0) {
            if (errno == ENOENT)
                continue;  // a missing file is skipped, as the indexer does
            return fail("cannot open", path);
        }
        struct stat info;
        unsigned char head[nxformat::kSourceHeadSize];
        if (::fstat(source.fd, &info) != 0 || !readAt(source.fd, head, sizeof head, 0))
            return fail("cannot read the bucket start table of", path);
        source.size = uint64_t(info.st_size);
        for (int bucket = 1; bucket < kBucketCount; ++bucket)
            source.starts[bucket] = nxformat::readLE32(head + nxformat::bucketStartSlotOffset(bucket));
    }
    return true;
}

bool Database::indexBucket(int bucket, int firstFile, int endFile)
{
    uint64_t total = 0;
    for (int number = firstFile; number < endFile; ++number) {
        const SourceFile& source = m_Sources[number - m_FirstOpened];
        if (source.fd < 0)
            continue;
        const Range range = bucketRange(source, bucket);
        if (!nxformat::sourceRangeIsValid(range.low, range.high, source.size)) {
            errno = EINVAL;
            return fail("corrupt bucket start table", nxformat::sourceFilePath(m_Host, m_Name, number));
        }
        total += uint64_t(range.high - range.low) * nxformat::kRecordSize;
    }
    if (total == 0)
        return true;

    const QString helperPath = nxformat::helperFilePath(m_Host, m_Name, bucket);
    int helperFd = ::open(helperPath.toUtf8().constData(), O_RDONLY | O_CLOEXEC);
    if (helperFd < 0 && errno != ENOENT)
        return fail("cannot open", helperPath);
    struct stat helperInfo = {};
    if (helperFd >= 0 && ::fstat(helperFd, &helperInfo) != 0) {
        ::close(helperFd);
        return fail("cannot read", helperPath);
    }
    const uint64_t helperSize = helperFd >= 0 ? uint64_t(helperInfo.st_size) : 0;
    total += helperSize;
    if (total / nxformat::kRecordSize > nxformat::kMaxBucketRecords) {
        if (helperFd >= 0)
            ::close(helperFd);
        errno = EFBIG;
        return fail("bucket too large", bucketName(bucket));
    }

    // Helper bytes first, then each file's range from the last whole helper
    // record on; the 0 to 15 bytes of a helper file's part record that the
    // first range does not overwrite are zero at the table's end.
    unsigned char* table = m_Table.reserve(size_t(total));
    if (!table) {
        if (helperFd >= 0)
            ::close(helperFd);
        errno = ENOMEM;
        return fail("cannot allocate the table of", bucketName(bucket));
    }
    bool read = helperFd < 0 || readAt(helperFd, table, size_t(helperSize), 0);
    if (helperFd >= 0)
        ::close(helperFd);
    if (!read)
        return fail("cannot read", helperPath);
    uint64_t cursor = helperSize & ~uint64_t(nxformat::kRecordSize - 1);
    std::memset(table + total - (helperSize - cursor), 0, size_t(helperSize - cursor));
    for (int number = firstFile; number < endFile; ++number) {
        const SourceFile& source = m_Sources[number - m_FirstOpened];
        if (source.fd < 0)
            continue;
        const Range range = bucketRange(source, bucket);
        const size_t length = size_t(range.high - range.low) * nxformat::kRecordSize;
        if (length > 0 && !readAt(source.fd, table + cursor, length, off_t(nxformat::sourceRecordOffset(range.low))))
            return fail("cannot read", nxformat::sourceFilePath(m_Host, m_Name, number));
        cursor += length;
    }

    const DWORD count = DWORD(total / nxformat::kRecordSize);
    nxformat::sortEntryRecords(table, count);
    const size_t keyListSize = size_t(nxformat::kKeySize) * count;
    const size_t payloadListSize = size_t(nxformat::kPayloadSize) * count;
    unsigned char* keyList = m_KeyList.reserve(keyListSize);
    unsigned char* payloadList = m_PayloadList.reserve(payloadListSize);
    if (!keyList || !payloadList) {
        errno = ENOMEM;
        return fail("cannot allocate the lists of", bucketName(bucket));
    }
    unsigned char groupTable[nxformat::kGroupTableSize];
    nxformat::splitSortedTable(table, count, keyList, payloadList, groupTable);

    auto path = [&](IndexFile file, Generation generation) {
        const QString dir = file == IndexFile::Entry ? nxformat::entryDirPath(m_Host, m_Name)
                                                     : nxformat::indexDirPath(m_Host, m_Name);
        return dir + "/" + nxformat::indexFileName(file, generation, bucket);
    };
    iovec keyFile[] = {{keyList, keyListSize}, {groupTable, sizeof groupTable}};
    iovec payloadFile[] = {{payloadList, payloadListSize}};
    iovec entryFile[] = {{table, size_t(total)}};
    if (!installFile(path(IndexFile::Key, Generation::Pending), path(IndexFile::Key, Generation::Current), keyFile,
                     2, m_Sync) ||
        !installFile(path(IndexFile::Payload, Generation::Pending), path(IndexFile::Payload, Generation::Current),
                     payloadFile, 1, m_Sync) ||
        !installFile(path(IndexFile::Entry, Generation::Pending), path(IndexFile::Entry, Generation::Current),
                     entryFile, 1, m_Sync) ||
        !appendBlock(bucket, count, groupTable, keyList))
        return false;
    m_Written[bucket] = true;
    m_NewMarks[bucket] = std::max(firstFile, endFile) - 1;
    return true;
}

bool Database::appendBlock(int bucket, DWORD count, unsigned char* groupTable, unsigned char* keyList)
{
    const QString path = nxformat::pendingStatusFilePath(m_Host, m_Name);
    if (m_StatusFd < 0) {
        m_StatusFd = ::open(path.toUtf8().constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (m_StatusFd < 0)
            return fail("cannot create", path);
    }
    if (m_StatusEnd + nxformat::bucketBlockSize(count) > UINT32_MAX) {
        errno = EFBIG;
        return fail("status file too large", path);
    }
    unsigned char countBytes[nxformat::kBlockCountSize];
    nxformat::writeLE32(countBytes, count);
    iovec block[] = {{countBytes, sizeof countBytes},
                     {groupTable, nxformat::kGroupTableSize},
                     {keyList, size_t(nxformat::kKeySize) * count}};
    if (!writeParts(m_StatusFd, block, 3, off_t(m_StatusEnd)))
        return fail("cannot write", path);
    m_Offsets[bucket] = DWORD(m_StatusEnd);
    m_StatusEnd += nxformat::bucketBlockSize(count);
    return true;
}

bool Database::complete()
{
    if (m_StatusFd < 0)
        return true;  // nothing new: no file of the index changes
    const QString pending = nxformat::pendingStatusFilePath(m_Host, m_Name);
    unsigned char head[nxformat::kStatusHeadSize];
    for (int bucket = 0; bucket < kBucketCount; ++bucket)
        nxformat::writeLE32(head + 4 * bucket, m_Offsets[bucket]);
    iovec headPart[] = {{head, sizeof head}};
    bool written = writeParts(m_StatusFd, headPart, 1, 0) && (!m_Sync || ::fdatasync(m_StatusFd) == 0);
    written = ::close(m_StatusFd) == 0 && written;
    m_StatusFd = -1;
    if (!written)
        return fail("cannot write", pending);
    if (::rename(pending.toUtf8().constData(), nxformat::statusFilePath(m_Host, m_Name).toUtf8().constData()) != 0)
        return fail("cannot rename", pending);
    if (m_Sync && !(syncDirectory(nxformat::indexDirPath(m_Host, m_Name)) &&
                    syncDirectory(nxformat::entryDirPath(m_Host, m_Name)) && syncDirectory(m_Host)))
        return false;

    QSettings sizeRecord(nxformat::sbfSizeRecordPath(m_Host), QSettings::IniFormat);
    sizeRecord.beginGroup(nxformat::kSbfSizeSection);
    sizeRecord.setValue(nxformat::sbfSizeKey(m_Name), nxformat::sbfSizeValue(int(m_StatusEnd)));
    sizeRecord.endGroup();
    sizeRecord.sync();

    QSettings progress(nxformat::helperProgressPath(m_Host, m_Name), QSettings::IniFormat);
    progress.beginGroup(nxformat::kHelperProgressSection);
    for (int bucket = 0; bucket < kBucketCount; ++bucket)
        if (m_Written[bucket])
            progress.setValue(QString::asprintf("%02x", bucket), QString::asprintf("%02d", m_NewMarks[bucket]));
    progress.endGroup();
    progress.sync();
    if (sizeRecord.status() != QSettings::NoError || progress.status() != QSettings::NoError) {
        errno = EIO;
        return fail("cannot write", nxformat::helperProgressPath(m_Host, m_Name));
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    bool sync = false;
    QString host;
    bool usable = true;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--sync") == 0)
            sync = true;
        else if (host.isEmpty() && argv[i][0] != '-' && argv[i][0] != '\0')
            host = QString::fromUtf8(argv[i]);
        else
            usable = false;
    }
    if (!usable || host.isEmpty()) {
        std::fprintf(stderr, "usage: nxbaseline [--sync] HOST\n");
        return 2;
    }
    host = QDir(host).absolutePath();

    // Every source file of a database stays open while it is indexed.
    struct rlimit files;
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }

    if (!exists(host + "/idxnd"))
        return 0;
    for (const char* type : {"wdx", "wfx"}) {
        for (int volume = 0;; ++volume) {
            char name[kDbNameSize] = {};
            const int length = std::snprintf(name, sizeof name, "%s%02d", type, volume);
            if (length < 0 || length >= kDbNameSize)
                break;
            if (!exists(nxformat::sourceFilePath(host, name, 0)))
                break;
            Database database(host, QString::fromLatin1(name), sync);
            if (!database.index())
                return 1;
        }
    }
    return 0;
}
