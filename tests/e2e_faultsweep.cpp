// The real nxindexer failing, killed or cut off by a power cut at the N-th call of each family of file operations,
// and killed at random moments: what each run leaves, and a clean run after it, match an uninterrupted run but for
// the losses the design accepts. doc/testing.md describes the sweep and holds its figures.
#include "indexformat.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

namespace {

using nxformat::Generation;
using nxformat::IndexFile;
using nxtest::readFile;
using nxtest::sampleRecord;
using Tree = QMap<QString, QByteArray>;  // every entry under the DB host directory, "<dir>" for a directory

int setting(const char* name, int fallback)
{
    bool ok = false;
    const int value = qEnvironmentVariable(name).toInt(&ok);
    return ok && value >= 0 ? value : fallback;
}

const char* const kDb = "wdx00";
const int kBuckets[] = {0x00, 0x01, 0x02, 0x03};  // the only buckets with records
constexpr int kHelperBucket = 0x01;
constexpr int kNewMark = 2;  // DB-COUNT 4 merges up to file 2
// Not the indexer's data: its log, and Qt's lock files beside the INI scratch files (and what names the host).
const char* const kNotCounted = "NXFAULT_SKIP=/logs/nxindexer.log:.ini.lock:/proc/:/var/lib/dbus/:/etc/";
// The N-th call fails, kills the run, or cuts the power there: a kill that drops the index's new directories not yet
// on disk while the progress file's stay, the worst a power cut can do to the marks.
enum class Action { Fail, Kill, PowerCut };
const QStringList kFamilies = {"open", "write", "close", "read", "rename", "unlink", "mkdir", "sync"};
const struct {
    const char *settings, *sweep, *verb;
} kActions[] = {{"NXFAULT_ACTION=fail", "fault sweep", "failed"},
                {"NXFAULT_ACTION=kill", "kill sweep", "kill at"},
                {"NXFAULT_ACTION=powercut\nNXFAULT_DROP=/idxn:/hlp", "power cut sweep", "power cut at"}};

// Records of source file f in bucket b (none of file 2 in 02); no key is 0, so none ties with a short read's zeros.
QByteArray sourceRecords(int file, int bucket)
{
    QByteArray records;
    for (int i = 0; file * 10 + bucket != 22 && i < 1 + (file + bucket) % 2; ++i)
        records += sampleRecord(bucket, uint32_t(100 * file + i + 1));
    return records;
}
QByteArray helperRecords()
{
    return sampleRecord(kHelperBucket, 900) + sampleRecord(kHelperBucket, 901) + sampleRecord(kHelperBucket, 902);
}

void restore(const Tree& tree, const QString& host)
{
    QDir(host).removeRecursively();
    QDir().mkpath(host);
    for (auto it = tree.cbegin(); it != tree.cend(); ++it)
        it.value() == "<dir>" ? void(QDir(host).mkpath(it.key()))
                              : nxtest::writeFile(host + "/" + it.key(), it.value());
}

QString joined(const QMap<QString, int>& counts, const char* format, const char* separator)
{
    QStringList text;
    for (auto it = counts.cbegin(); it != counts.cend(); ++it)
        text << QString(format).arg(it.key()).arg(it.value());
    return text.join(separator);
}

// A version of a bucket's key, payload and entry files and status block; loss empty for the uninterrupted run's.
struct Version {
    QByteArray files[3], block;
    QString loss;
};

// What was done to a run (family empty for a kill at a random moment), and what it did.
struct Case {
    QString what, family;
    QStringList path;  // the failed call's path (and target)
    bool kill = false, hit = false;  // hit: the N-th call came, or a soak run ended before its kill
    int exitCode = 0;  // -2: killed at the time limit
    QStringList errors;  // ERROR lines beyond the normal course of a run
};

struct Figures {
    int injected = 0, defects = 0, losses = 0, silent = 0, leftovers = 0;
    QMap<QString, int> kinds;  // of the prescribed losses and allowed silences
    void add(const Figures& o)
    {
        injected += o.injected, defects += o.defects, losses += o.losses, silent += o.silent, leftovers += o.leftovers;
        for (auto it = o.kinds.cbegin(); it != o.kinds.cend(); ++it)
            kinds[it.key()] += it.value();
    }
    QString text(bool withKinds = true) const
    {
        return QString::asprintf(
                   "injected %d, survived %d, defects %d, prescribed losses %d, silent-but-allowed %d, "
                   "left files behind %d\n",
                   injected, injected - defects, defects, losses, silent, leftovers) +
               (kinds.isEmpty() || !withKinds ? QString() : "  (" + joined(kinds, "%2 %1", "; ") + ")\n");
    }
};

class Sweep
{
public:
    explicit Sweep(bool existingIndex) : m_Existing(existingIndex)
    {
        QDir().mkpath(m_Install.root() + "/logs");  // the log always has a place
        auto addSource = [&](int f) {
            QVector<QByteArray> buckets(256);
            for (int b : kBuckets)
                buckets[b] = sourceRecords(f, b);
            nxtest::writeSource(m_Host, kDb, f, buckets);
        };
        addSource(0), addSource(1);
        nxtest::writeSource(m_Host, "wdx01", 0, QVector<QByteArray>(256, sampleRecord(7, 7)));
        nxtest::writeFile(nxformat::helperFilePath(m_Host, kDb, kHelperBucket), helperRecords());
        if (existingIndex) {
            nxtest::writeDbCount(m_Host, "/idxval.ini", "WDX00", 3);
            EXPECT_EQ(m_Install.runIndexer(), 0);
        }
        addSource(2);
        nxtest::writeDbCount(m_Host, "/idxval.ini", "WDX00", 4);
        QFile::remove(m_Install.logPath());
        m_Start = nxtest::treeOf(m_Host, true);
        m_OldMarks = marksOf(m_Start);
        for (int b : kBuckets)
            m_Versions[b] = versions(b);

        EXPECT_EQ(m_Install.runIndexer({}, 30000), 0);
        m_Reference = nxtest::treeOf(m_Host, true);
        m_Normal = errorLines();
        const QRegularExpression normal(
            ":: (In StartIndexer|DB count to be indexed is zero!|"
            "Error:Could not get \\.yn files for following indexer type- )");
        for (const QString& line : m_Normal)
            EXPECT_TRUE(normal.match(line).hasMatch()) << line.toStdString();
        QStringList losses;
        const QStringList wrong =
            checkAfterRun(m_Reference, Case(), &losses) + checkFinal(m_Reference, Case(), &losses) + losses;
        EXPECT_TRUE(wrong.isEmpty()) << "uninterrupted run: " << wrong.join("; ").toStdString();
    }

