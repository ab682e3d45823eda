// ynsample -> nxindexer -> nxinspect: every generated record is found again
// with its payload, and summary and verify describe the index exactly.
#include "Common.h"
#include "indexformat.h"
#include "indexreader.h"
#include "tools_support.h"
#include "ynsample.h"

#include <QSet>
#include <gtest/gtest.h>

#include <algorithm>

using nxtest::runTool;
using nxtest::TempInstall;

namespace {

struct Record {
    int bucket;
    uint32_t key;
    QByteArray payload;
};

// What a database of the sample holds: its source files' and helper files' records.
QVector<Record> recordsOf(const ynsample::SampleOptions& options, const QString& db)
{
    QVector<QVector<QByteArray>> parts;
    for (int file = 0; file < options.files; ++file)
        parts << ynsample::sourceBuckets(options, db, file);
    parts << ynsample::helperBuckets(options, db);
    QVector<Record> records;
    for (const QVector<QByteArray>& buckets : parts)
        for (int bucket = 0; bucket < buckets.size(); ++bucket)
            for (int at = 0; at < buckets[bucket].size(); at += int(nxformat::kRecordSize)) {
                const auto* p = reinterpret_cast<const unsigned char*>(buckets[bucket].constData()) + at;
                records.append({bucket, nxformat::recordKey(p),
                                buckets[bucket].mid(at + int(nxformat::kPayloadOffset), int(nxformat::kPayloadSize))});
            }
    return records;
}

// The summary of a database whose every bucket with records was written once.
QString expectedSummary(const QString& db, const QVector<Record>& records)
{
    QSet<int> buckets;
    for (const Record& record : records)
        buckets.insert(record.bucket);
    int firstEmpty = 0;  // the indexer's reader of the marks stops there
    while (buckets.contains(firstEmpty))
        ++firstEmpty;
    QString marksRead = firstEmpty == buckets.size()
                            ? QString()
                            : QString("                   the next run reads %1 of them: its reader stops at "
                                      "the first bucket without a mark\n").arg(firstEmpty);
    qint64 n = records.size(), b = buckets.size();
    qint64 statusSize = nxformat::kStatusHeadSize + b * nxformat::bucketBlockSize(0) + 2 * n;
    auto size = [](qint64 bytes) { return Common::getSizeInString(quint64(bytes)); };
    return QString("%1\n"
                   "  buckets written  %2 of 256, %3 records\n"
                   "  index files      key %4, payload %5, entry %6\n"
                   "  status file      %1.sbf, %7, %2 blocks\n"
                   "  size record      %8#NXI, matches the status file\n"
                   "  progress marks   %2 buckets marked, last merged file 1 to 1\n%9")
        .arg(db).arg(b).arg(n)
        .arg(size(2 * n + 512 * b), size(12 * n), size(16 * n), size(statusSize))
        .arg(statusSize).arg(marksRead);
}

class ToolsRoundTrip : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_Options.types = {{"wdx", 2}, {"wfx", 1}};
        m_Options.files = 2;
        m_Options.recordsPerFile = 400;
        m_Options.helpers = true;
        m_Options.seed = 42;
        nxtest::ToolRun sample = runTool("ynsample", {m_Install.root(), "--types", "wdx:2,wfx:1", "--files", "2",
                                                      "--records", "400", "--helpers", "--seed", "42"});
        ASSERT_EQ(sample.exitCode, 0) << qPrintable(sample.err);
        ASSERT_EQ(m_Install.runIndexer(), 0);
    }

    TempInstall m_Install;
    ynsample::SampleOptions m_Options;
};

} // namespace

TEST_F(ToolsRoundTrip, EveryRecordIsFoundWithItsPayloadAndNothingElse)
{
    for (const QString& db : ynsample::databaseNames(m_Options)) {
        nxinspect::IndexReader reader(m_Install.host(), db);
        QSet<uint32_t> keys;
        for (const Record& record : recordsOf(m_Options, db)) {
            keys.insert(record.key);
            QVector<nxinspect::Match> matches;
            QString error;
            ASSERT_TRUE(reader.lookup(record.key, &matches, &error)) << qPrintable(error);
            bool found = std::any_of(matches.begin(), matches.end(), [&](const nxinspect::Match& match) {
                return match.bucket == record.bucket && match.key == record.key && match.payload == record.payload;
            });
            EXPECT_TRUE(found) << qPrintable(db) << " key " << std::hex << record.key;
        }
        // Keys next to present ones, in the same bucket and group, are absent.
        uint32_t absent = *keys.begin();
        while (keys.contains(absent))
            ++absent;
        QVector<nxinspect::Match> matches;
        QString error;
        ASSERT_TRUE(reader.lookup(absent, &matches, &error));
        EXPECT_TRUE(matches.isEmpty()) << std::hex << absent;
    }
}

