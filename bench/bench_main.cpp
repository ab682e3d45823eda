// nxbench [--rounds N] [--no-sync] [--no-strace] [--quick] [--work DIR]
// measures the real nxindexer, its pause before every bucket removed, against
// nxbaseline, the least work that gives the same output: the report (Markdown)
// on stdout, the progress on stderr. Exit status: 0 when every run succeeded and
// every output matched, 1 otherwise (the work directory is kept), 2 on bad usage.
#include "bench.h"

#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "ynsample.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

using namespace nxbench;

namespace {

const char* const kDatabase = "wdx00";

struct Options {
    int rounds;
    bool sync, strace, quick;
    QString work;  // empty: a new directory in memory
};

struct Command {
    QString program;
    QStringList args;
    QStringList environment;  // NAME=VALUE, for the program only
};

void progress(const QString& text) { std::fprintf(stderr, "%s\n", qPrintable(text)); }

std::optional<Options> parseOptions(const QStringList& args)
{
    QCommandLineParser parser;
    parser.addOptions(
        {{"rounds", "Rounds of measured runs per case.", "N", "3"},
         {"no-sync", "Leave out the baseline with --sync."},
         {"no-strace", "Leave out the system call counting pass."},
         {"quick", "One small installation and its second runs: a check, not a measurement."},
         {"work", "Work directory (default: a new one in /dev/shm, else in the temporary directory).", "DIR"}});
    bool numeric = false;
    const bool parsed = parser.parse(args) && parser.positionalArguments().isEmpty();
    const Options options{parser.value("rounds").toInt(&numeric), !parser.isSet("no-sync"), !parser.isSet("no-strace"),
                          parser.isSet("quick"), parser.value("work")};
    if (!parsed || !numeric || options.rounds < 1 || options.rounds > 100) {
        std::fputs(qPrintable(parser.helpText()), stderr);
        return std::nullopt;
    }
    return options;
}

QString loadAverage()
{
    QFile file("/proc/loadavg");
    return file.open(QIODevice::ReadOnly) ? QString(file.readAll()).section(' ', 0, 2) : QString("?");
}

// Runs a program to its end, its output passed on to stderr (stdout is the
// report's); an error unless it exits with 0.
Status runProgram(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    if (!process.waitForStarted(-1))
        return Status::error(ENOEXEC, "start " + program + " (" + process.errorString() + ")");
    process.waitForFinished(-1);
    std::fputs(process.readAll().constData(), stderr);
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return Status::error(ECHILD, QString("run %1 (exit status %2)").arg(program).arg(process.exitCode()));
    return Status::ok();
}

// Runs the command under nxbenchrun, which writes "name value" lines to
// resultFile, and adds what the run cost to costs.
Status runMeasured(const Command& command, const QString& resultFile, QVector<Cost>* costs)
{
    QByteArray text;
    Status status = runProgram(
        NXBENCHRUN_PATH, QStringList{resultFile} << command.environment << "--" << command.program << command.args);
    if (status.isOk())
        status = fileio::readAll(resultFile, 1 << 16, &text);
    if (!status.isOk())
        return status;
    QMap<QString, double> values;
    for (const QByteArray& line : text.split('\n'))
        if (const QList<QByteArray> fields = QByteArray(line).replace(':', ' ').simplified().split(' ');
            fields.size() == 2)
            values[fields[0]] = fields[1].toDouble();
    const int wait = int(values.value("status", -1));
    if (!WIFEXITED(wait) || WEXITSTATUS(wait) != 0)
        return Status::error(ECHILD, QString("run %1 (wait status %2)").arg(command.program).arg(wait));
    *costs << Cost{(values["user_us"] + values["sys_us"]) / 1e6,
                   values["wall_ns"] / 1e9,
                   values["maxrss_kib"],
                   values["rchar"],
                   values["wchar"],
                   values["write_bytes"]};
    return Status::ok();
}

// Runs the command under strace -f -c, which writes its summary to outputFile.
Status runCounted(const QString& strace, const Command& command, const QString& outputFile,
                  std::optional<SyscallCounts>* counts)
{
    QStringList args{"-f", "-c", "-o", outputFile};
    for (const QString& assignment : command.environment)
        args << "-E" << assignment;
    QByteArray text;
    Status status = runProgram(strace, args << "--" << command.program << command.args);
    if (status.isOk())
        status = fileio::readAll(outputFile, 1 << 20, &text);
    if (!status.isOk())
        return status;
    // The summary's rows end with "calls [errors] name"; the last is the total.
    const QRegularExpression row(R"(^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:\d+\s+)?(\w+)\s*$)");
    const QSet<QString> syncs{"fsync", "fdatasync", "sync_file_range", "syncfs", "sync"};
    SyscallCounts found;
    for (const QString& line : QString::fromUtf8(text).split('\n')) {
        const QRegularExpressionMatch match = row.match(line);
        const double calls = match.captured(1).toDouble();
        if (match.captured(2) == "total")
            found.total = calls;
        else if (syncs.contains(match.captured(2)))
            found.syncs += calls;
    }
    *counts = found;
    return found.total > 0 ? Status::ok() : Status::error(EINVAL, "read the strace summary " + outputFile);
}

// Copies the tree at from to to, every file a copy of its own: a source file
// with a second link would be checked at every use (see sourcefiles.h).
Status copyTree(const QString& from, const QString& to)
{
    if (!QDir().mkpath(to))
        return Status::error(EIO, "create " + to);
    // A directory comes before what it holds.
    QDirIterator it(from, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString source = it.next(), target = to + source.mid(from.size());
        if (it.fileInfo().isDir() ? !QDir().mkpath(target) : !QFile::copy(source, target))
            return Status::fromErrno("copy " + source + " to " + target);
    }
    return Status::ok();
}

class Bench
{
public:
    Bench(const Options& options, const QString& work) : m_Options(options), m_Work(work) {}
    Status run();

private:
    Status prepare(const Case& c, QString* input) const;
    Status prepareAll();
    QString root(Program program) const { return m_Work + "/r/" + QString(kProgramNames[program]).remove(' '); }
    QString host(Program program) const { return root(program) + "/db/txhost"; }
    Command command(Program program) const;
    Status freshCopy(Program program, const QString& input) const;
    Status compareOutputs(const Case& c) const;
    Status runRound(int round, const QString& strace);

