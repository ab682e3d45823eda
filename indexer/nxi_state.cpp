// The state files that tell a run what to index: the next volume's presence,
// the source file count, the DB-COUNT files and the helper progress file.
#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxi.h"
#include "nxilog.h"

#include <QByteArray>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A progress line's value: the number after "=", or -1 when "=" ends the line.
// A mark below -1 can only come from a damaged file and is read as -1 (merge
// from file 0) rather than as millions of file numbers to visit; a mark is
// capped so that the next file number (mark + 1) always fits an int.
int progressValue(const char* equals)
{
    if (equals[1] == '\0')
        return -1;
    const long value = std::strtol(equals + 1, nullptr, 10);
    return int(std::clamp<long>(value, -1, INT_MAX - 1));
}

// A progress file of 256 lines is a few KB; anything far larger is damaged.
constexpr qint64 kMaxProgressFileSize = 1 << 20;

} // namespace

bool nxi::IsToDoFullIndexing(char* dbName)
{
    char name[10] = {};
    if (!dbName || dbName[0] == '\0')
        return false;
    std::strncpy(name, dbName, sizeof name - 1);
    const size_t length = std::strlen(name);
    if (length < 2)
        return false;

    // The volume is the last two characters; what stands before is the type part.
    const int volume = int(std::strtol(name + length - 2, nullptr, 10));
    if (volume == -1)
        return false;
    name[length - 2] = '\0';

    const QString next = QString::asprintf("%s/idxnd/%s%02d0000.yn", m_HostPath.toUtf8().constData(), name,
                                           volume + 1);
    return m_CommonFun->PathFileExists(next);
}

int nxi::GetDBCount()
{
    // The newest volume's file 0000 is still being filled by its writer.
    int fileNumber = m_FullIndexing ? 0 : 1;
    int count = 0;
    while (m_CommonFun->PathFileExists(nxformat::sourceFilePath(m_HostPath, m_DbName, fileNumber))) {
        ++count;
        ++fileNumber;
    }
    return count;
}

int nxi::GetValDBCount()
{
    m_ValIniPath = nxformat::dbCountFilePath(m_HostPath, m_DbName);
    if (fileio::isSpecialEntry(m_ValIniPath))
        NXI_ERROR(kSpecialEntryRefused, m_ValIniPath.toUtf8().constData());  // and read as absent
    const QString key = QString::fromUtf8(m_DbName).toUpper();
    return m_CommonFun->GetPrivateProfileInt(nxformat::kDbCountSection, key, 0, m_ValIniPath);
}

// The file is read by hand rather than through the INI layer: the n-th key
// line after the first must carry bucket n, and the first key that is missing
// or out of order leaves its own slot and every later slot unread.
void nxi::getHlpINIData(int* marks, QString path)
{
    if (!m_CommonFun->PathFileExists(path))
        return;
    std::optional<QByteArray> read = fileio::readAll(path, kMaxProgressFileSize);
    if (!read) {
        NXI_ERROR(kReadFailed, path.toUtf8().constData());  // every bucket starts over from file 0
        return;
    }
    QByteArray text = *read;  // QByteArray keeps a NUL after its last byte
    if (text.isEmpty())
        return;

    const char* delimiters = "\r\n";
    char* save = nullptr;
    char* token = strtok_r(text.data(), delimiters, &save);  // the section line
    if (!token)
        return;
    token = strtok_r(nullptr, delimiters, &save);
    if (!token)
        return;
    if (std::strtol(token, nullptr, 16) == 0) {
        const char* equals = std::strchr(token, '=');
        marks[0] = equals ? progressValue(equals) : -1;
    }
    for (int bucket = 1; bucket < nxformat::kBucketCount; ++bucket) {
        token = strtok_r(nullptr, delimiters, &save);
        if (!token)
            return;
        if (std::strtol(token, nullptr, 16) != bucket)
            continue;
        const char* equals = std::strchr(token, '=');
        if (!equals) {
            marks[bucket] = -1;
            return;
        }
        marks[bucket] = progressValue(equals);
    }
}

void nxi::Updateini(int bucket, int mark)
{
    if (!m_CommonFun->WritePrivateProfileString(nxformat::kHelperProgressSection, QString::asprintf("%02x", bucket),
                                                QString::asprintf("%02d", mark), m_HlIniPath))
        NXI_ERROR(kIniWriteFailed, m_HlIniPath.toUtf8().constData());
}
