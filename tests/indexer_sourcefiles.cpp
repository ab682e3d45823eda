// A kept source file reads as its path names it now: through the watch on the source directory, read at the start
// of each pass, or without a watch by a look at the descriptor at every use.
#include "indexformat.h"
#include "sourcefiles.h"
#include "testsupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <tuple>
#include <unistd.h>

namespace {

// A source file of 1024 + 16 * size bytes whose start slot 1 holds mark.
QByteArray marked(uint32_t mark, int size)
{
    QByteArray bytes(1024 + 16 * size, '\0');
    nxformat::writeLE32(reinterpret_cast<unsigned char*>(bytes.data()) + 4, mark);
    return bytes;
}

void writeInPlace(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite) && file.write(bytes) == bytes.size());  // the same inode
}

class KeptSourceFiles : public testing::TestWithParam<bool>
{
};

TEST_P(KeptSourceFiles, ReadAsThePathNamesThemNow)
{
    const bool watched = GetParam();
    QTemporaryDir dir;
    const QString host = dir.path(), sources = host + "/idxnd", other = sources + "/other.yn";
    ASSERT_TRUE(QDir().mkpath(sources));
    SourceFiles files;
    // Forming a path sets the watch; without it the files are checked at every use.
    const QByteArray path =
        watched ? files.path(host, "wdx00", 0) : nxformat::sourceFilePath(host, "wdx00", 0).toUtf8();
    const QString name = QString::fromUtf8(path);
    // What happens to the file, the mark it then holds and its size; the last two changes only the watch sees.
    const std::tuple<QString, uint32_t, int> steps[] = {
        {"new", 1, 1},    {"in place", 2, 2},  {"new", 3, 3},
        {"remove", 0, 0}, {"two names", 4, 4}, {"in place, other name", 5, 5},
        {"new", 6, 6},    {"in place", 7, 6},  {"directory moved", 8, 8}};
    for (const auto& [change, mark, size] : steps) {
        if (!watched && (change == "directory moved" || (change == "in place" && size == 6)))
            continue;
        const QByteArray bytes = marked(mark, size);
        if (change == "in place") {
            writeInPlace(name, bytes);
        } else if (change == "in place, other name") {
            writeInPlace(other, bytes);
        } else {
            if (change == "directory moved") {
                ASSERT_TRUE(QDir().rename(sources, sources + ".old") && QDir().mkpath(sources));
            }
            QFile::remove(name);
            QFile::remove(other);
            if (change != "remove")
                nxtest::writeFile(name, bytes);
            if (change == "two names") {
                ASSERT_EQ(::link(path.constData(), QFile::encodeName(other).constData()), 0);
            }
        }
        files.watchChanges();
        const SourceFiles::File* file = files.open(path.constData());
        const int64_t got = file ? int64_t(nxformat::readLE32(file->head + 4)) : -int64_t(errno);
        EXPECT_EQ(got, change == "remove" ? -ENOENT : int64_t(mark)) << change.toStdString() << " " << mark;
        if (file) {
            EXPECT_EQ(file->size, bytes.size()) << change.toStdString() << " " << mark;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(WatchedOrChecked, KeptSourceFiles, testing::Bool());

}  // namespace
