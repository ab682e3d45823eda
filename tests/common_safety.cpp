// The file and INI helpers: edge cases, and access that other components' files cannot subvert.
#include "commonfun.h"
#include "fileio.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

namespace {

class CommonSafety : public ::testing::Test
{
protected:
    QString path(const QString& name) const { return m_Dir.filePath(name); }
    QTemporaryDir m_Dir;
    commonfun* fun = commonfun::getInstance();
};
using CommonFiles = CommonSafety;

TEST_F(CommonSafety, OpenRefusesLinksAndSpecialFilesAndTruncatesOnlyRegularOnes)
{
    nxtest::writeFile(path("file"), "contents");
    QFile::link(path("file"), path("link"));
    QDir().mkpath(path("dir"));
    ASSERT_EQ(mkfifo(path("fifo").toUtf8().constData(), 0600), 0);  // opening it must not wait for a writer
    const std::tuple<const char*, const char*, int> cases[] = {
        {"link", "rb", ELOOP},  {"link", "wb+", ELOOP},  {"link", "ab+", ELOOP},
        {"link", "rb+", ELOOP}, {"dir", "rb", EISDIR},   {"dir", "wb+", EISDIR},
        {"fifo", "rb", EINVAL}, {"fifo", "wb+", EINVAL}, {"missing", "rb", ENOENT}};
    for (const auto& [name, mode, error] : cases) {
        FILE* file = nullptr;
        EXPECT_EQ(fileio::openFile(path(name).toUtf8().constData(), mode, &file).code(), error) << name << " " << mode;
        EXPECT_EQ(file, nullptr);
    }
    EXPECT_EQ(nxtest::readFile(path("file")), QByteArray("contents"));

    // Another user's setuid file is made anew, owned by this user with the fixed mode; one added to loses its bits.
    nxtest::writeFile(path("log"), "old ");
    for (const char* name : {"file", "log"})
        ASSERT_EQ(::chmod(path(name).toUtf8().constData(), 06777), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path("file").toUtf8().constData(), 65534, 65534), 0);
    }
    for (const auto& [name, mode, contents] : {std::tuple("file", "wb+", "new"), std::tuple("log", "ab+", "old new")}) {
        FILE* file = nullptr;
        ASSERT_TRUE(fileio::openFile(path(name).toUtf8().constData(), mode, &file).isOk());
        EXPECT_EQ(std::fwrite("new", 3, 1, file), 1u);
        EXPECT_TRUE(fileio::syncFile(file).isOk());
        std::fclose(file);
        EXPECT_EQ(nxtest::readFile(path(name)), QByteArray(contents));
        struct stat after;
        ASSERT_EQ(::stat(path(name).toUtf8().constData(), &after), 0);
        EXPECT_EQ(after.st_uid, ::geteuid()) << name;
        EXPECT_EQ(after.st_mode & 07777, 0644u) << name;
    }
}

// Reads and writes give the text QSettings gives (the comment goes with the first save, keys sorted, odd keys quoted);
// nothing is written for an empty name, and nothing through a link.
TEST_F(CommonFiles, IniTextAndReads)
{
    const QString ours = path("ours.ini"), qt = path("qt.ini");
    fun->WritePrivateProfileString("", "K", "1", ours);
    fun->WritePrivateProfileString("S", "", "1", ours);
    fun->WritePrivateProfileString("S", "K", "1", "");
    EXPECT_TRUE(QDir(m_Dir.path()).isEmpty());
    EXPECT_EQ(fun->GetPrivateProfileInt("S", "K", 7, ours), 7);
    EXPECT_FALSE(nxtest::exists(ours));

    const char* const odd = " spaced, with; = signs ";
    const std::tuple<const char*, const char*, const char*> writes[] = {
        {"hlpr", "1a", "07"}, {"hlpr", "00", "-1"},  {"SBF_Size", "wdx00.sbf", "3540#NXI"},
        {"hlpr", "ff", ""},   {"hlpr", "00", "123"}, {"hlpr", "B", "abc"},
        {"hlpr", "a", "12x"}, {"hlpr", "0a", "-4"},  {"odd", "a key", odd}};
    auto expectReads = [&] {  // a missing key gives the default, a value that is no number 0
        const std::tuple<const char*, const char*, const char*, int> reads[] = {
            {"SBF_Size", "wdx00.sbf", "3540#NXI", 0},
            {"hlpr", "00", "123", 123},
            {"hlpr", "ff", "", 0},
            {"hlpr", "b", "none", -9},
            {"hlpr", "B", "abc", 0},
            {"hlpr", "a", "12x", 0},
            {"hlpr", "0a", "-4", -4}};
        for (const auto& [section, key, text, number] : reads) {
            EXPECT_EQ(fun->GetPrivateProfileString(section, key, "none", ours), text) << key;
            EXPECT_EQ(fun->GetPrivateProfileInt(section, key, -9, ours), number) << key;
        }
    };
    nxtest::writeFile(ours, "; a comment QSettings drops\n[hlpr]\nzz=1\n");
    nxtest::writeFile(qt, nxtest::readFile(ours));
    for (const auto& [section, key, value] : writes) {
        if (value == odd)
            expectReads();  // of the plain text
        EXPECT_TRUE(fun->WritePrivateProfileString(section, key, value, ours));
        QSettings settings(qt, QSettings::IniFormat);
        settings.beginGroup(section);
        settings.setValue(key, QString(value));
        settings.sync();
        EXPECT_EQ(nxtest::readFile(ours), nxtest::readFile(qt)) << key;
    }
    expectReads();
    EXPECT_EQ(fun->GetPrivateProfileString("odd", "a key", "x", ours), odd);
    EXPECT_EQ(QDir(m_Dir.path()).entryList(QDir::Files), QStringList({"ours.ini", "qt.ini"}));

    nxtest::writeFile(path("target"), "[hlpr]\n00=41\n");
    QFile::link(path("target"), path("link.ini"));
    errno = 0;
    EXPECT_FALSE(fun->WritePrivateProfileString("hlpr", "00", "42", path("link.ini")));
    EXPECT_EQ(errno, ELOOP);
    EXPECT_EQ(fun->GetPrivateProfileInt("hlpr", "00", -7, path("link.ini")), -7);
    EXPECT_EQ(nxtest::readFile(path("target")), QByteArray("[hlpr]\n00=41\n"));
    EXPECT_TRUE(QFileInfo(path("link.ini")).isSymLink());
}