TEST_F(ToolsRoundTrip, LookupSummaryAndVerifyPrintWhatTheIndexHolds)
{
    QVector<Record> records = recordsOf(m_Options, "wdx01");
    const Record& record = records[records.size() / 2];
    int position = 0;  // keys are unique in this sample: the record's rank in its bucket
    for (const Record& other : records)
        position += other.bucket == record.bucket && other.key < record.key ? 1 : 0;
    QString key = QString::asprintf("%08x", record.key);
    nxtest::ToolRun lookup = runTool("nxinspect", {"lookup", "wdx01", "0x" + key, m_Install.root()});
    EXPECT_EQ(lookup.exitCode, 0);
    EXPECT_EQ(lookup.out, QString::asprintf("wdx01 bucket %02x position %d: key ", record.bucket, position) + key +
                              " payload " + record.payload.toHex() + "\n");

    nxtest::ToolRun missing = runTool("nxinspect", {"lookup", "wfx00", "ffffffff", m_Install.root()});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "nxinspect: no record with key ffffffff in wfx00\n");

    QStringList summaries;
    for (const QString& db : ynsample::databaseNames(m_Options))
        summaries << expectedSummary(db, recordsOf(m_Options, db));
    nxtest::ToolRun summary = runTool("nxinspect", {"summary", m_Install.root()});
    EXPECT_EQ(summary.exitCode, 0);
    EXPECT_EQ(summary.out, summaries.join('\n'));

    nxtest::ToolRun verify = runTool("nxinspect", {"verify", m_Install.root()});
    EXPECT_EQ(verify.exitCode, 0);
    EXPECT_EQ(verify.out, "wdx00: ok\nwdx01: ok\nwfx00: ok\nverify: 3 databases, no violations\n");
}

TEST(ToolsLookup, FindsKeysInEveryBucketAlsoWhereByte3Differs)
{
    TempInstall install;
    const QByteArray first = nxtest::makeRecord(0x01070001, 1), second = nxtest::makeRecord(0x02070001, 2),
                     third = nxtest::makeRecord(0x02080002, 3), again = nxtest::makeRecord(0x01070001, 4);
    QVector<QByteArray> buckets(nxformat::kBucketCount);
    buckets[5] = third + first + second;  // keys differ in byte 3: the bucket is scanned
    buckets[6] = again;                   // the same key in another bucket
    nxtest::writeFile(nxformat::sourceFilePath(install.host(), "wdx00", 0), nxformat::buildSourceFile(buckets));
    nxtest::writeFile(nxformat::sourceFilePath(install.host(), "wdx00", 1), nxformat::buildSourceFile({}));
    nxtest::writeFile(install.host() + "/idxval.ini", "[DB-COUNT]\nWDX00=3\n");
    ASSERT_EQ(install.runIndexer(), 0);

    nxinspect::IndexReader reader(install.host(), "wdx00");
    auto found = [&](uint32_t key) {
        QVector<nxinspect::Match> matches;
        QString error;
        EXPECT_TRUE(reader.lookup(key, &matches, &error)) << qPrintable(error);
        QStringList texts;
        for (const nxinspect::Match& match : matches)
            texts << QString::asprintf("%02x/%d/%08x/", match.bucket, match.position, match.key) + match.payload.toHex();
        return texts;
    };
    auto text = [](int bucket, int position, const QByteArray& record) {
        return QString::asprintf("%02x/%d/%08x/", bucket, position, nxformat::recordKey(
                                     reinterpret_cast<const unsigned char*>(record.constData()))) + record.mid(4).toHex();
    };
    EXPECT_EQ(found(0x01070001), (QStringList{text(5, 0, first), text(6, 0, again)}));
    EXPECT_EQ(found(0x02070001), QStringList{text(5, 1, second)});
    EXPECT_EQ(found(0x02080002), QStringList{text(5, 2, third)});
    EXPECT_EQ(found(0x03070001), QStringList());
}
