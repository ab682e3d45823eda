// ynsample: the tree it writes, its determinism, its progress and its refusals; bad command lines of both tools.
#include "indexformat.h"
#include "testsupport.h"

#include <gtest/gtest.h>

using nxtest::runTool;
using nxtest::TempInstall;
using nxtest::treeOf;

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
    // "<root>" stands for the installation root, in the arguments and the message.
    const struct {
        const char* tool;
        QStringList args;
        int exitCode;
        const char* message;
    } calls[] = {
        {"ynsample", {}, 2, "no ROOT given (ynsample --help shows the usage)"},
        {"ynsample", {"<root>", "other"}, 2, "one ROOT only ('<root>' and 'other')"},
        {"ynsample", {"<root>", "--files", "1"}, 2, "--files wants a number from 2 to 9999, not '1'"},
        {"ynsample", {"<root>", "--records=12x"}, 2, "--records wants a number from 1 to 16000000, not '12x'"},
        {"ynsample", {"<root>", "--volumes", "0"}, 2, "--volumes wants a number from 1 to 100, not '0'"},
        {"ynsample", {"<root>", "--types", "wdx,wqx"}, 2, "unknown DB type 'wqx' (wdx, wfx or wgx)"},
        {"ynsample", {"<root>", "--types", "wfx,wfx:2"}, 2, "DB type wfx given twice"},
        {"ynsample",
         {"<root>", "--types", "wdx:0"},
         2,
         "the volume count of wdx wants a number from 1 to 100, not '0'"},
        {"ynsample", {"<root>", "--types", "wdx:1:2"}, 2, "bad DB type 'wdx:1:2' (TYPE or TYPE:VOLUMES)"},
        {"ynsample", {"<root>", "--seed", "-4"}, 2, "--seed wants an unsigned 64-bit number, not '-4'"},
        {"ynsample", {"<root>", "--records"}, 2, "--records wants a value"},
        {"ynsample", {"<root>", "--fast"}, 2, "unknown option --fast"},
        {"nxinspect", {}, 2, "no command (nxinspect --help shows the usage)"},
        {"nxinspect", {"check", "<root>"}, 2, "unknown command 'check' (summary, verify or lookup)"},
        {"nxinspect", {"summary", "<root>", "more"}, 2, "unexpected argument 'more'"},
        {"nxinspect", {"verify", "<root>/nowhere"}, 2, "no DB host directory at <root>/nowhere/db/txhost"},
        {"nxinspect", {"lookup", "wdx00"}, 2, "lookup wants a database and a key: nxinspect lookup DB KEY [ROOT]"},
        {"nxinspect", {"lookup", "wdx0", "1", "<root>"}, 2, "'wdx0' is not a database name such as wdx00"},
        {"nxinspect",
         {"lookup", "wdx00", "12345678a", "<root>"},
         2,
         "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect",
         {"lookup", "wdx00", "0xg1", "<root>"},
         2,
         "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect",
         {"lookup", "wdx00", "-1", "<root>"},
         2,
         "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect", {"lookup", "wdx00", "1f", "<root>"}, 2, "no index of wdx00 under <root>/db/txhost"},
        {"nxinspect", {"verify", "<root>"}, 1, "no indexed database under <root>/db/txhost"},
    };
    for (const auto& call : calls) {
        QStringList args = call.args;
        args.replaceInStrings("<root>", install.root());
        nxtest::Output run = nxtest::runTool(call.tool, args);
        SCOPED_TRACE(qPrintable(call.tool + QString(" ") + args.join(' ')));
        EXPECT_EQ(run.status, call.exitCode);
        EXPECT_EQ(run.err, call.tool + QString(": ") + QString(call.message).replace("<root>", install.root()) + "\n");
        EXPECT_EQ(run.out, "");
    }
    EXPECT_TRUE(nxtest::treeOf(install.root() + "/db").isEmpty());
}
