#ifndef NXI_NXINSPECT_H
#define NXI_NXINSPECT_H

// Reading a database's index the way a consuming component does: finding
// the indexed databases, checking every invariant that ties their files
// together, looking records up by key and summarising what is there. The
// key, payload and entry files are read through libnxindex, the status file
// and the INI files through indexformat.h; nothing here writes a file.

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVector>

#include "indexformat.h"
#include "nxindex.h"
#include "status.h"

#include <cstdint>
#include <memory>
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
QString indexFilePath(const QString& host, const QString& db, nxformat::IndexFile file, nxformat::Generation generation,
                      int bucket);

// Reads a whole file (up to 1 GiB; never through a symbolic link).
constexpr qint64 kMaxReadSize = qint64(1) << 30;
Status readWholeFile(const QString& path, QByteArray* bytes);

// A database's index as libnxindex reads it: each bucket's key, payload and
// entry files, mapped and checked against each other.
struct IndexCloser {
    void operator()(nxindex* index) const { nxindex_close(index); }
};
using Index = std::unique_ptr<nxindex, IndexCloser>;
Status openIndex(const QString& host, const QString& db, Index* index);

// One broken invariant: which file, which bucket (-1 for none), where in it
// ("position 12", "group slot 07", "head slot 3f", ...) and what is wrong;
// position is the record position where there is one, else -1.
struct Violation {
    QString file;  // relative to the DB host directory
    int bucket = -1;
    QString where;
    QString problem;
    qint64 position = -1;
    QString text() const;
};
// What verify found in one database: its indexed buckets (sound or not), the
// records of the sound ones, and the violations.
struct Verification {
    QString db;
    int buckets = 0;
    qint64 records = 0;
    QVector<Violation> violations;
};
// Checks one database: each bucket's key, payload and entry files against
// each other (counts, keys, group table, payloads, sorted order), the status
// file's head and blocks against the entry files, the SBF size record, and
// that no pending or previous file is left behind.
Verification verifyDatabase(const QString& host, const QString& db);
QJsonObject toJson(const Verification& verification);

// One record found by lookup.
struct Match {
    int bucket = 0;
    int position = 0;  // in the bucket's key and payload files
    uint32_t key = 0;
    QByteArray payload;  // 12 bytes
};
// Every record with key, bucket by bucket; not ok (EBADMSG) when a damaged
// bucket may hold the key.
Status lookup(const nxindex* index, uint32_t key, QVector<Match>* matches);

// What the summary shows of one database.
struct DatabaseSummary {
    QString db;
    int buckets = 0;  // buckets with index files
    uint64_t records = 0;  // in the buckets whose files are sound
    int damagedBuckets = 0;
    uint64_t keyBytes = 0, payloadBytes = 0, entryBytes = 0;
    bool hasStatusFile = false;
    uint64_t statusBytes = 0;
    int blocks = 0;  // non-zero slots of the status file's head
    QString sizeRecord;  // the SBF size record's value, empty when none
    std::optional<int> sizeRecordBytes;
    int markedBuckets = 0;  // buckets with a last merged file number
    int lowestMark = -1, highestMark = -1;
    int marksRead = 0;  // of those, the ones the indexer's reader takes in
};
DatabaseSummary summarizeDatabase(const QString& host, const QString& db);
QString formatSummary(const DatabaseSummary& summary);
QJsonObject toJson(const DatabaseSummary& summary);

}  // namespace nxinspect

#endif
