// File helpers: existence, size, delete and the delete-then-rename move.
#include "commonfun.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

class CommonFiles : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_Dir.isValid());
        nxtest::writeFile(path("src"), "source bytes");
        nxtest::writeFile(path("dst"), "old");
        QDir().mkpath(path("dir"));
    }
    QString path(const QString& name) const { return m_Dir.path() + "/" + name; }
    commonfun* files = commonfun::getInstance();
    QTemporaryDir m_Dir;
};

TEST_F(CommonFiles, ExistenceAndSize)
{
    QFile::link(path("gone"), path("broken"));
    EXPECT_TRUE(files->PathFileExists(path("src")));
    EXPECT_TRUE(files->PathFileExists(path("dir")));
    EXPECT_FALSE(files->PathFileExists(""));
    EXPECT_FALSE(files->PathFileExists(path("gone")));
    EXPECT_FALSE(files->PathFileExists(path("broken")));

    QString src = path("src"), missing = path("gone");
    nxtest::writeFile(path("empty"), "");
    QString empty = path("empty");
    EXPECT_EQ(files->GetFileSize(src), 12);
    EXPECT_EQ(files->GetFileSize(empty), 0);
    EXPECT_EQ(files->GetFileSize(missing), 0);
    EXPECT_EQ(src, path("src"));
}

TEST_F(CommonFiles, DeleteRemovesFilesOnly)
{
    EXPECT_TRUE(files->DeleteFile(path("src")));
    EXPECT_FALSE(nxtest::exists(path("src")));
    EXPECT_FALSE(files->DeleteFile(path("src")));
    EXPECT_FALSE(files->DeleteFile(path("dir")));
    EXPECT_TRUE(QFileInfo(path("dir")).isDir());
}

TEST_F(CommonFiles, MoveReplacesAnExistingDestination)
{
    EXPECT_TRUE(files->MoveFile(path("src"), path("dst")));
    EXPECT_FALSE(nxtest::exists(path("src")));
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("source bytes"));

    EXPECT_TRUE(files->MoveFile(path("dst"), path("new")));
    EXPECT_EQ(nxtest::readFile(path("new")), QByteArray("source bytes"));
}

TEST_F(CommonFiles, MoveWithMissingSourceTouchesNothing)
{
    EXPECT_FALSE(files->MoveFile(path("gone"), path("dst")));
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("old"));
}

TEST_F(CommonFiles, MoveOntoADirectoryFailsAndKeepsBoth)
{
    nxtest::writeFile(path("dir/inner"), "x");
    EXPECT_FALSE(files->MoveFile(path("src"), path("dir")));
    EXPECT_EQ(nxtest::readFile(path("dir/inner")), QByteArray("x"));
    EXPECT_EQ(nxtest::readFile(path("src")), QByteArray("source bytes"));
}

TEST_F(CommonFiles, MoveOfAFileOntoItselfIsRefusedAndKeepsIt)
{
    QFile::link(path("src"), path("alias"));
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(m_Dir.path()));
    const QString spellings[] = {path("src"), "src", "./dir/../src", path("alias")};
    for (const QString& other : spellings) {
        EXPECT_FALSE(files->MoveFile(path("src"), other)) << other.toStdString();
        EXPECT_FALSE(files->MoveFile(other, path("src"))) << other.toStdString();
        EXPECT_EQ(nxtest::readFile(path("src")), QByteArray("source bytes"));
    }
    // Relative names resolve against the working directory.
    EXPECT_TRUE(files->MoveFile("src", "dir/moved"));
    QDir::setCurrent(previous);
    EXPECT_EQ(nxtest::readFile(path("dir/moved")), QByteArray("source bytes"));
}

} // namespace
