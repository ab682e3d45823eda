#ifndef NXI_TOOLS_SUPPORT_H
#define NXI_TOOLS_SUPPORT_H

// Running the built ynsample and nxinspect, and reading a tree of files back.

#include <QDirIterator>
#include <QMap>
#include <QProcess>

#include "testsupport.h"

#include <ostream>

// Failure messages show texts, not arrays of UTF-16 code units.
inline void PrintTo(const QString& text, std::ostream* out) { *out << '"' << text.toStdString() << '"'; }

namespace nxtest {

struct ToolRun { int exitCode = -1; QString out, err; };  // exitCode -1: the process did not end normally

inline ToolRun runTool(const QString& tool, const QStringList& args)
{
    QProcess process;
    process.start(QString(NXTOOLS_DIR) + "/" + tool, args);
    ToolRun run;
    if (process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit)
        run.exitCode = process.exitCode();
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

// Every file under dir, by path relative to dir.
inline QMap<QString, QByteArray> treeOf(const QString& dir)
{
    QMap<QString, QByteArray> tree;
    for (QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        QString path = it.next();
        tree.insert(path.mid(dir.size() + 1), readFile(path));
    }
    return tree;
}

} // namespace nxtest

#endif
