// ynsample -> nxindexer -> nxinspect: every record is found again; lookup, summary and verify print what is indexed.
#include "nxinspect.h"
#include "testsupport.h"
#include "ynsample.h"

#include <QFile>
#include <gtest/gtest.h>

#include <algorithm>

using nxtest::readFile;
using nxtest::runTool;
using nxtest::TempInstall;
using nxtest::writeFile;

TEST(ToolsRoundTrip, EveryGeneratedRecordIsFoundAndVerifyNamesEachDamage)
{
    TempInstall install;
    const ynsample::SampleOptions options{{{"wdx", 2}, {"wfx", 1}}, 2, 400, true, 42};
    nxtest::Output sample = runTool("ynsample", {install.root(), "--types", "wdx:2,wfx:1", "--files", "2", "--records",
                                                 "400", "--helpers", "--seed", "42"});
    ASSERT_EQ(sample.status, 0) << qPrintable(sample.err);
    ASSERT_EQ(install.runIndexer(), 0);

    for (const QString& db : ynsample::databaseNames(options)) {
        nxinspect::Index index;
        ASSERT_TRUE(nxinspect::openIndex(install.host(), db, &index).isOk());
        QVector<QVector<QByteArray>> parts{ynsample::helperBuckets(options, db)};
        for (int file = 0; file < options.files; ++file)
            parts << ynsample::sourceBuckets(options, db, file);
        for (const QVector<QByteArray>& buckets : parts)
            for (int bucket = 0; bucket < buckets.size(); ++bucket)
                for (int at = 0; at < buckets[bucket].size(); at += 16) {
                    const QByteArray record = buckets[bucket].mid(at, 16);
                    const uint32_t key = nxformat::readLE32(reinterpret_cast<const unsigned char*>(record.data()));
                    QVector<nxinspect::Match> found;
                    const Status status = nxinspect::lookup(index.get(), key, &found);
                    ASSERT_TRUE(status.isOk()) << qPrintable(status.toString());
                    EXPECT_TRUE(std::any_of(found.begin(), found.end(),
                                            [&](const nxinspect::Match& m) {
                                                return m.bucket == bucket && m.key == key && m.payload == record.mid(4);
                                            }))
                        << qPrintable(db) << " key " << std::hex << key;
                }
    }

    // verify names a flipped byte in each kind of index file of bucket 3f of wdx00, and what an
    // unfinished run leaves behind.
    const QString host = install.host(), key = "idxn/wdx00/3f.m", payload = "idxn/wdx00/3f.d",
                  entry = "hl/wdx00/hlp/3f.hl";
    const QByteArray status = readFile(host + "/wdx00.sbf");
    const uint32_t block = nxformat::readLE32(reinterpret_cast<const unsigned char*>(status.constData()) + 4 * 0x3f);
    const int count = int(nxformat::readLE32(reinterpret_cast<const unsigned char*>(status.constData()) + block));
    const int group0 = readFile(host + "/" + entry)[2];  // group byte of record 0
    ASSERT_GE(count, 3);
    // The file (under the DB host), the byte flipped (-1: the file is created empty), the lines' starts.
    const struct {
        QString file;
        qint64 offset;
        QStringList expected;
    } damages[] = {
        {key, 0, {"  " + key + ", bucket 3f, position 0: key 0x"}},
        {key,
         2 * count + 2 * group0,
         {QString::asprintf("  %s, bucket 3f, group slot %02x: holds 1, the group's first position in %s is 0",
                            qPrintable(key), group0, qPrintable(entry))}},
        {payload,
         12 * 1 + 5,
         {"  " + payload + ", bucket 3f, position 1: payload differs from the record in " + entry}},
        {entry, 16 * 2 + 9, {"  " + payload + ", bucket 3f, position 2: payload differs from the record in " + entry}},
        {"wdx00.sbf",
         4 * 0x3f,
         {QString("  wdx00.sbf, bucket 3f, head slot 3f: offset %1 is not where a block begins").arg(block ^ 1),
          QString("  wdx00.sbf, byte %1: block belongs to no head slot").arg(block)}},
        {"wdx00.sbf", block + 4 + 512 + 2, {"  wdx00.sbf, bucket 3f, block position 1: key 0x"}},
        {"sbf_check_yn.ini",
         readFile(host + "/sbf_check_yn.ini").indexOf("wdx00.sbf=") + 10,
         {"  sbf_check_yn.ini, key wdx00.sbf: records "}},
        {"idxn/wdx00/3f.mnew",
         -1,
         {"  idxn/wdx00/3f.mnew, bucket 3f: pending file left behind by an unfinished write"}},
        {"hl/wdx00/hlp/3f.hlold",
         -1,
         {"  hl/wdx00/hlp/3f.hlold, bucket 3f: previous file left behind by an unfinished rotation"}},
        {"wdx00.sbftmp", -1, {"  wdx00.sbftmp: status file under construction left behind by an unfinished run"}},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(qPrintable(damage.file + QString(" byte %1").arg(damage.offset)));
        const QString path = host + "/" + damage.file;
        const QByteArray original = readFile(path);
        QByteArray damaged = original;
        if (damage.offset >= 0)
            damaged[int(damage.offset)] = char(damaged[int(damage.offset)] ^ 0x01);
        writeFile(path, damaged);  // a missing file is created empty

        nxtest::Output run = runTool("nxinspect", {"verify", install.root()});
        EXPECT_EQ(run.status, 1) << qPrintable(run.err);
        const QStringList lines = run.out.split('\n');
        const int n = damage.expected.size();
        EXPECT_EQ(lines[0], QString("wdx00: %1 violation%2").arg(n).arg(n > 1 ? "s" : ""));
        for (int i = 0; i < n; ++i)
            EXPECT_TRUE(lines.value(i + 1).startsWith(damage.expected[i])) << qPrintable(run.out);
        damage.offset >= 0 ? writeFile(path, original) : void(QFile::remove(path));
    }
    // Once each damage is undone, verify passes.
    nxtest::Output verify = runTool("nxinspect", {"verify", install.root()});
    EXPECT_EQ(verify.status, 0);
    EXPECT_EQ(verify.out, "wdx00: ok\nwdx01: ok\nwfx00: ok\nverify: 3 databases, no violations\n");
}

