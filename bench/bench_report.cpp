// The report: Markdown tables of medians, round-by-round ratios, memory, I/O,
// system calls, and how CPU time grows with records and with source files.
#include "bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace nxbench {

namespace {

constexpr int kBuckets = 256;

QVector<double> valuesOf(const QVector<Cost>& costs, double Cost::*field)
{
    QVector<double> values;
    for (const Cost& cost : costs)
        values << cost.*field;
    return values;
}

double medianOf(const CaseResult& result, Program program, double Cost::*field)
{
    return median(valuesOf(result.costs[program], field));
}

// The median of the round-by-round ratios of program a to program b.
double medianRatio(const CaseResult& result, Program a, Program b, double Cost::*field)
{
    QVector<double> ratios;
    const int rounds = int(std::min(result.costs[a].size(), result.costs[b].size()));
    for (int i = 0; i < rounds; ++i)
        if (result.costs[b][i].*field > 0)
            ratios << result.costs[a][i].*field / result.costs[b][i].*field;
    return median(ratios);
}

QString seconds(double value) { return QString::number(value, 'f', 3); }
QString ratio(double value) { return std::isnan(value) ? QString("-") : QString::number(value, 'f', 2); }
QString mib(double kib) { return QString::number(kib / 1024, 'f', 1); }
QString megabytes(double bytes) { return QString::number(bytes / 1e6, 'f', 1); }
QString count(double value) { return QString::number(value, 'f', 0); }

void printRow(const QStringList& cells) { std::printf("| %s |\n", qPrintable(cells.join(" | "))); }

// A table head; the first textColumns columns are text, the others numbers.
void printHead(const QStringList& cells, int textColumns = 1)
{
    printRow(cells);
    QStringList rule;
    for (int i = 0; i < cells.size(); ++i)
        rule << (i < textColumns ? "---" : "---:");
    printRow(rule);
}

// Least-squares slope of log(y) against log(x): 1 for linear growth.
double logSlope(const QVector<double>& x, const QVector<double>& y)
{
    const int n = int(x.size());
    if (n < 2)
        return NAN;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int i = 0; i < n; ++i) {
        const double lx = std::log(x[i]);
        const double ly = std::log(y[i]);
        sx += lx;
        sy += ly;
        sxx += lx * lx;
        sxy += lx * ly;
    }
    const double denominator = n * sxx - sx * sx;
    return denominator == 0 ? NAN : (n * sxy - sx * sy) / denominator;
}

QString topCalls(const SyscallCounts& counts, int howMany)
{
    QVector<QPair<double, QString>> calls;
    for (auto it = counts.calls.begin(); it != counts.calls.end(); ++it)
        calls << qMakePair(it.value(), it.key());
    std::sort(calls.begin(), calls.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    QStringList text;
    for (int i = 0; i < std::min(howMany, int(calls.size())); ++i)
        text << QString("%1 %2").arg(calls[i].second, count(calls[i].first));
    return text.join(", ");
}

void printTimes(const QVector<CaseResult>& results, const ReportOptions& options)
{
    std::printf("CPU time (user + system) and wall time in seconds, medians of %d rounds; each ratio is the "
                "median of the round-by-round ratios indexer / baseline.\n\n",
                options.rounds);
    QStringList head{"Case", "Source records merged", "Indexer CPU", "Baseline CPU", "CPU ratio"};
    if (options.withSync)
        head << "Baseline --sync CPU" << "CPU ratio to --sync";
    head << "Indexer wall" << "Baseline wall" << "Wall ratio";
    if (options.withSync)
        head << "Baseline --sync wall";
    printHead(head);
    for (const CaseResult& r : results) {
        QStringList row{r.label, count(double(r.filesMerged) * r.recordsPerFile),
                        seconds(medianOf(r, Indexer, &Cost::cpu)), seconds(medianOf(r, Baseline, &Cost::cpu)),
                        "**" + ratio(medianRatio(r, Indexer, Baseline, &Cost::cpu)) + "**"};
        if (options.withSync)
            row << seconds(medianOf(r, BaselineSync, &Cost::cpu))
                << ratio(medianRatio(r, Indexer, BaselineSync, &Cost::cpu));
        row << seconds(medianOf(r, Indexer, &Cost::wall)) << seconds(medianOf(r, Baseline, &Cost::wall))
            << ratio(medianRatio(r, Indexer, Baseline, &Cost::wall));
        if (options.withSync)
            row << seconds(medianOf(r, BaselineSync, &Cost::wall));
        printRow(row);
    }
}

void printMemoryAndIo(const QVector<CaseResult>& results, const ReportOptions& options)
{
    std::printf("\nPeak resident memory (MiB; a trivial program measures %s MiB the same way), bytes read and "
                "written through system calls (MB, rchar and wchar of /proc/<pid>/io) and bytes sent towards "
                "storage (MB, write_bytes), medians.\n\n",
                qPrintable(mib(options.runnerRssKiB)));
    printHead({"Case", "Indexer RSS", "Baseline RSS", "Indexer read", "Baseline read", "Indexer written",
               "Baseline written", "Indexer to storage", "Baseline to storage"});
    for (const CaseResult& r : results)
        printRow({r.label, mib(medianOf(r, Indexer, &Cost::maxRssKiB)), mib(medianOf(r, Baseline, &Cost::maxRssKiB)),
                  megabytes(medianOf(r, Indexer, &Cost::rchar)), megabytes(medianOf(r, Baseline, &Cost::rchar)),
                  megabytes(medianOf(r, Indexer, &Cost::wchar)), megabytes(medianOf(r, Baseline, &Cost::wchar)),
                  megabytes(medianOf(r, Indexer, &Cost::writeBytes)),
                  megabytes(medianOf(r, Baseline, &Cost::writeBytes))});
}

void printSyscalls(const QVector<CaseResult>& results, const ReportOptions& options)
{
    std::printf("\nSystem calls of one run under `strace -f -c` (start-up included); per source file per bucket "
                "= calls / (files merged x 256); syncs = fsync + fdatasync (+ sync_file_range, syncfs) per "
                "database.\n\n");
    QStringList head{"Case", "Indexer calls", "per file per bucket", "Baseline calls", "per file per bucket",
                     "Indexer syncs", "Baseline syncs"};
    if (options.withSync)
        head << "Baseline --sync syncs";
    printHead(head);
    auto perFileBucket = [](const CaseResult& r, Program p) {
        return r.filesMerged > 0 && r.counted[p] ? ratio(r.counts[p].total / (double(r.filesMerged) * kBuckets))
                                                 : QString("-");
    };
    auto total = [](const CaseResult& r, Program p) { return r.counted[p] ? count(r.counts[p].total) : "-"; };
    auto syncs = [](const CaseResult& r, Program p) { return r.counted[p] ? count(r.counts[p].syncs()) : "-"; };
    for (const CaseResult& r : results) {
        QStringList row{r.label,         total(r, Indexer),  perFileBucket(r, Indexer), total(r, Baseline),
                        perFileBucket(r, Baseline), syncs(r, Indexer), syncs(r, Baseline)};
        if (options.withSync)
            row << syncs(r, BaselineSync);
        printRow(row);
    }
    std::printf("\nThe indexer's most frequent calls:\n\n");
    for (const CaseResult& r : results)
        if (r.counted[Indexer])
            std::printf("- %s: %s\n", qPrintable(r.label), qPrintable(topCalls(r.counts[Indexer], 8)));
}

// Least-squares line y = fixed + perUnit * x.
void lineFit(const QVector<double>& x, const QVector<double>& y, double* fixed, double* perUnit)
{
    const int n = int(x.size());
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int i = 0; i < n; ++i) {
        sx += x[i];
        sy += y[i];
        sxx += x[i] * x[i];
        sxy += x[i] * y[i];
    }
    const double denominator = n * sxx - sx * sx;
    *perUnit = n < 2 || denominator == 0 ? NAN : (n * sxy - sx * sy) / denominator;
    *fixed = std::isnan(*perUnit) ? NAN : (sy - *perUnit * sx) / n;
}

