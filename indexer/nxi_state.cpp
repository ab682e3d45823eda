// The state files that tell a run what to index: the next volume's presence,
// the source file count, the DB-COUNT files and the helper progress file.
#include "commonfun.h"
#include "fileio.h"
#include "indexformat.h"
#include "nxi.h"
#include "nxilog.h"

#include <QByteArray>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A progress file of 256 lines is a few KB; anything far larger is damaged.
constexpr qint64 kMaxProgressFileSize = 1 << 20;

}  // namespace

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

    const QString next = QString::asprintf("%s/idxnd/%s%02d0000.yn", m_HostPath.toUtf8().constData(), name, volume + 1);
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

// The file is read by hand rather than through the INI layer (see
// nxformat::parseProgressMarks for its reading rule).
void nxi::getHlpINIData(int* marks, QString path)
{
    if (!m_CommonFun->PathFileExists(path))
        return;
    QByteArray text;
    const Status read = fileio::readAll(path, kMaxProgressFileSize, &text);
    if (!read.isOk()) {
        NXI_FAILED(read, kReadFailed, path.toUtf8().constData());  // every bucket starts over from file 0
        return;
    }
    nxformat::parseProgressMarks(text, marks);
}

void nxi::Updateini(int bucket, int mark)
{
    if (!m_CommonFun->WritePrivateProfileString(nxformat::kHelperProgressSection, QString::asprintf("%02x", bucket),
                                                QString::asprintf("%02d", mark), m_HlIniPath))
        NXI_ERROR(kIniWriteFailed, m_HlIniPath.toUtf8().constData());
}
