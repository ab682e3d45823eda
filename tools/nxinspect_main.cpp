// nxinspect: shows, checks and searches the index that nxindexer wrote under
// an installation root. See kUsage for the command line.
#include "nxinspect.h"

#include "Common.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <cstdio>

namespace {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFindings = 1;  // violations found, or no record with the key
constexpr int kError = 2;  // bad arguments, unreadable or missing files

// verify prints this many violations of a database, then only their number.
constexpr int kShownViolations = 100;

const char kUsage[] =
    "usage: nxinspect summary [--json] [ROOT]\n"
    "       nxinspect verify [--json] [ROOT]\n"
    "       nxinspect lookup DB KEY [ROOT]\n"
    "\n"
    "  summary  per database: buckets and records indexed, index file sizes,\n"
    "           status file, SBF size record and progress marks\n"
    "  verify   checks every index file against the others, the status file and\n"
    "           its size record, and that no unfinished write was left behind;\n"
    "           names each violation and exits with 1 when there is any\n"
    "  lookup   prints every record of database DB (such as wdx00) whose key is\n"
    "           KEY, a 32-bit hexadecimal number (3f07a1c2 or 0x3f07a1c2), with\n"
    "           its payload; exits with 1 when there is none\n"
    "\n"
    "  --json   prints one JSON object instead: {\"databases\": [...]}, each\n"
    "           database with its name, buckets and records (and for verify\n"
    "           every violation with file, bucket, position, where, problem)\n"
    "\n"
    "ROOT is an installation root (its DB host directory is ROOT/db/txhost); by\n"
    "default the root this nxinspect is installed in. Exit status 2 means bad\n"
    "arguments or files that cannot be read.\n";

int fail(const QString& message)
{
    fprintf(stderr, "nxinspect: %s\n", qPrintable(message));
    return kError;
}

// The DB host directory of the given root, or of the installation.
bool findHost(const QStringList& rest, QString* host)
{
    *host = nxinspect::hostOf(rest.isEmpty() ? Common::getRootPath() : rest[0]);
    return QFileInfo(*host).isDir();
}

std::optional<uint32_t> parseKey(QString text)
{
    if (text.startsWith("0x") || text.startsWith("0X"))
        text = text.mid(2);
    bool ok = false;
    uint32_t key = text.toUInt(&ok, 16);
    if (!ok || text.isEmpty() || text.size() > 8 || text.contains('+') || text.contains('-'))
        return std::nullopt;
    return key;
}

void printJson(const QJsonArray& databases, const char* countName = nullptr, int count = 0)
{
    QJsonObject all{{"databases", databases}};
    if (countName)
        all.insert(countName, count);
    printf("%s", QJsonDocument(all).toJson(QJsonDocument::Indented).constData());
}

int runSummary(const QString& host, const QStringList& databases, bool json)
{
    QJsonArray objects;
    for (int i = 0; i < databases.size(); ++i) {
        const nxinspect::DatabaseSummary summary = nxinspect::summarizeDatabase(host, databases[i]);
        if (json)
            objects.append(nxinspect::toJson(summary));
        else
            printf("%s%s\n", i ? "\n" : "", qPrintable(nxinspect::formatSummary(summary)));
    }
    if (json)
        printJson(objects);
    return kOk;
}

int runVerify(const QString& host, const QStringList& databases, bool json)
{
    int violations = 0, brokenDatabases = 0;
    QJsonArray objects;
    for (const QString& db : databases) {
        const nxinspect::Verification verification = nxinspect::verifyDatabase(host, db);
        const QVector<nxinspect::Violation>& found = verification.violations;
        violations += found.size();
        brokenDatabases += found.isEmpty() ? 0 : 1;
        if (json) {
            objects.append(nxinspect::toJson(verification));
            continue;
        }
        if (found.isEmpty()) {
            printf("%s: ok\n", qPrintable(db));
            continue;
        }
        printf("%s: %d violation%s\n", qPrintable(db), int(found.size()), found.size() == 1 ? "" : "s");
        for (int i = 0; i < found.size() && i < kShownViolations; ++i)
            printf("  %s\n", qPrintable(found[i].text()));
        if (found.size() > kShownViolations)
            printf("  ... and %d more\n", int(found.size()) - kShownViolations);
    }
    if (json)
        printJson(objects, "violations", violations);
    else if (violations == 0)
        printf("verify: %d databases, no violations\n", int(databases.size()));
    else
        printf("verify: %d violations in %d of %d databases\n", violations, brokenDatabases, int(databases.size()));
    return violations == 0 ? kOk : kFindings;
}

int runLookup(const QString& host, const QString& db, uint32_t key)
{
    QVector<nxinspect::Match> matches;
    nxinspect::Index index;
    Status found = nxinspect::openIndex(host, db, &index);
    if (found.isOk())
        found = nxinspect::lookup(index.get(), key, &matches);
    if (!found.isOk())
        return fail(found.code() == EBADMSG ? found.what() : found.toString());
    for (const nxinspect::Match& match : matches)
        printf("%s bucket %02x position %d: key %08x payload %s\n", qPrintable(db), match.bucket, match.position,
               match.key, match.payload.toHex().constData());
    if (matches.isEmpty()) {
        fprintf(stderr, "nxinspect: no record with key %08x in %s\n", key, qPrintable(db));
        return kFindings;
    }
    return kOk;
}

}  // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    if (args.isEmpty())
        return fail("no command (nxinspect --help shows the usage)");
    QString command = args.takeFirst();
    if (command == "--help" || command == "-h" || command == "help") {
        fputs(kUsage, stdout);
        return kOk;
    }
    bool lookup = command == "lookup";
    if (command != "summary" && command != "verify" && !lookup)
        return fail("unknown command '" + command + "' (summary, verify or lookup)");
    const bool json = !lookup && args.removeAll("--json") > 0;
    QString db;
    std::optional<uint32_t> key;
    if (lookup) {
        if (args.size() < 2)
            return fail("lookup wants a database and a key: nxinspect lookup DB KEY [ROOT]");
        db = args.takeFirst();
        if (!nxinspect::isDatabaseName(db))
            return fail("'" + db + "' is not a database name such as wdx00");
        key = parseKey(args.takeFirst());
        if (!key)
            return fail("the key must be a 32-bit hexadecimal number such as 3f07a1c2");
    }
    if (args.size() > 1)
        return fail("unexpected argument '" + args[1] + "'");
    QString host;
    if (!findHost(args, &host))
        return fail("no DB host directory at " + host);

    if (lookup) {
        if (!QFileInfo(nxformat::indexDirPath(host, db)).isDir())
            return fail("no index of " + db + " under " + host);
        return runLookup(host, db, *key);
    }
    QStringList databases = nxinspect::indexedDatabases(host);
    if (databases.isEmpty()) {
        fprintf(stderr, "nxinspect: no indexed database under %s\n", qPrintable(host));
        return kFindings;
    }
    return command == "verify" ? runVerify(host, databases, json) : runSummary(host, databases, json);
}