    // At the N-th call of each family: every N up to NXSWEEP_DENSE, then every NXSWEEP_STRIDE-th, and the last
    // NXSWEEP_DENSE; NXSWEEP_ONLY=family:N runs one case and shows its log's error lines.
    Figures sweep(Action action, const QStringList& families = kFamilies)
    {
        const bool kill = action != Action::Fail;
        const long dense = setting("NXSWEEP_DENSE", 48), stride = qMax(1, setting("NXSWEEP_STRIDE", 8));
        const long maxN = setting("NXSWEEP_MAX_N", 0);
        const QStringList only = qEnvironmentVariable("NXSWEEP_ONLY").split(':');
        const bool one = only.size() == 2;
        const char* const mode = kActions[int(action)].sweep;
        Figures total;
        for (const QString& family : families) {
            if (one && only[0] != family)
                continue;
            const QStringList base =
                QStringList{"LD_PRELOAD=" NXFAULTINJECT_PATH, "NXFAULT_FAMILY=" + family, kNotCounted} +
                QString(kActions[int(action)].settings).split('\n');
            Case none;
            const long calls = run(base + QStringList{"NXFAULT_NTH=1000000000"}, &none);
            Figures figures;
            long n = one ? only[1].toLong() : 1, last = 0;
            for (; !maxN || n <= maxN; n = n < dense || n >= calls - dense ? n + 1 : qMin(n + stride, calls - dense)) {
                Case c;
                c.family = family, c.kill = kill;
                run(base + QStringList{QString("NXFAULT_NTH=%1").arg(n)}, &c);
                if (!c.hit)
                    break;  // the run no longer reaches N
                last = n;
                c.what =
                    QString("%1 %2 #%3 (%4)").arg(kActions[int(action)].verb, family).arg(n).arg(c.path.join(" -> "));
                if (one)
                    std::printf("  log: %s\n", qPrintable(c.errors.join("\n  log: ")));
                judge(c, figures);
                if (one)
                    break;
            }
            std::printf("%s, %s, %-6s (N up to %ld of %ld): %s", mode, name(), qPrintable(family), last, calls,
                        qPrintable(figures.text(false)));
            // Every family comes up in both installations: one that never does is no longer counted.
            EXPECT_TRUE(one || figures.injected > 0) << mode << ", " << name() << ": no " << family.toStdString();
            total.add(figures);
        }
        std::printf("%s, %s, all families: %s", mode, name(), qPrintable(total.text()));
        std::fflush(stdout);
        return total;
    }

