// nxindexer: one pass over every database under the DB host directory.
// Takes no arguments but --help and --version; everything a pass reports goes
// to its log file.
#include "Common.h"
#include "Logger.h"
#include "fileio.h"
#include "nxi.h"

#include <QCoreApplication>
#include <QDir>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

// The log line of a run that found another run at work.
constexpr const char* kRunLockHeld = "Error:Another run holds the lock of the following directory- %s";
constexpr const char* kRunLockFailed = "Error:Could not lock the following directory- %s";

QString logPath() { return Common::getRootPath() + "/logs/" + LOGGER::CLogger::programName() + ".log"; }

void printUsage()
{
    const QByteArray host = (Common::getDbPath() + "/txhost").toUtf8(), log = logPath().toUtf8();
    std::printf(
        "Usage: nxindexer [--help | --version]\n"
        "\n"
        "One pass of the database indexer over every database under\n"
        "  %s\n"
        "(wdx00, wdx01, ... up to the first missing volume, then wfx00, ...). For each\n"
        "database and bucket it merges the records of the source files (idxnd/*.yn)\n"
        "that are new since its last run with the bucket's helper file, writes the\n"
        "bucket's key, payload and entry files (idxn/<db>/, hl/<db>/hlp/), the status\n"
        "file <db>.sbf and the progress files (hl/<db>/<db>hl.ini, sbf_check_yn.ini),\n"
        "then exits with status 0. It pauses 50 ms before each of the 256 buckets.\n"
        "One run at a time: a run started while another one indexes does nothing.\n"
        "\n"
        "Everything a run reports goes to its log:\n"
        "  %s\n"
        "\n"
        "See nxindexer(8).\n",
        host.constData(), log.constData());
}

void printVersion()
{
    std::printf("nxindexer %s (built %s)\n", NXI_VERSION, Common::getBuildDateTime().toUtf8().constData());
}

// Two runs at once would interleave their rotations and status files and
// ruin the index for good, so a run holds a lock on the DB host directory
// itself for its whole pass (a lock file there would be one more entry for
// the components that list it). The lock ends with the process. Without a
// DB host directory there is nothing to protect, and the run finds nothing.
bool takeRunLock(const QString& hostPath, const char* reportAs)
{
    if (!QDir(hostPath).exists())
        return true;
    const Status locked = fileio::lockDirectory(hostPath);
    if (locked.isOk())
        return true;
    const QByteArray host = hostPath.toUtf8();
    const bool held = locked.code() == EWOULDBLOCK;
    LOGGER::CLogger::getInstance()->Error(reportAs, locked.code(), held ? kRunLockHeld : kRunLockFailed,
                                          host.constData());
    if (held)
        std::fprintf(stderr, "nxindexer: another run is indexing %s; this run does nothing\n", host.constData());
    else
        std::fprintf(stderr, "nxindexer: %s; this run does nothing\n", locked.toString().toUtf8().constData());
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    // Whatever the caller's umask, nothing the run creates is writable by others.
    ::umask(022);
    // The application object comes first: the logger names its file after the
    // first argument and the installation root is the application's directory.
    QCoreApplication application(argc, argv);
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "--version") == 0)) {
        std::strcmp(argv[1], "--help") == 0 ? printUsage() : printVersion();
        return 0;
    }
    LOGGER::CLogger::getInstance()->Info(
        __PRETTY_FUNCTION__, "--------------------------Build Date : 2024-12-12 04:30 PM ----------------------------");

    nxi indexer;
    if (takeRunLock(indexer.m_HostPath, __PRETTY_FUNCTION__))
        indexer.StartProcess();
    std::exit(0);
}
