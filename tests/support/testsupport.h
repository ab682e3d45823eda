#ifndef NXI_TESTSUPPORT_H
#define NXI_TESTSUPPORT_H

#include <QByteArray>
#include <QMap>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdint>
#include <ostream>

// Failure messages show texts, not arrays of UTF-16 code units.
inline std::ostream& operator<<(std::ostream& out, const QString& text) { return out << text.toStdString(); }
inline void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text << '"'; }

namespace nxtest {

QByteArray readFile(const QString& path);
void writeFile(const QString& path, const QByteArray& bytes);  // creates the parent directories
bool exists(const QString& path);
// Every entry under dir by relative path (hidden ones too): a file's bytes, and "<dir>" for a directory when withDirs.
QMap<QString, QByteArray> treeOf(const QString& dir, bool withDirs = false);

// A 16-byte record: the key (little-endian) and 12 payload bytes derived from payloadSeed.
QByteArray makeRecord(uint32_t key, uint32_t payloadSeed);

// Strips the "yyyy-MM-dd hh:mm:ss:zzz  " stamp; "<no time stamp>: <line>" when there is none.
QString withoutTimestamp(const QString& line);
QStringList logBodies(const QString& logPath);  // split at CR LF, stamps removed

// A program's exit status (-1: it did not end normally, -2: killed after the time limit) and output.
struct Output {
    int status = -1;
    QString out, err;
};
Output finish(QProcess& process, int timeoutMs = 240000);
// The system environment with "NAME=value" entries added, an LD_PRELOAD before the one already there.
QProcessEnvironment environmentWith(const QStringList& variables);
Output run(const QString& program, const QStringList& args, const QStringList& environment = {});
Output runTool(const QString& tool, const QStringList& args);  // a program built beside the tests

// A temporary installation root (with enough '/' for the root rule) in base, the temporary directory by default,
// with the real nxindexer copied to <root>/bin.
class TempInstall
{
public:
    explicit TempInstall(const QString& base = QString());
    QString root() const { return m_Root; }
    QString host() const { return m_Root + "/db/txhost"; }
    QString logPath() const { return m_Root + "/logs/nxindexer.log"; }
    QString program() const { return m_Root + "/bin/nxindexer"; }
    // wdx00 from `files` sample source files, closed by wdx01, and DB-COUNT `count` for it.
    void addSample(int files, int count, uint32_t salt = 5) const;
    // The indexer's exit status (see Output) without its pauses unless withPause; an LD_PRELOAD in environment
    // comes before the pause seam, so that it sees every call.
    int runIndexer(const QStringList& environment = {}, int timeoutMs = 240000, bool withPause = false) const;
    QProcessEnvironment indexerEnvironment(const QStringList& environment = {}, bool withPause = false) const;
    QStringList logBodies() const { return nxtest::logBodies(logPath()); }

private:
    QTemporaryDir m_Dir;
    QString m_Root;
};

}  // namespace nxtest

#endif
