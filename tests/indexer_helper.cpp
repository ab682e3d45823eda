// Helper files: counted into the entry table and loaded at its head.
#include "indexer_fixture.h"

namespace {

class HelperFile : public IndexerTest
{
protected:
    // Allocates the table for newBytes of source records plus the helper file.
    bool allocate(int bucket, DWORD newBytes, DWORD* allocSize)
    {
        bool hasHelper = false;
        EXPECT_TRUE(m_Indexer.AllocateIndexBuffer(bucket, newBytes, &hasHelper, allocSize));
        return hasHelper;
    }
    QByteArray helperBytes(int size)
    {
        QByteArray bytes;
        for (int i = 0; i < size; ++i)
            bytes += char('a' + i % 26);
        return bytes;
    }
};

TEST_F(HelperFile, LoadedAtTheHeadAndCursorMovesByWholeRecords)
{
    const struct { int size; long advance; } cases[] = {{48, 48}, {50, 48}};
    for (const auto& c : cases) {
        nxtest::writeFile(helperPath(3), helperBytes(c.size));
        DWORD allocSize = 0;
        EXPECT_TRUE(allocate(3, 16, &allocSize));
        EXPECT_EQ(allocSize, DWORD(16 + c.size));
        EXPECT_TRUE(m_Indexer.ReadHelperFile(3));
        EXPECT_EQ(m_Indexer.m_EntryCursor - m_Indexer.m_EntryTable, c.advance);
        EXPECT_EQ(tableBytes(c.size), helperBytes(c.size));
    }
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(HelperFile, EmptyOrVanishedHelperIsNotLoaded)
{
    nxtest::writeFile(helperPath(3), QByteArray());
    DWORD allocSize = 0;
    EXPECT_FALSE(allocate(3, 32, &allocSize));
    EXPECT_EQ(allocSize, 32u);

    nxtest::writeFile(helperPath(3), helperBytes(32));
    EXPECT_TRUE(allocate(3, 32, &allocSize));
    QFile::remove(helperPath(3));
    EXPECT_FALSE(m_Indexer.ReadHelperFile(3));
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable);
    EXPECT_EQ(tableBytes(64), QByteArray(64, '\0'));
    EXPECT_TRUE(takeLog().isEmpty());
}

TEST_F(HelperFile, UnreadableHelperLeavesZeroes)
{
    QDir().mkpath(helperPath(3));  // opens, measures, but yields no bytes
    DWORD allocSize = 0;
    EXPECT_TRUE(allocate(3, 16, &allocSize));
    EXPECT_FALSE(m_Indexer.ReadHelperFile(3));
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable);
    EXPECT_EQ(takeLog(), QStringList{errorLine("ReadHelperFile", "ReadFile failed for the following file(helper "
                                                                 "buffer) - " + helperPath(3))});
}

TEST_F(HelperFile, NameUsesLowerCaseHexBesideTheHelperDirectory)
{
    useDatabase("wfx00");
    nxtest::writeFile(host() + "/hl/wfx000a.hl", helperBytes(16));
    DWORD allocSize = 0;
    EXPECT_TRUE(allocate(0x0a, 16, &allocSize));
    EXPECT_TRUE(m_Indexer.ReadHelperFile(0x0a));
    EXPECT_EQ(allocSize, 32u);
}

TEST_F(HelperFile, HelperThatGrewIsNotCopied)
{
    nxtest::writeFile(helperPath(3), helperBytes(32));
    DWORD allocSize = 0;
    EXPECT_TRUE(allocate(3, 0, &allocSize));
    nxtest::writeFile(helperPath(3), helperBytes(48));
    EXPECT_FALSE(m_Indexer.ReadHelperFile(3));
    EXPECT_TRUE(m_Indexer.m_EntryTableOverflow);
    EXPECT_EQ(m_Indexer.m_EntryCursor, m_Indexer.m_EntryTable);
    EXPECT_EQ(takeLog(), QStringList{errorLine("ReadHelperFile",
                                               "Error: Entry table too small for the following file(helper buffer) - " +
                                                   helperPath(3) + " (48 bytes, room for 32)")});
}

} // namespace
