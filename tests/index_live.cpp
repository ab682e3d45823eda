// Lookups in a loop while the real nxindexer rotates every bucket of the
// database (with its 50 ms pause before each bucket): every answer is the
// old index's or the new one's, never a mix and never an error.
#include "nxindex.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QProcess>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

namespace {

using Index = std::unique_ptr<nxindex, decltype(&nxindex_close)>;

Index openIndex(const QString& host) { return Index(nxindex_open(qPrintable(host), "wdx00", nullptr), nxindex_close); }

// A key's answer as one text: the count, then the payloads.
QByteArray answer(nxindex* index, uint32_t key)
{
    unsigned char payloads[4 * NXINDEX_PAYLOAD_SIZE];
    const long count = nxindex_lookup(index, key, payloads, 4);
    QByteArray text = QByteArray::number(qlonglong(count)) + ":";
    for (long i = 0; i < count && i < 4; ++i)
        text += QByteArray(reinterpret_cast<const char*>(payloads) + 12 * i, 12).toHex();
    return text;
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

    std::vector<uint32_t> keys;  // old keys, keys the next run adds a record to, new keys, absent keys
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket)
        for (uint32_t i = 0; i < 10; ++i)
            keys.push_back(uint32_t(bucket) << 24 | i << 4);
    Index index = openIndex(host);
    ASSERT_TRUE(index);
    std::map<uint32_t, QByteArray> before;
    for (uint32_t key : keys)
        before[key] = answer(index.get(), key);

    nxtest::writeSource(host, "wdx00", 2, sourceFile(4, 4, 200));
    nxtest::writeSource(host, "wdx00", 3, {});
    nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 5);
    QProcess run;
    run.setProcessEnvironment(install.indexerEnvironment({}, /*withPause=*/true));
    run.start(install.root() + "/bin/nxindexer", QStringList());
    ASSERT_TRUE(run.waitForStarted());

    std::map<uint32_t, std::set<QByteArray>> seen;
    int taken = 0, rounds = 0;
    while (!run.waitForFinished(1)) {
        taken += nxindex_refresh(index.get());
        Index fresh = ++rounds % 8 == 0 ? openIndex(host) : Index(nullptr, nxindex_close);
        for (uint32_t key : keys) {
            seen[key].insert(answer(index.get(), key));
            if (fresh)
                seen[key].insert(answer(fresh.get(), key));
        }
    }
    ASSERT_EQ(run.exitCode(), 0);

    Index after = openIndex(host);
    int changed = 0;
    for (uint32_t key : keys) {
        const QByteArray now = answer(after.get(), key);
        changed += now != before[key];
        for (const QByteArray& observed : seen[key])
            EXPECT_TRUE(observed == before[key] || observed == now)
                << std::hex << key << ": " << observed.constData() << " is neither " << before[key].constData()
                << " nor " << now.constData();
    }
    // Without a helper file to carry the old records, the new index holds file 2 only: in every bucket keys
    // 0-3 go, 4 and 5 get new payloads, 6 and 7 appear.
    EXPECT_EQ(changed, NXINDEX_BUCKETS * 8);
    EXPECT_GE(taken, NXINDEX_BUCKETS / 2)
        << "the loop saw too few rotations to tell anything (" << rounds << " rounds)";
}

}  // namespace
