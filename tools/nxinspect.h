#ifndef NXI_NXINSPECT_H
#define NXI_NXINSPECT_H

// Reading a database's index the way a consuming component does: finding
// the indexed databases, checking every invariant that ties their files
// together, looking records up by key and summarising what is there. All
// layouts come from indexformat.h; nothing here writes a file.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include "indexformat.h"
#include "status.h"

#include <cstdint>
#include <optional>

namespace nxinspect {

// The DB host directory of an installation root.
QString hostOf(const QString& root);
// A DB type of three lower-case letters and a volume of at least two
// digits, at most 9 characters: "wdx00", "wfx01", "wdx100".
bool isDatabaseName(const QString& name);
// Databases that have an index directory or a status file under host, by
// DB type in walk order (wdx, wfx, wgx, then others) and volume number.
QStringList indexedDatabases(const QString& host);

// A bucket's key or payload file (index directory) or entry file (entry
// directory) under one of its three names.
QString indexFilePath(const QString& host, const QString& db, nxformat::IndexFile file,
                      nxformat::Generation generation, int bucket);

// Reads a whole file (up to 1 GiB; never through a symbolic link).
constexpr qint64 kMaxReadSize = qint64(1) << 30;
Status readWholeFile(const QString& path, QByteArray* bytes);

// One broken invariant: which file, which bucket (-1 for none), where in it
// ("position 12", "group slot 07", "head slot 3f", ...) and what is wrong.
struct Violation {
    QString file;  // relative to the DB host directory
    int bucket = -1;
    QString where;
    QString problem;
    QString text() const;
};
// Checks one database: each bucket's key, payload and entry files against
// each other (counts, keys, group table, payloads, sorted order), the status
// file's head and blocks against the key files, the SBF size record, and
// that no pending or previous file is left behind.
QVector<Violation> verifyDatabase(const QString& host, const QString& db);

// One record found by lookup.
struct Match {
    int bucket = 0;
    int position = 0;  // in the bucket's key and payload files
    uint32_t key = 0;
    QByteArray payload;  // 12 bytes
};

// Looks keys up in one database. A record lies in the bucket of the source
// file bucket it came from, which a key alone does not tell, so every bucket
// is searched: the group table gives the range of the key's group byte and a
// binary search of the key list finds the low 16 bits. The key file holds no
// byte 3; the entry file's first and last records give the byte 3 that all
// of a bucket's keys share (a bucket whose keys do not share it is scanned
// record by record in its entry file). Key files are read once and kept.
class IndexReader
{
public:
    IndexReader(const QString& host, const QString& db);
    // Every record with key; not ok when an index file cannot be read or
    // the files of a bucket disagree (EBADMSG).
    Status lookup(uint32_t key, QVector<Match>* matches);

private:
    struct Bucket {
        bool loaded = false;
        bool present = false;
        QVector<uint16_t> keys;
        QVector<uint16_t> groupTable;
        int sharedTopByte = -1;  // -1: the bucket's keys differ in byte 3
    };
    Status load(int bucket);
    Status findInBucket(int bucket, uint32_t key, QVector<int>* positions);
    Status readPayload(int bucket, int position, QByteArray* payload);
    QString currentPath(nxformat::IndexFile file, int bucket) const;

    QString m_Host;
    QString m_Db;
    QVector<Bucket> m_Buckets;
};

// What the summary shows of one database.
struct DatabaseSummary {
    QString db;
    int buckets = 0;  // buckets with a key file
    uint64_t records = 0;
    uint64_t keyBytes = 0, payloadBytes = 0, entryBytes = 0;
    bool hasStatusFile = false;
    uint64_t statusBytes = 0;
    int blocks = 0;            // non-zero slots of the status file's head
    QString sizeRecord;        // the SBF size record's value, empty when none
    std::optional<int> sizeRecordBytes;
    int markedBuckets = 0;     // buckets with a last merged file number
    int lowestMark = -1, highestMark = -1;
    int marksRead = 0;         // of those, the ones the indexer's reader takes in
};
DatabaseSummary summarizeDatabase(const QString& host, const QString& db);
QString formatSummary(const DatabaseSummary& summary);

} // namespace nxinspect

#endif
