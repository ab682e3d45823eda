#include "commonfun.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QVariant>

commonfun* commonfun::instance = nullptr;

commonfun* commonfun::getInstance()
{
    if (instance == nullptr)
        instance = new commonfun();
    return instance;
}

qint64 commonfun::GetFileSize(QString& path)
{
    return QFileInfo(path).size();
}

// Each INI operation opens the file afresh and lets QSettings write it back
// when the settings object goes out of scope, so nothing stays open between
// calls and every write is on disk when the call returns.
void commonfun::WritePrivateProfileString(QString section, QString key, QString value, QString file)
{
    if (file.isEmpty() || section.isEmpty())
        return;
    QSettings settings(file, QSettings::IniFormat);
    settings.beginGroup(section);
    if (!key.isEmpty())
        settings.setValue(key, value);
    settings.endGroup();
}

QString commonfun::GetPrivateProfileString(QString section, QString key, QString defaultValue,
                                           QString file)
{
    QSettings settings(file, QSettings::IniFormat);
    settings.beginGroup(section);
    const QString text = settings.value(key, defaultValue).toString();
    settings.endGroup();
    return text;
}

int commonfun::GetPrivateProfileInt(QString section, QString key, int defaultValue, QString file)
{
    QSettings settings(file, QSettings::IniFormat);
    settings.beginGroup(section);
    // A present key whose text is not a number reads as 0, not as the default.
    const int number = settings.value(key, defaultValue).toInt();
    settings.endGroup();
    return number;
}

bool commonfun::PathFileExists(QString path)
{
    return QFile::exists(path);
}

bool commonfun::DeleteFile(QString path)
{
    QFile file(path);
    return file.remove();
}

// Two spellings of one file (relative and absolute, "..", a link to it) have
// the same canonical path; deleting the destination would then delete the
// source too.
static bool nameSameFile(const QString& first, const QString& second)
{
    const QString canonicalFirst = QFileInfo(first).canonicalFilePath();
    return !canonicalFirst.isEmpty() && canonicalFirst == QFileInfo(second).canonicalFilePath();
}

bool commonfun::MoveFile(QString source, QString destination)
{
    if (!PathFileExists(source))
        return false;
    if (nameSameFile(source, destination))
        return false;
    DeleteFile(destination);
    return QDir().rename(source, destination);
}
