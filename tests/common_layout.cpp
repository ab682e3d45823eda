// Installation root, layout paths and directory creation.
#include "Common.h"
#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace {

TEST(CommonLayout, RootRuleExamples)
{
    const struct {
        const char* appDir;
        const char* root;
    } rows[] = {
        {"/usr/lib/TalvexSuite/bin", "/usr/lib/TalvexSuite"},
        {"/home/build/out/bin", "/home/build/out"},
        {"/home/build/./out/x/../bin", "/home/build/out"},
        {"/usr/local/bin", "/usr/lib/TalvexSuite"},
        {"/opt/tool", "/opt"},
        {"/opt", "/"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Common::rootPathForAppDir(row.appDir), QString(row.root)) << row.appDir;
    EXPECT_EQ(Common::getRootPath(),
              Common::rootPathForAppDir(QCoreApplication::applicationDirPath()));
}

QStringList directoriesUnder(const QString& root)
{
    QStringList found;
    QDirIterator it(root, QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext())
        found << QDir(root).relativeFilePath(it.next());
    found.sort();
    return found;
}

// Runs only as a copy of this executable placed in a fresh installation root
// by the next test, so that getRootPath() points into that root.
TEST(CommonLayoutRelocated, DISABLED_PathsAndCreatedDirectories)
{
    const QString root = qEnvironmentVariable("NXTEST_EXPECTED_ROOT");
    ASSERT_FALSE(root.isEmpty());
    ASSERT_EQ(Common::getRootPath(), root);
    ASSERT_EQ(directoriesUnder(root), QStringList{"bin"});

    // The nested ones first: they must create their missing parents.
    EXPECT_EQ(Common::getScanReportsPath(), root + "/reports/scanner");
    EXPECT_EQ(Common::getEdrDirPath(), root + "/settings/edr");
    EXPECT_EQ(directoriesUnder(root),
              (QStringList{"bin", "reports", "reports/scanner", "settings", "settings/edr"}));

    const struct {
        QString (*op)();
        const char* suffix;
    } rows[] = {
        {Common::getBinPath, "/bin"},           {Common::getDbPath, "/db"},
        {Common::getIconsPath, "/icons"},       {Common::getLibPath, "/lib"},
        {Common::getServicesPath, "/services"}, {Common::getSettingsPath, "/settings"},
        {Common::getReportsPath, "/reports"},   {Common::getQuarantinePath, "/quarantine"},
        {Common::getLogsPath, "/logs"},         {Common::getUpdPath, "/upd"},
        {Common::getPolicyDirPath, "/settings/epl"},
        {Common::getWebPolicyDirPath, "/settings/wpl"},
        {Common::getAppPolicyDirPath, "/settings/apl"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(row.op(), root + row.suffix);
    EXPECT_EQ(directoriesUnder(root),
              (QStringList{"bin", "logs", "quarantine", "reports", "reports/scanner", "services",
                           "settings", "settings/apl", "settings/edr", "settings/epl",
                           "settings/wpl", "upd"}));
}

TEST(CommonLayout, PathsAndCreatedDirectoriesUnderAFreshRoot)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString root = QFileInfo(dir.path()).canonicalFilePath() + "/install";
    const QString copy = root + "/bin/" + QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    ASSERT_TRUE(QDir().mkpath(root + "/bin"));
    ASSERT_TRUE(QFile::copy(QCoreApplication::applicationFilePath(), copy));

    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("NXTEST_EXPECTED_ROOT", root);
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(copy, {"--gtest_filter=CommonLayoutRelocated.*", "--gtest_also_run_disabled_tests"});
    ASSERT_TRUE(child.waitForFinished(120000));
    const QString output = QString::fromUtf8(child.readAll());
    EXPECT_EQ(child.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(child.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test.")) << output.toStdString();
}

QStringList g_messages;
void collectMessage(QtMsgType, const QMessageLogContext&, const QString& text)
{
    g_messages << text;
}

TEST(CommonLayout, CreateDirectoryMakesParentsAndReportsFailure)
{
    QTemporaryDir dir;
    const QString nested = dir.path() + "/a/b/c";
    EXPECT_EQ(Common::createDirectoryIfNotExists(nested), nested);
    EXPECT_TRUE(QFileInfo(nested).isDir());
    EXPECT_EQ(Common::createDirectoryIfNotExists(nested), nested);

    nxtest::writeFile(dir.path() + "/file", "x");
    const QString blocked = dir.path() + "/file/sub";
    g_messages.clear();
    QtMessageHandler previous = qInstallMessageHandler(collectMessage);
    EXPECT_EQ(Common::createDirectoryIfNotExists(blocked), blocked);
    qInstallMessageHandler(previous);
    EXPECT_EQ(g_messages, QStringList{"Failed to make directory! Error:"});
    EXPECT_FALSE(nxtest::exists(blocked));
}

mode_t permissionBits(const QString& path)
{
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return info.st_mode & 07777;
}

// The one fixed path of the layout: left as found, except that a directory
// this test created is removed again.
TEST(CommonLayout, TempDirIsOpenToEverybodyOnEveryCall)
{
    const QString path = "/var/tmp/txtmp";
    const QFileInfo before(path);
    if (before.exists() && before.ownerId() != ::geteuid())
        GTEST_SKIP() << path.toStdString() << " belongs to another user";
    const bool createdHere = !before.exists();

    EXPECT_EQ(Common::getTempDirPath(), path);
    EXPECT_EQ(permissionBits(path), mode_t(0777));
    ASSERT_EQ(::chmod("/var/tmp/txtmp", 0700), 0);
    EXPECT_EQ(Common::getTempDirPath(), path);
    EXPECT_EQ(permissionBits(path), mode_t(0777));
    if (createdHere)
        QDir().rmdir(path);
}

} // namespace
