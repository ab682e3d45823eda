// The real nxindexer under a full disk, planted entries and links, and the order in which data reaches the disk;
// and where it is not alone: a second run, other users' files, shared directories, no log, --help.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QThread>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

using nxtest::Output;
using nxtest::readFile;
using nxtest::TempInstall;

// wdx00 indexed once from files 0 and 1; file 2 is new for the run under test.
struct IndexedInstallation : TempInstall {
    const QString host = TempInstall::host(), progress = nxformat::helperProgressPath(host, "wdx00");
    const QString sizeRecord = nxformat::sbfSizeRecordPath(host);

    IndexedInstallation()
    {
        addSample(2, 3, 3);
        EXPECT_EQ(runIndexer(), 0);
        nxtest::writeSource(host, "wdx00", 2, nxtest::sampleSourceBuckets(2, 3));
        nxtest::writeDbCount(host, "/idxval.ini", "WDX00", 4);
        QFile::remove(logPath());
    }
    QString newBucket(int nth) const  // the nth bucket that file 2 adds records to
    {
        const QVector<QByteArray> buckets = nxtest::sampleSourceBuckets(2, 3);
        for (int bucket = 0; bucket < 256; ++bucket)
            if (!buckets[bucket].isEmpty() && nth-- == 0)
                return QString::asprintf("%02x", bucket);
        return QString();
    }
    int run(const QStringList& environment = {}) const { return runIndexer(environment, 60000); }
    QStringList errors(const QString& text) const { return logBodies().filter(text); }
};

QString errorLine(const QString& name, int code, const QString& message)
{
    return QString::asprintf("[ERROR]  [nxi::%s] :: [0x%08X]: ", qPrintable(name), code) + message;
}

TEST(EndToEndSafety, FullDiskAtAnIniSaveKeepsTheFileAndIsLogged)
{
    for (const char* reporter : {"Updateini", "StartIndexer"}) {
        IndexedInstallation db;
        const QString path = reporter == QString("Updateini") ? db.progress : db.sizeRecord;
        const QString message = "Error:WritePrivateProfileString failed for the following file- " + path;
        SCOPED_TRACE(path.toStdString());
        const QByteArray before = readFile(path);
        ASSERT_FALSE(before.isEmpty());
        ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=write",
                          "NXFAULT_MATCH=" + QFileInfo(path).fileName()}),
                  0);
        EXPECT_EQ(readFile(path), before);
        const QStringList lines = db.errors(message);
        ASSERT_FALSE(lines.isEmpty());
        for (const QString& line : lines)
            EXPECT_EQ(line, errorLine(reporter, ENOSPC, message));
        EXPECT_EQ(QDir(QFileInfo(path).path()).entryList({QFileInfo(path).fileName() + ".*"}, QDir::Files),
                  QStringList());
    }
}

TEST(EndToEndSafety, FullDiskAtTheNewStatusFileEndsTheRunWithALine)
{
    IndexedInstallation db;
    ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=close", "NXFAULT_MATCH=wdx00.sbftmp"}), 0);
    const QString path = nxformat::pendingStatusFilePath(db.host, "wdx00");
    EXPECT_EQ(db.errors("Error:fwrite failed"),
              QStringList{errorLine("StartIndexer", ENOSPC, "Error:fwrite failed for the following file- " + path)});
    EXPECT_FALSE(nxtest::exists(path));
    EXPECT_TRUE(db.errors("Indexing for DB - wdx00").isEmpty());
}

TEST(EndToEndSafety, EntriesAtTheOldLockNamesDoNotBlockASave)
{
    IndexedInstallation db;
    QDir().mkpath(db.sizeRecord + ".lock");
    nxtest::writeFile(db.progress + ".lock/inside", "x");
    ASSERT_EQ(db.run(), 0);  // -2 when it had not ended within the bound
    EXPECT_TRUE(readFile(db.progress).contains(("\n" + db.newBucket(0) + "=02\n").toUtf8()));
    EXPECT_TRUE(readFile(db.sizeRecord).contains("wdx00.sbf="));
}

