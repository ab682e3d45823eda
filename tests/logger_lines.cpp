// Log lines: format bytes, levels, targets, names, repeats and the size limit with its backup.
#include "Common.h"
#include "Logger.h"
#include "testsupport.h"

#include <QDateTime>
#include <QRegularExpression>
#include <gtest/gtest.h>

using LOGGER::CLogger;

namespace {

const QString kStamp = "(\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{3})";
const qint64 kLimit = CLogger::kMaxLogFileSize;
QString startBody() { return "[INFO]  [LoggerStarted] :: Build Date: " + Common::getBuildDateTime(); }

struct Logger : ::testing::Test {
    QTemporaryDir dir;
    QString path = dir.path() + "/t.log";
    CLogger logger{path.toStdString()};
    QStringList bodies() { return nxtest::logBodies(path).mid(1); }  // after the start line
};

// A name without "(" is in every start line; the names a run reports are in the end-to-end log table.
TEST_F(Logger, LineBytesCodePieceAndMethodNames)
{
    logger.Trace("void nxi::StartLoop()", "In get %s type", "DB");
    logger.Error("bool nxi::ReadHelperFile(int)", -1, "ReadFile %d", 7);
    logger.Error(nullptr, 2, "x");
    logger.Trace("f(int a)", "%s", std::string(100000, 'y').c_str());  // the first "(" lies before the first blank
    // Every line is stamp, two blanks, body, CR LF.
    QRegularExpression head("^" + kStamp + "  " + QRegularExpression::escape(startBody()) + "\r\n" + kStamp +
                            "  \\[TRACE\\]  \\[nxi::StartLoop\\] :: In get DB type\r\n");
    QRegularExpressionMatch match = head.match(QString::fromUtf8(nxtest::readFile(path)));
    ASSERT_TRUE(match.hasMatch()) << nxtest::readFile(path).left(200).constData();
    EXPECT_TRUE(QDateTime::fromString(match.captured(2), "yyyy-MM-dd hh:mm:ss:zzz").isValid());
    EXPECT_EQ(bodies().mid(1),
              QStringList({"[ERROR]  [nxi::ReadHelperFile] :: [0xFFFFFFFF]: ReadFile 7",
                           "[ERROR]  [] :: [0x00000002]: x", "[TRACE]  [a)] :: " + QString(100000, 'y')}));
    EXPECT_TRUE(nxtest::readFile(path).endsWith(QByteArray(100000, 'y') + "\r\n"));
}

TEST_F(Logger, LevelsLetThroughTheirEntryPoints)
{
    const QStringList all = {"[ERROR]  [main] :: [0x00000002]: e",
                             "[ALWAYS]  [main] :: a",
                             "[INFO]  [main] :: i",
                             "[TRACE]  [main] :: t",
                             " [main] :: b",
                             "[DEBUG]  [main] :: d"};
    // A setting and how many of the lines above pass it.
    const std::pair<void (*)(CLogger&), int> cases[] = {
        {[](CLogger&) {}, 4},
        {[](CLogger& l) { l.DisableLog(); }, 2},
        {[](CLogger& l) { l.EnaleLog(); }, 6},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LOG_LEVEL(0)); }, 2},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LOG_LEVEL(-5)); }, 2},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LEVEL_INFO); }, 3},
        {[](CLogger& l) { l.UpdateLogLevel(LOGGER::LEVEL_BUFFER); }, 5}};
    int number = 0;
    for (const auto& [set, passing] : cases) {
        QString casePath = dir.filePath(QString("level%1.log").arg(number++));
        CLogger l(casePath.toStdString());
        set(l);
        const char* fn = "int main(int, char**)";
        l.Error(fn, 2, "e");
        l.Always(fn, "a");
        l.Info(fn, "i");
        l.Trace(fn, "t");
        l.Buffer(fn, "b");
        l.Debug(fn, "d");
        EXPECT_EQ(nxtest::logBodies(casePath).mid(1), all.mid(0, passing)) << casePath;
    }
}

TEST_F(Logger, ConsoleLinesEndInNewlineAndOtherTypesAreSilent)
{
    logger.EnableConsoleLogging();
    ::testing::internal::CaptureStdout();
    logger.Trace("void nxi::StartLoop()", "same");
    logger.Trace("void nxi::StartLoop()", "same");
    logger.UpdateLogType(LOGGER::LOG_TYPE(7));
    logger.Error("void nxi::StartLoop()", 1, "silenced");
    QString out = QString::fromStdString(::testing::internal::GetCapturedStdout());
    QString line = kStamp + "  \\[TRACE\\]  \\[nxi::StartLoop\\] :: same\n";
    EXPECT_TRUE(QRegularExpression("^" + line + line + "$").match(out).hasMatch()) << out;
    EXPECT_EQ(nxtest::logBodies(path), QStringList({startBody()}));
}

