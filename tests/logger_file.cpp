// The file writer: repeat suppression and the size limit with its backup.
#include "Logger.h"
#include "testsupport.h"

#include <QFile>
#include <gtest/gtest.h>

using LOGGER::CLogger;

namespace {

const qint64 kLimit = CLogger::kMaxLogFileSize;

struct LoggerFile : ::testing::Test {
    QTemporaryDir dir;
    QString path = dir.path() + "/t.log";
    QString backup = path + ".bkp";
    CLogger logger{path.toStdString()};
    QByteArray bytes() { return nxtest::readFile(path); }
    QStringList bodies() { return nxtest::logBodies(path).mid(1); }
    void grow(qint64 size)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::Append));
        file.write(QByteArray(int(size - file.size()), 'z'));
    }
};

TEST_F(LoggerFile, RepeatsCollapseIntoOneCountLineRewrittenInPlace)
{
    for (int i = 0; i < 3; ++i)
        logger.Trace("void nxi::StartLoop()", "In get DB type");
    EXPECT_TRUE(bytes().endsWith("In get DB type\r\nRepeated [00002] times.\r\n"));
    int size = bytes().size();
    logger.Trace("void nxi::StartLoop()", "In get DB type");
    EXPECT_EQ(bytes().size(), size);
    logger.Trace("void nxi::StartLoop()", "next");
    EXPECT_EQ(bodies(), QStringList({"[TRACE]  [nxi::StartLoop] :: In get DB type",
                                     "Repeated [00003] times.", "[TRACE]  [nxi::StartLoop] :: next"}));
}

TEST_F(LoggerFile, SameTextFromAnotherFunctionOrLevelIsNew)
{
    logger.Trace("void nxi::StartLoop()", "m");
    logger.Trace("int main(int, char**)", "m");
    logger.Info("int main(int, char**)", "m");
    EXPECT_EQ(bodies(), QStringList({"[TRACE]  [nxi::StartLoop] :: m", "[TRACE]  [main] :: m",
                                     "[INFO]  [main] :: m"}));
}

TEST_F(LoggerFile, CountsBeyondFiveDigitsKeepTheLineBefore)
{
    const std::string body = "[TRACE]  [f] :: again";
    logger.logIntoFile(body);
    QByteArray head = bytes();
    for (int i = 0; i < 100000; ++i)
        logger.logIntoFile(body);
    EXPECT_EQ(bytes(), head + "Repeated [100000] times.\r\n");
    logger.logIntoFile(body);
    EXPECT_EQ(bytes(), head + "Repeated [100001] times.\r\n");
}

TEST(LoggerStartUp, OversizedLogMovesToBackup)
{
    for (qint64 size : {kLimit + 1, kLimit}) {
        QTemporaryDir dir;
        QString path = dir.filePath("t.log");
        QByteArray old(int(size), 'o');
        nxtest::writeFile(path, old);
        nxtest::writeFile(path + ".bkp", "previous backup");
        CLogger logger(path.toStdString());
        bool moved = size > kLimit;
        EXPECT_EQ(nxtest::readFile(path + ".bkp"), moved ? old : QByteArray("previous backup"));
        QByteArray log = nxtest::readFile(path);
        EXPECT_EQ(log.startsWith(old), !moved);
        EXPECT_EQ(log.count("\r\n"), 1);
    }
}

TEST_F(LoggerFile, RepeatOnOversizedLogMovesItToBackup)
{
    logger.Trace("f()", "big");
    logger.Trace("f()", "big");
    grow(kLimit + 1);
    QByteArray full = bytes();
    logger.Trace("f()", "big");
    EXPECT_EQ(nxtest::readFile(backup), full);
    EXPECT_FALSE(nxtest::exists(path));  // the count line of that call is dropped
    logger.Trace("f()", "fresh");
    logger.Trace("f()", "fresh");
    EXPECT_EQ(nxtest::logBodies(path), QStringList({"[TRACE]  [f] :: fresh", "Repeated [00001] times."}));
}

} // namespace