    // Kills runs with the real pauses (and syncs) after a random delay.
    Figures soak(int kills, quint32 seed, int maxDelayMs)
    {
        QRandomGenerator random(seed);
        Figures figures;
        QMap<QString, int> landed;  // the last bucket line before each kill
        for (int k = 0; k < kills; ++k) {
            Case c;
            c.kill = true;
            const int delay = int(random.bounded(quint32(maxDelayMs) + 1));
            run({"LD_PRELOAD=" NXFAULTINJECT_PATH}, &c, delay);  // the library only traces what to clean up
            const QStringList buckets = m_Install.logBodies().filter("[TRACE]  [nxi::StartIndexer] :: ");
            ++landed[c.hit ? "ended" : buckets.isEmpty() ? "none" : buckets.last().right(2)];
            c.what = QString("kill after %1 ms (NXSOAK_SEED=%2, kill %3)").arg(delay).arg(seed).arg(k + 1);
            judge(c, figures);
        }
        std::printf("kill soak, %s, %d kills within %d ms, seed %u (last bucket line: %s): %s", name(), kills,
                    maxDelayMs, seed, qPrintable(joined(landed, "%1: %2", ", ")), qPrintable(figures.text()));
        std::fflush(stdout);
        return figures;
    }

private:
    const char* name() const { return m_Existing ? "existing index" : "first run"; }
    QString rel(const QString& path) const { return QDir(m_Host).relativeFilePath(path); }
    QString indexFile(int kind, Generation generation, int bucket) const
    {
        const QString dir =
            kind == int(IndexFile::Entry) ? nxformat::entryDirPath(m_Host, kDb) : nxformat::indexDirPath(m_Host, kDb);
        return rel(dir + "/" + nxformat::indexFileName(IndexFile(kind), generation, bucket));
    }

    QMap<int, int> marksOf(const Tree& tree) const
    {
        QMap<int, int> marks;
        for (const QByteArray& line : tree.value(rel(nxformat::helperProgressPath(m_Host, kDb))).split('\n')) {
            bool ok = false;
            const int bucket = line.left(line.indexOf('=')).toInt(&ok, 16);
            if (ok && line.contains('='))
                marks[bucket] = line.mid(line.indexOf('=') + 1).trimmed().toInt();
        }
        return marks;
    }

    // Every version a run may write for the bucket: its records from the helper file and files mark+1..2, or from
    // file 0 on (an unreadable progress file), with any of these shares read short (zero records).
    QVector<Version> versions(int bucket) const
    {
        QVector<Version> found;
        const int markFirst = m_OldMarks.value(bucket, -1) + 1;
        for (int first : markFirst == 0 ? QVector<int>{0} : QVector<int>{markFirst, 0}) {
            QVector<QByteArray> shares = {bucket == kHelperBucket ? helperRecords() : QByteArray()};
            for (int f = first; f <= kNewMark; ++f)
                shares << sourceRecords(f, bucket);
            shares.removeAll(QByteArray());
            for (int lost = 0; lost < (1 << shares.size()); ++lost) {
                QByteArray records;
                QStringList loss;
                for (int i = 0; i < shares.size(); ++i)
                    records += lost & (1 << i) ? QByteArray(shares[i].size(), '\0') : shares[i];
                if (first != markFirst)
                    loss << "unreadable progress file, bucket merged again from file 0";
                if (lost != 0)
                    loss << "short read while collecting, zero records";
                const nxtest::ExpectedBucket e = nxtest::expectedBucket(records);
                if (!records.isEmpty())
                    found.append({{e.keyFile, e.payloadFile, e.entryFile}, e.block, loss.join(", ")});
            }
        }
        return found;
    }
    const Version* versionWith(int bucket, int kind, const QByteArray& bytes) const
    {
        for (const Version& v : m_Versions[bucket])
            if (v.files[kind] == bytes)
                return &v;
        return nullptr;
    }

