// Installation trees: copying an installation for one run, and comparing the
// trees that two programs left behind.
#include "bench.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace nxbench {

namespace {

struct Entry {
    QString path;  // relative to the tree's root, beginning with "/"
    bool directory = false;
};

// Every entry under root, sorted by path (a directory before its contents).
QVector<Entry> listTree(const QString& root)
{
    QVector<Entry> entries;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        entries.append({path.mid(root.size()), it.fileInfo().isDir() && !it.fileInfo().isSymLink()});
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.path < b.path; });
    return entries;
}

// Empty when both files hold the same bytes; otherwise where they part.
QString compareFiles(const QString& expectedPath, const QString& actualPath, const QString& name)
{
    QFile expected(expectedPath);
    QFile actual(actualPath);
    if (!expected.open(QIODevice::ReadOnly) || !actual.open(QIODevice::ReadOnly))
        return name + ": cannot be read";
    const qint64 chunkSize = 1 << 20;
    qint64 offset = 0;
    for (;;) {
        const QByteArray a = expected.read(chunkSize);
        const QByteArray b = actual.read(chunkSize);
        if (a == b) {
            if (a.isEmpty())
                return QString();
            offset += a.size();
            continue;
        }
        const int common = int(std::min(a.size(), b.size()));
        int at = 0;
        while (at < common && a[at] == b[at])
            ++at;
        return QString("%1: differs from byte %2 on (%3 and %4 bytes)")
            .arg(name)
            .arg(offset + at)
            .arg(expected.size())
            .arg(actual.size());
    }
}

// A plain copy: no temporary file and no sync, unlike QFile::copy.
bool copyFile(const QString& source, const QString& target)
{
    const int in = ::open(QFile::encodeName(source).constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return false;
    const int out = ::open(QFile::encodeName(target).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    bool copied = out >= 0;
    while (copied) {
        const ssize_t moved = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (moved == 0)
            break;
        if (moved < 0 && errno != EINTR) {
            // Filesystems without in-kernel copies: read and write.
            char buffer[1 << 16];
            ssize_t got;
            while (copied && (got = ::read(in, buffer, sizeof buffer)) != 0)
                copied = got > 0 && ::write(out, buffer, size_t(got)) == got;
            break;
        }
    }
    ::close(in);
    if (out >= 0)
        copied = ::close(out) == 0 && copied;
    return copied;
}

} // namespace

QString copyTree(const QString& from, const QString& to)
{
    if (!QDir().mkpath(to))
        return "cannot create " + to;
    for (const Entry& entry : listTree(from)) {
        const QString source = from + entry.path;
        const QString target = to + entry.path;
        if (entry.directory) {
            if (!QDir().mkpath(target))
                return "cannot create " + target;
        } else if (entry.path.endsWith(".yn")) {
            if (::link(QFile::encodeName(source).constData(), QFile::encodeName(target).constData()) != 0 &&
                !copyFile(source, target))
                return "cannot link or copy " + source + ": " + QString::fromLocal8Bit(std::strerror(errno));
        } else if (!copyFile(source, target)) {
            return "cannot copy " + source;
        }
    }
    return QString();
}

QStringList compareTrees(const QString& expected, const QString& actual, int limit)
{
    const QVector<Entry> a = listTree(expected);
    const QVector<Entry> b = listTree(actual);
    QStringList differences;
    int i = 0;
    int j = 0;
    while ((i < a.size() || j < b.size()) && differences.size() < limit) {
        if (j >= b.size() || (i < a.size() && a[i].path < b[j].path)) {
            differences << a[i++].path + ": only in " + expected;
        } else if (i >= a.size() || b[j].path < a[i].path) {
            differences << b[j++].path + ": only in " + actual;
        } else {
            if (a[i].directory != b[j].directory)
                differences << a[i].path + ": a directory in one tree, a file in the other";
            else if (!a[i].directory) {
                const QString difference = compareFiles(expected + a[i].path, actual + b[j].path, a[i].path);
                if (!difference.isEmpty())
                    differences << difference;
            }
            ++i;
            ++j;
        }
    }
    return differences;
}

} // namespace nxbench
