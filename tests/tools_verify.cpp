// nxinspect verify names every kind of damage to an index, one at a time,
// and passes again once the damage is undone.
#include "indexformat.h"
#include "tools_support.h"

#include <QFile>
#include <gtest/gtest.h>

#include <functional>

using nxformat::Generation;
using nxformat::IndexFile;
using nxtest::readFile;
using nxtest::runTool;
using nxtest::writeFile;

namespace {

const unsigned char* bytesOf(const QByteArray& bytes) { return reinterpret_cast<const unsigned char*>(bytes.constData()); }

void flipByte(const QString& path, qint64 offset)
{
    QByteArray bytes = readFile(path);
    ASSERT_LT(offset, bytes.size()) << qPrintable(path);
    bytes[int(offset)] = char(bytes[int(offset)] ^ 0x01);
    writeFile(path, bytes);
}

struct Damage {
    const char* name;
    QString file;  // relative to the DB host directory; restored afterwards
    std::function<void(const QString& path)> apply;
    QStringList expected;  // lines verify must print
};

} // namespace

TEST(ToolsVerify, NamesEachKindOfDamage)
{
    nxtest::TempInstall install;
    ASSERT_EQ(runTool("ynsample", {install.root(), "--types", "wdx", "--files", "2", "--records", "1500"}).exitCode, 0);
    ASSERT_EQ(install.runIndexer(), 0);
    ASSERT_EQ(runTool("nxinspect", {"verify", install.root()}).exitCode, 0);

    // Bucket 3f of wdx00, with about a dozen records.
    const int b = 0x3f;
    const QString host = install.host();
    auto name = [&](IndexFile file, Generation generation) {
        QString dir = file == IndexFile::Entry ? "hl/wdx00/hlp/" : "idxn/wdx00/";
        return dir + nxformat::indexFileName(file, generation, b);
    };
    const QString key = name(IndexFile::Key, Generation::Current), payload = name(IndexFile::Payload, Generation::Current),
                  entry = name(IndexFile::Entry, Generation::Current);
    QByteArray status = readFile(host + "/wdx00.sbf");
    const DWORD block = nxformat::readLE32(bytesOf(status) + 4 * b);
    const int count = int(nxformat::readLE32(bytesOf(status) + block));
    ASSERT_GT(count, 3);
    const int group0 = bytesOf(readFile(host + "/" + entry))[2];  // group byte of record 0
    QString ini = QString::fromLatin1(readFile(host + "/sbf_check_yn.ini"));
    const int sizeDigit = ini.indexOf("wdx00.sbf=") + 10;

    const Damage damages[] = {
        {"key list", key, [](const QString& p) { flipByte(p, 0); },
         {"  " + key + ", bucket 3f, position 0: key 0x", "  wdx00.sbf, bucket 3f, block position 0: key 0x"}},
        {"key file group table", key, [&](const QString& p) { flipByte(p, 2 * count + 2 * group0); },
         {QString::asprintf("  %s, bucket 3f, group slot %02x: holds 1, the group's first position in %s is 0",
                            qPrintable(key), group0, qPrintable(entry)),
          QString::asprintf("  wdx00.sbf, bucket 3f, block group slot %02x: holds 0, the key file 1", group0)}},
        {"payload file", payload, [](const QString& p) { flipByte(p, 12 * 1 + 5); },
         {"  " + payload + ", bucket 3f, position 1: payload differs from the record in " + entry}},
        {"entry file", entry, [](const QString& p) { flipByte(p, 16 * 2 + 9); },
         {"  " + payload + ", bucket 3f, position 2: payload differs from the record in " + entry}},
        {"status file head", "wdx00.sbf", [&](const QString& p) { flipByte(p, 4 * b); },
         {QString("  wdx00.sbf, bucket 3f, head slot 3f: offset %1 is not where a block begins").arg(block ^ 1),
          QString("  wdx00.sbf, byte %1: block belongs to no head slot").arg(block)}},
        {"status file block", "wdx00.sbf", [&](const QString& p) { flipByte(p, block + 4 + 512 + 2); },
         {"  wdx00.sbf, bucket 3f, block position 1: key 0x"}},
        {"status file length", "wdx00.sbf", [&](const QString& p) { writeFile(p, status + QByteArray(3, '\0')); },
         {QString("  wdx00.sbf, byte %1: block runs past the end of the file").arg(status.size()),
          QString("  sbf_check_yn.ini, key wdx00.sbf: records %1 bytes, the status file has %2")
              .arg(status.size()).arg(status.size() + 3)}},
        {"size record", "sbf_check_yn.ini", [&](const QString& p) { flipByte(p, sizeDigit); },
         {"  sbf_check_yn.ini, key wdx00.sbf: records "}},
        {"missing payload file", payload, [](const QString& p) { QFile::remove(p); },
         {"  " + payload + ", bucket 3f: missing, while the bucket's other index files exist"}},
        {"pending key file", name(IndexFile::Key, Generation::Pending), [](const QString& p) { writeFile(p, "x"); },
         {"  " + name(IndexFile::Key, Generation::Pending) + ", bucket 3f: pending file left behind by an unfinished write"}},
        {"previous entry file", name(IndexFile::Entry, Generation::Previous), [](const QString& p) { writeFile(p, ""); },
         {"  " + name(IndexFile::Entry, Generation::Previous) +
          ", bucket 3f: previous file left behind by an unfinished rotation"}},
        {"status file under construction", "wdx00.sbftmp", [](const QString& p) { writeFile(p, ""); },
         {"  wdx00.sbftmp: status file under construction left behind by an unfinished run"}},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.name);
        QString path = host + "/" + damage.file;
        bool existed = QFile::exists(path);
        QByteArray original = readFile(path);
        damage.apply(path);

        nxtest::ToolRun run = runTool("nxinspect", {"verify", install.root()});
        EXPECT_EQ(run.exitCode, 1);
        QStringList lines = run.out.split('\n');
        EXPECT_EQ(lines[0], QString("wdx00: %1 violation%2").arg(damage.expected.size()).arg(damage.expected.size() > 1 ? "s" : ""));
        for (int i = 0; i < damage.expected.size(); ++i)
            EXPECT_TRUE(lines.value(i + 1).startsWith(damage.expected[i])) << qPrintable(run.out);

        if (existed)
            writeFile(path, original);
        else
            QFile::remove(path);
    }
    nxtest::ToolRun repaired = runTool("nxinspect", {"verify", install.root()});
    EXPECT_EQ(repaired.exitCode, 0) << qPrintable(repaired.out);
}
