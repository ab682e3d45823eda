// Bad command lines of ynsample and nxinspect: one line on stderr, exit
// status 2, nothing written.
#include "tools_support.h"

#include <gtest/gtest.h>

using nxtest::runTool;
using nxtest::TempInstall;

namespace {

struct BadCall {
    QStringList args;  // "<root>" stands for the test's installation root
    const char* message;
};

void expectRefused(const char* tool, const BadCall& call, const TempInstall& install)
{
    QStringList args;
    for (const QString& arg : call.args)
        args << QString(arg).replace("<root>", install.root());
    nxtest::ToolRun run = runTool(tool, args);
    EXPECT_EQ(run.exitCode, 2) << qPrintable(args.join(' '));
    EXPECT_EQ(run.err, QString(tool) + ": " + QString(call.message).replace("<root>", install.root()) + "\n");
    EXPECT_EQ(run.out, "");
}

} // namespace

TEST(ToolsCli, YnsampleRefusesBadArguments)
{
    TempInstall install;
    const BadCall calls[] = {
        {{}, "no ROOT given (ynsample --help shows the usage)"},
        {{"<root>", "other"}, "one ROOT only ('<root>' and 'other')"},
        {{"<root>", "--files", "1"}, "--files wants a number from 2 to 9999, not '1'"},
        {{"<root>", "--records=12x"}, "--records wants a number from 1 to 16000000, not '12x'"},
        {{"<root>", "--volumes", "0"}, "--volumes wants a number from 1 to 100, not '0'"},
        {{"<root>", "--types", "wdx,wqx"}, "unknown DB type 'wqx' (wdx, wfx or wgx)"},
        {{"<root>", "--types", "wfx,wfx:2"}, "DB type wfx given twice"},
        {{"<root>", "--types", "wdx:0"}, "the volume count of wdx wants a number from 1 to 100, not '0'"},
        {{"<root>", "--types", "wdx:1:2"}, "bad DB type 'wdx:1:2' (TYPE or TYPE:VOLUMES)"},
        {{"<root>", "--seed", "-4"}, "--seed wants an unsigned 64-bit number, not '-4'"},
        {{"<root>", "--records"}, "--records wants a value"},
        {{"<root>", "--fast"}, "unknown option --fast"},
    };
    for (const BadCall& call : calls)
        expectRefused("ynsample", call, install);
    EXPECT_TRUE(nxtest::treeOf(install.root() + "/db").isEmpty());
}

TEST(ToolsCli, NxinspectRefusesBadArguments)
{
    TempInstall install;
    const BadCall calls[] = {
        {{}, "no command (nxinspect --help shows the usage)"},
        {{"check", "<root>"}, "unknown command 'check' (summary, verify or lookup)"},
        {{"summary", "<root>", "more"}, "unexpected argument 'more'"},
        {{"verify", "<root>/nowhere"}, "no DB host directory at <root>/nowhere/db/txhost"},
        {{"lookup", "wdx00"}, "lookup wants a database and a key: nxinspect lookup DB KEY [ROOT]"},
        {{"lookup", "wdx0", "1", "<root>"}, "'wdx0' is not a database name such as wdx00"},
        {{"lookup", "wdx1234567", "1", "<root>"}, "'wdx1234567' is not a database name such as wdx00"},
        {{"lookup", "wdx00", "12345678a", "<root>"}, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {{"lookup", "wdx00", "0xg1", "<root>"}, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {{"lookup", "wdx00", "-1", "<root>"}, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {{"lookup", "wdx00", "1f", "<root>"}, "no index of wdx00 under <root>/db/txhost"},
    };
    for (const BadCall& call : calls)
        expectRefused("nxinspect", call, install);

    // An installation without any index: nothing to show or check.
    for (const char* command : {"summary", "verify"}) {
        nxtest::ToolRun run = runTool("nxinspect", {command, install.root()});
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_EQ(run.err, "nxinspect: no indexed database under " + install.host() + "\n");
    }
}
