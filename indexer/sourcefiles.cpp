#include "sourcefiles.h"

#include "fileio.h"
#include "indexformat.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

// Bounds the descriptors kept: past this many files one is closed for each
// file opened.
constexpr int kMaxKept = 512;

// What the watch reports: any change to a file's bytes, size or attributes
// (link count included), and any name that comes or goes.
constexpr uint32_t kWatchedChanges = IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
// The source directory itself moved or went, so the watch no longer names it;
// the kernel ends a watch with IN_IGNORED (IN_UNMOUNT before it).
constexpr uint32_t kDirectoryGone = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kWatchLost = kDirectoryGone | IN_IGNORED | IN_UNMOUNT;

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
    if (kept->wholeHead && m_Watch >= 0 && kept->identity.st_nlink == 1)
        return &*kept;  // the watch would have dropped it
    struct stat now;
    if (kept->wholeHead && ::fstat(kept->file.fd, &now) == 0 && sameIdentity(now, kept->identity))
        return &*kept;
    drop(kept);
    return nullptr;
}

void SourceFiles::drop(QHash<QByteArray, Kept>::iterator kept)
{
    m_Checked = nullptr;
    ::close(kept->file.fd);
    m_Kept.erase(kept);
}

void SourceFiles::dropAll()
{
    m_Checked = nullptr;
    for (const Kept& kept : m_Kept)
        ::close(kept.file.fd);
    m_Kept.clear();
}

void SourceFiles::startWatch(const QByteArray& dir)
{
    const int savedErrno = errno;  // a failed watch is no error of the caller's
    m_Watch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    // A symbolic link to the directory could be turned elsewhere unseen: no watch then.
    if (m_Watch >= 0 && ::inotify_add_watch(m_Watch, dir.constData(),
                                            kWatchedChanges | kDirectoryGone | IN_ONLYDIR | IN_DONT_FOLLOW) < 0)
        stopWatch();
    m_WatchedDir = dir + '/';
    errno = savedErrno;
}

void SourceFiles::stopWatch()
{
    if (m_Watch >= 0)
        ::close(m_Watch);
    m_Watch = -1;
}

void SourceFiles::watchChanges()
{
    if (m_Watch < 0)
        return;
    const int savedErrno = errno;  // the errno of the caller's next log line stays its own
    alignas(inotify_event) char events[4096];
    for (;;) {
        const ssize_t got = ::read(m_Watch, events, sizeof events);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 && errno == EAGAIN)
            break;  // nothing more has changed
        if (got <= 0 || !applyEvents(events, size_t(got))) {
            stopWatch();  // each use checks with fstat from here on
            dropAll();
            break;
        }
    }
    errno = savedErrno;
}

bool SourceFiles::applyEvents(const char* events, size_t size)
{
    for (size_t at = 0; at + sizeof(inotify_event) <= size;) {
        const auto* event = reinterpret_cast<const inotify_event*>(events + at);
        at += sizeof(inotify_event) + event->len;
        if (at > size || (event->mask & kWatchLost))
            return false;
        if (event->mask & IN_Q_OVERFLOW)
            dropAll();  // changes were missed: trust nothing kept
        else if (event->len > 0)
            dropNamed(QByteArray(event->name, int(strnlen(event->name, event->len))));
    }
    return true;
}

void SourceFiles::dropNamed(const QByteArray& name)
{
    const auto kept = m_Kept.find(m_WatchedDir + name);
    if (kept != m_Kept.end())
        drop(kept);
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
    if (m_Kept.size() >= kMaxKept)
        drop(m_Kept.begin());
    m_Checked = nullptr;
    fresh.path = path;
    return &m_Kept.insert(fresh.path, fresh)->file;
}

const QByteArray& SourceFiles::path(const QString& host, const char* db, int fileNumber)
{
    const bool newDatabase = host != m_PathsHost || m_PathsDb != db;
    if (newDatabase) {
        closeAll();
        m_PathsHost = host;
        m_PathsDb = db;
    }
    auto known = m_Paths.find(fileNumber);
    if (known == m_Paths.end())
        known = m_Paths.insert(fileNumber, nxformat::sourceFilePath(host, QString::fromUtf8(db), fileNumber).toUtf8());
    if (newDatabase)
        startWatch(known->left(known->lastIndexOf('/')));  // before its first file is opened
    return *known;
}

void SourceFiles::closeAll()
{
    m_Paths.clear();
    m_PathsHost.clear();
    m_PathsDb.clear();
    dropAll();
    stopWatch();
}
