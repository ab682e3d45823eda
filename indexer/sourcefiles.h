#ifndef NXI_SOURCEFILES_H
#define NXI_SOURCEFILES_H

// The source files a database's run reads, kept open between the calls that
// read them: every bucket reads the same files, and opening each one three
// times per bucket was most of a run's work. A kept descriptor is used only
// while the path still names the very file it was opened on (same device,
// inode, size and modification time); otherwise the file is opened afresh,
// with the same refusals (no symbolic link, regular files only), so a file
// that was replaced, changed or removed reads exactly as it would if every
// call opened it.

#include <QByteArray>
#include <QHash>

#include <sys/stat.h>

class SourceFiles
{
public:
    SourceFiles() = default;
    ~SourceFiles() { closeAll(); }
    SourceFiles(const SourceFiles&) = delete;
    SourceFiles& operator=(const SourceFiles&) = delete;

    // A descriptor for reading the file at path and its size; -1 with errno
    // set when it cannot be opened. The descriptor stays owned here.
    int open(const char* path, qint64* size);
    void closeAll();

private:
    struct Kept {
        int fd;
        struct stat identity;
    };
    QHash<QByteArray, Kept> m_Kept;
};

#endif
