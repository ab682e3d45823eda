// nxbench: measures the real nxindexer, with its pause before every bucket
// removed, against nxbaseline, the least work that gives the same output.
//
//   nxbench [--rounds N] [--no-sync] [--no-strace] [--quick] [--keep] [--work DIR]
//
// It generates one-database installations of growing size with ynsample's
// library (16, 64 and 256 source files of 32,768 records; 64 files of 8,192
// and of 131,072 records; every installation with helper files and the
// DB-COUNT that merges every file) and two second runs on the indexed 64-file
// installation (nothing new; four new source files). In every round each
// case is run by the indexer, the baseline and the baseline with --sync, each
// on its own copy of the installation, in an order that alternates from round
// to round; after the runs the three output trees must be byte-identical. A
// counting pass under strace follows. The report (stdout) is Markdown; the
// progress goes to stderr.
//
// Exit status: 0 when every run succeeded and every output matched; 1 when a
// run failed or two outputs differ (the trees are kept for inspection);
// 2 on bad arguments.
#include "bench.h"

#include "commonfun.h"
#include "indexformat.h"
#include "ynsample.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <sys/vfs.h>
#include <memory>
#include <optional>

using namespace nxbench;

namespace {

const char* const kDatabase = "wdx00";

struct Options {
    int rounds = 3;
    bool sync = true;
    bool strace = true;
    bool quick = false;
    bool keep = false;
    QString work;
};

struct BenchCase {
    int files = 0;
    int records = 0;    // per source file
    bool again = false;  // a second run on the installation indexed with files x records
    int newFiles = 0;    // source files added before the second run
    QString id() const
    {
        return QString("%1x%2%3").arg(files).arg(records).arg(again ? QString("-again%1").arg(newFiles) : "");
    }
    QString label() const
    {
        QString text = QString("%1 x %2").arg(files).arg(records);
        if (again)
            text += newFiles == 0 ? ", again: nothing new" : QString(", again: %1 new files").arg(newFiles);
        return text;
    }
};

void progress(const QString& text)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
    std::fflush(stderr);
}

int usage()
{
    std::fprintf(stderr,
                 "usage: nxbench [--rounds N] [--no-sync] [--no-strace] [--quick] [--keep] [--work DIR]\n"
                 "  --rounds N   rounds of measured runs per case (default 3)\n"
                 "  --no-sync    leave out the baseline with --sync\n"
                 "  --no-strace  leave out the system call counting pass\n"
                 "  --quick      one small installation and its second runs (a check that the\n"
                 "               outputs match, not a measurement)\n"
                 "  --keep       keep the work directory\n"
                 "  --work DIR   work directory (default: a new one in /dev/shm, else in the\n"
                 "               temporary directory); on a disk, file creation and syncs cost\n"
                 "               what that disk makes them cost\n");
    return 2;
}

bool parseOptions(const QStringList& args, Options* options)
{
    for (int i = 1; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (arg == "--rounds" && i + 1 < args.size()) {
            bool ok = false;
            options->rounds = args[++i].toInt(&ok);
            if (!ok || options->rounds < 1 || options->rounds > 100)
                return false;
        } else if (arg == "--work" && i + 1 < args.size()) {
            options->work = args[++i];
        } else if (arg == "--no-sync") {
            options->sync = false;
        } else if (arg == "--no-strace") {
            options->strace = false;
        } else if (arg == "--quick") {
            options->quick = true;
        } else if (arg == "--keep") {
            options->keep = true;
        } else {
            return false;
        }
    }
    return true;
}

ynsample::SampleOptions sampleOptions(int files, int records)
{
    ynsample::SampleOptions options;
    options.types = {{"wdx", 1}};
    options.files = files;
    options.recordsPerFile = records;
    options.helpers = true;
    options.seed = 1;
    return options;
}

QString loadAverage()
{
    QFile file("/proc/loadavg");
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).section(' ', 0, 2) : QString("?");
}

// The kind of filesystem that holds path.
QString filesystemType(const QString& path)
{
    struct statfs info;
    if (::statfs(QFile::encodeName(path).constData(), &info) != 0)
        return "unknown filesystem";
    switch (static_cast<unsigned long>(info.f_type)) {
    case 0x01021994UL:
        return "tmpfs";
    case 0xEF53UL:
        return "ext2/3/4";
    case 0x58465342UL:
        return "xfs";
    case 0x9123683EUL:
        return "btrfs";
    default:
        return QString("filesystem 0x%1").arg(static_cast<unsigned long>(info.f_type), 0, 16);
    }
}

