// ynsample -> nxindexer -> nxinspect: every record is found again; lookup, summary and verify print what is indexed.
// ynsample alone: the tree it writes, its determinism, its progress and its refusals; bad command lines of both tools.
#include "nxinspect.h"
#include "testsupport.h"
#include "ynsample.h"

#include <QFile>
#include <QJsonDocument>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>

using nxtest::readFile;
using nxtest::runTool;
using nxtest::TempInstall;
using nxtest::treeOf;
using nxtest::writeFile;

static uint32_t le32(const QByteArray& bytes, int at)
{
    return nxformat::readLE32(reinterpret_cast<const uchar*>(bytes.data()) + at);
}

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
                    QVector<nxinspect::Match> found;
                    const Status status = nxinspect::lookup(index.get(), le32(record, 0), &found);
                    ASSERT_TRUE(status.isOk()) << qPrintable(status.toString());
                    EXPECT_TRUE(std::any_of(found.begin(), found.end(),
                                            [&](const nxinspect::Match& m) {
                                                return m.bucket == bucket && m.key == le32(record, 0) &&
                                                       m.payload == record.mid(4);
                                            }))
                        << qPrintable(db) << " key " << std::hex << le32(record, 0);
                }
    }

    // verify names a flipped byte in each kind of index file of bucket 3f of wdx00, and what an
    // unfinished run leaves behind.
    const QString host = install.host(), m = "idxn/wdx00/3f.m", d = "idxn/wdx00/3f.d", hl = "hl/wdx00/hlp/3f.hl";
    const QByteArray status = readFile(host + "/wdx00.sbf");
    const uint32_t block = le32(status, 4 * 0x3f);
    const int count = int(le32(status, block)), group0 = readFile(host + "/" + hl)[2];  // group byte of record 0
    ASSERT_GE(count, 3);
    const QString in = ", bucket 3f, ", differs = in + "position %1: payload differs from the record in " + hl,
                  mnew = "idxn/wdx00/3f.mnew", hlold = "hl/wdx00/hlp/3f.hlold",
                  groupSlot = QString::asprintf("group slot %02x: holds 1, the group's first position in ", group0),
                  noBlock = QString("head slot 3f: offset %1 is not where a block begins\n").arg(block ^ 1) +
                            QString("wdx00.sbf, byte %1: block belongs to no head slot").arg(block);
    const qint64 slot = 2 * count + 2 * group0, blockKey = block + 4 + 512 + 2,
                 size = readFile(host + "/sbf_check_yn.ini").indexOf("wdx00.sbf=") + 10;
    // The file (under the DB host), the byte flipped (-1: the file is created empty), the starts of the lines after
    // the database's line, less their indent.
    const struct {
        QString file;
        qint64 offset;
        QString expected;
    } damages[] = {
        {m, 0, m + in + "position 0: key 0x"},
        {m, slot, m + in + groupSlot + hl + " is 0"},
        {d, 12 * 1 + 5, d + differs.arg(1)},
        {hl, 16 * 2 + 9, d + differs.arg(2)},
        {"wdx00.sbf", 4 * 0x3f, "wdx00.sbf" + in + noBlock},
        {"wdx00.sbf", blockKey, "wdx00.sbf" + in + "block position 1: key 0x"},
        {"sbf_check_yn.ini", size, "sbf_check_yn.ini, key wdx00.sbf: records "},
        {mnew, -1, mnew + ", bucket 3f: pending file left behind by an unfinished write"},
        {hlold, -1, hlold + ", bucket 3f: previous file left behind by an unfinished rotation"},
        {"wdx00.sbftmp", -1, "wdx00.sbftmp: status file under construction left behind by an unfinished run"},
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
        const QStringList expected = damage.expected.split('\n');
        const int n = expected.size();
        EXPECT_EQ(lines[0], QString("wdx00: %1 violation%2").arg(n).arg(n > 1 ? "s" : ""));
        for (int i = 0; i < n; ++i)
            EXPECT_TRUE(lines.value(i + 1).startsWith("  " + expected[i])) << qPrintable(run.out);
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
    // A key and what lookup prints for it: nothing (and exit status 1) when no record has it.
    const std::map<QString, QString> lookups{{"01070001", line(5, 0, 1) + line(6, 0, 3)},
                                             {"0x2070001", line(5, 1, 2)},
                                             {"02080002", line(5, 2, 0)},
                                             {"03070001", ""}};
    for (const auto& [key, out] : lookups) {
        nxtest::Output run = runTool("nxinspect", {"lookup", "wdx00", key, install.root()});
        EXPECT_EQ(run.status, out.isEmpty() ? 1 : 0) << key;
        EXPECT_EQ(run.out, out);
        EXPECT_EQ(run.err, out.isEmpty() ? "nxinspect: no record with key " + key + " in wdx00\n" : "");
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
    // The same figures, and verify's, as JSON for scripts: key files 2 * 3 + 512 and 2 * 1 + 512 bytes.
    auto json = [&](const char* command) {
        return QJsonDocument::fromJson(runTool("nxinspect", {command, "--json", install.root()}).out.toUtf8());
    };
    EXPECT_EQ(json("summary"), QJsonDocument::fromJson(R"({"databases": [{"name": "wdx00", "buckets": 2, "records": 4,
        "damaged_buckets": 0, "bytes": {"key": 1032, "payload": 48, "entry": 64},
        "status_file": {"bytes": 2064, "blocks": 2}, "size_record": {"value": "2064#NXI", "matches": true},
        "progress_marks": {"buckets": 2, "lowest": 1, "highest": 1, "read_next_run": 0}}]})"));
    EXPECT_EQ(json("verify"), QJsonDocument::fromJson(R"({"databases": [{"name": "wdx00", "buckets": 2, "records": 4,
        "violations": []}], "violations": 0})"));
}

