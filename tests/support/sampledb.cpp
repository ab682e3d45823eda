#include "sampledb.h"

#include "indexformat.h"
#include "testsupport.h"

#include <algorithm>
#include <vector>

namespace nxtest {

QByteArray sampleRecord(int bucket, uint32_t serial)
{
    const uint32_t group = (serial * 37u) % 256u;
    const uint32_t key = (uint32_t(bucket) << 24) | (group << 16) | (serial & 0xFFFFu);
    return makeRecord(key, serial * 131u + uint32_t(bucket));
}

QVector<QByteArray> sampleSourceBuckets(int fileNumber, uint32_t dbSalt)
{
    QVector<QByteArray> buckets(256);
    for (int bucket = 0; bucket < 256; ++bucket) {
        if ((bucket + fileNumber) % 5 == 4)
            continue;
        const int count = 1 + (bucket + fileNumber) % 3;
        for (int i = 0; i < count; ++i)
            buckets[bucket] += sampleRecord(bucket, dbSalt * 10000u + uint32_t(fileNumber) * 10u + uint32_t(i));
    }
    return buckets;
}

void writeSource(const QString& host, const QString& db, int fileNumber, const QVector<QByteArray>& buckets)
{
    writeFile(nxformat::sourceFilePath(host, db, fileNumber), nxformat::buildSourceFile(buckets));
}

void writeDbCount(const QString& host, const QString& iniName, const QString& key, int value)
{
    writeFile(host + iniName, QString("[DB-COUNT]\n%1=%2\n").arg(key).arg(value).toUtf8());
}

void TempInstall::addSample(int files, int count, uint32_t salt) const
{
    for (int f = 0; f < files; ++f)
        writeSource(host(), "wdx00", f, sampleSourceBuckets(f, salt));
    writeSource(host(), "wdx01", 0, sampleSourceBuckets(0, salt + 1));
    writeDbCount(host(), "/idxval.ini", "WDX00", count);
}

static QByteArray le16(uint16_t v) { return QByteArray(1, char(v & 0xFF)) + QByteArray(1, char(v >> 8)); }

ExpectedBucket expectedBucket(const QByteArray& records)
{
    std::vector<QByteArray> sorted;
    for (int at = 0; at + 16 <= records.size(); at += 16)
        sorted.push_back(records.mid(at, 16));
    auto key = [](const QByteArray& r) { return nxformat::readLE32(reinterpret_cast<const unsigned char*>(r.data())); };
    std::sort(sorted.begin(), sorted.end(), [&](const QByteArray& a, const QByteArray& b) { return key(a) < key(b); });

    ExpectedBucket expected;
    QByteArray keys, groups;
    std::vector<uint16_t> firstOfGroup(256, 0xFFFF);
    for (size_t i = 0; i < sorted.size(); ++i) {
        const uint8_t group = uint8_t(sorted[i][2]);
        if (firstOfGroup[group] == 0xFFFF)
            firstOfGroup[group] = uint16_t(i);
        keys += sorted[i].left(2);
        expected.payloadFile += sorted[i].mid(4);
        expected.entryFile += sorted[i];
    }
    for (uint16_t first : firstOfGroup)
        groups += le16(first);
    const uint32_t count = uint32_t(sorted.size());
    expected.keyFile = keys + groups;
    expected.block = le16(uint16_t(count & 0xFFFF)) + le16(uint16_t(count >> 16)) + groups + keys;
    return expected;
}

}  // namespace nxtest
