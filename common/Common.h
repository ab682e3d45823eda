#ifndef NXI_COMMON_H
#define NXI_COMMON_H

#include <QString>
#include <QtGlobal>

// Static services: the installation root and its directory layout, directory
// creation, the build stamp, size text and directory measurement.
// getRootPath() needs the QCoreApplication object to exist.
class Common
{
public:
    Common() = delete;

    // The installation root: the parent of the executable's directory, cached
    // on the first call. A root with exactly two '/' (or an empty one) is
    // replaced by the fixed root "/usr/lib/TalvexSuite".
    static QString getRootPath();
    // The root rule applied to an executable's directory; getRootPath() uses it.
    static QString rootPathForAppDir(const QString& appDirPath);

    static QString getBinPath();
    static QString getDbPath();
    static QString getIconsPath();
    static QString getLibPath();
    static QString getServicesPath();
    static QString getSettingsPath();
    static QString getReportsPath();
    static QString getScanReportsPath();
    static QString getQuarantinePath();
    static QString getLogsPath();
    static QString getUpdPath();
    static QString getPolicyDirPath();
    static QString getWebPolicyDirPath();
    static QString getAppPolicyDirPath();
    static QString getEdrDirPath();
    // "/var/tmp/txtmp", created when missing and set to mode 0777 on every call.
    static QString getTempDirPath();

    // Creates the directory with its parents when missing; returns path either way.
    static QString createDirectoryIfNotExists(const QString& path);

    // The compile-time build stamp rendered as "yyyy-MM-dd hh:mm:ss",
    // "yyyy-MM-dd" and "yyyy.MM.dd.0"; empty when it cannot be parsed.
    static QString getBuildDateTime();
    static QString getBuildDate();
    static QString getBuildVersion();
    // Renders a build date ("Mar 28 2025", "Mar  1 2025") and time ("13:08:05")
    // with outputFormat, whatever the process's locale. Empty when unparseable.
    static QString formatBuildStamp(const QString& buildDate, const QString& buildTime, const QString& outputFormat);

    // "1.50 KB": the count walked through bytes, KB, MB, GB, TB with two decimals.
    static QString getSizeInString(quint64 size);
    // Size of a file, or the total of the visible files under a directory tree
    // (symbolic links followed, hidden entries and special files left out).
    static qint64 getPathSize(const QString& path);
};

#endif
