// INI helpers: what lands in the file, byte for byte, and what reads back.
#include "commonfun.h"
#include "testsupport.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

class CommonIni : public ::testing::Test
{
protected:
    QString path(const char* name) const { return m_Dir.path() + "/" + name; }
    commonfun* ini = commonfun::getInstance();
    QTemporaryDir m_Dir;
};

TEST_F(CommonIni, EmptyValueStaysPresentAndReadsAsEmptyOrZero)
{
    const QString file = path("state.ini");
    ini->WritePrivateProfileString("S", "K", "", file);
    EXPECT_EQ(nxtest::readFile(file), QByteArray("[S]\nK=\n"));
    EXPECT_EQ(ini->GetPrivateProfileInt("S", "K", 5, file), 0);
    EXPECT_EQ(ini->GetPrivateProfileString("S", "K", "fallback", file), QString(""));
}

TEST_F(CommonIni, KeysAreWrittenInAscendingOrderWhateverTheInsertionOrder)
{
    const QString file = path("hl.ini");
    for (const char* key : {"ff", "0a", "B", "00", "a", "1b"})
        ini->WritePrivateProfileString("wdx00", key, QString("v") + key, file);
    ini->WritePrivateProfileString("wdx00", "0a", "12", file);
    EXPECT_EQ(nxtest::readFile(file),
              QByteArray("[wdx00]\n00=v00\n0a=12\n1b=v1b\nB=vB\na=va\nff=vff\n"));
    // Keys differ by case.
    EXPECT_EQ(ini->GetPrivateProfileString("wdx00", "b", "none", file), QString("none"));
    EXPECT_EQ(ini->GetPrivateProfileString("wdx00", "B", "none", file), QString("vB"));
    EXPECT_EQ(ini->GetPrivateProfileInt("wdx00", "0a", -1, file), 12);
}

TEST_F(CommonIni, MissingFileSectionOrKeyGivesTheDefault)
{
    const QString missing = path("missing.ini");
    EXPECT_EQ(ini->GetPrivateProfileInt("S", "K", 7, missing), 7);
    EXPECT_EQ(ini->GetPrivateProfileString("S", "K", "dflt", missing), QString("dflt"));
    EXPECT_FALSE(nxtest::exists(missing));

    const QString file = path("present.ini");
    nxtest::writeFile(file, "[S]\nK=3\n");
    EXPECT_EQ(ini->GetPrivateProfileInt("S", "other", -1, file), -1);
    EXPECT_EQ(ini->GetPrivateProfileInt("T", "K", -2, file), -2);
    EXPECT_EQ(ini->GetPrivateProfileInt("S", "K", -3, file), 3);
}

TEST_F(CommonIni, PresentButNotAnIntegerReadsAsZero)
{
    const QString file = path("count.ini");
    nxtest::writeFile(file, "[DB-COUNT]\nwdx00=abc\nwdx01=12x\nwdx02=-4\n");
    EXPECT_EQ(ini->GetPrivateProfileInt("DB-COUNT", "wdx00", 9, file), 0);
    EXPECT_EQ(ini->GetPrivateProfileInt("DB-COUNT", "wdx01", 9, file), 0);
    EXPECT_EQ(ini->GetPrivateProfileInt("DB-COUNT", "wdx02", 9, file), -4);
}

TEST_F(CommonIni, EmptySectionPathOrKeyWritesNothing)
{
    const QString file = path("none.ini");
    ini->WritePrivateProfileString("", "K", "1", file);
    ini->WritePrivateProfileString("S", "", "1", file);
    EXPECT_FALSE(nxtest::exists(file));
    ini->WritePrivateProfileString("S", "K", "1", "");
    EXPECT_TRUE(QDir(m_Dir.path()).isEmpty());

    nxtest::writeFile(file, "[S]\nK=1\n");
    ini->WritePrivateProfileString("S", "", "2", file);
    EXPECT_EQ(nxtest::readFile(file), QByteArray("[S]\nK=1\n"));
}

} // namespace
