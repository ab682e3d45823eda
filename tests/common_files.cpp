// INI helpers byte for byte, and the file helpers' edge cases.
#include "commonfun.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstdio>

namespace {

class CommonFiles : public ::testing::Test
{
protected:
    QString path(const QString& name) const { return m_Dir.path() + "/" + name; }
    commonfun* fun = commonfun::getInstance();
    QTemporaryDir m_Dir;
};

TEST_F(CommonFiles, IniTextAndReads)
{
    // Nothing is written for an empty section, key or path.
    const QString file = path("a.ini"), sorted = path("b.ini"), missing = path("gone.ini");
    fun->WritePrivateProfileString("", "K", "1", file);
    fun->WritePrivateProfileString("S", "", "1", file);
    fun->WritePrivateProfileString("S", "K", "1", "");
    EXPECT_TRUE(QDir(m_Dir.path()).isEmpty());

    fun->WritePrivateProfileString("S", "K", "", file);
    EXPECT_EQ(nxtest::readFile(file), QByteArray("[S]\nK=\n"));
    EXPECT_EQ(fun->GetPrivateProfileString("S", "K", "fallback", file), QString(""));
    EXPECT_EQ(fun->GetPrivateProfileInt("S", "K", 5, file), 0);
    for (const char* key : {"ff", "0a", "B", "00", "a", "1b"})
        fun->WritePrivateProfileString("wdx00", key, QString("v") + key, sorted);
    fun->WritePrivateProfileString("wdx00", "0a", "12", sorted);
    EXPECT_EQ(nxtest::readFile(sorted),
              QByteArray("[wdx00]\n00=v00\n0a=12\n1b=v1b\nB=vB\na=va\nff=vff\n"));
    EXPECT_EQ(fun->GetPrivateProfileString("wdx00", "b", "none", sorted), QString("none"));

    EXPECT_EQ(fun->GetPrivateProfileInt("S", "K", 7, missing), 7);
    EXPECT_FALSE(nxtest::exists(missing));
    nxtest::writeFile(file, "[S]\nK=3\nabc=abc\nx=12x\nneg=-4\n");
    const std::pair<const char*, int> ints[] = {{"K", 3}, {"other", -1}, {"abc", 0}, {"x", 0}, {"neg", -4}};
    for (const auto& row : ints)
        EXPECT_EQ(fun->GetPrivateProfileInt("S", row.first, -1, file), row.second) << row.first;
}

// A save starts from what the file holds now, also when another writer changed it after the program's own last
// save: in place at another size, or replaced by a file of the same size.
TEST_F(CommonFiles, SaveRereadsWhatOthersWrote)
{
    const QString file = path("p.ini"), other = path("other.ini");
    const struct {
        const char* how;
        QByteArray written;
        bool replaced;
    } cases[] = {{"rewritten in place", "[hlpr]\n00=15\n01=16\n", false}, {"replaced", "[hlpr]\n00=02\n", true}};
    for (const auto& c : cases) {
        QFile::remove(file);
        ASSERT_TRUE(fun->WritePrivateProfileString("hlpr", "00", "01", file));
        if (c.replaced) {
            nxtest::writeFile(other, c.written);
            ASSERT_EQ(std::rename(qPrintable(other), qPrintable(file)), 0);
        } else {
            nxtest::writeFile(file, c.written);
        }
        ASSERT_TRUE(fun->WritePrivateProfileString("hlpr", "02", "09", file));
        EXPECT_EQ(nxtest::readFile(file), c.written + "02=09\n") << c.how;
    }
}

TEST_F(CommonFiles, ExistenceDeleteAndMove)
{
    QString src = path("src");
    nxtest::writeFile(src, "source bytes");
    nxtest::writeFile(path("dst"), "old");
    nxtest::writeFile(path("dir/inner"), "x");
    QFile::link(path("gone"), path("broken"));
    QFile::link(src, path("alias"));
    EXPECT_FALSE(fun->PathFileExists(""));
    EXPECT_FALSE(fun->PathFileExists(path("broken")));
    EXPECT_EQ(fun->GetFileSize(src), 12);
    EXPECT_FALSE(fun->DeleteFile(path("dir")));
    EXPECT_FALSE(fun->MoveFile(path("gone"), path("dst")));
    EXPECT_FALSE(fun->MoveFile(src, path("dir")));
    EXPECT_EQ(nxtest::readFile(path("dir/inner")), QByteArray("x"));

    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(m_Dir.path()));
    for (const QString& other : {src, QString("src"), QString("./dir/../src"), path("alias")}) {
        EXPECT_FALSE(fun->MoveFile(src, other)) << other.toStdString();
        EXPECT_FALSE(fun->MoveFile(other, src)) << other.toStdString();
    }
    EXPECT_EQ(nxtest::readFile(src), QByteArray("source bytes"));
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("old"));
    // Relative names resolve against the working directory; the old file is replaced.
    EXPECT_TRUE(fun->MoveFile("src", "dst"));
    QDir::setCurrent(previous);
    EXPECT_FALSE(nxtest::exists(src));
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("source bytes"));
    EXPECT_TRUE(fun->DeleteFile(path("dst")));
    EXPECT_FALSE(fun->DeleteFile(path("dst")));
    EXPECT_TRUE(fun->PathFileExists(path("dir")));
}

} // namespace
