#ifndef NXI_SOURCEFILES_H
#define NXI_SOURCEFILES_H

// The source files a database's run reads, kept open between the calls that
// read them: every bucket reads the same files, and opening each one three
// times per bucket was most of a run's work. A kept descriptor is used only
// while the path still names the very file it was opened on (same device,
// inode, size and modification time); otherwise the file is opened afresh,
// with the same refusals (no symbolic link, regular files only), so a file
// that was replaced, changed or removed reads exactly as it would if every
// call opened it. The existence test of a pass serves as that check for the
// reads that follow it at once.

#include <QByteArray>
#include <QHash>
#include <QString>

#include <sys/stat.h>

class SourceFiles
{
public:
    SourceFiles() = default;
    ~SourceFiles() { closeAll(); }
    SourceFiles(const SourceFiles&) = delete;
    SourceFiles& operator=(const SourceFiles&) = delete;

    // The path of source file fileNumber of database db under host, formed
    // once per database.
    const QByteArray& path(const QString& host, const char* db, int fileNumber);
    // Whether something exists at path (links followed), as PathFileExists
    // says. What it saw stands for the file's identity in the next opens of
    // the same path, which follow at once in the same pass.
    bool exists(const char* path);
    // Ends what exists() saw standing for the next opens.
    void forgetLook() { m_LookedValid = false; }
    // A descriptor for reading the file at path and its size; -1 with errno
    // set when it cannot be opened. The descriptor stays owned here.
    int open(const char* path, qint64* size);
    // Closes the descriptors and forgets the paths.
    void closeAll();

private:
    QString m_PathsHost;
    QByteArray m_PathsDb;
    QHash<int, QByteArray> m_Paths;
    struct Kept {
        int fd;
        struct stat identity;
    };
    QHash<QByteArray, Kept> m_Kept;
    QByteArray m_Looked;  // the path exists() saw last, and what it saw
    struct stat m_LookedAt {};
    bool m_LookedValid = false;
};

#endif