    const Options m_Options;
    const QString m_Work;
    QVector<Program> m_Programs;
    QVector<Case> m_Cases;
    QStringList m_Inputs;
};

// The case's installation under <work>/gen, made once. A second run's is the
// first run's indexed by the baseline (whose output the first-run case checks
// against the indexer's), with its new files and the DB-COUNT that merges them.
Status Bench::prepare(const Case& c, QString* input) const
{
    *input = m_Work + "/gen/" + c.id();
    const QString host = *input + "/db/txhost";
    const ynsample::SampleOptions options{{{"wdx", 1}}, c.files + c.newFiles, c.records, /*helpers=*/true};
    if (QFileInfo::exists(*input))
        return Status::ok();
    if (ynsample::findOversizedBucket(options))
        return Status::error(EFBIG, "generate " + c.label() + " (a bucket would pass 65,535 records)");
    if (!c.again) {
        progress(QString("generating %1 source files of %2 records").arg(c.files).arg(c.records));
        ynsample::SampleTotals totals;
        return ynsample::writeSample(options, host, &totals, {});
    }
    QString first;
    Status status = prepare({c.files, c.records}, &first);
    if (status.isOk())
        status = copyTree(first + "/db/txhost", host);
    if (status.isOk())
        status = runProgram(NXBASELINE_PATH, {host});
    for (int number = c.files; number < c.files + c.newFiles && status.isOk(); ++number)
        status = fileio::writeNewFile(nxformat::sourceFilePath(host, kDatabase, number),
                                      nxformat::buildSourceFile(ynsample::sourceBuckets(options, kDatabase, number)));
    if (status.isOk() &&
        !commonfun::getInstance()->WritePrivateProfileString(nxformat::kDbCountSection, QString(kDatabase).toUpper(),
                                                             QString::number(ynsample::dbCountValue(options)),
                                                             nxformat::dbCountFilePath(host, kDatabase)))
        status = Status::error(EIO, "write the DB-COUNT of " + host);
    return status;
}

// The cases and their installations, and the indexer copied into its root:
// 16, 64 and 256 files of 32,768 records, 64 files of 8,192 and of 131,072,
// then the two second runs (--quick: one small first run and its second runs).
Status Bench::prepareAll()
{
    const int many = m_Options.quick ? 8 : 64, records = m_Options.quick ? 500 : 32768;
    if (!m_Options.quick)
        m_Cases << Case{many / 4, records} << Case{many, records} << Case{many * 4, records} << Case{many, records / 4}
                << Case{many, records * 4};
    else
        m_Cases << Case{many, records};
    m_Cases << Case{many, records, true, 0} << Case{many, records, true, 4};
    m_Programs = {Indexer, Baseline};
    if (m_Options.sync)
        m_Programs << BaselineSync;
    for (const Case& c : m_Cases) {
        QString input;
        if (const Status prepared = prepare(c, &input); !prepared.isOk())
            return prepared;
        m_Inputs << input;
    }
    const QString indexer = root(Indexer) + "/bin/nxindexer";
    if (!QDir().mkpath(root(Indexer) + "/bin") || !QFile::copy(NXINDEXER_PATH, indexer))
        return Status::error(EIO, "copy " + QString(NXINDEXER_PATH) + " to " + indexer);
    return Status::ok();
}

Command Bench::command(Program program) const
{
    if (program != Indexer)
        return {
            NXBASELINE_PATH, (program == BaselineSync ? QStringList{"--sync"} : QStringList()) << host(program), {}};
    // The pause goes; the syncs stay, to be counted and waited for.
    QStringList environment{QString("LD_PRELOAD=") + NXNOPAUSE_PATH, "NXNOPAUSE_KEEP_SYNCS=1"};
#ifdef __SANITIZE_ADDRESS__
    // The preloaded library comes before the sanitizer's runtime.
    const QString asan = qEnvironmentVariable("ASAN_OPTIONS");
    environment << "ASAN_OPTIONS=" + asan + (asan.isEmpty() ? "" : ":") + "verify_asan_link_order=0";
#endif
    return {root(Indexer) + "/bin/nxindexer", {}, environment};
}

// Clears what the program's last run left in its installation root and,
// unless input is empty, copies input's DB host directory there.
Status Bench::freshCopy(Program program, const QString& input) const
{
    if (!QDir(root(program) + "/db").removeRecursively() || !QDir(root(program) + "/logs").removeRecursively())
        return Status::error(EIO, "clear " + root(program));
    return input.isEmpty() ? Status::ok() : copyTree(input + "/db/txhost", host(program));
}

// The baselines' trees against the indexer's, byte for byte: diff names the
// files that differ.
Status Bench::compareOutputs(const Case& c) const
{
    for (Program program : m_Programs)
        if (program != Indexer && !runProgram("diff", {"-r", "--brief", host(Indexer), host(program)}).isOk())
            return Status::error(EINVAL, QString("check %1: the output of %2 differs from the indexer's in %3/r")
                                             .arg(c.label(), kProgramNames[program], m_Work));
    return Status::ok();
}

// One round: every case run by every program, each on its own copy, in an
// order that alternates with the rounds; measured, or counted under strace.
Status Bench::runRound(int round, const QString& strace)
{
    QVector<Program> order = m_Programs;
    if (round % 2)
        std::reverse(order.begin(), order.end());
    for (int c = 0; c < m_Cases.size(); ++c) {
        QStringList line;
        for (Program program : order) {
            Case& measured = m_Cases[c];
            Status status = freshCopy(program, m_Inputs[c]);
            if (status.isOk())
                status = strace.isEmpty()
                             ? runMeasured(command(program), m_Work + "/result", &measured.costs[program])
                             : runCounted(strace, command(program), m_Work + "/strace.txt", &measured.counts[program]);
            if (!status.isOk())
                return status;
            if (strace.isEmpty())
                line << QString("%1 %2 s")
                            .arg(kProgramNames[program])
                            .arg(measured.costs[program].last().cpu, 0, 'f', 3);
        }
        if (const Status same = compareOutputs(m_Cases[c]); !same.isOk())
            return same;
        progress(
            QString("%1, %2: %3, outputs identical")
                .arg(strace.isEmpty() ? QString("round %1/%2").arg(round + 1).arg(m_Options.rounds) : "strace pass")
                .arg(m_Cases[c].label(), strace.isEmpty() ? "CPU " + line.join(", ") : "counted"));
    }
    return Status::ok();
}

Status Bench::run()
{
    QElapsedTimer clock;
    clock.start();
    const QString loadAtStart = loadAverage();
    const QString strace = m_Options.strace ? QStandardPaths::findExecutable("strace") : QString();
    if (m_Options.strace && strace.isEmpty())
        progress("nxbench: strace not found; no system call counts");
    // The floor of the peak RSS figures: a trivial program run the same way.
    QVector<Cost> trivial;
    Status status = prepareAll();
    if (status.isOk())
        status = runMeasured({QStandardPaths::findExecutable("true"), {}, {}}, m_Work + "/result", &trivial);
    for (int round = 0; round < m_Options.rounds && status.isOk(); ++round)
        status = runRound(round, QString());
    if (status.isOk() && !strace.isEmpty())
        status = runRound(0, strace);
    if (!status.isOk())
        return status;
    for (Program program : m_Programs)
        freshCopy(program, QString());
    std::printf(
        "Machine: %d CPUs, %s %s; load average %s at the start, %s at the end. Work directory on %s, page "
        "cache warm; one database per installation, helper files included.\n\n",
        QThread::idealThreadCount(), qPrintable(QSysInfo::kernelType()), qPrintable(QSysInfo::kernelVersion()),
        qPrintable(loadAtStart), qPrintable(loadAverage()), QStorageInfo(m_Work).fileSystemType().constData());
    printReport(m_Cases, m_Options.rounds, m_Options.sync, trivial.first().maxRssKiB);
    std::printf("\nBenchmark time: %.0f s.\n", clock.elapsed() / 1000.0);
    return Status::ok();
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const std::optional<Options> options = parseOptions(application.arguments());
    if (!options)
        return 2;
    // In memory by default: the programs' own work is measured, without the
    // disk's inode allocation and writeback, whose cost varies from run to run.
    const QString parent = QFileInfo("/dev/shm").isWritable() ? QString("/dev/shm") : QDir::tempPath();
    std::unique_ptr<QTemporaryDir> temporary;
    if (options->work.isEmpty())
        temporary = std::make_unique<QTemporaryDir>(parent + "/nxbench-XXXXXX");
    if (temporary ? !temporary->isValid() : !QDir().mkpath(options->work)) {
        progress("nxbench: cannot create a work directory");
        return 1;
    }
    const QString work = QFileInfo(temporary ? temporary->path() : options->work).canonicalFilePath();
    const Status status = Bench(*options, work).run();
    if (!status.isOk())
        progress("nxbench: " + status.toString());
    if (temporary && !status.isOk()) {
        temporary->setAutoRemove(false);
        progress("nxbench: work directory kept: " + work);
    }
    return status.isOk() ? 0 : 1;
}