TEST(ToolsSample, SameSeedGivesTheSameTreeAndAnotherSeedAnother)
{
    TempInstall first, second, other;
    const QStringList options{"--types", "wdx:2,wfx", "--files=2", "--records", "40"};
    nxtest::Output run = runTool("ynsample", QStringList{first.root(), "--seed", "3"} + options);
    ASSERT_EQ(run.status, 0) << qPrintable(run.err);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "ynsample: wdx00 wdx01 wfx00 under " + first.host() +
                           ": 6 source files, 240 records, 0 helper files with 0 records (seed 3)\n");
    ASSERT_EQ(runTool("ynsample", QStringList{second.root(), "--seed", "3"} + options).status, 0);
    ASSERT_EQ(runTool("ynsample", QStringList{other.root(), "--seed", "4"} + options).status, 0);

    QMap<QString, QByteArray> tree = treeOf(first.host());
    EXPECT_EQ(tree.keys(),
              (QStringList{"idxnd/wdx000000.yn", "idxnd/wdx000001.yn", "idxnd/wdx010000.yn", "idxnd/wdx010001.yn",
                           "idxnd/wfx000000.yn", "idxnd/wfx000001.yn", "idxval.ini", "wfx_idxval.ini"}));
    for (const QString& name : tree.keys().filter(".yn"))
        EXPECT_EQ(tree[name].size(), int(nxformat::kSourceHeadSize + 40 * nxformat::kRecordSize)) << qPrintable(name);
    // DB-COUNT = files + 1 merges every file; wfx00 alone reads its own file.
    EXPECT_EQ(tree["idxval.ini"], "[DB-COUNT]\nWDX00=3\nWDX01=3\n");
    EXPECT_EQ(tree["wfx_idxval.ini"], "[DB-COUNT]\nWFX00=3\n");
    EXPECT_EQ(tree, treeOf(second.host()));
    EXPECT_NE(tree["idxnd/wdx000000.yn"], treeOf(other.host())["idxnd/wdx000000.yn"]);
}

