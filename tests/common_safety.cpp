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
class CommonFiles : public CommonSafety
{
};

TEST_F(CommonSafety, OpenRefusesLinksAndSpecialFilesAndTruncatesOnlyRegularOnes)
{
    nxtest::writeFile(path("file"), "contents");
    QFile::link(path("file"), path("link"));
    QDir().mkpath(path("dir"));
    ASSERT_EQ(mkfifo(path("fifo").toUtf8().constData(), 0600), 0);  // opening it must not wait for a writer
    const struct {
        const char* name;
        const char* mode;
        int error;
    } cases[] = {{"link", "rb", ELOOP},  {"link", "wb+", ELOOP},  {"link", "ab+", ELOOP},
                 {"link", "rb+", ELOOP}, {"dir", "rb", EISDIR},   {"dir", "wb+", EISDIR},
                 {"fifo", "rb", EINVAL}, {"fifo", "wb+", EINVAL}, {"missing", "rb", ENOENT}};
    for (const auto& c : cases) {
        FILE* file = nullptr;
        EXPECT_EQ(fileio::openFile(path(c.name).toUtf8().constData(), c.mode, &file).code(), c.error)
            << c.name << " " << c.mode;
        EXPECT_EQ(file, nullptr);
    }
    EXPECT_EQ(nxtest::readFile(path("file")), QByteArray("contents"));

    // Another user's setuid file is made anew, owned by this user with the fixed mode; one added to loses its bits.
    struct stat after;
    ASSERT_EQ(::chmod(path("file").toUtf8().constData(), 06777), 0);
    nxtest::writeFile(path("log"), "old ");
    ASSERT_EQ(::chmod(path("log").toUtf8().constData(), 06777), 0);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown(path("file").toUtf8().constData(), 65534, 65534), 0);
    }
    for (const char* name : {"file", "log"}) {
        FILE* file = nullptr;
        ASSERT_TRUE(fileio::openFile(path(name).toUtf8().constData(), name[0] == 'f' ? "wb+" : "ab+", &file).isOk());
        EXPECT_EQ(std::fwrite("new", 3, 1, file), 1u);
        EXPECT_TRUE(fileio::syncFile(file).isOk());
        std::fclose(file);
    }
    EXPECT_EQ(nxtest::readFile(path("file")), QByteArray("new"));
    EXPECT_EQ(nxtest::readFile(path("log")), QByteArray("old new"));
    ASSERT_EQ(::stat(path("file").toUtf8().constData(), &after), 0);
    EXPECT_EQ(after.st_uid, ::geteuid());
    EXPECT_EQ(after.st_mode & 07777, 0644u);
    ASSERT_EQ(::stat(path("log").toUtf8().constData(), &after), 0);
    EXPECT_EQ(after.st_mode & 07777, 0644u);
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

    const struct {
        const char* section;
        const char* key;
        const char* value;
    } writes[] = {{"hlpr", "1a", "07"}, {"hlpr", "00", "-1"},  {"SBF_Size", "wdx00.sbf", "3540#NXI"},
                  {"hlpr", "ff", ""},   {"hlpr", "00", "123"}, {"hlpr", "B", "abc"},
                  {"hlpr", "a", "12x"}, {"hlpr", "0a", "-4"},  {"odd", "a key", " spaced, with; = signs "}};
    auto expectReads = [&] {  // a missing key gives the default, a value that is no number 0
        const struct {
            const char *section, *key, *text;
            int number;
        } reads[] = {{"SBF_Size", "wdx00.sbf", "3540#NXI", 0},
                     {"hlpr", "00", "123", 123},
                     {"hlpr", "ff", "", 0},
                     {"hlpr", "b", "none", -9},
                     {"hlpr", "B", "abc", 0},
                     {"hlpr", "a", "12x", 0},
                     {"hlpr", "0a", "-4", -4}};
        for (const auto& r : reads) {
            EXPECT_EQ(fun->GetPrivateProfileString(r.section, r.key, "none", ours), r.text) << r.key;
            EXPECT_EQ(fun->GetPrivateProfileInt(r.section, r.key, -9, ours), r.number) << r.key;
        }
    };
    nxtest::writeFile(ours, "; a comment QSettings drops\n[hlpr]\nzz=1\n");
    nxtest::writeFile(qt, nxtest::readFile(ours));
    for (const auto& w : writes) {
        if (QByteArray(w.section) == "odd")
            expectReads();  // of the plain text
        EXPECT_TRUE(fun->WritePrivateProfileString(w.section, w.key, w.value, ours));
        QSettings settings(qt, QSettings::IniFormat);
        settings.beginGroup(w.section);
        settings.setValue(w.key, QString(w.value));
        settings.sync();
        EXPECT_EQ(nxtest::readFile(ours), nxtest::readFile(qt)) << w.key;
    }
    expectReads();
    EXPECT_EQ(fun->GetPrivateProfileString("odd", "a key", "x", ours), " spaced, with; = signs ");
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

// A move is one rename(2): it refuses a directory over a file and the other way round, another file system (nothing
// is copied) and a destination that is the source under another name, and leaves both files as they were.
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
    QString src = path("src"), dst = path("dst");
    nxtest::writeFile(src, "source bytes");
    nxtest::writeFile(dst, "old");
    nxtest::writeFile(path("dir/inner"), "x");
    QDir().mkpath(path("srcdir"));
    QFile::link(path("gone"), path("broken"));
    QFile::link(src, path("alias"));
    EXPECT_FALSE(fun->PathFileExists(""));
    EXPECT_FALSE(fun->PathFileExists(path("broken")));
    EXPECT_TRUE(fun->PathFileExists(path("dir")));
    EXPECT_EQ(fun->GetFileSize(src), 12);
    EXPECT_FALSE(fun->DeleteFile(path("dir")));

    QTemporaryDir other("/dev/shm/nxi-test-XXXXXX");
    struct stat here, there;
    const bool otherFs = other.isValid() && stat(qPrintable(m_Dir.path()), &here) == 0 &&
                         stat(qPrintable(other.path()), &there) == 0 && here.st_dev != there.st_dev;
    nxtest::writeFile(other.filePath("src"), "new");
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(m_Dir.path()));
    const std::pair<QString, QString> refused[] = {{path("srcdir"), dst},
                                                   {path("gone"), dst},
                                                   {src, path("dir")},
                                                   {src, src},
                                                   {src, "src"},
                                                   {"src", src},
                                                   {src, "./dir/../src"},
                                                   {"./dir/../src", src},
                                                   {src, path("alias")},
                                                   {path("alias"), src},
                                                   {otherFs ? other.filePath("src") : path("gone"), dst}};
    for (const auto& move : refused)
        EXPECT_FALSE(fun->MoveFile(move.first, move.second)) << move.first << " -> " << move.second;
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
