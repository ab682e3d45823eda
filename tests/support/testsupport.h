#ifndef NXI_TESTSUPPORT_H
#define NXI_TESTSUPPORT_H

#include <QByteArray>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdint>
#include <string>

namespace nxtest {

QByteArray readFile(const QString& path);
// Writes bytes to path, creating parent directories.
void writeFile(const QString& path, const QByteArray& bytes);
bool exists(const QString& path);

// A 16-byte entry record: key (little-endian) and 12 payload bytes derived
// from payloadSeed, so that every record's payload is distinct and checkable.
QByteArray makeRecord(uint32_t key, uint32_t payloadSeed);

// Strips the "yyyy-MM-dd hh:mm:ss:zzz  " time stamp from a log line; returns
// "<no time stamp>: <line>" when the line does not start with one.
QString withoutTimestamp(const QString& line);
// The lines of a log file (split at CR LF), time stamps removed.
QStringList logBodies(const QString& logPath);

// A temporary installation root whose path has enough '/' that the root rule
// keeps it, in base (the temporary directory by default). The real nxindexer
// is copied to <root>/bin/nxindexer.
class TempInstall
{
public:
    explicit TempInstall(const QString& base = QString());
    bool isValid() const { return m_Dir.isValid(); }
    QString root() const { return m_Root; }
    QString host() const { return m_Root + "/db/txhost"; }
    QString logPath() const { return m_Root + "/logs/nxindexer.log"; }
    // Runs the indexer (without its per-bucket pause); returns the exit
    // status, or -1 when it did not end normally.
    int runIndexer(bool withPause = false) const;
    // Runs the indexer without its pause, with extra environment variables
    // (an LD_PRELOAD there is loaded before the pause seam); -1 also when it
    // has not ended after timeoutMs.
    int runIndexerWith(const QStringList& environment, int timeoutMs = 240000) const;
    QStringList logBodies() const { return nxtest::logBodies(logPath()); }
    // The environment of runIndexerWith, for a run that the test starts itself.
    QProcessEnvironment indexerEnvironment(const QStringList& environment, bool withPause = false) const;

private:
    QTemporaryDir m_Dir;
    QString m_Root;
};

} // namespace nxtest

#endif