    // Runs the indexer from the start state with the fault library's settings, without its pauses, or with them and
    // killed after delayMs; returns the calls of the family that the run made (the N-th one failing or killing).
    long run(QStringList environment, Case* c, int delayMs = -1)
    {
        restore(m_Start, m_Host);
        QFile::remove(m_Install.logPath());
        QTemporaryDir dir;
        const QString count = dir.filePath("count"), trace = dir.filePath("trace");
        environment << "NXFAULT_COUNT=" + count;
        if (c->kill)
            environment << "NXFAULT_TRACE=" + trace;
        c->exitCode = m_Install.runIndexer(environment, delayMs < 0 ? 30000 : delayMs, delayMs >= 0);
        const QStringList words = QString::fromUtf8(readFile(count)).trimmed().split(' ');
        c->path = words.mid(2);
        c->errors = errorLines();
        for (const QString& line : m_Normal)
            c->errors.removeAll(line);
        c->hit = delayMs < 0 ? words.value(1) == "killed" || words.value(1).toLong() > 0 : c->exitCode != -2;
        return words.value(0).toLong();
    }
    // The log's ERROR lines without their error codes.
    QStringList errorLines() const
    {
        return m_Install.logBodies()
            .filter(QRegularExpression("^\\[ERROR\\]"))
            .replaceInStrings(QRegularExpression(":: \\[0x[0-9A-F]{8}\\]: "), ":: ");
    }

    // The failures that the indexer does not report by design; empty for any other.
    QString allowedSilence(const Case& c, const Tree& after) const
    {
        const QString from = c.path.value(0), to = c.path.value(1);
        auto ends = [](const QString& p, const char* names) {
            return QRegularExpression(QString("/[0-9a-f]{2}\\.(%1)$").arg(names)).match(p).hasMatch();
        };
        if (c.family == "unlink")
            return "failed deletion";
        if (c.family == "rename" && ends(from, "m|d|hl") && ends(to, "mold|dold|hlold"))
            return "failed move of a current file to its previous name";
        if (c.family == "rename" && ends(from, "mold|dold|hlold") && ends(to, "m|d|hl"))
            return "failed restoring move";
        if (c.family == "read" && from.endsWith(".ini") && !from.contains("/nxindexer-ini/"))
            return "INI read given its default";
        if (from.contains("/nxindexer-ini/") && after == m_Reference)
            return "absorbed by Qt in an INI scratch file, without any effect";
        return QString();
    }

    // Checks the state a run left and the state after a clean follow-up run.
    void judge(const Case& c, Figures& figures)
    {
        ++figures.injected;
        const Tree after = nxtest::treeOf(m_Host, true);
        QStringList wrong, losses, left;
        const QString silence = c.kill || !c.errors.isEmpty() ? QString() : allowedSilence(c, after);
        if (!c.kill && c.exitCode != 0)
            wrong << QString("exit status %1").arg(c.exitCode);
        if (!c.kill && c.errors.isEmpty() && silence.isEmpty())
            wrong << "the failure was not logged";
        wrong += checkAfterRun(after, c, &losses);
        EXPECT_EQ(m_Install.runIndexer({}, 30000), 0) << "clean run after " << c.what.toStdString();
        const Tree final = nxtest::treeOf(m_Host, true);
        wrong += checkFinal(final, c, &losses);
        for (const QString& path : final.keys())
            if (!m_Reference.contains(path))
                left << path;
        figures.leftovers += left.isEmpty() ? 0 : 1;
        losses.removeDuplicates();
        if (!wrong.isEmpty()) {
            ++figures.defects;
            ADD_FAILURE() << "DEFECT " << c.what.toStdString() << ": " << wrong.join("; ").toStdString();
            return;
        }
        figures.losses += losses.isEmpty() ? 0 : 1;
        figures.silent += silence.isEmpty() ? 0 : 1;
        for (const QString& kind : losses + QStringList{silence})
            if (!kind.isEmpty())
                ++figures.kinds[kind];
        if (!losses.isEmpty() || !silence.isEmpty() || setting("NXSWEEP_VERBOSE", 0))
            std::printf("  %s:%s%s%s\n", qPrintable(c.what),
                        qPrintable(losses.isEmpty() ? "" : " prescribed loss: " + losses.join(", ")),
                        qPrintable(silence.isEmpty() ? "" : " silent: " + silence),
                        qPrintable(left.isEmpty() ? "" : " left behind: " + left.join(" ")));
    }

