// Line building: format bytes, levels, output targets, names, program name.
#include "Common.h"
#include "Logger.h"
#include "testsupport.h"

#include <QDateTime>
#include <QRegularExpression>
#include <gtest/gtest.h>

using LOGGER::CLogger;

namespace {

const QString kStamp = "(\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{3})";

QString startBody()
{
    return "[INFO]  [LoggerStarted] :: Build Date: " + Common::getBuildDateTime();
}

struct LoggerLines : ::testing::Test {
    QTemporaryDir dir;
    QString path = dir.path() + "/t.log";
    CLogger logger{path.toStdString()};
    // The bodies written after the start line.
    QStringList bodies() { return nxtest::logBodies(path).mid(1); }
};

TEST_F(LoggerLines, LineBytesAreStampBlanksBodyCrLf)
{
    logger.Trace("void nxi::StartLoop()", "In get %s type", "DB");
    QRegularExpression line("^" + kStamp + "  " + QRegularExpression::escape(startBody()) + "\r\n"
                            + kStamp + "  \\[TRACE\\]  \\[nxi::StartLoop\\] :: In get DB type\r\n$");
    QRegularExpressionMatch match = line.match(QString::fromUtf8(nxtest::readFile(path)));
    ASSERT_TRUE(match.hasMatch()) << nxtest::readFile(path).constData();
    EXPECT_TRUE(QDateTime::fromString(match.captured(2), "yyyy-MM-dd hh:mm:ss:zzz").isValid());
}

void logAllSix(CLogger& logger)
{
    logger.Error("int main(int, char**)", 2, "e");
    logger.Always("int main(int, char**)", "a");
    logger.Info("int main(int, char**)", "i");
    logger.Trace("int main(int, char**)", "t");
    logger.Buffer("int main(int, char**)", "b");
    logger.Debug("int main(int, char**)", "d");
}

TEST_F(LoggerLines, LevelsLetThroughTheirEntryPoints)
{
    const QStringList all = {"[ERROR]  [main] :: [0x00000002]: e", "[ALWAYS]  [main] :: a",
                             "[INFO]  [main] :: i", "[TRACE]  [main] :: t", " [main] :: b",
                             "[DEBUG]  [main] :: d"};
    struct Case { void (*set)(CLogger&); int passing; };
    const Case cases[] = {
        {[](CLogger&) {}, 4},
        {[](CLogger& l) { l.DisableLog(); }, 2},
        {[](CLogger& l) { l.EnaleLog(); }, 6},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LOG_LEVEL(0)); }, 2},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LOG_LEVEL(-5)); }, 2},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LEVEL_INFO); }, 3},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LEVEL_BUFFER); }, 5},
    };
    for (const Case& c : cases) {
        QString casePath = dir.filePath(QString("level%1.log").arg(&c - cases));
        CLogger caseLogger(casePath.toStdString());
        c.set(caseLogger);
        logAllSix(caseLogger);
        EXPECT_EQ(nxtest::logBodies(casePath).mid(1), all.mid(0, c.passing)) << casePath.toStdString();
    }
}

TEST_F(LoggerLines, ErrorCodePieceAndNamesInBody)
{
    logger.Error("bool nxi::ReadHelperFile(int)", -1, "ReadFile %d", 7);
    logger.Error(nullptr, 2, "x");
    logger.Trace("f()", "%s", std::string(100000, 'y').c_str());
    EXPECT_EQ(bodies(), QStringList({"[ERROR]  [nxi::ReadHelperFile] :: [0xFFFFFFFF]: ReadFile 7",
                                     "[ERROR]  [] :: [0x00000002]: x",
                                     "[TRACE]  [f] :: " + QString(100000, 'y')}));
}

TEST_F(LoggerLines, ConsoleLinesEndInNewlineAndOtherTypesAreSilent)
{
    logger.EnableConsoleLogging();
    ::testing::internal::CaptureStdout();
    logger.Trace("void nxi::StartLoop()", "same");
    logger.Trace("void nxi::StartLoop()", "same");
    logger.UpdateLogType(LOGGER::LOG_TYPE(7));
    logger.Error("void nxi::StartLoop()", 1, "silenced");
    QString out = QString::fromStdString(::testing::internal::GetCapturedStdout());
    QString line = kStamp + "  \\[TRACE\\]  \\[nxi::StartLoop\\] :: same\n";
    EXPECT_TRUE(QRegularExpression("^" + line + line + "$").match(out).hasMatch()) << out.toStdString();
    EXPECT_EQ(nxtest::logBodies(path), QStringList({startBody()}));
}

TEST(LoggerNames, MethodNameReduction)
{
    const char* table[][2] = {
        {"bool nxi::ReadHelperFile(int)", "nxi::ReadHelperFile"},
        {"DWORD nxi::CalculateSizeOfIndex(int, int, bool, int*, int)", "nxi::CalculateSizeOfIndex"},
        {"void nxi::StartLoop()", "nxi::StartLoop"},
        {"int main(int, char**)", "main"},
        {"LoggerStarted", "LoggerStarted"},
        {"f(int a)", "a)"},  // the first "(" lies before the first blank
        {nullptr, ""},
    };
    QTemporaryDir dir;
    CLogger logger(dir.filePath("n.log").toStdString());
    for (auto& row : table)
        EXPECT_EQ(logger.getProperMethodName(QString::fromUtf8(row[0])), row[1]);
}

TEST(LoggerNames, ProgramNameFallsBackToExeThenUnknown)
{
    struct Case { QStringList args; QString exe; QString name; };
    const Case cases[] = {
        {{"/usr/bin/nxindexer", "x"}, "/a/other", "nxindexer"},
        {{" /opt/ nx  "}, "", "nx"},
        {{"/usr/bin/"}, "/a/other", "/usr/bin/"},
        {{"   "}, "/opt/tv/bin/nxindexer", "nxindexer"},
        {{}, "/opt/tv/bin/nxindexer", "nxindexer"},
        {{}, "", "Unknown"},
        {{" "}, "/", "Unknown"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(CLogger::programNameFrom(c.args, c.exe), c.name) << c.args.join('|').toStdString();
    EXPECT_EQ(CLogger::programName(), "nxtest_logger");
}

TEST(LoggerInstance, OneObjectWritingToTheProgramsLog)
{
    CLogger* logger = CLogger::getInstance();
    ASSERT_EQ(CLogger::getInstance(), logger);
    QString path = Common::getLogsPath() + "/nxtest_logger.log";
    EXPECT_EQ(logger->logFilePath(), path.toStdString());
    EXPECT_EQ(nxtest::logBodies(path).last(), startBody());
    CLogger::releaseInstance();
}

} // namespace
