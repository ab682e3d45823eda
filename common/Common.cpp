#include "Common.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

namespace {

const char* const kFixedRootPath = "/usr/lib/TalvexSuite";
const char* const kTempDirPath = "/var/tmp/txtmp";

// The compiler's stamp: "Mar 28 2025" (day blank-padded below 10) and "13:08:05".
const char* const kBuildDate = __DATE__;
const char* const kBuildTime = __TIME__;

}  // namespace

QString Common::rootPathForAppDir(const QString& appDirPath)
{
    // absoluteFilePath() folds the "/.." away without resolving links.
    const QString root = QFileInfo(appDirPath + "/..").absoluteFilePath();
    // A parent such as /usr/local is a system directory, not an installation.
    if (root.isEmpty() || root.count('/') == 2)
        return kFixedRootPath;
    return root;
}

QString Common::getRootPath()
{
    static QString m_RootPath;
    if (m_RootPath.isEmpty())
        m_RootPath = rootPathForAppDir(QCoreApplication::applicationDirPath());
    return m_RootPath;
}

QString Common::getBinPath() { return getRootPath() + "/bin"; }
QString Common::getDbPath() { return getRootPath() + "/db"; }
QString Common::getIconsPath() { return getRootPath() + "/icons"; }
QString Common::getLibPath() { return getRootPath() + "/lib"; }

QString Common::getServicesPath() { return createDirectoryIfNotExists(getRootPath() + "/services"); }
QString Common::getSettingsPath() { return createDirectoryIfNotExists(getRootPath() + "/settings"); }
QString Common::getReportsPath() { return createDirectoryIfNotExists(getRootPath() + "/reports"); }
QString Common::getScanReportsPath() { return createDirectoryIfNotExists(getRootPath() + "/reports/scanner"); }
QString Common::getQuarantinePath() { return createDirectoryIfNotExists(getRootPath() + "/quarantine"); }
QString Common::getLogsPath() { return createDirectoryIfNotExists(getRootPath() + "/logs"); }
QString Common::getUpdPath() { return createDirectoryIfNotExists(getRootPath() + "/upd"); }

QString Common::getPolicyDirPath() { return createDirectoryIfNotExists(getSettingsPath() + "/epl"); }
QString Common::getWebPolicyDirPath() { return createDirectoryIfNotExists(getSettingsPath() + "/wpl"); }
QString Common::getAppPolicyDirPath() { return createDirectoryIfNotExists(getSettingsPath() + "/apl"); }
QString Common::getEdrDirPath() { return createDirectoryIfNotExists(getSettingsPath() + "/edr"); }

QString Common::getTempDirPath()
{
    const QString path = createDirectoryIfNotExists(kTempDirPath);
    // Every component of the product shares this directory, whoever made it.
    QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner |
                                    QFileDevice::ReadUser | QFileDevice::WriteUser | QFileDevice::ExeUser |
                                    QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup |
                                    QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther);
    return path;
}

QString Common::createDirectoryIfNotExists(const QString& path)
{
    if (QDir(path).exists())
        return path;
    if (!QDir().mkpath(path))
        qDebug("Failed to make directory! Error:");
    return path;
}

QString Common::formatBuildStamp(const QString& buildDate, const QString& buildTime, const QString& outputFormat)
{
    // The compiler writes the month in English whatever the locale, so both
    // the parse and the (purely numeric) rendering use the C locale.
    const QLocale c = QLocale::c();
    const QString stamp = QString("%1 %2").arg(buildDate, buildTime);
    QDateTime built = c.toDateTime(stamp, "MMM dd yyyy hh:mm:ss");
    if (!built.isValid())
        built = c.toDateTime(stamp, "MMM  d yyyy hh:mm:ss");
    if (!built.isValid())
        return QString();
    return c.toString(built, outputFormat);
}

QString Common::getBuildDateTime() { return formatBuildStamp(kBuildDate, kBuildTime, "yyyy-MM-dd hh:mm:ss"); }

QString Common::getBuildDate() { return formatBuildStamp(kBuildDate, kBuildTime, "yyyy-MM-dd"); }

QString Common::getBuildVersion() { return formatBuildStamp(kBuildDate, kBuildTime, "yyyy.MM.dd.0"); }
