// The real nxindexer where it is not alone: a second run, other users' files, shared directories, no log, --help.
#include "indexformat.h"
#include "testsupport.h"

#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using nxtest::Output;
using nxtest::TempInstall;

TEST(EndToEndField, AnotherRunAtWorkIsRefusedAndTheIndexIsOneRunsOwn)
{
    TempInstall reference;
    reference.addSample(3, 4);
    ASSERT_EQ(reference.runIndexer(), 0);
    // Two runs with the real pauses, the second started together with the first or a second into it.
    for (int secondAfterMs : {0, 1000}) {
        SCOPED_TRACE(secondAfterMs);
        TempInstall install;
        install.addSample(3, 4);
        QProcess runs[2];
        for (QProcess& process : runs) {
            process.setProcessEnvironment(install.indexerEnvironment({}, true));
            process.start(install.program(), QStringList());
            QThread::msleep(secondAfterMs);
        }
        const Output first = nxtest::finish(runs[0]), second = nxtest::finish(runs[1]);
        EXPECT_EQ(first.status, 0);
        EXPECT_EQ(second.status, 0);
        EXPECT_EQ(first.err + second.err,
                  "nxindexer: another run is indexing " + install.host() + "; this run does nothing\n");
        const QStringList log = install.logBodies();
        EXPECT_EQ(log.filter("[ERROR]  [main] :: [0x0000000B]: Error:Another run holds the lock of the following "
                             "directory- " +
                             install.host())
                      .size(),
                  1);
        EXPECT_EQ(log.filter("Indexing for DB - wdx00").size(), 1);
        EXPECT_EQ(nxtest::treeOf(install.host(), true), nxtest::treeOf(reference.host(), true));
    }
}

TEST(EndToEndField, NothingIsLeftThatOtherUsersCanWriteOrRunAsRoot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "planting another user's files needs root";
    TempInstall install;
    const QString progress = nxformat::helperProgressPath(install.host(), "wdx00");
    install.addSample(3, 4);
    // Another user's setuid files where the run saves its marks and builds its status file.
    for (const QString& path : {progress, nxformat::pendingStatusFilePath(install.host(), "wdx00")}) {
        nxtest::writeFile(path, "[hlpr]\n00=-1\n");
        ASSERT_EQ(::chown(path.toUtf8().constData(), 65534, 65534), 0);
        ASSERT_EQ(::chmod(path.toUtf8().constData(), 06777), 0);
    }
    const mode_t callersMask = ::umask(0);
    const int status = install.runIndexer();
    ::umask(callersMask);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(nxtest::readFile(progress).contains("=02\n")) << "the marks were saved";
    const QStringList entries = nxtest::treeOf(install.root(), true).keys();
    for (const QString& entry : entries) {
        const QByteArray path = (install.root() + "/" + entry).toUtf8();
        struct stat info;
        ASSERT_EQ(::lstat(path.constData(), &info), 0);
        EXPECT_EQ(info.st_uid, ::geteuid()) << path.constData();
        EXPECT_EQ(info.st_mode & (S_ISUID | S_ISGID | S_IWGRP | S_IWOTH), 0u)
            << path.constData() << " has mode " << std::oct << (info.st_mode & 07777);
    }
    EXPECT_GT(entries.size(), 20);
}

TEST(EndToEndField, NothingIsCreatedInWorldWritableDirectories)
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        GTEST_SKIP() << "needs strace (scripts/install-deps.sh installs it)";
    TempInstall install(NXTOOLS_DIR "/..");  // beside the build, out of /tmp where the checkout is elsewhere
    const QString host = install.host(), trace = install.root() + "/../strace.out";
    install.addSample(3, 4);
    // INI text that only QSettings reads and writes: a comment, a quoted count.
    nxtest::writeFile(host + "/idxval.ini", "; by hand\n[DB-COUNT]\nWDX00=\"4\"\n");
    nxtest::writeFile(nxformat::helperProgressPath(host, "wdx00"), "; by hand\n[hlpr]\n00=-1\n");
    QProcess process;  // the preloaded library is for the indexer, not for strace
    // LeakSanitizer cannot run under ptrace: a sanitized indexer is traced without it.
    QProcessEnvironment env = install.indexerEnvironment({"ASAN_OPTIONS=detect_leaks=0"});
    const QString preload = "LD_PRELOAD=" + env.value("LD_PRELOAD");
    env.remove("LD_PRELOAD");
    process.setProcessEnvironment(env);
    process.start("strace", {"-f", "-qq", "-o", trace, "-E", preload, "-e",
                             "trace=creat,open,openat,mkdir,mkdirat,rename,renameat,renameat2,link,linkat,symlink,"
                             "symlinkat,mknod,mknodat",
                             install.program()});
    const Output traced = nxtest::finish(process);
    ASSERT_EQ(traced.status, 0) << traced.err.toStdString();
    ASSERT_TRUE(nxtest::readFile(nxformat::helperProgressPath(host, "wdx00")).contains("=02\n"));
    QStringList created, inShared;
    for (const QString& call : QString::fromUtf8(nxtest::readFile(trace)).split('\n')) {
        const QString name = call.section(' ', 1).section('(', 0, 0);
        if (!(call.contains("O_CREAT") || (!name.startsWith("open") && !call.contains("= -1 "))))
            continue;
        created << call;
        // The test's own installation may itself lie under /tmp in a checkout there.
        if (call.contains(QRegularExpression("\"(/dev/shm|/tmp|/var/tmp)(/|\")")) && !call.contains(install.root()))
            inShared << call;
    }
    EXPECT_GT(created.filter("/logs/nxindexer-ini/").size(), 0) << "QSettings did its work in its own directory";
    EXPECT_TRUE(inShared.isEmpty()) << inShared.join('\n').toStdString();
}

TEST(EndToEndField, HelpVersionAndAnUnopenableLogAreToldOnTheTerminal)
{
    TempInstall install;
    install.addSample(3, 4);
    const auto before = nxtest::treeOf(install.root(), true);
    auto run = [&](const QStringList& args) {
        return nxtest::run(install.program(), args, {"LD_PRELOAD=" NXNOPAUSE_PATH});
    };
    const Output help = run({"--help"}), version = run({"--version"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: nxindexer [--help | --version]\n")) << help.out;
    EXPECT_TRUE(help.out.contains("\n  " + install.host() + "\n") && help.out.contains("\n  " + install.logPath()))
        << help.out;
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.startsWith("nxindexer " NXI_VERSION " (built 2")) << version.out;
    EXPECT_EQ(help.err + version.err, "");
    EXPECT_EQ(nxtest::treeOf(install.root(), true), before) << "--help and --version touch no file";

    nxtest::writeFile(install.root() + "/logs", "a file where the logs directory belongs");
    const Output unlogged = run({});
    EXPECT_EQ(unlogged.status, 0);
    EXPECT_EQ(unlogged.err.count("nxindexer: could not open the log file " + install.logPath() + ": Not a directory\n"),
              1)
        << unlogged.err;
}

}  // namespace
