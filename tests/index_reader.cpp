// libnxindex against index files written here: exact answers checked against the entry files, each kind of damage
// confined to its bucket, a rotation met half-way; and lookups in a loop while the real nxindexer rotates every
// bucket, which see the old index or the new one, never a mix and never an error.
#include "indexformat.h"
#include "nxindex.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>

namespace {

using Index = std::unique_ptr<nxindex, decltype(&nxindex_close)>;

uint32_t keyOf(const QByteArray& record) { return nxformat::readLE32(reinterpret_cast<const uchar*>(record.data())); }

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
    Index index(nxindex_open(qPrintable(host), "wdx00", &error), nxindex_close);
    EXPECT_TRUE(index) << nxindex_strerror(error);
    return index;
}

// A key's answer as one text: the count (or error code), then up to 8 payloads in hex.
QByteArray answer(nxindex* index, uint32_t key)
{
    unsigned char payloads[8 * NXINDEX_PAYLOAD_SIZE];
    const long count = nxindex_lookup(index, key, payloads, 8);
    QByteArray text = QByteArray::number(qlonglong(count)) + ":";
    for (long i = 0; i < count && i < 8; ++i)
        text += " " + QByteArray(reinterpret_cast<const char*>(payloads) + 12 * i, 12).toHex();
    return text;
}

// The same text for `count` records whose payloads are those of `records` (whole records) from the first on.
QByteArray answerOf(const QByteArrayList& records, long count)
{
    QByteArray text = QByteArray::number(qlonglong(count)) + ":";
    for (int i = 0; i < count && i < 8; ++i)
        text += " " + records[i].mid(4).toHex();
    return text;
}

TEST(IndexReader, FindsExactlyTheRecordsOfTheEntryFilesAndNothingElse)
{
    nxtest::TempInstall install;
    std::mt19937 random(7);
    QByteArray shared = nxtest::makeRecord(0x7f000001, 1);  // the same key in two buckets
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; bucket += 3) {
        QByteArray records = bucket % 2 ? shared : QByteArray();
        for (int i = 0; i < 40; ++i) {  // keys over the whole range, some twice in a bucket
            const uint32_t key = i % 8 == 7 ? keyOf(records.right(16)) : uint32_t(random());
            records += nxtest::makeRecord(key, uint32_t(random()));
        }
        writeBucket(install.host(), bucket, records);
    }
    Index index = openIndex(install.host());
    // What the entry files say each key finds, in bucket and position order.
    std::map<uint32_t, QByteArrayList> expected;
    long long total = 0;
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket) {
        const QByteArray entry = nxtest::readFile(filePath(install.host(), bucket, "hl"));
        for (int at = 0; at + 16 <= entry.size(); at += 16, ++total)
            expected[keyOf(entry.mid(at))] << entry.mid(at, 16);
    }
    for (const auto& [key, records] : expected)
        EXPECT_EQ(answer(index.get(), key), answerOf(records, records.size())) << std::hex << key;
    EXPECT_EQ(nxindex_records(index.get()), total);
    for (int i = 0; i < 20000; ++i) {
        const uint32_t key = uint32_t(random());
        const QByteArrayList records = expected.count(key) ? expected.at(key) : QByteArrayList();
        EXPECT_EQ(answer(index.get(), key), answerOf(records, records.size())) << std::hex << key;
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
        EXPECT_EQ(answer(index.get(), uint32_t(damaged) << 24 | 3 << 12), answerOf({}, d.error));
        // A key of the sound bucket fails too only where the damaged bucket's key range is lost with its entry file.
        EXPECT_EQ(answer(index.get(), uint32_t(sound) << 24 | 3 << 12),
                  d.rangeKept ? answerOf({recordsOf(sound).mid(48, 16)}, 1) : answerOf({}, d.error));
        size_t first = 0;
        EXPECT_EQ(nxindex_find(index.get(), sound, uint32_t(sound) << 24 | 3 << 12, &first), 1);
        EXPECT_EQ(first, 3u);
        // nxindex_check names the damage first: a non-zero return stops it.
        int reported = 0;
        auto report = [](void* to, const nxindex_problem* p) { return *static_cast<int*>(to) = p->error; };
        nxindex_check(qPrintable(install.host()), "wdx00", damaged, report, &reported);
        EXPECT_EQ(reported, d.error);
    }
}

