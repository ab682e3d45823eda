#ifndef NXI_SOURCEFILES_H
#define NXI_SOURCEFILES_H

// The source files a database's run reads, kept open between the calls that
// read them, each with its bucket start table read once: every bucket reads
// the same files, and opening them or reading their start tables again for
// every bucket was most of a run's work. A kept file is used while its
// descriptor shows no change (fstat: device, inode, link count, size,
// modification and change time). Any change, its removal or replacement at
// the path included (either changes its link count or change time), makes
// the next call open the path afresh, with the same refusals (no symbolic
// link, regular files only), so that such a file reads as it would if every
// call opened it. A run merges only files their writer has finished; a
// rewrite in place that leaves all of these unchanged (within one tick of
// the file system's clock, at the same size) goes unseen, and like any
// change between the two passes it can't make a pass copy past the table.

#include <QByteArray>
#include <QHash>
#include <QString>

#include <sys/stat.h>

class SourceFiles
{
public:
    struct File {
        int fd;
        qint64 size;
        // The bucket start table as far as the file holds it (up to 1024 bytes).
        size_t headSize;
        unsigned char head[1024];
    };

    SourceFiles() = default;
    ~SourceFiles() { closeAll(); }
    SourceFiles(const SourceFiles&) = delete;
    SourceFiles& operator=(const SourceFiles&) = delete;

    // The path of source file fileNumber of database db under host, formed
    // once per database.
    const QByteArray& path(const QString& host, const char* db, int fileNumber);
    // Whether something exists at path (links followed), as PathFileExists
    // says; a kept file that shows no change exists without a look at the
    // path. That check stands for the next opens of the same path, which
    // follow at once in the same pass, until forgetLook().
    bool exists(const char* path);
    void forgetLook() { m_Checked = nullptr; }
    // The file at path, opened and its start table read unless it is kept
    // and unchanged; nullptr with errno set when it cannot be opened. Owned
    // here and valid until the next call.
    const File* open(const char* path);
    // Closes the descriptors and forgets the paths.
    void closeAll();

private:
    struct Kept {
        File file;
        struct stat identity;
        QByteArray path;
        bool wholeHead;  // false after a failed read: the next call reads again
    };
    // The kept file at path if its descriptor shows no change; a changed one
    // is closed and forgotten.
    Kept* findUnchanged(const char* path);

    QString m_PathsHost;
    QByteArray m_PathsDb;
    QHash<int, QByteArray> m_Paths;
    QHash<QByteArray, Kept> m_Kept;
    Kept* m_Checked = nullptr;  // what exists() found unchanged; cleared whenever m_Kept changes
};

#endif
