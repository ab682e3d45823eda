#ifndef NXI_SAMPLEDB_H
#define NXI_SAMPLEDB_H

// Small generated databases for the end-to-end tests, and the files a correct run writes for them, computed
// independently of the indexer.
#include <QByteArray>
#include <QString>
#include <QVector>

#include <cstdint>

namespace nxtest {

// A record of bucket whose key has the bucket in byte 3 and is unique by serial.
QByteArray sampleRecord(int bucket, uint32_t serial);
// The records of each bucket of one source file: a fifth of the buckets (another fifth in each next file) stay
// empty, the others get 1 to 3 records.
QVector<QByteArray> sampleSourceBuckets(int fileNumber, uint32_t dbSalt);
void writeSource(const QString& host, const QString& db, int fileNumber, const QVector<QByteArray>& buckets);
// Replaces host + iniName with "[DB-COUNT]\n<key>=<value>\n".
void writeDbCount(const QString& host, const QString& iniName, const QString& key, int value);

// The files a correct run writes for a bucket whose merged records are `records`.
struct ExpectedBucket {
    QByteArray keyFile, payloadFile, entryFile, block;  // block: the bucket's block in the status file
};
ExpectedBucket expectedBucket(const QByteArray& records);

}  // namespace nxtest

#endif
