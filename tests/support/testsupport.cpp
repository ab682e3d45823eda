#include "testsupport.h"

#include "indexformat.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>

namespace nxtest {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

bool exists(const QString& path) { return QFileInfo::exists(path); }

QMap<QString, QByteArray> treeOf(const QString& dir, bool withDirs)
{
    QMap<QString, QByteArray> tree;
    const auto filter = (withDirs ? QDir::AllEntries : QDir::Files) | QDir::Hidden | QDir::System;
    for (QDirIterator it(dir, filter | QDir::NoDotAndDotDot, QDirIterator::Subdirectories); it.hasNext();) {
        const QString path = it.next();
        tree[QDir(dir).relativeFilePath(path)] = it.fileInfo().isDir() ? "<dir>" : readFile(path);
    }
    return tree;
}

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
    static const QRegularExpression stamp("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{3}  ");
    const QRegularExpressionMatch match = stamp.match(line);
    return match.hasMatch() ? line.mid(match.capturedLength()) : "<no time stamp>: " + line;
}

QStringList logBodies(const QString& logPath)
{
    QStringList bodies;
    for (const QString& line : QString::fromUtf8(readFile(logPath)).split("\r\n"))
        bodies << (line.startsWith("Repeated [") ? line : withoutTimestamp(line));
    if (bodies.last() == withoutTimestamp(""))
        bodies.removeLast();
    return bodies;
}

Output finish(QProcess& process, int timeoutMs)
{
    Output output;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        output.status = -2;
    } else if (process.exitStatus() == QProcess::NormalExit) {
        output.status = process.exitCode();
    }
    output.out = QString::fromUtf8(process.readAllStandardOutput());
    output.err = QString::fromUtf8(process.readAllStandardError());
    return output;
}

QProcessEnvironment environmentWith(const QStringList& variables)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& variable : variables) {
        const QString name = variable.section('=', 0, 0), value = variable.section('=', 1), old = env.value(name);
        env.insert(name, name == "LD_PRELOAD" && !old.isEmpty() ? value + ":" + old : value);
    }
    // Under AddressSanitizer the preloaded libraries come before its runtime.
    const QString asan = env.value("ASAN_OPTIONS");
    env.insert("ASAN_OPTIONS", asan + (asan.isEmpty() ? "" : ":") + "verify_asan_link_order=0");
    return env;
}

Output run(const QString& program, const QStringList& args, const QStringList& environment)
{
    QProcess process;
    process.setProcessEnvironment(environmentWith(environment));
    process.start(program, args);
    return finish(process);
}

Output runTool(const QString& tool, const QStringList& args) { return run(NXTOOLS_DIR "/" + tool, args); }

TempInstall::TempInstall(const QString& base)
    : m_Dir((base.isEmpty() ? QDir::tempPath() : base) + "/nxi-test-XXXXXX"), m_Root(m_Dir.path() + "/install")
{
    QDir().mkpath(m_Root + "/bin");
    QDir().mkpath(host());
    QFile::copy(NXINDEXER_PATH, program());
}

int TempInstall::runIndexer(const QStringList& environment, int timeoutMs, bool withPause) const
{
    QProcess process;
    process.setProcessEnvironment(indexerEnvironment(environment, withPause));
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program(), QStringList());
    return finish(process, timeoutMs).status;
}

QProcessEnvironment TempInstall::indexerEnvironment(const QStringList& environment, bool withPause) const
{
    return environmentWith((withPause ? QStringList() : QStringList{"LD_PRELOAD=" NXNOPAUSE_PATH}) + environment);
}

}  // namespace nxtest
