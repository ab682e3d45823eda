// ynsample: the tree it writes, its determinism and its refusals.
#include "indexformat.h"
#include "tools_support.h"

#include <gtest/gtest.h>

using nxtest::readFile;
using nxtest::runTool;
using nxtest::TempInstall;
using nxtest::treeOf;

namespace {

const unsigned char* bytesOf(const QByteArray& bytes) { return reinterpret_cast<const unsigned char*>(bytes.constData()); }

// Checks a source file against the layout: whole records only, bucket starts
// ascending, and each record lying in the bucket its key byte 3 names.
void expectSourceLayout(const QString& path, int records)
{
    QByteArray file = readFile(path);
    ASSERT_EQ(file.size(), int(nxformat::kSourceHeadSize + nxformat::kRecordSize * records)) << qPrintable(path);
    auto start = [&](int bucket) {
        return bucket == 0 ? 0u
                           : bucket == nxformat::kBucketCount
                                 ? uint32_t(records)
                                 : nxformat::readLE32(bytesOf(file) + nxformat::bucketStartSlotOffset(bucket));
    };
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        ASSERT_LE(start(bucket), start(bucket + 1)) << "bucket " << bucket;
        for (uint32_t r = start(bucket); r < start(bucket + 1); ++r)
            EXPECT_EQ(bytesOf(file)[nxformat::sourceRecordOffset(r) + 3], bucket) << "record " << r;
    }
}

} // namespace

TEST(ToolsSample, WritesSourceFilesAndDbCountsOfEveryDatabase)
{
    TempInstall install;
    nxtest::ToolRun run = runTool("ynsample", {install.root(), "--types", "wdx:2,wfx", "--files=2", "--records",
                                                "40", "--seed", "3"});
    ASSERT_EQ(run.exitCode, 0) << qPrintable(run.err);
    EXPECT_EQ(run.err, "");
    EXPECT_EQ(run.out, "ynsample: wdx00 wdx01 wfx00 under " + install.host() +
                           ": 6 source files, 240 records, 0 helper files with 0 records (seed 3)\n");

    QMap<QString, QByteArray> tree = treeOf(install.host());
    EXPECT_EQ(tree.keys(), (QStringList{"idxnd/wdx000000.yn", "idxnd/wdx000001.yn", "idxnd/wdx010000.yn",
                                        "idxnd/wdx010001.yn", "idxnd/wfx000000.yn", "idxnd/wfx000001.yn",
                                        "idxval.ini", "wfx_idxval.ini"}));
    for (const QString& name : tree.keys())
        if (name.endsWith(".yn"))
            expectSourceLayout(install.host() + "/" + name, 40);
    // DB-COUNT = files + 1 merges every file; wfx00 alone reads its own file.
    EXPECT_EQ(tree["idxval.ini"], "[DB-COUNT]\nWDX00=3\nWDX01=3\n");
    EXPECT_EQ(tree["wfx_idxval.ini"], "[DB-COUNT]\nWFX00=3\n");
}

TEST(ToolsSample, SameSeedGivesTheSameTreeAndAnotherSeedAnother)
{
    TempInstall first, second, other;
    const QStringList options{"--types", "wdx,wfx:2", "--records", "500", "--helpers"};
    for (const TempInstall* install : {&first, &second})
        ASSERT_EQ(runTool("ynsample", QStringList{install->root(), "--seed", "77"} + options).exitCode, 0);
    ASSERT_EQ(runTool("ynsample", QStringList{other.root(), "--seed", "78"} + options).exitCode, 0);

    QMap<QString, QByteArray> tree = treeOf(first.host());
    int helperFiles = 0;
    for (const QString& name : tree.keys())
        helperFiles += name.startsWith("hl/") && name.endsWith(".hl") ? 1 : 0;
    EXPECT_GT(helperFiles, 3 * 200);  // 500 records leave few of a database's 256 buckets empty
    EXPECT_EQ(tree, treeOf(second.host()));
    QMap<QString, QByteArray> otherTree = treeOf(other.host());
    EXPECT_NE(tree["idxnd/wdx000000.yn"], otherTree["idxnd/wdx000000.yn"]);
    EXPECT_EQ(tree["idxval.ini"], otherTree["idxval.ini"]);
}

TEST(ToolsSample, RefusesWithOneLineAndWritesNothing)
{
    TempInstall install;
    // 18 million records over 256 buckets: about 70,000 in each.
    nxtest::ToolRun big = runTool("ynsample", {install.root(), "--types", "wdx", "--files", "2", "--records", "9000000"});
    EXPECT_EQ(big.exitCode, 1);
    EXPECT_TRUE(big.err.startsWith("ynsample: bucket ")) << qPrintable(big.err);
    EXPECT_TRUE(big.err.contains(" of wdx00 would hold ") && big.err.endsWith("; nothing written\n"));
    EXPECT_EQ(big.err.count('\n'), 1);
    EXPECT_TRUE(treeOf(install.host()).isEmpty());

    // A second sample into the same root would mix with the first.
    ASSERT_EQ(runTool("ynsample", {install.root(), "--records", "10"}).exitCode, 0);
    QMap<QString, QByteArray> before = treeOf(install.host());
    nxtest::ToolRun again = runTool("ynsample", {install.root(), "--records", "10", "--seed", "2"});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.err, "ynsample: " + install.host() + "/idxnd already holds source files; choose another root\n");
    EXPECT_EQ(treeOf(install.host()), before);
}

TEST(ToolsSample, ReportsEachSourceFileOfALargeJob)
{
    TempInstall install;
    nxtest::ToolRun run = runTool("ynsample", {install.root(), "--types", "wfx", "--records", "200000"});
    ASSERT_EQ(run.exitCode, 0);
    EXPECT_EQ(run.err, "ynsample: wfx00: source file 1 of 3\nynsample: wfx00: source file 2 of 3\n"
                       "ynsample: wfx00: source file 3 of 3\n");
}
