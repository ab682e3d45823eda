// The single-instance guard between this process and nxguardprobe.
#include "singleinstanceapp.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QUuid>
#include <gtest/gtest.h>

namespace {

// Returns the result of nxguardprobe's claim; "try" ends, "hold" keeps the claim.
QString probe(QProcess& p, const QString& name, const char* mode = "try")
{
    p.start(NXGUARDPROBE_PATH, {mode, name});
    p.waitForReadyRead(30000);
    if (QString(mode) == "try")
        p.waitForFinished(30000);
    return QString::fromUtf8(p.readLine()).trimmed();
}

TEST(Guard, OneHolderAcrossProcessesAndUnusableName)
{
    const QString name = "nxguard-test-" + QUuid::createUuid().toString(QUuid::Id128);
    const QString socket = QDir::tempPath() + "/" + name;
    QProcess holder, killed, once;
    {
        SingleInstanceApp guard;
        EXPECT_EQ(guard.Error_String(), QString());
        ASSERT_EQ(guard.CreateAppInstance(name), 1);
        EXPECT_EQ(probe(once, name), QString("0"));
    }
    EXPECT_FALSE(QFileInfo::exists(socket));

    ASSERT_EQ(probe(holder, name, "hold"), QString("1"));
    SingleInstanceApp second;
    EXPECT_EQ(second.CreateAppInstance(name), 0);
    EXPECT_EQ(second.Error_String(), QString());
    holder.closeWriteChannel();
    ASSERT_TRUE(holder.waitForFinished(30000));
    EXPECT_EQ(probe(once, name), QString("1"));

    // A killed holder leaves its socket behind, which must not block.
    ASSERT_EQ(probe(killed, name, "hold"), QString("1"));
    killed.kill();
    ASSERT_TRUE(killed.waitForFinished(30000));
    ASSERT_TRUE(QFileInfo::exists(socket));
    SingleInstanceApp next;
    EXPECT_EQ(next.CreateAppInstance(name), 1);
    EXPECT_EQ(probe(once, name), QString("0"));

    SingleInstanceApp bad;
    EXPECT_EQ(bad.CreateAppInstance(socket + "-none/socket"), 2);
    EXPECT_TRUE(bad.Error_String().startsWith("QLocalServer::listen: ")) << bad.Error_String().toStdString();
}

}  // namespace