QString machineLine()
{
    QString model;
    QFile cpuinfo("/proc/cpuinfo");
    if (cpuinfo.open(QIODevice::ReadOnly))
        for (const QByteArray& line : cpuinfo.readAll().split('\n'))
            if (line.startsWith("model name")) {
                model = QString::fromUtf8(line.mid(line.indexOf(':') + 1)).trimmed();
                break;
            }
    return QString("%1 CPUs (%2), %3 %4")
        .arg(QThread::idealThreadCount())
        .arg(model.isEmpty() ? "unknown model" : model, QSysInfo::kernelType(), QSysInfo::kernelVersion());
}

class Bench
{
public:
    Bench(const Options& options, const QString& work) : m_Options(options), m_Work(work) {}
    int run();

private:
    QString prepareFirstRun(const BenchCase& benchCase);
    QString prepareSecondRun(const BenchCase& benchCase);
    QString root(Program program) const { return m_Work + "/r/" + QString(programName(program)).remove(' '); }
    QString host(Program program) const { return root(program) + "/db/txhost"; }
    Command command(Program program) const;
    bool clear(Program program) const;
    QString freshCopy(Program program, const QString& input);
    QString measure(Program program, const QString& input, Cost* cost);
    bool checkOutputs(const BenchCase& benchCase, int round, const QVector<Program>& programs);

    Options m_Options;
    QString m_Work;
    bool m_Mismatch = false;
};

QString Bench::prepareFirstRun(const BenchCase& benchCase)
{
    const QString input = m_Work + "/gen/" + benchCase.id();
    if (QFileInfo::exists(input))
        return input;
    const ynsample::SampleOptions options = sampleOptions(benchCase.files, benchCase.records);
    if (std::optional<ynsample::OversizedBucket> big = ynsample::findOversizedBucket(options))
        return QString("!bucket %1 of %2 would hold %3 records, more than an index bucket can")
            .arg(big->bucket, 2, 16, QChar('0'))
            .arg(big->db)
            .arg(big->records);
    progress(QString("generating %1 source files of %2 records").arg(benchCase.files).arg(benchCase.records));
    ynsample::SampleTotals totals;
    const Status written = ynsample::writeSample(options, input + "/db/txhost", &totals, {});
    return written.isOk() ? input : "!" + written.toString();
}

// The installation after a first run (indexed by the baseline, whose output
// the first-run case has checked against the indexer's), plus newFiles
// source files and the DB-COUNT that merges them.
QString Bench::prepareSecondRun(const BenchCase& benchCase)
{
    const QString input = m_Work + "/gen/" + benchCase.id();
    if (QFileInfo::exists(input))
        return input;
    BenchCase first = benchCase;
    first.again = false;
    first.newFiles = 0;
    const QString firstInput = prepareFirstRun(first);
    if (firstInput.startsWith('!'))
        return firstInput;
    const QString host = input + "/db/txhost";
    QString error = copyTree(firstInput + "/db/txhost", host);
    if (error.isEmpty())
        error = runProgram(NXBASELINE_PATH, {host});
    const ynsample::SampleOptions options = sampleOptions(benchCase.files + benchCase.newFiles, benchCase.records);
    if (ynsample::findOversizedBucket(options))
        return "!a bucket would hold more records than an index bucket can";
    for (int number = benchCase.files; number < benchCase.files + benchCase.newFiles && error.isEmpty(); ++number) {
        QFile file(nxformat::sourceFilePath(host, kDatabase, number));
        const QByteArray bytes = nxformat::buildSourceFile(ynsample::sourceBuckets(options, kDatabase, number));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
            error = "cannot write " + file.fileName();
    }
    if (error.isEmpty())
        commonfun::getInstance()->WritePrivateProfileString(nxformat::kDbCountSection, QString(kDatabase).toUpper(),
                                                            QString::number(ynsample::dbCountValue(options)),
                                                            nxformat::dbCountFilePath(host, kDatabase));
    return error.isEmpty() ? input : "!" + error;
}