TEST(IndexReader, RefreshTakesInARotatedBucketOnlyOnceItsThreeFilesAgree)
{
    nxtest::TempInstall install;
    const uint32_t key = 0x05000100;
    writeBucket(install.host(), 5, nxtest::makeRecord(key, 1));
    Index index = openIndex(install.host());
    const QByteArrayList newRecords{nxtest::makeRecord(key, 2), nxtest::makeRecord(key, 3)};
    for (int renames = 1; renames <= 3; ++renames) {
        SCOPED_TRACE(renames);
        writeBucket(install.host(), 5, newRecords.join() + nxtest::makeRecord(key + 1, 4), renames);
        EXPECT_EQ(nxindex_refresh(index.get()), renames == 3 ? 1 : 0);
        EXPECT_EQ(answer(index.get(), key),
                  renames == 3 ? answerOf(newRecords, 2) : answerOf({nxtest::makeRecord(key, 1)}, 1));
    }
    EXPECT_EQ(nxindex_refresh(index.get()), 0);
    EXPECT_EQ(nxindex_records(index.get()), 3);
}

// Source file records: in every bucket, `count` keys from `first` on (byte 3 is the bucket).
QVector<QByteArray> sourceFile(uint32_t first, uint32_t count, uint32_t seed)
{
    QVector<QByteArray> buckets(NXINDEX_BUCKETS);
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket)
        for (uint32_t i = first; i < first + count; ++i)
            buckets[bucket] += nxtest::makeRecord(uint32_t(bucket) << 24 | i << 4, seed + i);
    return buckets;
}

TEST(IndexLive, LookupsDuringARotationSeeTheOldOrTheNewIndex)
{
    nxtest::TempInstall install;
    const QString host = install.host();
    nxtest::writeSource(host, "wdx00", 0, sourceFile(0, 6, 100));
    nxtest::writeSource(host, "wdx00", 1, {});
    nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 3);
    ASSERT_EQ(install.runIndexer(), 0);

    Index index = openIndex(host);
    ASSERT_TRUE(index);
    std::map<uint32_t, QByteArray> before;  // old keys, keys the next run adds a record to, new keys, absent keys
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket)
        for (uint32_t i = 0; i < 10; ++i)
            before[uint32_t(bucket) << 24 | i << 4] = answer(index.get(), uint32_t(bucket) << 24 | i << 4);

    nxtest::writeSource(host, "wdx00", 2, sourceFile(4, 4, 200));
    nxtest::writeSource(host, "wdx00", 3, {});
    nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 5);
    QProcess run;
    run.setProcessEnvironment(install.indexerEnvironment({}, /*withPause=*/true));
    run.start(install.program(), QStringList());
    ASSERT_TRUE(run.waitForStarted());

    std::map<uint32_t, std::set<QByteArray>> seen;
    int taken = 0, rounds = 0;
    while (!run.waitForFinished(1)) {
        taken += nxindex_refresh(index.get());
        Index fresh = ++rounds % 8 == 0 ? openIndex(host) : Index(nullptr, nxindex_close);
        for (const auto& [key, old] : before) {
            seen[key].insert(answer(index.get(), key));
            if (fresh)
                seen[key].insert(answer(fresh.get(), key));
        }
    }
    ASSERT_EQ(run.exitCode(), 0);

    Index after = openIndex(host);
    int changed = 0;
    for (const auto& [key, old] : before) {
        const QByteArray now = answer(after.get(), key);
        changed += now != old;
        for (const QByteArray& observed : seen[key])
            EXPECT_TRUE(observed == old || observed == now)
                << std::hex << key << ": " << observed.constData() << " is neither " << old.constData() << " nor "
                << now.constData();
    }
    // Without a helper file to carry the old records, the new index holds file 2 only: in every bucket keys
    // 0-3 go, 4 and 5 get new payloads, 6 and 7 appear.
    EXPECT_EQ(changed, NXINDEX_BUCKETS * 8);
    EXPECT_GE(taken, NXINDEX_BUCKETS / 2)
        << "the loop saw too few rotations to tell anything (" << rounds << " rounds)";
}

}  // namespace
