#include "sourcefiles.h"

#include "fileio.h"
#include "indexformat.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace {

// Bounds the descriptors kept: past this many files one is closed for each
// file opened.
constexpr int kMaxKept = 512;

bool sameTime(const struct timespec& a, const struct timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool sameIdentity(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_nlink == b.st_nlink && a.st_size == b.st_size &&
           sameTime(a.st_mtim, b.st_mtim) && sameTime(a.st_ctim, b.st_ctim);
}

QByteArray borrowed(const char* path) { return QByteArray::fromRawData(path, int(std::strlen(path))); }

}  // namespace

SourceFiles::Kept* SourceFiles::findUnchanged(const char* path)
{
    const auto kept = m_Kept.find(borrowed(path));
    if (kept == m_Kept.end())
        return nullptr;
    struct stat now;
    if (kept->wholeHead && ::fstat(kept->file.fd, &now) == 0 && sameIdentity(now, kept->identity))
        return &*kept;
    m_Checked = nullptr;
    ::close(kept->file.fd);
    m_Kept.erase(kept);
    return nullptr;
}

bool SourceFiles::exists(const char* path)
{
    m_Checked = findUnchanged(path);
    return m_Checked || fileio::exists(path);  // a link exists when what it names does
}

const SourceFiles::File* SourceFiles::open(const char* path)
{
    if (m_Checked && m_Checked->path == borrowed(path))
        return &m_Checked->file;
    if (const Kept* kept = findUnchanged(path))
        return &kept->file;

    Kept fresh{};
    if (const Status opened = fileio::openForReading(path, &fresh.file.fd, &fresh.file.size); !opened.isOk()) {
        errno = opened.code();  // the caller's line reports it
        return nullptr;
    }
    if (::fstat(fresh.file.fd, &fresh.identity) != 0) {
        fileio::closeFd(fresh.file.fd);
        return nullptr;
    }
    fileio::readAt(fresh.file.fd, fresh.file.head, sizeof fresh.file.head, 0, &fresh.file.headSize);
    fresh.wholeHead = fresh.file.headSize == std::min<uint64_t>(uint64_t(fresh.file.size), sizeof fresh.file.head);
    m_Checked = nullptr;
    if (m_Kept.size() >= kMaxKept) {
        ::close(m_Kept.begin()->file.fd);
        m_Kept.erase(m_Kept.begin());
    }
    fresh.path = path;
    return &m_Kept.insert(fresh.path, fresh)->file;
}

const QByteArray& SourceFiles::path(const QString& host, const char* db, int fileNumber)
{
    if (host != m_PathsHost || m_PathsDb != db) {
        m_Paths.clear();
        m_PathsHost = host;
        m_PathsDb = db;
    }
    auto known = m_Paths.find(fileNumber);
    if (known == m_Paths.end())
        known = m_Paths.insert(fileNumber, nxformat::sourceFilePath(host, QString::fromUtf8(db), fileNumber).toUtf8());
    return *known;
}

void SourceFiles::closeAll()
{
    m_Paths.clear();
    m_Checked = nullptr;
    for (const Kept& kept : m_Kept)
        ::close(kept.file.fd);
    m_Kept.clear();
}
