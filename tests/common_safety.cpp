// The file and INI helpers: edge cases, and access that other components' files cannot subvert (no symbolic links,
// no special files, moves in one step, INI text exactly as QSettings writes it).
#include "commonfun.h"
#include "fileio.h"
#include "testsupport.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>

namespace {

class CommonSafety : public ::testing::Test
{
protected:
    QString path(const QString& name) const { return m_Dir.filePath(name); }
    QTemporaryDir m_Dir;
    commonfun* fun = commonfun::getInstance();
};
class CommonFiles : public CommonSafety {};

TEST_F(CommonSafety, OpenRefusesLinksAndSpecialFilesAndTruncatesOnlyRegularOnes)
{
    nxtest::writeFile(path("file"), "contents");
    QFile::link(path("file"), path("link"));
    QDir().mkpath(path("dir"));
    ASSERT_EQ(mkfifo(path("fifo").toUtf8().constData(), 0600), 0);  // opening it must not wait for a writer
    const struct { const char* name; const char* mode; int error; } cases[] = {
        {"link", "rb", ELOOP}, {"link", "wb+", ELOOP}, {"link", "ab+", ELOOP}, {"link", "rb+", ELOOP},
        {"dir", "rb", EISDIR}, {"dir", "wb+", EISDIR}, {"fifo", "rb", EINVAL}, {"fifo", "wb+", EINVAL},
        {"missing", "rb", ENOENT}};
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

TEST_F(CommonSafety, MoveNeverLeavesTheDestinationMissingNorCopies)
{
    nxtest::writeFile(path("dst"), "old");
    QDir().mkpath(path("srcdir"));
    EXPECT_FALSE(fun->MoveFile(path("srcdir"), path("dst")));  // rename(2) refuses a directory over a file
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("old"));

    // Another file system: a rename cannot do it, and nothing is copied instead.
    QTemporaryDir other("/dev/shm/nxi-test-XXXXXX");
    struct stat here, there;
    if (!other.isValid() || stat(qPrintable(m_Dir.path()), &here) != 0 || stat(qPrintable(other.path()), &there) != 0 ||
        here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";
    nxtest::writeFile(other.filePath("src"), "new");
    EXPECT_FALSE(fun->MoveFile(other.filePath("src"), path("dst")));
    EXPECT_EQ(nxtest::readFile(path("dst")), QByteArray("old"));
    EXPECT_EQ(nxtest::readFile(other.filePath("src")), QByteArray("new"));
}

TEST_F(CommonSafety, IniTextIsQSettingsTextAndALinkIsNeverWritten)
{
    // Plain text is written without QSettings: the comment goes with the first save, the odd key comes last.
    const struct { const char* section; const char* key; const char* value; } writes[] = {
        {"hlpr", "1a", "07"}, {"hlpr", "00", "-1"}, {"SBF_Size", "wdx00.sbf", "3540#NXI"},
        {"hlpr", "ff", ""}, {"hlpr", "00", "123"}, {"odd", "a key", " spaced, with; = signs "}};
    nxtest::writeFile(path("ours.ini"), "; a comment QSettings drops\n[hlpr]\nzz=1\n");
    nxtest::writeFile(path("qt.ini"), nxtest::readFile(path("ours.ini")));
    for (const auto& w : writes) {
        if (QByteArray(w.section) == "odd") {  // reads of the plain text
            EXPECT_EQ(fun->GetPrivateProfileString("SBF_Size", "wdx00.sbf", "x", path("ours.ini")), "3540#NXI");
            EXPECT_EQ(fun->GetPrivateProfileString("hlpr", "ff", "x", path("ours.ini")), "");
            EXPECT_EQ(fun->GetPrivateProfileInt("hlpr", "fe", 5, path("ours.ini")), 5);
        }
        EXPECT_TRUE(fun->WritePrivateProfileString(w.section, w.key, w.value, path("ours.ini")));
        QSettings settings(path("qt.ini"), QSettings::IniFormat);
        settings.beginGroup(w.section);
        settings.setValue(w.key, QString(w.value));
        settings.sync();
        EXPECT_EQ(nxtest::readFile(path("ours.ini")), nxtest::readFile(path("qt.ini"))) << w.key;
    }
    EXPECT_EQ(fun->GetPrivateProfileString("odd", "a key", "x", path("ours.ini")), " spaced, with; = signs ");
    EXPECT_EQ(fun->GetPrivateProfileInt("hlpr", "00", 5, path("ours.ini")), 123);
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
        EXPECT_FALSE(fun->MoveFile(src, other)) << other;
        EXPECT_FALSE(fun->MoveFile(other, src)) << other;
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