TEST(ToolsRoundTrip, LookupFindsKeysAlsoWhereByte3DiffersAndSummaryIsExact)
{
    TempInstall install;
    const uint32_t keys[] = {0x02080002, 0x01070001, 0x02070001, 0x01070001};
    QByteArray records[4];
    for (int i = 0; i < 4; ++i)
        records[i] = nxtest::makeRecord(keys[i], uint32_t(i + 1));
    QVector<QByteArray> buckets(nxformat::kBucketCount);
    buckets[5] = records[0] + records[1] + records[2];  // keys differ in byte 3: the bucket is scanned
    buckets[6] = records[3];  // the same key in another bucket
    writeFile(nxformat::sourceFilePath(install.host(), "wdx00", 0), nxformat::buildSourceFile(buckets));
    writeFile(nxformat::sourceFilePath(install.host(), "wdx00", 1), nxformat::buildSourceFile({}));
    writeFile(install.host() + "/idxval.ini", "[DB-COUNT]\nWDX00=3\n");
    ASSERT_EQ(install.runIndexer(), 0);

    auto line = [&](int bucket, int position, int i) {
        return QString::asprintf("wdx00 bucket %02x position %d: key %08x payload ", bucket, position, keys[i]) +
               records[i].mid(int(nxformat::kPayloadOffset)).toHex() + "\n";
    };
    const struct {
        const char* key;
        int exitCode;
        QString out;
    } lookups[] = {{"01070001", 0, line(5, 0, 1) + line(6, 0, 3)},
                   {"0x2070001", 0, line(5, 1, 2)},
                   {"02080002", 0, line(5, 2, 0)},
                   {"03070001", 1, ""}};
    for (const auto& lookup : lookups) {
        nxtest::Output run = runTool("nxinspect", {"lookup", "wdx00", lookup.key, install.root()});
        EXPECT_EQ(run.status, lookup.exitCode) << lookup.key;
        EXPECT_EQ(run.out, lookup.out);
        EXPECT_EQ(run.err,
                  lookup.exitCode ? "nxinspect: no record with key " + QString(lookup.key) + " in wdx00\n" : "");
    }
    // Key file: 2 bytes a record + a 512-byte group table a bucket; status file: 1024-byte head + blocks.
    nxtest::Output summary = runTool("nxinspect", {"summary", install.root()});
    EXPECT_EQ(summary.status, 0);
    EXPECT_EQ(summary.out,
              "wdx00\n"
              "  buckets written  2 of 256, 4 records\n"
              "  index files      key 1.01 KB, payload 48.00 bytes, entry 64.00 bytes\n"
              "  status file      wdx00.sbf, 2.02 KB, 2 blocks\n"
              "  size record      2064#NXI, matches the status file\n"
              "  progress marks   2 buckets marked, last merged file 1 to 1\n"
              "                   the next run reads 0 of them: its reader stops at the first bucket without a mark\n");
}
