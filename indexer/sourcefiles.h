#ifndef NXI_SOURCEFILES_H
#define NXI_SOURCEFILES_H

// The source files a database's run reads, kept open between the calls that
// read them, each with its bucket start table read once: every bucket reads
// the same files, and opening them or reading their start tables again for
// every bucket was most of a run's work. A kept file must read as the path
// would if every call opened it, so a change drops it and the next call
// opens the path afresh, with the same refusals (no symbolic link, regular
// files only). Changes are seen two ways:
//  - a watch (inotify) on the source directory, set before the first file is
//    opened and read at the start of every pass (watchChanges): a file that
//    was written, truncated, had its attributes changed, was removed, renamed
//    or replaced is dropped, and everything is dropped when the watch loses
//    events. A kept file then costs no system call but its reads;
//  - where no watch could be set, or for a file with more than one link
//    (written through a name elsewhere the watch does not see), one fstat of
//    the descriptor at each use: device, inode, link count, size,
//    modification and change time. A rewrite in place within one tick of the
//    file system's clock at the same size goes unseen there.
// A run merges only files their writer has finished, and no change can make
// a pass copy past the entry table.

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
    // once per database. A new database closes what the last one kept and
    // watches its own source directory.
    const QByteArray& path(const QString& host, const char* db, int fileNumber);
    // Drops the kept files that the watch saw change since the last call.
    void watchChanges();
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
    // Closes the descriptors and the watch and forgets the paths.
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
    void drop(QHash<QByteArray, Kept>::iterator kept);
    void dropAll();
    void startWatch(const QByteArray& dir);
    void stopWatch();
    // Acts on a buffer of watch events; false when the watch is lost or the
    // buffer cannot be read.
    bool applyEvents(const char* events, size_t size);
    void dropNamed(const QByteArray& name);  // the kept file of that name in the watched directory

    QString m_PathsHost;
    QByteArray m_PathsDb;
    QHash<int, QByteArray> m_Paths;
    QHash<QByteArray, Kept> m_Kept;
    Kept* m_Checked = nullptr;  // what exists() found unchanged; cleared whenever m_Kept changes
    int m_Watch = -1;  // the inotify descriptor, -1 when there is no watch
    QByteArray m_WatchedDir;  // with its trailing '/'
};

#endif
