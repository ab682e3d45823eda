#ifndef NXI_YNSAMPLE_H
#define NXI_YNSAMPLE_H

// Sample installations for the indexer: source files, DB-count files and
// optional helper files under a DB host directory. Everything is derived
// from a seed, so the same options always give the same bytes.

#include "status.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <cstdint>
#include <functional>
#include <optional>

namespace ynsample {

// splitmix64: small, fast and the same on every platform (unlike std::rand).
class SplitMix64
{
public:
    explicit SplitMix64(uint64_t seed) : m_State(seed) {}
    uint64_t next();

private:
    uint64_t m_State;
};

struct TypeVolumes {
    QString type;  // "wdx", "wfx" or "wgx"
    int volumes = 1;
};

struct SampleOptions {
    QVector<TypeVolumes> types{{"wdx", 1}, {"wfx", 1}};
    int files = 3;  // source files per database
    int recordsPerFile = 2000;  // spread at random over the 256 buckets
    bool helpers = false;  // a helper file for every bucket with records
    uint64_t seed = 1;
};

// "wdx00", "wdx01", "wfx00": every database of the options, in walk order.
QStringList databaseNames(const SampleOptions& options);

// The DB-COUNT that makes the indexer merge every file of a database: it
// merges file numbers up to DB-COUNT - 2.
inline int dbCountValue(const SampleOptions& options) { return options.files + 1; }

// The records of one source file, bucket by bucket (index = bucket). Byte 3
// of every key is the bucket number, so a bucket's keys sort ascending.
QVector<QByteArray> sourceBuckets(const SampleOptions& options, const QString& db, int fileNumber);
// The helper file records of each bucket; empty for a bucket without
// source records (the indexer loads a helper file only with new records).
QVector<QByteArray> helperBuckets(const SampleOptions& options, const QString& db);

// The first bucket whose merged records (all source files plus the helper
// file) would pass the 65,535 records an index bucket can hold.
struct OversizedBucket {
    QString db;
    int bucket = 0;
    uint64_t records = 0;
};
std::optional<OversizedBucket> findOversizedBucket(const SampleOptions& options);

// What writeSample produced.
struct SampleTotals {
    int databases = 0;
    int sourceFiles = 0;
    uint64_t records = 0;
    int helperFiles = 0;
    uint64_t helperRecords = 0;
};

// Writes the sample under the DB host directory host. progress (may be
// empty) receives one line per source file. Call findOversizedBucket first:
// nothing here checks bucket sizes.
Status writeSample(const SampleOptions& options, const QString& host, SampleTotals* totals,
                   const std::function<void(const QString&)>& progress);

}  // namespace ynsample

#endif