// A save starts from what the file holds now, also when another writer changed it after the program's own last
// save: in place at another size, or replaced by a file of the same size.
TEST_F(CommonFiles, SaveRereadsWhatOthersWrote)
{
    const QString file = path("p.ini"), other = path("other.ini");
    for (const auto& [written, replaced] :
         {std::pair<QByteArray, bool>("[hlpr]\n00=15\n01=16\n", false), {"[hlpr]\n00=02\n", true}}) {
        QFile::remove(file);
        ASSERT_TRUE(fun->WritePrivateProfileString("hlpr", "00", "01", file));
        nxtest::writeFile(replaced ? other : file, written);
        ASSERT_TRUE(!replaced || std::rename(qPrintable(other), qPrintable(file)) == 0);
        ASSERT_TRUE(fun->WritePrivateProfileString("hlpr", "02", "09", file));
        EXPECT_EQ(nxtest::readFile(file), written + "02=09\n") << (replaced ? "replaced" : "rewritten in place");
    }
}

// A move is one rename(2): it refuses a directory over a file and the other way round, another file system (nothing
// is copied) and a destination that is the source under another name, and leaves both files as they were.
TEST_F(CommonFiles, ExistenceDeleteAndMove)
{
    QString src = path("src"), dst = path("dst"), dir = path("dir"), gone = path("gone"), alias = path("alias");
    nxtest::writeFile(src, "source bytes");
    nxtest::writeFile(dst, "old");
    nxtest::writeFile(path("dir/inner"), "x");
    QDir().mkpath(path("srcdir"));
    QFile::link(gone, path("broken"));
    QFile::link(src, alias);
    EXPECT_FALSE(fun->PathFileExists(""));
    EXPECT_FALSE(fun->PathFileExists(path("broken")));
    EXPECT_TRUE(fun->PathFileExists(dir));
    EXPECT_EQ(fun->GetFileSize(src), 12);
    EXPECT_FALSE(fun->DeleteFile(dir));

    QTemporaryDir other("/dev/shm/nxi-test-XXXXXX");
    struct stat here, there;
    const bool otherFs = other.isValid() && stat(qPrintable(m_Dir.path()), &here) == 0 &&
                         stat(qPrintable(other.path()), &there) == 0 && here.st_dev != there.st_dev;
    nxtest::writeFile(other.filePath("src"), "new");
    const QString previous = QDir::currentPath(), srcdir = path("srcdir"),
                  away = otherFs ? other.filePath("src") : gone;
    ASSERT_TRUE(QDir::setCurrent(m_Dir.path()));
    const std::pair<QString, QString> refused[] = {
        {srcdir, dst},         {gone, dst},           {src, dir},   {src, src},   {src, "src"}, {"src", src},
        {src, "./dir/../src"}, {"./dir/../src", src}, {src, alias}, {alias, src}, {away, dst}};
    for (const auto& [from, to] : refused)
        EXPECT_FALSE(fun->MoveFile(from, to)) << from << " -> " << to;
    EXPECT_EQ(nxtest::readFile(src), QByteArray("source bytes"));
    EXPECT_EQ(nxtest::readFile(dst), QByteArray("old"));
    EXPECT_EQ(nxtest::readFile(other.filePath("src")), QByteArray("new"));
    EXPECT_EQ(nxtest::readFile(path("dir/inner")), QByteArray("x"));

    EXPECT_TRUE(fun->MoveFile("src", "dst"));  // relative names resolve against the working directory
    QDir::setCurrent(previous);
    EXPECT_FALSE(nxtest::exists(src));
    EXPECT_EQ(nxtest::readFile(dst), QByteArray("source bytes"));
    EXPECT_TRUE(fun->DeleteFile(dst));
    EXPECT_FALSE(fun->DeleteFile(dst));
    if (!otherFs)
        GTEST_SKIP() << "no second file system at /dev/shm: a move across file systems was not tried";
}

}  // namespace
