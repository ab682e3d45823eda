#include "testsupport.h"

#include "indexformat.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>

namespace nxtest {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

bool exists(const QString& path) { return QFileInfo::exists(path); }

QByteArray makeRecord(uint32_t key, uint32_t payloadSeed)
{
    QByteArray record(int(nxformat::kRecordSize), '\0');
    auto* p = reinterpret_cast<unsigned char*>(record.data());
    nxformat::writeLE32(p, key);
    for (int i = 0; i < 3; ++i)
        nxformat::writeLE32(p + 4 + 4 * i, payloadSeed * 3 + uint32_t(i) + 0x10000000u);
    return record;
}

QString withoutTimestamp(const QString& line)
{
    static const QRegularExpression stamp(
        "^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{3}  ");
    QRegularExpressionMatch match = stamp.match(line);
    if (!match.hasMatch())
        return "<no time stamp>: " + line;
    return line.mid(match.capturedLength());
}

QStringList logBodies(const QString& logPath)
{
    QString text = QString::fromUtf8(readFile(logPath));
    QStringList lines = text.split("\r\n");
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    QStringList bodies;
    for (const QString& line : lines)
        bodies << (line.startsWith("Repeated [") ? line : withoutTimestamp(line));
    return bodies;
}

namespace {

int runProgram(const QString& program, const QProcessEnvironment& env, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, QStringList());
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

TempInstall::TempInstall(const QString& base)
    : m_Dir((base.isEmpty() ? QDir::tempPath() : base) + "/nxi-test-XXXXXX")
{
    m_Root = m_Dir.path() + "/install";
    QDir().mkpath(m_Root + "/bin");
    QDir().mkpath(host());
    QFile::copy(NXINDEXER_PATH, m_Root + "/bin/nxindexer");
}

int TempInstall::runIndexer(bool withPause) const
{
    return runProgram(m_Root + "/bin/nxindexer", indexerEnvironment({}, withPause), 240000);
}

int TempInstall::runIndexerWith(const QStringList& environment, int timeoutMs) const
{
    return runProgram(m_Root + "/bin/nxindexer", indexerEnvironment(environment), timeoutMs);
}

QProcessEnvironment TempInstall::indexerEnvironment(const QStringList& environment, bool withPause) const
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QString preload = withPause ? QString() : QString(NXNOPAUSE_PATH);
    for (const QString& variable : environment) {
        const QString name = variable.section('=', 0, 0), value = variable.section('=', 1);
        if (name == "LD_PRELOAD")
            preload = value + (preload.isEmpty() ? "" : ":") + preload;  // sees every call before the seam does
        else
            env.insert(name, value);
    }
    if (!preload.isEmpty())
        env.insert("LD_PRELOAD", preload);
    // Under AddressSanitizer the preloaded libraries come before its runtime.
    QString asan = env.value("ASAN_OPTIONS");
    env.insert("ASAN_OPTIONS", asan + (asan.isEmpty() ? "" : ":") + "verify_asan_link_order=0");
    return env;
}

} // namespace nxtest
