#ifndef NXI_SAMPLEDB_H
#define NXI_SAMPLEDB_H

// Small generated databases for the end-to-end tests, and the index files a
// correct run must write for them, computed independently of the indexer.

#include <QByteArray>
#include <QString>
#include <QVector>

#include <cstdint>

namespace nxtest {

// A record of `bucket` with a key whose byte 3 is the bucket, so a bucket's
// keys sort ascending; serial makes keys (and payloads) unique.
QByteArray sampleRecord(int bucket, uint32_t serial);

// The records of each bucket (index = bucket) of one generated source file:
// a fifth of the buckets stay empty (another fifth in each next file), the
// others get 1 to 3 records.
QVector<QByteArray> sampleSourceBuckets(int fileNumber, uint32_t dbSalt);

void writeSource(const QString& host, const QString& db, int fileNumber, const QVector<QByteArray>& buckets);
// Writes "[DB-COUNT]\n<key>=<value>\n" (replacing the file) to host + iniName.
void writeDbCount(const QString& host, const QString& iniName, const QString& key, int value);

// The files a correct run writes for a bucket whose merged records are `records`.
struct ExpectedBucket {
    QByteArray keyFile;
    QByteArray payloadFile;
    QByteArray entryFile;
    QByteArray block;  // the bucket's block in the status file
};
ExpectedBucket expectedBucket(const QByteArray& records);

} // namespace nxtest

#endif
