#ifndef NXI_COMMONFUN_H
#define NXI_COMMONFUN_H

#include <QString>
#include <QtGlobal>

// Process-wide file and INI helper. The operations carry the names of the
// Windows functions whose job they do and take their arguments in the same
// order (section, key, value or default, file); underneath they are Qt file
// classes and QSettings in INI format. Nothing here logs or throws.
class commonfun
{
public:
    // The one instance, created on first use and never destroyed.
    static commonfun* getInstance();

    // Size in bytes as QFileInfo reports it; 0 for a missing path.
    qint64 GetFileSize(QString& path);

    // Stores value under key in section; creates file, section and key as
    // needed. An empty file path or section writes nothing, as does an empty key.
    // The file is replaced in one step once the new text is on disk; false
    // (errno set) when it could not be, and the file then holds what it held.
    // A symbolic link at the file's name is refused.
    bool WritePrivateProfileString(QString section, QString key, QString value, QString file);
    // The text under key, or defaultValue when the file, section or key is
    // missing, or the file is not a regular file (a symbolic link) or unreadable.
    QString GetPrivateProfileString(QString section, QString key, QString defaultValue, QString file);
    // The integer under key, defaultValue when missing, 0 when present but not a number.
    int GetPrivateProfileInt(QString section, QString key, int defaultValue, QString file);

    // True when an entry (file or directory) exists at path.
    bool PathFileExists(QString path);
    // Removes the file; false when nothing was removed.
    bool DeleteFile(QString path);
    // Replaces destination by source in one rename. False (errno set) when the
    // source is missing, when both name the same file (which stays), or when
    // the rename fails (a directory at the destination stays).
    bool MoveFile(QString source, QString destination);

private:
    commonfun() = default;
    static commonfun* instance;
};

#endif