void printGrowth(const QVector<CaseResult>& results)
{
    std::printf("\nGrowth of CPU time over the first runs, per series: the least-squares slope of log(CPU) "
                "against log(size) (1.00 = linear, 2.00 = quadratic; below 1 while a fixed cost dominates), and "
                "the least-squares line CPU = fixed + rate x source records.\n\n");
    printHead({"Program", "Series", "log-log slope", "fixed s", "s per million records"}, 2);
    for (Program p : {Indexer, Baseline}) {
        for (bool CaseResult::*member : {&CaseResult::recordSeries, &CaseResult::fileSeries}) {
            const bool byRecords = member == &CaseResult::recordSeries;
            QVector<const CaseResult*> cases;
            for (const CaseResult& r : results)
                if (r.*member && medianOf(r, p, &Cost::cpu) > 0)
                    cases << &r;
            std::sort(cases.begin(), cases.end(), [&](const CaseResult* a, const CaseResult* b) {
                return byRecords ? a->recordsPerFile < b->recordsPerFile : a->files < b->files;
            });
            QVector<double> size, records, cpu;
            QStringList sizes;
            int fixedPart = 0;
            for (const CaseResult* r : cases) {
                size << (byRecords ? r->recordsPerFile : r->files);
                sizes << QString::number(byRecords ? r->recordsPerFile : r->files);
                fixedPart = byRecords ? r->files : r->recordsPerFile;
                records << double(r->filesMerged) * r->recordsPerFile / 1e6;
                cpu << medianOf(*r, p, &Cost::cpu);
            }
            if (size.size() < 2)
                continue;
            const QString format = byRecords ? "%1 records per file, %2 files" : "%1 files, %2 records each";
            const QString series = format.arg(sizes.join("/")).arg(fixedPart);
            double fixed = 0, rate = 0;
            lineFit(records, cpu, &fixed, &rate);
            printRow({programName(p), series, ratio(logSlope(size, cpu)), seconds(fixed), seconds(rate)});
        }
    }
    std::printf("\n");
    printHead({"Case", "Indexer ns per record", "Baseline ns per record"});
    for (const CaseResult& r : results) {
        if (!r.recordSeries && !r.fileSeries)
            continue;
        const double recordsMerged = double(r.filesMerged) * r.recordsPerFile;
        printRow({r.label, count(medianOf(r, Indexer, &Cost::cpu) / recordsMerged * 1e9),
                  count(medianOf(r, Baseline, &Cost::cpu) / recordsMerged * 1e9)});
    }
}

} // namespace

double median(QVector<double> values)
{
    if (values.isEmpty())
        return NAN;
    std::sort(values.begin(), values.end());
    const int n = int(values.size());
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

const char* programName(Program program)
{
    switch (program) {
    case Indexer:
        return "indexer";
    case Baseline:
        return "baseline";
    case BaselineSync:
        return "baseline --sync";
    case ProgramCount:
        break;
    }
    return "?";
}

void printReport(const QVector<CaseResult>& results, const ReportOptions& options)
{
    printTimes(results, options);
    printMemoryAndIo(results, options);
    if (options.withStrace)
        printSyscalls(results, options);
    if (std::any_of(results.begin(), results.end(), [](const CaseResult& r) { return r.recordSeries || r.fileSeries; }))
        printGrowth(results);
}

} // namespace nxbench
