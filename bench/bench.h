#ifndef NXI_BENCH_H
#define NXI_BENCH_H

// What nxbench measures and its report.

#include <QString>
#include <QVector>

#include <optional>

namespace nxbench {

// What one run cost, as nxbenchrun measured it.
struct Cost {
    double cpu = 0;  // user + system, seconds
    double wall = 0;  // seconds
    double maxRssKiB = 0;
    double rchar = 0;  // bytes read through system calls
    double wchar = 0;  // bytes written through system calls
    double writeBytes = 0;  // bytes sent towards storage
};

// System calls of the program and its threads.
struct SyscallCounts {
    double total = 0;
    double syncs = 0;  // fsync, fdatasync, sync_file_range, syncfs, sync
};

enum Program { Indexer, Baseline, BaselineSync, ProgramCount };
inline constexpr const char* kProgramNames[] = {"indexer", "baseline", "baseline --sync"};

// A first run on files x records, or (again) a second run on that
// installation once indexed, with newFiles more source files; and its figures.
struct Case {
    Case(int files, int records, bool again = false, int newFiles = 0)
        : files(files), records(records), again(again), newFiles(newFiles)
    {}

    int files;
    int records;  // per source file
    bool again;
    int newFiles;
    QVector<Cost> costs[ProgramCount];
    std::optional<SyscallCounts> counts[ProgramCount];

    int filesMerged() const { return again ? newFiles : files; }
    QString id() const
    {
        return QString("%1x%2%3").arg(files).arg(records).arg(again ? "-again" + QString::number(newFiles) : "");
    }
    QString label() const
    {
        const QString size = QString("%1 x %2").arg(files).arg(records);
        return !again
                   ? size
                   : size + (newFiles == 0 ? ", again: nothing new" : QString(", again: %1 new files").arg(newFiles));
    }
};

// Markdown tables of medians and ratios, memory, I/O and system calls.
// runnerRssKiB is the peak RSS of a trivial program run the same way.
void printReport(const QVector<Case>& cases, int rounds, bool withSync, double runnerRssKiB);

}  // namespace nxbench

#endif
