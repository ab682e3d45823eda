// libnxindex against index files written here: exact answers checked against
// the entry files, each kind of damage confined to its bucket, and a
// rotation met half-way.
#include "nxindex.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QFile>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <random>

namespace {

using Index = std::unique_ptr<nxindex, decltype(&nxindex_close)>;

const QString kDb = "wdx00";

uint32_t le32(const QByteArray& bytes)
{
    return uint32_t(bytes[0] & 0xFF) | uint32_t(bytes[1] & 0xFF) << 8 | uint32_t(bytes[2] & 0xFF) << 16 |
           uint32_t(bytes[3] & 0xFF) << 24;
}

QString filePath(const QString& host, int bucket, const char* suffix)
{
    const QString name = QString::asprintf("%02x.%s", bucket, suffix);
    return QString(suffix).startsWith("hl") ? host + "/hl/wdx00/hlp/" + name : host + "/idxn/wdx00/" + name;
}

// Writes a bucket's three files as the indexer does: under pending names, then renamed key, payload, entry
// file; `renames` stops after that many renames.
void writeBucket(const QString& host, int bucket, const QByteArray& records, int renames = 3)
{
    const nxtest::ExpectedBucket files = nxtest::expectedBucket(records);
    const std::pair<const char*, QByteArray> parts[] = {
        {"m", files.keyFile}, {"d", files.payloadFile}, {"hl", files.entryFile}};
    for (const auto& part : parts)
        nxtest::writeFile(filePath(host, bucket, part.first) + "new", part.second);
    for (int i = 0; i < renames; ++i)
        ::rename(qPrintable(filePath(host, bucket, parts[i].first) + "new"),
                 qPrintable(filePath(host, bucket, parts[i].first)));
}

Index openIndex(const QString& host)
{
    int error = 0;
    Index index(nxindex_open(qPrintable(host), qPrintable(kDb), &error), nxindex_close);
    EXPECT_TRUE(index) << nxindex_strerror(error);
    return index;
}

// What the entry files say key finds: payloads (hex) in bucket and position order.
using Answers = std::map<uint32_t, QByteArrayList>;
Answers answersOfEntryFiles(const QString& host)
{
    Answers answers;
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket) {
        const QByteArray entry = nxtest::readFile(filePath(host, bucket, "hl"));
        for (int at = 0; at + 16 <= entry.size(); at += 16)
            answers[le32(entry.mid(at, 4))] << entry.mid(at + 4, 12).toHex();
    }
    return answers;
}

QByteArrayList lookUp(nxindex* index, uint32_t key, long* result)
{
    unsigned char payloads[8 * NXINDEX_PAYLOAD_SIZE];
    *result = nxindex_lookup(index, key, payloads, 8);
    QByteArrayList found;
    for (long i = 0; i < *result && i < 8; ++i)
        found << QByteArray(reinterpret_cast<const char*>(payloads) + 12 * i, 12).toHex();
    return found;
}

TEST(IndexReader, FindsExactlyTheRecordsOfTheEntryFilesAndNothingElse)
{
    nxtest::TempInstall install;
    std::mt19937 random(7);
    QByteArray shared = nxtest::makeRecord(0x7f000001, 1);  // the same key in two buckets
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; bucket += 3) {
        QByteArray records = bucket % 2 ? shared : QByteArray();
        for (int i = 0; i < 40; ++i) {  // keys over the whole range, some twice in a bucket
            const uint32_t key = i % 8 == 7 ? le32(records.right(16).left(4)) : uint32_t(random());
            records += nxtest::makeRecord(key, uint32_t(random()));
        }
        writeBucket(install.host(), bucket, records);
    }
    Index index = openIndex(install.host());
    const Answers expected = answersOfEntryFiles(install.host());
    long long total = 0;
    for (const auto& [key, payloads] : expected) {
        long count = 0;
        const QByteArrayList found = lookUp(index.get(), key, &count);
        EXPECT_EQ(count, payloads.size()) << std::hex << key;
        EXPECT_EQ(found, payloads.mid(0, 8)) << std::hex << key;
        total += payloads.size();
    }
    EXPECT_EQ(nxindex_records(index.get()), total);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t key = uint32_t(random());
        long count = -1;
        lookUp(index.get(), key, &count);
        EXPECT_EQ(count, expected.count(key) ? expected.at(key).size() : 0) << std::hex << key;
    }
}

