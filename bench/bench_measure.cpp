// Measured runs through nxbenchrun and the counting pass under strace.
#include "bench.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>

#include <sys/wait.h>

namespace nxbench {

QString runProgram(const QString& program, const QStringList& args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, args);
    if (!process.waitForStarted(-1))
        return "cannot start " + program + ": " + process.errorString();
    process.waitForFinished(-1);
    if (process.exitStatus() != QProcess::NormalExit)
        return program + " crashed";
    if (process.exitCode() != 0)
        return QString("%1 exited with status %2").arg(program).arg(process.exitCode());
    return QString();
}

double SyscallCounts::syncs() const
{
    double count = 0;
    for (const char* name : {"fsync", "fdatasync", "sync_file_range", "syncfs", "sync"})
        count += calls.value(name);
    return count;
}

QString runMeasured(const QString& runner, const Command& command, const QString& resultFile, Cost* cost)
{
    QFile::remove(resultFile);
    QStringList args{resultFile};
    args << command.environment << "--" << command.program << command.args;
    QString error = runProgram(runner, args);
    if (!error.isEmpty())
        return error;

    QFile file(resultFile);
    if (!file.open(QIODevice::ReadOnly))
        return "no result from the runner for " + command.program;
    QMap<QString, double> values;
    for (const QString& line : QString::fromUtf8(file.readAll()).split('\n', Qt::SkipEmptyParts)) {
        const QStringList fields = line.simplified().split(' ');
        if (fields.size() == 2)
            values[fields[0]] = fields[1].toDouble();
    }
    for (const char* needed : {"status", "wall_ns", "user_us", "sys_us", "maxrss_kib", "rchar", "wchar"})
        if (!values.contains(needed))
            return QString("the runner's result for %1 lacks %2").arg(command.program, needed);
    const int status = int(values["status"]);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return QString("%1 failed (wait status %2)").arg(command.program).arg(status);
    cost->cpu = (values["user_us"] + values["sys_us"]) / 1e6;
    cost->wall = values["wall_ns"] / 1e9;
    cost->maxRssKiB = values["maxrss_kib"];
    cost->rchar = values["rchar"];
    cost->wchar = values["wchar"];
    cost->writeBytes = values.value("write_bytes");
    return QString();
}

QString runCounted(const QString& strace, const Command& command, const QString& outputFile,
                   SyscallCounts* counts)
{
    QFile::remove(outputFile);
    QStringList args{"-f", "-c", "-o", outputFile};
    for (const QString& assignment : command.environment)
        args << "-E" << assignment;
    args << "--" << command.program << command.args;
    QString error = runProgram(strace, args);
    if (!error.isEmpty())
        return error;

    // The summary's rows end with "calls [errors] name"; the last row is
    // the total.
    QFile file(outputFile);
    if (!file.open(QIODevice::ReadOnly))
        return "no strace summary for " + command.program;
    const QRegularExpression row(R"(^\s*[\d.]+\s+[\d.]+\s+\d+\s+(\d+)\s+(?:(\d+)\s+)?(\w+)\s*$)");
    *counts = SyscallCounts();
    for (const QString& line : QString::fromUtf8(file.readAll()).split('\n')) {
        QRegularExpressionMatch match = row.match(line);
        if (!match.hasMatch())
            continue;
        if (match.captured(3) == "total")
            counts->total = match.captured(1).toDouble();
        else
            counts->calls[match.captured(3)] = match.captured(1).toDouble();
    }
    if (counts->total <= 0)
        return "cannot read the strace summary " + outputFile;
    return QString();
}

} // namespace nxbench