Command Bench::command(Program program) const
{
    Command command;
    if (program == Indexer) {
        command.program = root(Indexer) + "/bin/nxindexer";
        // The pause goes; the syncs stay, to be counted and waited for.
        command.environment << QString("LD_PRELOAD=%1").arg(NXNOPAUSE_PATH) << "NXNOPAUSE_KEEP_SYNCS=1";
#ifdef __SANITIZE_ADDRESS__
        // The preloaded library comes before the sanitizer's runtime.
        const QString asan = qEnvironmentVariable("ASAN_OPTIONS");
        command.environment << "ASAN_OPTIONS=" + asan + (asan.isEmpty() ? "" : ":") + "verify_asan_link_order=0";
#endif
    } else {
        command.program = NXBASELINE_PATH;
        if (program == BaselineSync)
            command.args << "--sync";
        command.args << host(program);
    }
    return command;
}

// Removes what a program's last run left in its installation root.
bool Bench::clear(Program program) const
{
    return QDir(root(program) + "/db").removeRecursively() && QDir(root(program) + "/logs").removeRecursively();
}

// A program's installation root with a fresh copy of input's DB host directory.
QString Bench::freshCopy(Program program, const QString& input)
{
    if (!clear(program))
        return "cannot clear " + root(program);
    return copyTree(input + "/db/txhost", host(program));
}

QString Bench::measure(Program program, const QString& input, Cost* cost)
{
    QString error = freshCopy(program, input);
    if (error.isEmpty())
        error = runMeasured(NXBENCHRUN_PATH, command(program), m_Work + "/result", cost);
    return error;
}

// The baselines' trees against the indexer's. The trees of the first case
// with a mismatch are kept under <work>/mismatch.
bool Bench::checkOutputs(const BenchCase& benchCase, int round, const QVector<Program>& programs)
{
    QVector<Program> differing;
    for (Program program : programs) {
        if (program == Indexer)
            continue;
        const QStringList differences = compareTrees(host(Indexer), host(program), 10);
        if (differences.isEmpty())
            continue;
        differing << program;
        progress(QString("\n*** OUTPUT MISMATCH: %1, round %2: %3 differs from the indexer:")
                     .arg(benchCase.label())
                     .arg(round + 1)
                     .arg(programName(program)));
        for (const QString& difference : differences)
            progress("***   " + difference);
    }
    if (differing.isEmpty())
        return true;
    if (!m_Mismatch) {
        const QString kept = m_Work + "/mismatch/" + benchCase.id();
        QDir().mkpath(kept);
        differing.prepend(Indexer);
        for (Program program : differing)
            QDir().rename(host(program), kept + "/" + QString(programName(program)).remove(' '));
        progress("***   the trees are kept under " + kept + "\n");
    }
    m_Mismatch = true;
    return false;
}

