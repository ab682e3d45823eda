// The build stamp in its three output formats, under any default locale.
#include "Common.h"

#include <QCoreApplication>
#include <QDate>
#include <QLocale>
#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

void expectStampFormats()
{
    const struct {
        const char* date;
        const char* time;
        const char* dateTime;
        const char* dateOnly;
        const char* version;
    } rows[] = {
        {"Mar 28 2025", "13:08:05", "2025-03-28 13:08:05", "2025-03-28", "2025.03.28.0"},
        {"Mar  1 2025", "13:08:05", "2025-03-01 13:08:05", "2025-03-01", "2025.03.01.0"},
        {"Dec  9 1999", "00:00:59", "1999-12-09 00:00:59", "1999-12-09", "1999.12.09.0"},
        {"Oct 31 2030", "23:59:00", "2030-10-31 23:59:00", "2030-10-31", "2030.10.31.0"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Common::formatBuildStamp(row.date, row.time, "yyyy-MM-dd hh:mm:ss"),
                  QString(row.dateTime));
        EXPECT_EQ(Common::formatBuildStamp(row.date, row.time, "yyyy-MM-dd"), QString(row.dateOnly));
        EXPECT_EQ(Common::formatBuildStamp(row.date, row.time, "yyyy.MM.dd.0"), QString(row.version));
    }
    for (const char* bad : {"Mrz 28 2025", "Feb 30 2025", "", "Mar 28"})
        EXPECT_EQ(Common::formatBuildStamp(bad, "13:08:05", "yyyy-MM-dd"), QString()) << bad;

    // This build's own stamp, in the three shapes.
    const QString date = Common::getBuildDate();
    EXPECT_TRUE(QDate::fromString(date, Qt::ISODate).isValid()) << date.toStdString();
    EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}$")
                    .match(Common::getBuildDateTime()).hasMatch());
    EXPECT_TRUE(Common::getBuildDateTime().startsWith(date + " "));
    EXPECT_EQ(Common::getBuildVersion(), QString(date).replace('-', '.') + ".0");
}

TEST(CommonBuildStamp, ParsesUnderTheDefaultLocale)
{
    expectStampFormats();
}

TEST(CommonBuildStamp, ParsesUnderAGermanDefaultLocale)
{
    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    expectStampFormats();
    QLocale::setDefault(previous);
}

// Qt takes month names from the system locale, which comes from the
// environment, so this runs in a copy of the process started by the next test.
TEST(CommonBuildStamp, DISABLED_ParsesUnderAGermanSystemLocale)
{
    ASSERT_EQ(QLocale::system().language(), QLocale::German);
    expectStampFormats();
}

TEST(CommonBuildStamp, ParsesUnderAGermanEnvironment)
{
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("LC_ALL", "de_DE.UTF-8");
    env.insert("LANG", "de_DE.UTF-8");
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(QCoreApplication::applicationFilePath(),
                {"--gtest_filter=CommonBuildStamp.DISABLED_ParsesUnderAGermanSystemLocale",
                 "--gtest_also_run_disabled_tests"});
    ASSERT_TRUE(child.waitForFinished(120000));
    const QString output = QString::fromUtf8(child.readAll());
    EXPECT_EQ(child.exitCode(), 0) << output.toStdString();
    EXPECT_TRUE(output.contains("[  PASSED  ] 1 test.")) << output.toStdString();
}

} // namespace