TEST(LoggerNames, ProgramNameFallsBackToExeThenUnknownAndNamesTheSharedLog)
{
    // The arguments, the executable's path and the name.
    const std::tuple<QStringList, QString, QString> cases[] = {
        {{"/usr/bin/nxindexer", "x"}, "/a/other", "nxindexer"},
        {{" /opt/ nx  "}, "", "nx"},
        {{"/usr/bin/"}, "/a/other", "/usr/bin/"},
        {{"   "}, "/opt/tv/bin/nxindexer", "nxindexer"},
        {{}, "/opt/tv/bin/nxindexer", "nxindexer"},
        {{}, "", "Unknown"},
        {{" "}, "/", "Unknown"},
    };
    for (const auto& [args, exe, name] : cases)
        EXPECT_EQ(CLogger::programNameFrom(args, exe), name) << args.join('|');
    EXPECT_EQ(CLogger::programName(), "nxtest_logger");
    CLogger* logger = CLogger::getInstance();
    ASSERT_EQ(CLogger::getInstance(), logger);
    QString path = Common::getLogsPath() + "/nxtest_logger.log";
    EXPECT_EQ(logger->logFilePath(), path.toStdString());
    EXPECT_EQ(nxtest::logBodies(path).last(), startBody());
    CLogger::releaseInstance();
}

TEST_F(Logger, RepeatsCollapseIntoOneCountLineRewrittenInPlace)
{
    for (int i = 0; i < 3; ++i)
        logger.Trace("void nxi::StartLoop()", "In get DB type");
    EXPECT_TRUE(nxtest::readFile(path).endsWith("In get DB type\r\nRepeated [00002] times.\r\n"));
    int size = nxtest::readFile(path).size();
    logger.Trace("void nxi::StartLoop()", "In get DB type");
    EXPECT_EQ(nxtest::readFile(path).size(), size);
    logger.Trace("int main(int, char**)", "In get DB type");  // same text, other function or level: new
    logger.Info("int main(int, char**)", "In get DB type");
    EXPECT_EQ(bodies(), QStringList({"[TRACE]  [nxi::StartLoop] :: In get DB type", "Repeated [00003] times.",
                                     "[TRACE]  [main] :: In get DB type", "[INFO]  [main] :: In get DB type"}));
    // Past five digits the count line grows and still replaces only itself.
    logger.logIntoFile("[TRACE]  [f] :: again");
    const QByteArray withLine = nxtest::readFile(path);
    for (int i = 0; i < 100000; ++i)
        logger.logIntoFile("[TRACE]  [f] :: again");
    EXPECT_EQ(nxtest::readFile(path), withLine + "Repeated [100000] times.\r\n");
    logger.logIntoFile("[TRACE]  [f] :: again");
    EXPECT_EQ(nxtest::readFile(path), withLine + "Repeated [100001] times.\r\n");
}

TEST(LoggerBackup, OversizedLogMovesToBackupAtStartAndAtARepeat)
{
    QTemporaryDir dir;
    for (qint64 size : {kLimit + 1, kLimit}) {
        QString path = dir.filePath(QString("t%1.log").arg(size));
        QByteArray old(int(size), 'o');
        nxtest::writeFile(path, old);
        nxtest::writeFile(path + ".bkp", "previous backup");
        CLogger logger(path.toStdString());
        EXPECT_EQ(nxtest::readFile(path + ".bkp"), size > kLimit ? old : QByteArray("previous backup"));
        EXPECT_EQ(nxtest::readFile(path).startsWith(old), size <= kLimit);
        EXPECT_EQ(nxtest::readFile(path).count("\r\n"), 1);
    }
    // At a repeat the count line of that call is dropped with the moved log.
    const QString path = dir.filePath("r.log");
    CLogger logger(path.toStdString());
    logger.Trace("f()", "big");
    logger.Trace("f()", "big");
    QByteArray full = nxtest::readFile(path);
    full += QByteArray(int(kLimit + 1 - full.size()), 'z');
    nxtest::writeFile(path, full);
    logger.Trace("f()", "big");
    EXPECT_EQ(nxtest::readFile(path + ".bkp"), full);
    EXPECT_FALSE(nxtest::exists(path));
    logger.Trace("f()", "fresh");
    logger.Trace("f()", "fresh");
    EXPECT_EQ(nxtest::logBodies(path), QStringList({"[TRACE]  [f] :: fresh", "Repeated [00001] times."}));
}

}  // namespace