int Bench::run()
{
    QElapsedTimer clock;
    clock.start();
    const QString loadAtStart = loadAverage();
    for (Program program : {Indexer, Baseline, BaselineSync})
        if (root(program).count('/') < 3) {
            progress("nxbench: the installation roots need at least three '/' in their path: " + root(program));
            return 2;
        }
    QString strace;
    if (m_Options.strace) {
        strace = QStandardPaths::findExecutable("strace");
        if (strace.isEmpty())
            progress("nxbench: strace not found; no system call counts");
    }

    // Two growth series around many files of records each, then the two
    // second runs. --quick keeps one first run and the second runs.
    QVector<BenchCase> cases;
    const int many = m_Options.quick ? 8 : 64;
    const int records = m_Options.quick ? 500 : 32768;
    if (!m_Options.quick) {
        cases.append({many / 4, records, false, 0});
        cases.append({many, records, false, 0});
        cases.append({many * 4, records, false, 0});
        cases.append({many, records / 4, false, 0});
        cases.append({many, records * 4, false, 0});
    } else {
        cases.append({many, records, false, 0});
    }
    cases.append({many, records, true, 0});
    cases.append({many, records, true, 4});

    QVector<CaseResult> results;
    QVector<QString> inputs;
    for (const BenchCase& benchCase : cases) {
        const QString input = benchCase.again ? prepareSecondRun(benchCase) : prepareFirstRun(benchCase);
        if (input.startsWith('!')) {
            progress("nxbench: " + benchCase.label() + ": " + input.mid(1));
            return 1;
        }
        inputs << input;
        CaseResult result;
        result.label = benchCase.label();
        result.files = benchCase.files + benchCase.newFiles;
        result.recordsPerFile = benchCase.records;
        result.filesMerged = benchCase.again ? benchCase.newFiles : benchCase.files;
        result.recordSeries = !benchCase.again && !m_Options.quick && benchCase.files == many;
        result.fileSeries = !benchCase.again && !m_Options.quick && benchCase.records == records;
        results << result;
    }
    progress(QString("installations ready after %1 s").arg(clock.elapsed() / 1000.0, 0, 'f', 1));

    const QString indexerCopy = root(Indexer) + "/bin/nxindexer";
    if (!QDir().mkpath(root(Indexer) + "/bin") || !QFile::copy(NXINDEXER_PATH, indexerCopy)) {
        progress("nxbench: cannot copy " + QString(NXINDEXER_PATH) + " to " + indexerCopy);
        return 1;
    }
    ReportOptions report;
    report.rounds = m_Options.rounds;
    report.withSync = m_Options.sync;
    report.withStrace = !strace.isEmpty();
    // The floor of the peak RSS figures: a trivial program run the same way.
    Cost trivial;
    const Command trueCommand{QStandardPaths::findExecutable("true"), {}, {}};
    if (!trueCommand.program.isEmpty() &&
        runMeasured(NXBENCHRUN_PATH, trueCommand, m_Work + "/result", &trivial).isEmpty())
        report.runnerRssKiB = trivial.maxRssKiB;

    QVector<Program> programs{Indexer, Baseline};
    if (m_Options.sync)
        programs << BaselineSync;
    bool failed = false;
    for (int round = 0; round < m_Options.rounds; ++round) {
        // The order alternates, so that neither program always runs first.
        QVector<Program> order = programs;
        if (round % 2)
            std::reverse(order.begin(), order.end());
        for (int c = 0; c < cases.size(); ++c) {
            QStringList line;
            for (Program program : order) {
                Cost cost;
                const QString error = measure(program, inputs[c], &cost);
                if (!error.isEmpty()) {
                    progress("nxbench: " + cases[c].label() + ": " + error);
                    return 1;
                }
                results[c].costs[program] << cost;
                line << QString("%1 %2 s").arg(programName(program)).arg(cost.cpu, 0, 'f', 3);
            }
            const bool same = checkOutputs(cases[c], round, programs);
            failed = failed || !same;
            progress(QString("round %1/%2, %3: CPU %4%5")
                         .arg(round + 1)
                         .arg(m_Options.rounds)
                         .arg(cases[c].label(), line.join(", "), same ? ", outputs identical" : ", OUTPUTS DIFFER"));
        }
    }

    for (int c = 0; c < cases.size() && !strace.isEmpty(); ++c) {
        for (Program program : programs) {
            QString error = freshCopy(program, inputs[c]);
            if (error.isEmpty())
                error = runCounted(strace, command(program), m_Work + "/strace.txt", &results[c].counts[program]);
            if (!error.isEmpty()) {
                progress("nxbench: strace pass, " + cases[c].label() + ": " + error);
                return 1;
            }
            results[c].counted[program] = true;
        }
        progress(QString("strace pass, %1: done").arg(cases[c].label()));
    }
    for (Program program : programs)
        clear(program);

    std::printf("Machine: %s; load average %s at the start, %s at the end. Work directory on %s, page cache warm; "
                "one database per installation, helper files included.\n\n",
                qPrintable(machineLine()), qPrintable(loadAtStart), qPrintable(loadAverage()),
                qPrintable(filesystemType(m_Work)));
    printReport(results, report);
    std::printf("\nBenchmark time: %.0f s.\n", clock.elapsed() / 1000.0);
    if (failed) {
        progress("\n*** nxbench: the baseline's output differs from the indexer's (see above); the work "
                 "directory is kept: " + m_Work);
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Options options;
    if (!parseOptions(application.arguments(), &options))
        return usage();

    std::unique_ptr<QTemporaryDir> temporary;
    QString work = options.work;
    if (work.isEmpty()) {
        // Memory by default: the programs' own work is measured, without the
        // disk's inode allocation and writeback, whose cost changes from run
        // to run with whatever else the disk has been doing.
        const QFileInfo shm("/dev/shm");
        const QString parent = shm.isDir() && shm.isWritable() ? shm.filePath() : QDir::tempPath();
        temporary = std::make_unique<QTemporaryDir>(parent + "/nxbench-XXXXXX");
        if (!temporary->isValid()) {
            progress("nxbench: cannot create a work directory in " + parent);
            return 1;
        }
        work = temporary->path();
    } else if (!QDir().mkpath(work)) {
        progress("nxbench: cannot create " + work);
        return 1;
    }
    work = QFileInfo(work).canonicalFilePath();

    Bench bench(options, work);
    const int status = bench.run();
    if (temporary)
        temporary->setAutoRemove(status == 0 && !options.keep);
    if (status != 0 || options.keep)
        progress("nxbench: work directory " + work);
    return status;
}
