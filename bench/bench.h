#ifndef NXI_BENCH_H
#define NXI_BENCH_H

// The benchmark of nxindexer against nxbaseline: measured runs, the strace
// counting pass, installation trees, and the report.

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

namespace nxbench {

// ---- Runs ------------------------------------------------------------------
struct Command {
    QString program;
    QStringList args;
    QStringList environment;  // NAME=VALUE, added for the program only
};

// What one run cost, as nxbenchrun measured it.
struct Cost {
    double cpu = 0;   // user + system, seconds
    double wall = 0;  // seconds
    double maxRssKiB = 0;
    double rchar = 0;       // bytes read through system calls
    double wchar = 0;       // bytes written through system calls
    double writeBytes = 0;  // bytes sent towards storage (page cache writeback)
};

// Runs a program to its end with its output passed through. Returns an error
// text, empty when it exited with 0.
QString runProgram(const QString& program, const QStringList& args);

// Runs the command under nxbenchrun (runner), which writes its figures to
// resultFile. Returns an error text, empty when the program exited with 0.
QString runMeasured(const QString& runner, const Command& command, const QString& resultFile, Cost* cost);

// System calls by name over the program and its threads.
struct SyscallCounts {
    double total = 0;
    QMap<QString, double> calls;
    double syncs() const;  // fsync, fdatasync, sync_file_range, syncfs, sync
};

// Runs the command under "strace -f -c". Returns an error text, empty on success.
QString runCounted(const QString& strace, const Command& command, const QString& outputFile,
                   SyscallCounts* counts);

// ---- Installation trees ------------------------------------------------------
// Copies the tree at from to to (created). Source files (.yn) are hard links:
// neither program writes them. Every other file is copied, so that a run that
// replaces or rewrites it leaves the original alone. Returns an error text.
QString copyTree(const QString& from, const QString& to);

// The differences between two trees (entries present in one only, files whose
// bytes differ, with the first differing offset), at most limit of them.
QStringList compareTrees(const QString& expected, const QString& actual, int limit);

// ---- Report ------------------------------------------------------------------
enum Program { Indexer, Baseline, BaselineSync, ProgramCount };
const char* programName(Program program);

struct CaseResult {
    QString label;
    int files = 0;           // source files of the installation
    int recordsPerFile = 0;  // records per source file
    int filesMerged = 0;     // source files the run merges
    // First-run cases of the two growth series: records per file at a fixed
    // number of files, and source files at a fixed number of records.
    bool recordSeries = false;
    bool fileSeries = false;
    QVector<Cost> costs[ProgramCount];
    bool counted[ProgramCount] = {};
    SyscallCounts counts[ProgramCount];
};

struct ReportOptions {
    int rounds = 0;
    bool withSync = false;
    bool withStrace = false;
    double runnerRssKiB = 0;  // peak RSS of a trivial program under the runner
};

// Markdown tables of medians, ratios, memory, I/O, system calls and the fit.
void printReport(const QVector<CaseResult>& results, const ReportOptions& options);

double median(QVector<double> values);

} // namespace nxbench

#endif
