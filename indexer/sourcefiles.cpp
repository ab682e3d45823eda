#include "sourcefiles.h"

#include "fileio.h"
#include "indexformat.h"

#include <unistd.h>

namespace {

// Bounds the descriptors kept: past this many files one is closed for each
// file opened.
constexpr int kMaxKept = 512;

bool sameIdentity(const struct stat& a, const struct stat& b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

}  // namespace

bool SourceFiles::exists(const char* path)
{
    m_Looked = path;
    m_LookedValid = ::lstat(path, &m_LookedAt) == 0 && !S_ISLNK(m_LookedAt.st_mode);
    if (m_LookedValid)
        return true;
    return fileio::exists(path);  // a link exists when what it names does
}

int SourceFiles::open(const char* path, qint64* size)
{
    const QByteArray name(path);
    struct stat now;
    const auto kept = m_Kept.find(name);
    if (kept != m_Kept.end()) {
        // lstat: a link put in the file's place must reach the refusing open below.
        const bool looked = m_LookedValid && m_Looked == name;
        if (looked)
            now = m_LookedAt;
        if ((looked || ::lstat(path, &now) == 0) && sameIdentity(now, kept->identity)) {
            *size = now.st_size;
            return kept->fd;
        }
        ::close(kept->fd);
        m_Kept.erase(kept);
    }
    int fd = -1;
    if (const Status opened = fileio::openForReading(path, &fd, size); !opened.isOk()) {
        errno = opened.code();  // the caller's line reports it
        return -1;
    }
    if (::fstat(fd, &now) != 0) {
        fileio::closeFd(fd);
        return -1;
    }
    if (m_Kept.size() >= kMaxKept) {
        ::close(m_Kept.begin()->fd);
        m_Kept.erase(m_Kept.begin());
    }
    m_Kept.insert(name, Kept{fd, now});
    return fd;
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
    m_LookedValid = false;
    for (const Kept& kept : m_Kept)
        ::close(kept.fd);
    m_Kept.clear();
}
