// The INI values read as integers: the input is a DB-count file, read through
// the INI helpers under section "DB-COUNT" for the keys the indexer asks for
// and for the key of the input's first "key=value" line. The reads of one key
// must agree with each other: a key that is missing gives each call its own
// default; a present key gives one text and one integer whatever the default,
// an empty text reads as 0, and a text that is a plain int reads as that
// int (checked only when the input holds no "@" and no backslash, which
// would let QSettings deserialize a typed value whose text and number differ). GetValDBCount must
// read the file that belongs to the database and agree with the helper.
#include "fuzz_support.h"

#include "commonfun.h"
#include "indexformat.h"
#include "nxi.h"

#include <cstring>

namespace {

// Reads key of section "DB-COUNT" four ways and checks that they agree;
// returns the integer read with the default 0 (what GetValDBCount asks for).
int checkKey(commonfun* ini, const QString& key, const QString& file, bool mayHoldTypedValues)
{
    const QString section = nxformat::kDbCountSection;
    // Two different defaults: a stored text can equal at most one of them.
    const QString missingA = QStringLiteral("\x01missing-a");
    const QString missingB = QStringLiteral("\x02missing-b");
    const QString textA = ini->GetPrivateProfileString(section, key, missingA, file);
    const QString textB = ini->GetPrivateProfileString(section, key, missingB, file);
    const bool present = textA != missingA || textB != missingB;
    const int numberSeven = ini->GetPrivateProfileInt(section, key, 7, file);
    const int numberZero = ini->GetPrivateProfileInt(section, key, 0, file);
    const QByteArray keyText = key.toUtf8();
    if (!present) {
        FUZZ_CHECK(numberSeven == 7 && numberZero == 0, "missing key \"%s\" read as %d and %d", keyText.constData(),
                   numberSeven, numberZero);
        return numberZero;
    }
    FUZZ_CHECK(textA == textB, "key \"%s\" reads as two texts", keyText.constData());
    FUZZ_CHECK(numberSeven == numberZero, "key \"%s\" reads as %d and %d", keyText.constData(), numberSeven,
               numberZero);
    if (mayHoldTypedValues)
        return numberZero;
    bool isInt = false;
    const int fromText = textA.toInt(&isInt);
    FUZZ_CHECK(!textA.isEmpty() || numberZero == 0, "empty value of \"%s\" read as %d", keyText.constData(),
               numberZero);
    FUZZ_CHECK(!isInt || numberZero == fromText, "\"%s\" = \"%s\" read as %d", keyText.constData(),
               textA.toUtf8().constData(), numberZero);
    return numberZero;
}

// The text before "=" on the input's first line that has one.
QString keyOfFirstAssignment(const QByteArray& text)
{
    const int equals = text.indexOf('=');
    if (equals < 0)
        return QString();
    const int lineStart = text.lastIndexOf('\n', equals) + 1;
    return QString::fromUtf8(text.mid(lineStart, equals - lineStart)).trimmed();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nxfuzz::ScratchHost host;
    const QByteArray text(reinterpret_cast<const char*>(data), int(size));
    const QString dbCountFile = nxformat::dbCountFilePath(host.path(), "wdx00");
    const QString firstWfxFile = nxformat::dbCountFilePath(host.path(), "wfx00");
    FUZZ_CHECK(dbCountFile != firstWfxFile, "wfx00 has no DB-count file of its own");
    nxfuzz::writeFile(dbCountFile, text);
    nxfuzz::writeFile(firstWfxFile, text);

    commonfun* ini = commonfun::getInstance();
    // "@" starts a serialized typed value; a backslash escape can spell one.
    const bool typed = text.contains('@') || text.contains('\\');
    for (const char* db : {"wdx00", "wfx00", "wfx01"}) {
        nxi indexer;
        indexer.m_HostPath = host.path();
        std::strcpy(indexer.m_DbName, db);
        const int count = indexer.GetValDBCount();
        const QString file = nxformat::dbCountFilePath(host.path(), db);
        FUZZ_CHECK(indexer.m_ValIniPath == file, "%s reads %s", db, indexer.m_ValIniPath.toUtf8().constData());
        if (std::strcmp(db, "wfx01") == 0)
            continue;  // the same file and the same checks as wdx00
        const int read = checkKey(ini, QString::fromLatin1(db).toUpper(), file, typed);
        FUZZ_CHECK(count == read, "%s: DB-COUNT %d, the INI helper reads %d", db, count, read);
    }
    const QString inputKey = keyOfFirstAssignment(text);
    if (!inputKey.isEmpty())
        checkKey(ini, inputKey, dbCountFile, typed);
    return 0;
}