TEST(ToolsSample, ReportsLargeJobsAndRefusesWithOneLineWritingNothing)
{
    TempInstall install;
    // 18 million records over 256 buckets: about 70,000 in each.
    nxtest::Output big =
        runTool("ynsample", {install.root(), "--types", "wdx", "--files", "2", "--records", "9000000"});
    EXPECT_EQ(big.status, 1);
    EXPECT_TRUE(big.err.startsWith("ynsample: bucket ") && big.err.contains(" of wdx00 would hold ") &&
                big.err.endsWith("; nothing written\n") && big.err.count('\n') == 1)
        << qPrintable(big.err);
    EXPECT_TRUE(treeOf(install.host()).isEmpty());

    // A large job reports each source file; a second sample into the same root would mix with it.
    nxtest::Output large = runTool("ynsample", {install.root(), "--types", "wfx", "--records", "200000"});
    ASSERT_EQ(large.status, 0);
    EXPECT_EQ(large.err,
              "ynsample: wfx00: source file 1 of 3\nynsample: wfx00: source file 2 of 3\n"
              "ynsample: wfx00: source file 3 of 3\n");
    QMap<QString, QByteArray> before = treeOf(install.host());
    nxtest::Output again = runTool("ynsample", {install.root(), "--records", "10", "--seed", "2"});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, "ynsample: " + install.host() + "/idxnd already holds source files; choose another root\n");
    EXPECT_EQ(treeOf(install.host()), before);
}

// One line on stderr, nothing on stdout, nothing written.
TEST(ToolsCli, BothToolsRefuseBadArgumentsWithOneLine)
{
    nxtest::TempInstall install;
    // The tool and its arguments, split at spaces; "<root>" stands for the installation root, in the arguments and
    // the message.
    const struct {
        const char* call;
        int exitCode;
        const char* message;
    } calls[] = {
        {"ynsample", 2, "no ROOT given (ynsample --help shows the usage)"},
        {"ynsample <root> other", 2, "one ROOT only ('<root>' and 'other')"},
        {"ynsample <root> --files 1", 2, "--files wants a number from 2 to 9999, not '1'"},
        {"ynsample <root> --records=12x", 2, "--records wants a number from 1 to 16000000, not '12x'"},
        {"ynsample <root> --volumes 0", 2, "--volumes wants a number from 1 to 100, not '0'"},
        {"ynsample <root> --types wdx,wqx", 2, "unknown DB type 'wqx' (wdx, wfx or wgx)"},
        {"ynsample <root> --types wfx,wfx:2", 2, "DB type wfx given twice"},
        {"ynsample <root> --types wdx:0", 2, "the volume count of wdx wants a number from 1 to 100, not '0'"},
        {"ynsample <root> --types wdx:1:2", 2, "bad DB type 'wdx:1:2' (TYPE or TYPE:VOLUMES)"},
        {"ynsample <root> --seed -4", 2, "--seed wants an unsigned 64-bit number, not '-4'"},
        {"ynsample <root> --records", 2, "--records wants a value"},
        {"ynsample <root> --fast", 2, "unknown option --fast"},
        {"nxinspect", 2, "no command (nxinspect --help shows the usage)"},
        {"nxinspect check <root>", 2, "unknown command 'check' (summary, verify or lookup)"},
        {"nxinspect summary <root> more", 2, "unexpected argument 'more'"},
        {"nxinspect verify <root>/nowhere", 2, "no DB host directory at <root>/nowhere/db/txhost"},
        {"nxinspect lookup wdx00", 2, "lookup wants a database and a key: nxinspect lookup DB KEY [ROOT]"},
        {"nxinspect lookup wdx0 1 <root>", 2, "'wdx0' is not a database name such as wdx00"},
        {"nxinspect lookup wdx00 12345678a <root>", 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect lookup wdx00 0xg1 <root>", 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect lookup wdx00 -1 <root>", 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect lookup wdx00 1f <root>", 2, "no index of wdx00 under <root>/db/txhost"},
        {"nxinspect verify <root>", 1, "no indexed database under <root>/db/txhost"},
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(call.call);
        QStringList args = QString(call.call).split(' ').replaceInStrings("<root>", install.root());
        const QString tool = args.takeFirst();
        nxtest::Output run = nxtest::runTool(tool, args);
        EXPECT_EQ(run.status, call.exitCode);
        EXPECT_EQ(run.err, tool + ": " + QString(call.message).replace("<root>", install.root()) + "\n");
        EXPECT_EQ(run.out, "");
    }
    EXPECT_TRUE(nxtest::treeOf(install.root() + "/db").isEmpty());
}