// A link's target is never written or read and a line names each link; links that do not stop the run share one.
TEST(EndToEndSafety, SymbolicLinksAreNeverFollowed)
{
    const QString notOpenable = "Error:Could not open following file for writing- ";
    const QString refused = "Error:Refused the following file, not a regular file- ";
    struct Link {
        QString name;
        const char* reporter;
        QString message;
    };
    // %b: the bucket that file 2 adds records to at the link's place in its run.
    const QVector<QVector<Link>> runs = {
        {{"idxn/wdx00/%b.mnew", "WriteAllIndexing", notOpenable},
         {"idxn/wdx00/%b.dnew", "WriteAllIndexing", notOpenable},
         {"hl/wdx00/hlp/%b.hlnew", "WriteAllIndexing", "Error:Could not open following file for helper writing- "},
         {"hl/wdx00%b.hl", "AllocateIndexBuffer", refused},
         {"hl/wdx00/wdx00hl.ini", "getHlpINIData", "Error:Could not read the following file- "},
         {"sbf_check_yn.ini", "StartIndexer", "Error:WritePrivateProfileString failed for the following file- "}},
        {{"wdx00.sbftmp", "StartIndexer", notOpenable}},
        {{"idxval.ini", "GetValDBCount", refused}},
    };
    for (const QVector<Link>& links : runs) {
        SCOPED_TRACE(links.first().name.toStdString());
        IndexedInstallation db;
        QTemporaryDir outside;
        // Records a reader must never see in the index, in a file only its owner may read.
        const QByteArray secret = nxtest::makeRecord(0x00aa0000, 0x5ec2e7).repeated(4);
        const QString target = outside.filePath("secret");
        nxtest::writeFile(target, secret);
        QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner);
        QStringList paths;
        for (int i = 0; i < links.size(); ++i) {
            paths << db.host + "/" + QString(links[i].name).replace("%b", db.newBucket(i));
            QFile::remove(paths.last());
            ASSERT_TRUE(QFile::link(target, paths.last()));
        }
        ASSERT_EQ(db.run(), 0);
        EXPECT_EQ(readFile(target), secret);
        for (int i = 0; i < links.size(); ++i) {
            EXPECT_TRUE(QFileInfo(paths[i]).isSymLink());
            const QString message = links[i].message + paths[i];
            const QStringList lines = db.errors(message);
            ASSERT_FALSE(lines.isEmpty()) << message;
            if (links[i].message == refused)  // refused before open(2), which would have said ELOOP
                EXPECT_TRUE(lines.first().startsWith(QString("[ERROR]  [nxi::%1] :: ").arg(links[i].reporter)));
            else
                EXPECT_EQ(lines.first(), errorLine(links[i].reporter, ELOOP, message));
        }
        for (int bucket = 0; bucket < 256; ++bucket) {
            const QString entryFile = nxformat::entryDirPath(db.host, "wdx00") + QString::asprintf("/%02x.hl", bucket);
            EXPECT_FALSE(readFile(entryFile).contains(secret.left(16))) << bucket;
            EXPECT_FALSE(QFileInfo(entryFile).isSymLink());
        }
    }
}

// Every file is on disk before the rename that installs it, and a bucket's directories before its mark.
TEST(EndToEndSafety, DataReachesTheDiskBeforeItIsInstalledAndMarked)
{
    IndexedInstallation db;
    QTemporaryDir traceDir;
    const QString trace = traceDir.filePath("trace");
    ASSERT_EQ(db.run({"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_TRACE=" + trace}), 0);
    QSet<QString> synced;  // files and directories synced since their last change
    int installs = 0, marks = 0;
    for (const QString& call : QString::fromUtf8(readFile(trace)).split('\n', Qt::SkipEmptyParts)) {
        const QStringList words = call.split(' ');
        if (words[0] == "sync")
            synced.insert(words[1]);
        if (words[0] != "rename" || words.size() != 3 || !words[2].startsWith(db.host))
            continue;
        const QString from = words[1], to = words[2];
        if (from.endsWith("new") || from.endsWith(".sbftmp") || to.endsWith(".ini")) {
            EXPECT_TRUE(synced.contains(from)) << "installed before it was synced: " << call;
            ++installs;
        }
        if (to.endsWith("wdx00hl.ini")) {
            for (const QString& dir :
                 {nxformat::indexDirPath(db.host, "wdx00"), nxformat::entryDirPath(db.host, "wdx00")})
                EXPECT_TRUE(synced.contains(dir)) << "mark written before " << dir << " was synced";
            ++marks;
        }
        synced.remove(QFileInfo(to).path());  // a new name in that directory
    }
    EXPECT_GT(installs, 3 * 100);
    EXPECT_GT(marks, 100);
}

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
    ASSERT_TRUE(readFile(progress).contains("=02\n")) << "the marks were saved";
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
    ASSERT_TRUE(readFile(nxformat::helperProgressPath(host, "wdx00")).contains("=02\n"));
    QStringList created, inShared;
    for (const QString& call : QString::fromUtf8(readFile(trace)).split('\n')) {
        const QString name = call.simplified().section(' ', 1).section('(', 0, 0);  // strace pads short pids
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
