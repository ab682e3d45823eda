// Byte layouts, names and the sort order, against the worked examples.
#include "indexformat.h"
#include "nxi.h"
#include "testsupport.h"

#include <gtest/gtest.h>

namespace {

const unsigned char* bytes(const QByteArray& array)
{
    return reinterpret_cast<const unsigned char*>(array.constData());
}

TEST(IndexFormat, CompareOrdersByTheWrappedKeyDifference)
{
    // Each pair sorts first-before-second.
    const struct { uint32_t first, second; } cases[] = {
        {66049, 66051}, {0x80000001u, 0}, {0, 0x7FFFFFFFu}};
    for (const auto& c : cases) {
        QByteArray first = nxtest::makeRecord(c.first, 1), second = nxtest::makeRecord(c.second, 2);
        EXPECT_LT(compare(first.constData(), second.constData()), 0) << c.first << " vs " << c.second;
        EXPECT_GT(compare(second.constData(), first.constData()), 0) << c.first << " vs " << c.second;
    }
    QByteArray sameKey = nxtest::makeRecord(7, 3);
    EXPECT_EQ(compare(sameKey.constData(), nxtest::makeRecord(7, 4).constData()), 0);
}

TEST(IndexFormat, SplitBuildsKeyListPayloadListAndGroupTable)
{
    const uint8_t groups[] = {0x00, 0x00, 0x05, 0x05, 0x05, 0xff};
    QByteArray table;
    for (uint32_t i = 0; i < 6; ++i)
        table += nxtest::makeRecord((uint32_t(groups[i]) << 16) | (0x0100 + i), i);
    unsigned char keys[12], payloads[72], groupTable[512];
    nxformat::splitSortedTable(bytes(table), 6, keys, payloads, groupTable);
    for (int g = 0; g < 256; ++g) {
        uint16_t expected = g == 0x00 ? 0 : g == 0x05 ? 2 : g == 0xff ? 5 : 0xFFFF;
        EXPECT_EQ(nxformat::readLE16(groupTable + 2 * g), expected) << "slot " << g;
    }
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(nxformat::readLE16(keys + 2 * i), 0x0100 + i);
        EXPECT_EQ(QByteArray(reinterpret_cast<char*>(payloads) + 12 * i, 12), table.mid(16 * i + 4, 12));
    }
}

TEST(IndexFormat, SbfSizeRecordValue)
{
    EXPECT_EQ(nxformat::sbfSizeKey("wdx00"), "wdx00.sbf");
    EXPECT_EQ(nxformat::sbfSizeValue(3540), "3540#NXI");
    EXPECT_EQ(nxformat::parseSbfSizeValue("3540#NXI"), 3540);
    EXPECT_EQ(nxformat::parseSbfSizeValue(nxformat::sbfSizeValue(-1)), -1);
    for (const char* bad : {"3540", "#NXI", " 3540#NXI", "+3540#NXI", "35a0#NXI", "3540#nxi", "99999999999#NXI"})
        EXPECT_EQ(nxformat::parseSbfSizeValue(bad), std::nullopt) << bad;
}

TEST(IndexFormat, KeyFileAndBucketBlockParseOnlyWhenWhole)
{
    EXPECT_FALSE(nxformat::parseKeyFile(QByteArray(511, '\0')));
    EXPECT_FALSE(nxformat::parseKeyFile(QByteArray(513, '\0')));
    ASSERT_TRUE(nxformat::parseKeyFile(QByteArray(514, '\x01')));
    EXPECT_EQ(nxformat::parseKeyFile(QByteArray(514, '\x01'))->keys, QVector<uint16_t>{0x0101});

    QByteArray status(1024, '\0');
    status += QByteArray::fromHex("02000000") + QByteArray(512, '\xff') + QByteArray::fromHex("05000102");
    std::optional<nxformat::BucketBlock> block = nxformat::parseBucketBlock(status, 1024);
    ASSERT_TRUE(block);
    EXPECT_EQ(block->count, 2u);
    EXPECT_EQ(block->keys, (QVector<uint16_t>{0x0005, 0x0201}));
    EXPECT_FALSE(nxformat::parseBucketBlock(status.left(status.size() - 1), 1024));
    EXPECT_FALSE(nxformat::parseBucketBlock(status, 0xFFFFFFF0u));
    EXPECT_FALSE(nxformat::parseStatusHead(QByteArray(1023, '\0')));
}

TEST(IndexFormat, NamesUnderTheHostDirectory)
{
    const QString h = "/x/txhost";
    EXPECT_EQ(nxformat::sourceFilePath(h, "wdx00", 3), h + "/idxnd/wdx000003.yn");
    EXPECT_EQ(nxformat::helperFilePath(h, "wfx00", 0x0a), h + "/hl/wfx000a.hl");
    EXPECT_EQ(nxformat::helperProgressPath(h, "wdx00"), h + "/hl/wdx00/wdx00hl.ini");
    EXPECT_EQ(nxformat::indexDirPath(h, "wdx00") + "/" +
                  nxformat::indexFileName(nxformat::IndexFile::Key, nxformat::Generation::Pending, 0x3f),
              h + "/idxn/wdx00/3f.mnew");
    EXPECT_EQ(nxformat::entryDirPath(h, "wdx00"), h + "/hl/wdx00/hlp");
    EXPECT_EQ(nxformat::pendingStatusFilePath(h, "wdx00"), h + "/wdx00.sbftmp");
    EXPECT_EQ(nxformat::dbCountFilePath(h, "wfx00"), h + "/wfx_idxval.ini");
    QStringList names;
    for (auto file : {nxformat::IndexFile::Key, nxformat::IndexFile::Payload, nxformat::IndexFile::Entry})
        for (auto generation : {nxformat::Generation::Pending, nxformat::Generation::Current,
                                nxformat::Generation::Previous})
            names << nxformat::indexFileName(file, generation, 0xa0);
    EXPECT_EQ(names.join(' '), "a0.mnew a0.m a0.mold a0.dnew a0.d a0.dold a0.hlnew a0.hl a0.hlold");
}

} // namespace
