// The single-instance guard between this process and nxguardprobe.
#include "singleinstanceapp.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <gtest/gtest.h>

namespace {

// Unique per run, so that parallel runs never claim each other's names.
QString uniqueName()
{
    return QString("nxguard-test-%1-%2")
        .arg(QCoreApplication::applicationPid())
        .arg(QRandomGenerator::global()->generate64(), 0, 16);
}

QString probeTry(const QString& name)
{
    QProcess probe;
    probe.start(NXGUARDPROBE_PATH, {"try", name});
    if (!probe.waitForFinished(30000))
        return "<no end>";
    return QString::fromUtf8(probe.readAllStandardOutput()).trimmed();
}

// Starts a probe that holds the name and returns its claim's result.
QString startHolder(QProcess& holder, const QString& name)
{
    holder.start(NXGUARDPROBE_PATH, {"hold", name});
    if (!holder.waitForStarted(30000))
        return "<no start>";
    while (!holder.canReadLine())
        if (!holder.waitForReadyRead(30000))
            return "<no answer>";
    return QString::fromUtf8(holder.readLine()).trimmed();
}

TEST(Guard, FreshGuardHasNoErrorAndClosesQuietly)
{
    SingleInstanceApp guard;
    EXPECT_EQ(guard.Error_String(), QString());
    EXPECT_TRUE(guard.CloseAppInstance());
    EXPECT_EQ(guard.Error_String(), QString());
}

TEST(Guard, SecondProcessIsRefusedUntilTheHolderIsGone)
{
    const QString name = uniqueName();
    {
        SingleInstanceApp guard;
        ASSERT_EQ(guard.CreateAppInstance(name), 1);
        EXPECT_EQ(probeTry(name), QString("0"));
        EXPECT_EQ(probeTry(name), QString("0"));
    }
    EXPECT_FALSE(QFileInfo::exists(QDir::tempPath() + "/" + name));
    EXPECT_EQ(probeTry(name), QString("1"));
}

TEST(Guard, NameIsFreeAgainAfterTheHoldingProcessEnds)
{
    const QString name = uniqueName();
    QProcess holder;
    ASSERT_EQ(startHolder(holder, name), QString("1"));
    {
        SingleInstanceApp second;
        EXPECT_EQ(second.CreateAppInstance(name), 0);
        EXPECT_EQ(second.Error_String(), QString());
    }
    holder.closeWriteChannel();
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(holder.exitCode(), 0);

    SingleInstanceApp next;
    EXPECT_EQ(next.CreateAppInstance(name), 1);
}

TEST(Guard, LeftoverOfAKilledHolderDoesNotBlock)
{
    const QString name = uniqueName();
    QProcess holder;
    ASSERT_EQ(startHolder(holder, name), QString("1"));
    holder.kill();
    ASSERT_TRUE(holder.waitForFinished(30000));
    ASSERT_TRUE(QFileInfo::exists(QDir::tempPath() + "/" + name));

    SingleInstanceApp next;
    EXPECT_EQ(next.CreateAppInstance(name), 1);
    EXPECT_EQ(probeTry(name), QString("0"));
}

TEST(Guard, UnusableNameGivesTwoWithTheServersError)
{
    SingleInstanceApp guard;
    const QString name = QDir::tempPath() + "/" + uniqueName() + "-missing-dir/socket";
    EXPECT_EQ(guard.CreateAppInstance(name), 2);
    EXPECT_TRUE(guard.Error_String().startsWith("QLocalServer::listen: "))
        << guard.Error_String().toStdString();
    EXPECT_TRUE(guard.CloseAppInstance());
}

} // namespace