    // Right after the run: every bucket's files in the old or a new version under the rotation's names, no mark
    // ahead of its files, and the blocks of a status file this run finished equal to the key files it wrote.
    QStringList checkAfterRun(const Tree& after, const Case& c, QStringList* losses) const
    {
        QStringList wrong;
        const QMap<int, int> marks = marksOf(after);
        QMap<int, const Version*> installedKeys;
        for (int b : kBuckets) {
            const int mark = marks.value(b, -1), old = m_OldMarks.value(b, -1);
            if (mark != old && mark != kNewMark)
                wrong << QString::asprintf("bucket %02x: mark %d is neither the old nor the new one", b, mark);
            const Version* installed[3] = {};
            for (int kind = 0; kind < 3; ++kind) {
                const QString cur = indexFile(kind, Generation::Current, b),
                              prev = indexFile(kind, Generation::Previous, b);
                const bool hadOld = m_Start.contains(cur);
                if (after.contains(cur) && !(installed[kind] = versionWith(b, kind, after.value(cur))) &&
                    !(hadOld && after.value(cur) == m_Start.value(cur)))
                    wrong << cur + " holds neither the old nor a new version";
                else if (!after.contains(cur) &&
                         (hadOld ? !after.contains(prev) || after.value(prev) != m_Start.value(cur) ||
                                       !versionWith(b, kind, after.value(indexFile(kind, Generation::Pending, b)))
                                 : after.contains(prev)))
                    wrong << cur + " is missing, but not with the old version previous and the new one pending";
            }
            installedKeys[b] = installed[0];
            if (mark == kNewMark && mark != old &&
                (!installed[2] || installed[0] != installed[2] || installed[1] != installed[2]))
                wrong << QString::asprintf("bucket %02x: mark %d is ahead of its files", b, mark);
        }
        if (m_Start.contains(m_Status) && !after.contains(m_Status))
            wrong << m_Status + " is gone";
        if (after.contains(m_Status) && after.value(m_Status) != m_Start.value(m_Status))
            wrong += checkBlocks(after.value(m_Status), c, losses, [&](int b, const QByteArray& block) {
                for (const Version& v : m_Versions.value(b))
                    if (v.block == block)
                        return !installedKeys[b] || installedKeys[b]->block == block;
                return false;
            });
        return wrong;
    }

    // After the clean follow-up: the uninterrupted run's index and marks, but for the losses the fault prescribes.
    QStringList checkFinal(const Tree& after, const Case& c, QStringList* losses) const
    {
        QStringList wrong;
        const QMap<int, int> marks = marksOf(after), expected = marksOf(m_Reference);
        for (int b : kBuckets) {
            bool same = marks.value(b, -1) == expected.value(b, -1);
            QByteArray files[3];
            for (int kind = 0; kind < 3; ++kind) {
                const QString cur = indexFile(kind, Generation::Current, b);
                files[kind] = after.value(cur);
                same =
                    same && after.contains(cur) == m_Reference.contains(cur) && files[kind] == m_Reference.value(cur);
            }
            // A short read while collecting: the bucket is written and marked with zero records in its place.
            const Version* v = versionWith(b, 2, files[2]);
            if (!same && c.family == "read" && !c.kill && v && !v->loss.isEmpty() && marks.value(b, -1) == kNewMark &&
                files[0] == v->files[0] && files[1] == v->files[1])
                *losses << v->loss;
            else if (!same)
                wrong << QString::asprintf(
                    "bucket %02x: after a clean run the files or the mark (%d) differ from an "
                    "uninterrupted run's",
                    b, marks.value(b, -1));
        }
        if (!after.contains(m_Status) && m_Start.contains(m_Status))
            return wrong << m_Status + " is gone";
        if (!after.contains(m_Status))
            return *losses << "this run's status file not installed, there is none", wrong;
        // The key files of the run that installed it: the previous one stays when this run's was never installed.
        const bool previous = m_Start.contains(m_Status) && after.value(m_Status) == m_Start.value(m_Status);
        if (previous)
            *losses << "this run's status file not installed, the previous one stays";
        const Tree& keys = previous ? m_Start : after;
        return wrong + checkBlocks(after.value(m_Status), c, losses, [&](int b, const QByteArray& block) {
                   const QString key = indexFile(0, Generation::Current, b);
                   const auto file = nxformat::parseKeyFile(keys.value(key));
                   const auto parsed = nxformat::parseBucketBlock(block, 0);
                   return keys.contains(key) && file && parsed && file->keys == parsed->keys &&
                          file->groupTable == parsed->groupTable && parsed->count == DWORD(file->keys.size());
               });
    }

