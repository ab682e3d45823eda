// The real nxindexer on an endpoint, where it is not alone: a second run while one indexes, other users' files
// and umask, world-writable directories, a log it cannot open, and a caller who asks for help. (Power cuts that
// drop new directories are in the fault sweep.)
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDirIterator>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>
#include <gtest/gtest.h>

#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using nxtest::TempInstall;

// wdx00, closed by wdx01, of three source files that DB-COUNT 4 merges whole.
void addDatabases(const QString& host)
{
    for (int f = 0; f < 3; ++f)
        nxtest::writeSource(host, "wdx00", f, nxtest::sampleSourceBuckets(f, 5));
    nxtest::writeSource(host, "wdx01", 0, nxtest::sampleSourceBuckets(0, 6));
    nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 4);
}

// Every entry under dir, by relative path: a file's bytes, "<dir>" for a directory.
QMap<QString, QByteArray> treeUnder(const QString& dir)
{
    QMap<QString, QByteArray> tree;
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        tree[QDir(dir).relativeFilePath(path)] = it.fileInfo().isDir() ? "<dir>" : nxtest::readFile(path);
    }
    return tree;
}

struct Output {
    int status = -1;
    QString out, err;
};

Output finish(QProcess& process)
{
    Output output;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit)
        output.status = process.exitCode();
    output.out = QString::fromUtf8(process.readAllStandardOutput());
    output.err = QString::fromUtf8(process.readAllStandardError());
    return output;
}

Output run(const QString& program, const QStringList& args, const QProcessEnvironment& env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, args);
    return finish(process);
}

TEST(EndToEndField, AnotherRunAtWorkIsRefusedAndTheIndexIsOneRunsOwn)
{
    TempInstall reference;
    addDatabases(reference.host());
    ASSERT_EQ(reference.runIndexer(), 0);

    // Two runs started together, and a second one started a second into a run, with the real pauses.
    const int secondAfterMs[] = {0, 1000};
    std::unique_ptr<TempInstall> installs[2];
    QProcess runs[2][2];
    for (int c = 0; c < 2; ++c) {
        installs[c] = std::make_unique<TempInstall>();
        addDatabases(installs[c]->host());
        for (QProcess& process : runs[c])
            process.setProcessEnvironment(installs[c]->indexerEnvironment({}, true));
    }
    runs[0][0].start(installs[0]->root() + "/bin/nxindexer", QStringList());
    runs[0][1].start(installs[0]->root() + "/bin/nxindexer", QStringList());
    runs[1][0].start(installs[1]->root() + "/bin/nxindexer", QStringList());
    QThread::msleep(secondAfterMs[1]);
    runs[1][1].start(installs[1]->root() + "/bin/nxindexer", QStringList());

    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(QString("second run after %1 ms").arg(secondAfterMs[c]).toStdString());
        const QString host = installs[c]->host();
        const Output first = finish(runs[c][0]), second = finish(runs[c][1]);
        EXPECT_EQ(first.status, 0);
        EXPECT_EQ(second.status, 0);
        const QString refused = "nxindexer: another run is indexing " + host + "; this run does nothing\n";
        EXPECT_EQ(QStringList({first.err, second.err}).filter(refused).size(), 1);
        EXPECT_TRUE(first.err.isEmpty() || second.err.isEmpty()) << (first.err + second.err).toStdString();
        const QStringList log = installs[c]->logBodies();
        EXPECT_EQ(log.filter("[ERROR]  [main] :: [0x0000000B]: Error:Another run holds the lock of the following "
                             "directory- " + host).size(), 1);
        EXPECT_EQ(log.filter("Indexing for DB - wdx00").size(), 1);
        EXPECT_EQ(treeUnder(host), treeUnder(reference.host()));
    }
}

