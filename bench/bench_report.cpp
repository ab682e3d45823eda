// The report: Markdown tables of medians and round-by-round ratios, memory,
// I/O and system calls.
#include "bench.h"

#include "indexformat.h"

#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

namespace nxbench {

namespace {

// The programs' names at the head of a column.
const char* const kTitles[] = {"Indexer", "Baseline", "Baseline --sync"};

struct Column {
    QString title;
    std::function<QString(const Case&)> cell;
};

double median(QVector<double> values)
{
    std::sort(values.begin(), values.end());
    const int n = int(values.size());
    return n == 0 ? NAN : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

double medianOf(const Case& c, Program p, double Cost::*field)
{
    QVector<double> values;
    for (const Cost& cost : c.costs[p])
        values << cost.*field;
    return median(values);
}

// The median of the round-by-round ratios of program a to program b.
double medianRatio(const Case& c, Program a, Program b, double Cost::*field)
{
    QVector<double> ratios;
    for (int i = 0; i < std::min(c.costs[a].size(), c.costs[b].size()); ++i)
        if (c.costs[b][i].*field > 0)
            ratios << c.costs[a][i].*field / c.costs[b][i].*field;
    return median(ratios);
}

QString number(double value, int decimals) { return std::isnan(value) ? "-" : QString::number(value, 'f', decimals); }

Column medianColumn(const QString& title, Program p, double Cost::*field, int decimals, double scale = 1)
{
    return {title, [=](const Case& c) { return number(medianOf(c, p, field) * scale, decimals); }};
}

Column ratioColumn(const QString& title, Program a, Program b, double Cost::*field)
{
    return {title, [=](const Case& c) { return number(medianRatio(c, a, b, field), 2); }};
}

Column countColumn(const QString& title, Program p, int decimals,
                   std::function<double(const Case&, const SyscallCounts&)> value)
{
    return {title, [=](const Case& c) { return c.counts[p] ? number(value(c, *c.counts[p]), decimals) : "-"; }};
}

// The first column is text, the others numbers.
void printTable(const QVector<Case>& cases, const QVector<Column>& columns)
{
    QStringList head, rule;
    for (const Column& column : columns) {
        head << column.title;
        rule << (rule.isEmpty() ? "---" : "---:");
    }
    std::printf("| %s |\n| %s |\n", qPrintable(head.join(" | ")), qPrintable(rule.join(" | ")));
    for (const Case& c : cases) {
        QStringList cells;
        for (const Column& column : columns)
            cells << column.cell(c);
        std::printf("| %s |\n", qPrintable(cells.join(" | ")));
    }
}

}  // namespace

void printReport(const QVector<Case>& cases, int rounds, bool withSync, double runnerRssKiB)
{
    std::printf(
        "CPU time (user + system) and wall time in seconds, medians of %d rounds; each ratio is the median "
        "of the round-by-round ratios indexer / baseline.\n\n",
        rounds);
    const Column label{"Case", [](const Case& c) { return c.label(); }};
    QVector<Column> times{
        label,
        {"Source records merged", [](const Case& c) { return QString::number(qint64(c.filesMerged()) * c.records); }},
        medianColumn("Indexer CPU", Indexer, &Cost::cpu, 3),
        medianColumn("Baseline CPU", Baseline, &Cost::cpu, 3),
        ratioColumn("**CPU ratio**", Indexer, Baseline, &Cost::cpu)};
    if (withSync)
        times << medianColumn("Baseline --sync CPU", BaselineSync, &Cost::cpu, 3)
              << ratioColumn("CPU ratio to --sync", Indexer, BaselineSync, &Cost::cpu);
    times << medianColumn("Indexer wall", Indexer, &Cost::wall, 3)
          << medianColumn("Baseline wall", Baseline, &Cost::wall, 3)
          << ratioColumn("Wall ratio", Indexer, Baseline, &Cost::wall);
    if (withSync)
        times << medianColumn("Baseline --sync wall", BaselineSync, &Cost::wall, 3);
    printTable(cases, times);

    std::printf(
        "\nPeak RSS (MiB; a trivial program measures %.1f MiB the same way), bytes read and written through "
        "system calls (MB, rchar and wchar of /proc/<pid>/io) and sent towards storage (MB, write_bytes), "
        "medians.\n\n",
        runnerRssKiB / 1024);
    QVector<Column> memory{label}, syscalls{label};
    for (Program p : {Indexer, Baseline}) {
        const QString name = kTitles[p];
        memory << medianColumn(name + " RSS", p, &Cost::maxRssKiB, 1, 1.0 / 1024)
               << medianColumn(name + " read", p, &Cost::rchar, 1, 1e-6)
               << medianColumn(name + " written", p, &Cost::wchar, 1, 1e-6)
               << medianColumn(name + " to storage", p, &Cost::writeBytes, 1, 1e-6);
        syscalls << countColumn(name + " calls", p, 0, [](const Case&, const SyscallCounts& n) { return n.total; })
                 << countColumn("per file per bucket", p, 2, [](const Case& c, const SyscallCounts& n) {
                        return c.filesMerged() > 0 ? n.total / (c.filesMerged() * double(nxformat::kBucketCount)) : NAN;
                    });
    }
    printTable(cases, memory);
    for (Program p : {Indexer, Baseline, BaselineSync})
        if (p != BaselineSync || withSync)
            syscalls << countColumn(QString(kTitles[p]) + " syncs", p, 0,
                                    [](const Case&, const SyscallCounts& n) { return n.syncs; });
    if (cases.first().counts[Indexer]) {
        std::printf(
            "\nSystem calls of one run under `strace -f -c` (start-up included); per source file per bucket "
            "= calls / (files merged x 256); syncs = fsync, fdatasync, sync_file_range, syncfs.\n\n");
        printTable(cases, syscalls);
    }
}

}  // namespace nxbench
