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

ExpectedBucket expectedBucket(const QByteArray& records)
{
    std::vector<QByteArray> sorted;
    for (int at = 0; at + 16 <= records.size(); at += 16)
        sorted.push_back(records.mid(at, 16));
    auto key = [](const QByteArray& r) { return nxformat::readLE32(reinterpret_cast<const unsigned char*>(r.data())); };
    std::sort(sorted.begin(), sorted.end(), [&](const QByteArray& a, const QByteArray& b) { return key(a) < key(b); });

    ExpectedBucket expected;
    QByteArray keys, groups(512, '\xFF'), count(4, '\0');
    for (size_t i = 0; i < sorted.size(); ++i) {
        auto* first = reinterpret_cast<unsigned char*>(groups.data()) + 2 * uint8_t(sorted[i][2]);
        if (nxformat::readLE16(first) == 0xFFFF)
            nxformat::writeLE16(first, uint16_t(i));
        keys += sorted[i].left(2);
        expected.payloadFile += sorted[i].mid(4);
        expected.entryFile += sorted[i];
    }
    nxformat::writeLE32(reinterpret_cast<unsigned char*>(count.data()), uint32_t(sorted.size()));
    expected.keyFile = keys + groups;
    expected.block = count + groups + keys;
    return expected;
}

}  // namespace nxtest
