#include "ynsample.h"

#include "commonfun.h"
#include "indexformat.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace ynsample {

namespace {

// Helper files draw from their own stream, apart from every file number.
constexpr uint64_t kHelperStream = 0xFFFFFFFFull;
constexpr int kMaxHelperRecords = 3;

// Every source file and every database's helper files get a stream of their
// own, so a file's bytes depend only on the seed, its database and its number.
uint64_t streamSeed(uint64_t seed, const QString& db, uint64_t stream)
{
    uint64_t nameHash = 0xcbf29ce484222325ull;  // FNV-1a
    for (char c : db.toLatin1()) {
        nameHash ^= uint8_t(c);
        nameHash *= 0x100000001b3ull;
    }
    return SplitMix64(seed ^ nameHash ^ (stream * 0x9E3779B97F4A7C15ull)).next();
}

// How many of the file's records fall into each bucket.
QVector<uint32_t> drawBucketCounts(SplitMix64& rng, int records)
{
    QVector<uint32_t> counts(nxformat::kBucketCount, 0);
    for (int i = 0; i < records; ++i)
        ++counts[int(rng.next() >> 56)];
    return counts;
}

// count records of bucket: key byte 3 is the bucket, bytes 0-2 and the
// payload are random.
QByteArray drawRecords(SplitMix64& rng, int bucket, uint32_t count)
{
    QByteArray records(int(count * nxformat::kRecordSize), '\0');
    auto* p = reinterpret_cast<unsigned char*>(records.data());
    for (uint32_t i = 0; i < count; ++i, p += nxformat::kRecordSize) {
        uint64_t bits = rng.next();
        nxformat::writeLE32(p, (uint32_t(bucket) << 24) | uint32_t(bits & 0xFFFFFF));
        nxformat::writeLE32(p + nxformat::kPayloadOffset, uint32_t(bits >> 32));
        uint64_t more = rng.next();
        nxformat::writeLE32(p + nxformat::kPayloadOffset + 4, uint32_t(more));
        nxformat::writeLE32(p + nxformat::kPayloadOffset + 8, uint32_t(more >> 32));
    }
    return records;
}

QVector<uint32_t> sourceBucketCounts(const SampleOptions& options, const QString& db, int fileNumber)
{
    SplitMix64 rng(streamSeed(options.seed, db, uint64_t(fileNumber)));
    return drawBucketCounts(rng, options.recordsPerFile);
}

// Source records per bucket over all files of a database.
QVector<uint64_t> sourceBucketTotals(const SampleOptions& options, const QString& db)
{
    QVector<uint64_t> totals(nxformat::kBucketCount, 0);
    for (int file = 0; file < options.files; ++file) {
        QVector<uint32_t> counts = sourceBucketCounts(options, db, file);
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket)
            totals[bucket] += counts[bucket];
    }
    return totals;
}

QVector<QByteArray> helperBucketsFor(const SampleOptions& options, const QString& db,
                                     const QVector<uint64_t>& sourceTotals)
{
    QVector<QByteArray> buckets(nxformat::kBucketCount);
    if (!options.helpers)
        return buckets;
    SplitMix64 rng(streamSeed(options.seed, db, kHelperStream));
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        if (sourceTotals[bucket] == 0)
            continue;
        uint32_t count = 1 + uint32_t(rng.next() % kMaxHelperRecords);
        buckets[bucket] = drawRecords(rng, bucket, count);
    }
    return buckets;
}

Status writeBytes(const QString& path, const QByteArray& bytes)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return Status::fromErrno("create the directory of " + path);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        return Status::fromErrno("write " + path);
    return Status::ok();
}

Status writeDbCount(const SampleOptions& options, const QString& host, const QString& db)
{
    const QString path = nxformat::dbCountFilePath(host, db);
    if (!commonfun::getInstance()->WritePrivateProfileString(nxformat::kDbCountSection, db.toUpper(),
                                                             QString::number(dbCountValue(options)), path))
        return Status::fromErrno("write " + path);
    return Status::ok();
}

}  // namespace

uint64_t SplitMix64::next()
{
    uint64_t z = (m_State += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

QStringList databaseNames(const SampleOptions& options)
{
    QStringList names;
    for (const TypeVolumes& type : options.types)
        for (int volume = 0; volume < type.volumes; ++volume)
            names << QString::asprintf("%s%02d", type.type.toLatin1().constData(), volume);
    return names;
}

QVector<QByteArray> sourceBuckets(const SampleOptions& options, const QString& db, int fileNumber)
{
    // The same stream as sourceBucketCounts: the counts first, then the records.
    SplitMix64 rng(streamSeed(options.seed, db, uint64_t(fileNumber)));
    QVector<uint32_t> counts = drawBucketCounts(rng, options.recordsPerFile);
    QVector<QByteArray> buckets(nxformat::kBucketCount);
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket)
        buckets[bucket] = drawRecords(rng, bucket, counts[bucket]);
    return buckets;
}

QVector<QByteArray> helperBuckets(const SampleOptions& options, const QString& db)
{
    return helperBucketsFor(options, db, sourceBucketTotals(options, db));
}

std::optional<OversizedBucket> findOversizedBucket(const SampleOptions& options)
{
    for (const QString& db : databaseNames(options)) {
        QVector<uint64_t> totals = sourceBucketTotals(options, db);
        QVector<QByteArray> helpers = helperBucketsFor(options, db, totals);
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
            uint64_t records = totals[bucket] + uint64_t(helpers[bucket].size()) / nxformat::kRecordSize;
            if (records > nxformat::kMaxBucketRecords)
                return OversizedBucket{db, bucket, records};
        }
    }
    return std::nullopt;
}

Status writeSample(const SampleOptions& options, const QString& host, SampleTotals* totals,
                   const std::function<void(const QString&)>& progress)
{
    // Source files next to an older sample would mix two samples in one index.
    if (!QDir(host + "/idxnd").entryList(QStringList{"*.yn"}, QDir::Files).isEmpty())
        return Status::error(EEXIST, host + "/idxnd already holds source files; choose another root");
    *totals = SampleTotals();
    for (const QString& db : databaseNames(options)) {
        for (int file = 0; file < options.files; ++file) {
            if (progress)
                progress(QString("%1: source file %2 of %3").arg(db).arg(file + 1).arg(options.files));
            const Status written = writeBytes(nxformat::sourceFilePath(host, db, file),
                                              nxformat::buildSourceFile(sourceBuckets(options, db, file)));
            if (!written.isOk())
                return written;
            ++totals->sourceFiles;
            totals->records += uint64_t(options.recordsPerFile);
        }
        Status written = writeDbCount(options, host, db);
        if (!written.isOk())
            return written;
        QVector<QByteArray> helpers = helperBuckets(options, db);
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
            if (helpers[bucket].isEmpty())
                continue;
            written = writeBytes(nxformat::helperFilePath(host, db, bucket), helpers[bucket]);
            if (!written.isOk())
                return written;
            ++totals->helperFiles;
            totals->helperRecords += uint64_t(helpers[bucket].size()) / nxformat::kRecordSize;
        }
        ++totals->databases;
    }
    return Status::ok();
}

}  // namespace ynsample