    // The head's blocks lie one after the other from 1024 to the end, only for buckets with records, each accepted
    // by blockOk. A head left all zero by a failed write at completion is a prescribed loss.
    static QStringList checkBlocks(const QByteArray& status, const Case& c, QStringList* losses,
                                   const std::function<bool(int, const QByteArray&)>& blockOk)
    {
        const auto head = nxformat::parseStatusHead(status);
        if (!head)
            return {"status file shorter than its head"};
        if (head->count(0) == nxformat::kBucketCount && DWORD(status.size()) > nxformat::kStatusHeadSize &&
            c.family == "write" && !c.kill && c.path.value(0).endsWith(".sbftmp"))
            return *losses << "status file head not written, installed with no block offsets", QStringList();
        QStringList wrong;
        DWORD next = nxformat::kStatusHeadSize;
        for (int b = 0; b < nxformat::kBucketCount; ++b) {
            const DWORD offset = (*head)[b];
            if (offset == 0)
                continue;
            const auto block = nxformat::parseBucketBlock(status, offset);
            if (offset != next || !block)
                return wrong << QString::asprintf("status block of bucket %02x at %u, expected at %u", b, offset, next);
            next += nxformat::bucketBlockSize(block->count);
            if (!blockOk(b, status.mid(int(offset), int(nxformat::bucketBlockSize(block->count)))))
                wrong << QString::asprintf("status block of bucket %02x differs from the key file its run wrote", b);
        }
        if (next != DWORD(status.size()))
            wrong << QString("status file of %1 bytes, its blocks end at %2").arg(status.size()).arg(next);
        return wrong;
    }

    nxtest::TempInstall m_Install;
    QString m_Host = m_Install.host(), m_Status = rel(nxformat::statusFilePath(m_Host, kDb));
    bool m_Existing;
    Tree m_Start, m_Reference;
    QMap<int, int> m_OldMarks;
    QMap<int, QVector<Version>> m_Versions;
    QStringList m_Normal;
};

// A sweep reaches at least this many cases, but for the one that NXSWEEP_ONLY asks for.
void expectSurvived(const Figures& figures, int atLeast)
{
    EXPECT_GE(figures.injected, qEnvironmentVariableIsSet("NXSWEEP_ONLY") ? qMin(atLeast, 1) : atLeast);
    EXPECT_EQ(figures.defects, 0);
}

class FaultSweep : public ::testing::TestWithParam<bool>
{
};

TEST_P(FaultSweep, EveryFailingCallIsSurvived) { expectSurvived(Sweep(GetParam()).sweep(Action::Fail), 101); }

// New directories come before any mark that relies on them; the syncs and renames that follow are the moments a
// power cut finds marks on disk.
TEST_P(FaultSweep, EveryPowerCutIsSurvived)
{
    expectSurvived(Sweep(GetParam()).sweep(Action::PowerCut, {"mkdir", "sync", "rename"}), 40);
}

TEST_P(FaultSweep, EveryKillPointIsSurvived)
{
    Sweep sweep(GetParam());
    expectSurvived(sweep.sweep(Action::Kill), 101);
    expectSurvived(
        sweep.soak(setting("NXSOAK_KILLS", 6), quint32(setting("NXSOAK_SEED", 1)), setting("NXSOAK_MAX_DELAY_MS", 300)),
        0);
}

INSTANTIATE_TEST_SUITE_P(Installation, FaultSweep, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? "ExistingIndex" : "FirstRun";
                         });

}  // namespace