TEST(EndToEndField, NothingIsLeftThatOtherUsersCanWriteOrRunAsRoot)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "planting another user's files needs root";
    TempInstall install;
    const QString host = install.host(), progress = nxformat::helperProgressPath(host, "wdx00");
    addDatabases(host);
    // Another user's setuid files where the run saves its marks and builds its status file.
    const QString planted[] = {progress, nxformat::pendingStatusFilePath(host, "wdx00")};
    for (const QString& path : planted) {
        nxtest::writeFile(path, "[hlpr]\n00=-1\n");
        ASSERT_EQ(::chown(path.toUtf8().constData(), 65534, 65534), 0);
        ASSERT_EQ(::chmod(path.toUtf8().constData(), 06777), 0);
    }
    const mode_t callersMask = ::umask(0);
    const int status = install.runIndexer();
    ::umask(callersMask);
    ASSERT_EQ(status, 0);
    ASSERT_TRUE(nxtest::readFile(progress).contains("=02\n")) << "the marks were saved";

    QDirIterator it(install.root(), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    int entries = 0;
    while (it.hasNext()) {
        const QByteArray path = it.next().toUtf8();
        struct stat info;
        ASSERT_EQ(::lstat(path.constData(), &info), 0);
        EXPECT_EQ(info.st_uid, ::geteuid()) << path.constData();
        EXPECT_EQ(info.st_mode & (S_ISUID | S_ISGID | S_IWGRP | S_IWOTH), 0u)
            << path.constData() << " has mode " << std::oct << (info.st_mode & 07777);
        ++entries;
    }
    EXPECT_GT(entries, 20);
}

TEST(EndToEndField, NothingIsCreatedInWorldWritableDirectories)
{
    if (QStandardPaths::findExecutable("strace").isEmpty())
        GTEST_SKIP() << "needs strace (scripts/install-deps.sh installs it)";
    TempInstall install(NXTOOLS_DIR "/..");  // beside the build, out of /tmp where the checkout is elsewhere
    const QString host = install.host();
    addDatabases(host);
    // INI text that only QSettings reads and writes: a comment, a quoted count.
    nxtest::writeFile(host + "/idxval.ini", "; by hand\n[DB-COUNT]\nWDX00=\"4\"\n");
    nxtest::writeFile(nxformat::helperProgressPath(host, "wdx00"), "; by hand\n[hlpr]\n00=-1\n");
    const QString trace = install.root() + "/../strace.out";
    QProcessEnvironment env = install.indexerEnvironment({});
    const QString preload = "LD_PRELOAD=" + env.value("LD_PRELOAD");  // for the indexer, not for strace
    env.remove("LD_PRELOAD");
    const Output traced = run("strace", {"-f", "-qq", "-o", trace, "-E", preload, "-e",
                                         "trace=creat,open,openat,mkdir,mkdirat,rename,renameat,renameat2,link,"
                                         "linkat,symlink,symlinkat,mknod,mknodat",
                                         install.root() + "/bin/nxindexer"},
                              env);
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
    addDatabases(install.host());
    const QString root = install.root(), program = root + "/bin/nxindexer";
    const QMap<QString, QByteArray> before = treeUnder(root);
    const QProcessEnvironment env = install.indexerEnvironment({});

    const Output help = run(program, {"--help"}, env), version = run(program, {"--version"}, env);
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.startsWith("Usage: nxindexer [--help | --version]\n")) << help.out.toStdString();
    EXPECT_TRUE(help.out.contains("\n  " + install.host() + "\n") && help.out.contains("\n  " + install.logPath()))
        << help.out.toStdString();
    EXPECT_EQ(version.status, 0);
    EXPECT_TRUE(version.out.startsWith("nxindexer " NXI_VERSION " (built 2")) << version.out.toStdString();
    EXPECT_EQ(help.err + version.err, "");
    EXPECT_EQ(treeUnder(root), before) << "--help and --version touch no file";

    nxtest::writeFile(root + "/logs", "a file where the logs directory belongs");
    const Output unlogged = run(program, {}, env);
    EXPECT_EQ(unlogged.status, 0);
    EXPECT_EQ(unlogged.err.count("nxindexer: could not open the log file " + install.logPath() + ": Not a directory\n"), 1)
        << unlogged.err.toStdString();
}

} // namespace