TEST(IndexReader, EachDamageFailsLookupsInItsBucketOnly)
{
    const int damaged = 0x10, sound = 0x20;
    auto recordsOf = [](int bucket) {
        QByteArray records;
        for (uint32_t i = 0; i < 6; ++i)
            records += nxtest::makeRecord(uint32_t(bucket) << 24 | i << 12, i + 1);
        return records;
    };
    auto replace = [](QByteArray bytes, int at, char value) { return bytes.replace(at, 1, &value, 1); };
    const struct {
        const char* name;
        const char* file;
        std::function<QByteArray(const QByteArray&)> damage;
        int error;
        bool rangeKept;
    } damages[] = {
        {"entry file cut inside a record", "hl", [](const QByteArray& b) { return b.left(b.size() - 8); },
         NXINDEX_ECOUNT, true},
        {"entry file empty", "hl", [](const QByteArray&) { return QByteArray(); }, NXINDEX_ESIZE, false},
        {"entry keys out of order", "hl", [](const QByteArray& b) { return b.mid(16, 16) + b.left(16) + b.mid(32); },
         NXINDEX_EORDER, true},
        {"key file one byte short", "m", [](const QByteArray& b) { return b.left(b.size() - 1); }, NXINDEX_ESIZE, true},
        {"key file one key short", "m", [](const QByteArray& b) { return b.mid(2); }, NXINDEX_ECOUNT, true},
        {"group slot past the keys", "m", [&](const QByteArray& b) { return replace(b, 12 + 2 * 0x00, 9); },
         NXINDEX_EGROUP, true},
        {"key differs", "m", [&](const QByteArray& b) { return replace(b, 4, 0x55); }, NXINDEX_EMISMATCH, true},
        {"payload file cut", "d", [](const QByteArray& b) { return b.left(b.size() - 5); }, NXINDEX_ESIZE, true},
        {"payload differs", "d", [&](const QByteArray& b) { return replace(b, 30, 0x55); }, NXINDEX_EMISMATCH, true},
        {"payload file missing", "d", nullptr, NXINDEX_EMISSING, true},
        {"entry file a symbolic link", "hl", nullptr, NXINDEX_EREAD, false},
    };
    for (const auto& d : damages) {
        SCOPED_TRACE(d.name);
        nxtest::TempInstall install;
        writeBucket(install.host(), damaged, recordsOf(damaged));
        writeBucket(install.host(), sound, recordsOf(sound));
        const QString path = filePath(install.host(), damaged, d.file);
        if (d.damage)
            nxtest::writeFile(path, d.damage(nxtest::readFile(path)));
        else if (d.error == NXINDEX_EREAD)
            ASSERT_TRUE(QFile::rename(path, path + ".real") && QFile::link(path + ".real", path));
        else
            QFile::remove(path);

        Index index = openIndex(install.host());
        const unsigned char* records = nullptr;
        EXPECT_EQ(nxindex_bucket(index.get(), damaged, &records), d.error);
        long result = 0;
        lookUp(index.get(), uint32_t(damaged) << 24 | 3 << 12, &result);
        EXPECT_EQ(result, d.error);
        const QByteArrayList found = lookUp(index.get(), uint32_t(sound) << 24 | 3 << 12, &result);
        EXPECT_EQ(result, d.rangeKept ? 1 : d.error);
        size_t first = 0;
        EXPECT_EQ(nxindex_find(index.get(), sound, uint32_t(sound) << 24 | 3 << 12, &first), 1);
        EXPECT_EQ(first, 3u);
        // nxindex_check names the damage first.
        int reported = 0;
        nxindex_check(
            qPrintable(install.host()), "wdx00", damaged,
            [](void* c, const nxindex_problem* p) {
                *static_cast<int*>(c) = p->error;
                return 1;
            },
            &reported);
        EXPECT_EQ(reported, d.error);
    }
}

TEST(IndexReader, RefreshTakesInARotatedBucketOnlyOnceItsThreeFilesAgree)
{
    nxtest::TempInstall install;
    const uint32_t key = 0x05000100;
    writeBucket(install.host(), 5, nxtest::makeRecord(key, 1));
    Index index = openIndex(install.host());
    const QByteArray newRecords =
        nxtest::makeRecord(key, 2) + nxtest::makeRecord(key, 3) + nxtest::makeRecord(key + 1, 4);
    const QByteArrayList oldAnswer{nxtest::makeRecord(key, 1).mid(4).toHex()};
    const QByteArrayList newAnswer{newRecords.mid(4, 12).toHex(), newRecords.mid(20, 12).toHex()};
    long count = 0;
    for (int renames = 1; renames <= 3; ++renames) {
        SCOPED_TRACE(renames);
        writeBucket(install.host(), 5, newRecords, renames);
        EXPECT_EQ(nxindex_refresh(index.get()), renames == 3 ? 1 : 0);
        EXPECT_EQ(lookUp(index.get(), key, &count), renames == 3 ? newAnswer : oldAnswer);
    }
    EXPECT_EQ(nxindex_refresh(index.get()), 0);
    EXPECT_EQ(nxindex_records(index.get()), 3);
}

}  // namespace
