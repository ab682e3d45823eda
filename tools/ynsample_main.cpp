// ynsample: writes a sample installation for nxindexer under an
// installation root. See usage() for the command line.
#include "ynsample.h"

#include "indexformat.h"

#include <QCoreApplication>
#include <QDir>

#include <cstdio>
#include <optional>

namespace {

constexpr int kMaxVolumes = 100;
constexpr int kMaxFiles = 9999;  // file numbers have four digits
constexpr int kMaxRecordsPerFile = 16000000;  // keeps a source file near 256 MB
// Jobs at least this large report each source file as it is written.
constexpr uint64_t kProgressThreshold = 500000;

const char kUsage[] =
    "usage: ynsample ROOT [--types LIST] [--volumes N] [--files N] [--records N]\n"
    "                [--helpers] [--seed S]\n"
    "\n"
    "Writes a sample installation for nxindexer under the installation root ROOT\n"
    "(ROOT/db/txhost): for every database its source files, whose records are\n"
    "spread at random over the 256 buckets (key byte 3 is the bucket), and the\n"
    "DB-COUNT values that make the indexer merge all of them.\n"
    "\n"
    "  --types LIST  DB types, each with an optional volume count: wdx:2,wfx:1\n"
    "                (default wdx,wfx; wgx is accepted but not indexed)\n"
    "  --volumes N   volumes of a type given without a count (default 1)\n"
    "  --files N     source files per database, at least 2, because the indexer\n"
    "                skips a newest volume that has only file 0000 (default 3)\n"
    "  --records N   records per source file (default 2000)\n"
    "  --helpers     also write a helper file for every bucket with records\n"
    "  --seed S      generator seed, decimal or 0x hex; equal options and seed\n"
    "                give equal bytes (default 1)\n"
    "\n"
    "The indexer pauses 50 ms before every bucket: 12.8 s per database.\n";

void fail(const QString& message) { fprintf(stderr, "ynsample: %s\n", qPrintable(message)); }

std::optional<qint64> parseNumber(const QString& text, qint64 min, qint64 max)
{
    bool ok = false;
    qint64 value = text.toLongLong(&ok, 10);
    if (!ok || value < min || value > max)
        return std::nullopt;
    return value;
}

QString numberError(const QString& option, const QString& text, qint64 min, qint64 max)
{
    return QString("%1 wants a number from %2 to %3, not '%4'").arg(option).arg(min).arg(max).arg(text);
}

// A command line that cannot be used; what says why.
Status invalid(const QString& what) { return Status::error(EINVAL, what); }

// "wdx:2,wfx" into types; a type without a count gets -1 (filled in later).
Status parseTypes(const QString& list, QVector<ynsample::TypeVolumes>* types)
{
    types->clear();
    for (const QString& item : list.split(',')) {
        QStringList parts = item.split(':');
        const QString& type = parts[0];
        if (type != "wdx" && type != "wfx" && type != "wgx")
            return invalid("unknown DB type '" + type + "' (wdx, wfx or wgx)");
        for (const ynsample::TypeVolumes& seen : *types)
            if (seen.type == type)
                return invalid("DB type " + type + " given twice");
        int volumes = -1;
        if (parts.size() > 2)
            return invalid("bad DB type '" + item + "' (TYPE or TYPE:VOLUMES)");
        if (parts.size() == 2) {
            std::optional<qint64> n = parseNumber(parts[1], 1, kMaxVolumes);
            if (!n)
                return invalid(numberError("the volume count of " + type, parts[1], 1, kMaxVolumes));
            volumes = int(*n);
        }
        types->append({type, volumes});
    }
    return Status::ok();
}

const QStringList kValueOptions{"--types", "--volumes", "--files", "--records", "--seed"};

struct Arguments {
    QString root;
    ynsample::SampleOptions options;
    bool help = false;
};

// Applies one option that takes a value.
Status applyOption(const QString& name, const QString& value, Arguments* args, int* volumes)
{
    if (name == "--types")
        return parseTypes(value, &args->options.types);
    if (name == "--seed") {
        bool ok = false;
        bool hex = value.startsWith("0x");
        args->options.seed = (hex ? value.mid(2) : value).toULongLong(&ok, hex ? 16 : 10);
        return ok ? Status::ok() : invalid("--seed wants an unsigned 64-bit number, not '" + value + "'");
    }
    struct Bounded {
        const char* name;
        int* target;
        int min;
        int max;
    };
    const Bounded bounded[] = {
        {"--volumes", volumes, 1, kMaxVolumes},
        {"--files", &args->options.files, 2, kMaxFiles},
        {"--records", &args->options.recordsPerFile, 1, kMaxRecordsPerFile},
    };
    for (const Bounded& option : bounded) {
        if (name != option.name)
            continue;
        std::optional<qint64> n = parseNumber(value, option.min, option.max);
        if (!n)
            return invalid(numberError(name, value, option.min, option.max));
        *option.target = int(*n);
    }
    return Status::ok();
}

Status parseArguments(const QStringList& list, Arguments* args)
{
    int volumes = 1;
    for (int i = 0; i < list.size(); ++i) {
        QString arg = list[i];
        if (arg == "--help" || arg == "-h") {
            args->help = true;
            return Status::ok();
        }
        if (arg == "--helpers") {
            args->options.helpers = true;
            continue;
        }
        if (!arg.startsWith("--")) {
            if (!args->root.isEmpty())
                return invalid("one ROOT only ('" + args->root + "' and '" + arg + "')");
            args->root = arg;
            continue;
        }
        int equals = arg.indexOf('=');
        QString name = equals < 0 ? arg : arg.left(equals);
        if (!kValueOptions.contains(name))
            return invalid("unknown option " + name);
        QString value;
        if (equals >= 0)
            value = arg.mid(equals + 1);
        else if (i + 1 < list.size())
            value = list[++i];
        else
            return invalid(name + " wants a value");
        const Status applied = applyOption(name, value, args, &volumes);
        if (!applied.isOk())
            return applied;
    }
    if (args->root.isEmpty())
        return invalid("no ROOT given (ynsample --help shows the usage)");
    for (ynsample::TypeVolumes& type : args->options.types)
        if (type.volumes < 0)
            type.volumes = volumes;
    return Status::ok();
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Arguments args;
    const Status parsed = parseArguments(app.arguments().mid(1), &args);
    if (!parsed.isOk()) {
        fail(parsed.what());
        return 2;
    }
    if (args.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    const ynsample::SampleOptions& options = args.options;
    if (std::optional<ynsample::OversizedBucket> big = ynsample::findOversizedBucket(options)) {
        fail(QString::asprintf(
            "bucket %02x of %s would hold %llu records, more than the %u an index "
            "bucket can hold; nothing written",
            big->bucket, qPrintable(big->db), (unsigned long long)big->records, unsigned(nxformat::kMaxBucketRecords)));
        return 1;
    }

    QString host = QDir(args.root).absolutePath() + "/db/txhost";
    QStringList databases = ynsample::databaseNames(options);
    uint64_t jobRecords = uint64_t(databases.size()) * uint64_t(options.files) * uint64_t(options.recordsPerFile);
    auto progress = [](const QString& line) { fprintf(stderr, "ynsample: %s\n", qPrintable(line)); };
    ynsample::SampleTotals totals;
    const Status written = ynsample::writeSample(
        options, host, &totals, jobRecords >= kProgressThreshold ? progress : std::function<void(const QString&)>());
    if (!written.isOk()) {
        fail(written.code() == EEXIST ? written.what() : written.toString());
        return 1;
    }
    printf(
        "ynsample: %s under %s: %d source files, %llu records, %d helper files with %llu records "
        "(seed %llu)\n",
        qPrintable(databases.join(' ')), qPrintable(host), totals.sourceFiles, (unsigned long long)totals.records,
        totals.helperFiles, (unsigned long long)totals.helperRecords, (unsigned long long)options.seed);
    return 0;
}
