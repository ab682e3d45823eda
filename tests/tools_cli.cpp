// Bad command lines of ynsample and nxinspect: one line on stderr, nothing on
// stdout, nothing written.
#include "testsupport.h"

#include <gtest/gtest.h>

TEST(ToolsCli, BothToolsRefuseBadArgumentsWithOneLine)
{
    nxtest::TempInstall install;
    // "<root>" stands for the installation root, in the arguments and the message.
    const struct { const char* tool; QStringList args; int exitCode; const char* message; } calls[] = {
        {"ynsample", {}, 2, "no ROOT given (ynsample --help shows the usage)"},
        {"ynsample", {"<root>", "other"}, 2, "one ROOT only ('<root>' and 'other')"},
        {"ynsample", {"<root>", "--files", "1"}, 2, "--files wants a number from 2 to 9999, not '1'"},
        {"ynsample", {"<root>", "--records=12x"}, 2, "--records wants a number from 1 to 16000000, not '12x'"},
        {"ynsample", {"<root>", "--volumes", "0"}, 2, "--volumes wants a number from 1 to 100, not '0'"},
        {"ynsample", {"<root>", "--types", "wdx,wqx"}, 2, "unknown DB type 'wqx' (wdx, wfx or wgx)"},
        {"ynsample", {"<root>", "--types", "wfx,wfx:2"}, 2, "DB type wfx given twice"},
        {"ynsample", {"<root>", "--types", "wdx:0"}, 2, "the volume count of wdx wants a number from 1 to 100, not '0'"},
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
        {"nxinspect", {"lookup", "wdx00", "12345678a", "<root>"}, 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect", {"lookup", "wdx00", "0xg1", "<root>"}, 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
        {"nxinspect", {"lookup", "wdx00", "-1", "<root>"}, 2, "the key must be a 32-bit hexadecimal number such as 3f07a1c2"},
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
