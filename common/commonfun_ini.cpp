// The INI operations of commonfun. The text of an INI file is what QSettings
// in INI format reads and writes, but QSettings only ever works on files of
// its own in the program's private scratch directory: the real file is read
// and replaced by fileio. So no lock file, temporary file or symbolic link at the real
// path is involved (a save never waits on a lock), a save that QSettings
// could not complete is noticed instead of emptying the file, and the real
// file is replaced in one rename once the new text is on disk.
#include "commonfun.h"

#include "Common.h"
#include "fileio.h"
#include "plainini.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QVariant>

#include <cerrno>
#include <csignal>
#include <unistd.h>
#include <functional>
#include <optional>

namespace {

// The program's INI files are a few KB; anything far larger is not one.
constexpr qint64 kMaxIniFileSize = 1 << 20;

// The program's INI scratch directory, in the installation's logs directory:
// created 0700, so no other user can see, plant or lock anything in it.
// Scratch files are named "<pid>-<n>.ini", so that processes that share an
// installation never meet; what a killed process left (QSettings' lock and
// temporary files among it) is removed by the next process that starts here.
const Status& scratchDirectory(QString* path)
{
    static const QString directory = Common::getLogsPath() + "/nxindexer-ini";
    static const Status made = [] {
        const Status status = fileio::privateDirectory(directory);
        const QDir::Filters all = QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot;
        for (const QString& name : status.isOk() ? QDir(directory).entryList(all) : QStringList()) {
            const pid_t owner = pid_t(name.section('-', 0, 0).toLong());
            if (owner <= 0 || owner == ::getpid() || (::kill(owner, 0) != 0 && errno == ESRCH))
                QFile::remove(directory + "/" + name);
        }
        return status;
    }();
    *path = directory;
    return made;
}

// text as a scratch file under a name that no QSettings object has used yet
// (QSettings caches what it parsed by file name).
Status scratchFileWith(const QByteArray& text, QString* name)
{
    static unsigned next = 0;
    QString directory;
    const Status& made = scratchDirectory(&directory);
    if (!made.isOk())
        return made;
    *name = QString("%1/%2-%3.ini").arg(directory).arg(::getpid()).arg(++next);
    return fileio::writeNewFile(*name, text);
}

// Removes what scratchFileWith made; no name when it made none.
void removeScratch(const QString& name)
{
    if (!name.isEmpty())
        QFile::remove(name);
}

// True when text holds every key of a settings object with keyCount keys:
// QSettings writes each key on a line of its own, the only lines with an
// "=" (section names escape it), and ends the file with a line end. A save
// cut short by a full disk misses lines or ends in the middle of one.
bool holdsEveryKey(const QByteArray& text, int keyCount)
{
    if (text.isEmpty())
        return keyCount == 0;
    int keyLines = 0;
    for (const QByteArray& line : text.split('\n'))
        keyLines += line.contains('=') && !line.startsWith('[') ? 1 : 0;
    return text.endsWith('\n') && keyLines == keyCount;
}

QVariantMap contentsOf(QSettings& settings)
{
    QVariantMap contents;
    for (const QString& key : settings.allKeys())
        contents.insert(key, settings.value(key));
    return contents;
}

// The keys and values of text as QSettings reads them from a scratch copy.
Status parsedIniText(const QByteArray& text, QVariantMap* contents)
{
    QString copy;
    const Status status = scratchFileWith(text, &copy);
    if (status.isOk()) {
        QSettings settings(copy, QSettings::IniFormat);
        *contents = contentsOf(settings);
    }
    removeScratch(copy);
    return status;
}

// The INI text after change, as QSettings writes it; not ok when QSettings
// could not read the text or write the result whole.
Status editedIniText(const QByteArray& text, const std::function<void(QSettings&)>& change, QByteArray* result)
{
    QString edited;
    Status status = scratchFileWith(text, &edited);
    int keyCount = -1;
    if (status.isOk()) {
        QSettings settings(edited, QSettings::IniFormat);
        // QSettings takes a file it could not read for an empty one, and the
        // save would then drop every other key: the text is read a second
        // time from another copy, and both readings must agree.
        QVariantMap again;
        status = parsedIniText(text, &again);
        if (status.isOk() && again != contentsOf(settings))
            status = Status::error(EIO, "read " + edited + " (QSettings read it differently)");
        if (status.isOk()) {
            change(settings);
            settings.sync();
            if (settings.status() == QSettings::NoError)
                keyCount = settings.allKeys().size();
            else
                status = Status::error(ENOSPC, "write " + edited + " (QSettings)");
        }
    }
    if (status.isOk())
        status = fileio::readAll(edited, kMaxIniFileSize, result);
    removeScratch(edited);
    if (status.isOk() && !holdsEveryKey(*result, keyCount))
        status = Status::error(ENOSPC, "write " + edited + " (QSettings wrote it short)");
    return status;
}

// The value under section/key of the INI file, or defaultValue when the file,
// section or key is missing, or the file is refused or unreadable.
QVariant iniValue(const QString& section, const QString& key, const QVariant& defaultValue, const QString& file)
{
    QByteArray text;
    if (!fileio::readAll(file, kMaxIniFileSize, &text).isOk() || text.isEmpty())
        return defaultValue;
    if (const std::optional<plainini::Text> plain = plainini::parse(text)) {
        const QMap<QByteArray, QByteArray> keys = plain->value(section.toUtf8());
        return keys.contains(key.toUtf8()) ? QVariant(QString::fromUtf8(keys.value(key.toUtf8()))) : defaultValue;
    }
    QString scratch;
    QVariant value = defaultValue;
    if (scratchFileWith(text, &scratch).isOk()) {
        QSettings settings(scratch, QSettings::IniFormat);
        settings.beginGroup(section);
        value = settings.value(key, defaultValue);
        settings.endGroup();
    }
    removeScratch(scratch);
    return value;
}

// The text after section/key is set to value: formed directly when the file
// is plain INI text (*plain holds its sections, see plainini.h), else by
// QSettings. The first plain save that adds a section and the first that
// does not are also formed by QSettings and compared; should this Qt write
// plain text differently, every later save goes through QSettings. *plain
// ends holding the sections of *text, or nullopt when QSettings formed it.
Status iniTextWith(const QByteArray& current, std::optional<plainini::Text>* plain, const QString& section,
                   const QString& key, const QString& value, QByteArray* text)
{
    auto byQSettings = [&](QByteArray* result) {
        plain->reset();
        return editedIniText(
            current,
            [&](QSettings& settings) {
                settings.beginGroup(section);
                settings.setValue(key, value);
                settings.endGroup();
            },
            result);
    };
    enum Check { Unchecked, Agrees, Differs };
    static Check plainAgrees[2] = {Unchecked, Unchecked};  // [adds a section]
    const QByteArray name = section.toUtf8(), entry = key.toUtf8(), data = value.toUtf8();
    if (!*plain || !plainini::isPlainName(name) || !plainini::isPlainName(entry) || !plainini::isPlainValue(data))
        return byQSettings(text);
    Check& check = plainAgrees[(*plain)->contains(name) ? 0 : 1];
    if (check == Differs)
        return byQSettings(text);
    (**plain)[name][entry] = data;
    *text = plainini::format(**plain);
    if (check == Agrees)
        return Status::ok();
    const QByteArray formed = *text;
    const Status status = byQSettings(text);
    if (status.isOk())
        check = *text == formed ? Agrees : Differs;
    if (check == Agrees)
        *plain = plainini::parse(*text);
    return status;
}

// The text of the INI file the program saved last, and the file's identity
// right after that save. While the file shows the same identity nobody has
// written it since, and a save need not read and parse it again: the
// progress file is saved after every bucket.
struct LastSave {
    QString file;
    fileio::FileIdentity identity;
    QByteArray text;
    plainini::Text sections;
};
LastSave& lastSave()
{
    static LastSave save;
    return save;
}

// The file's text and its sections (nullopt unless plain): taken from the
// last save while the file is unchanged since (*unchanged, its identity in
// *identity), else read; a missing file is an empty one. Taken, not copied:
// a save puts its own text back, so that the sections are edited in place.
Status currentIniText(const QString& file, QByteArray* text, std::optional<plainini::Text>* sections,
                      fileio::FileIdentity* identity, bool* unchanged)
{
    LastSave& save = lastSave();
    *unchanged = save.file == file && fileio::identityOf(file, identity).isOk() && *identity == save.identity;
    save.file.clear();
    if (*unchanged) {
        *text = std::move(save.text);
        *sections = std::move(save.sections);
        return Status::ok();
    }
    Status status = fileio::readAll(file, kMaxIniFileSize, text);
    if (status.code() == ENOENT)
        status = Status::ok();  // a new file
    if (status.isOk())
        *sections = plainini::parse(*text);
    return status;
}

}  // namespace

// Its outcome is a bool, as its callers expect, with errno saying why it failed.
bool commonfun::WritePrivateProfileString(QString section, QString key, QString value, QString file)
{
    if (file.isEmpty() || section.isEmpty() || key.isEmpty())
        return true;  // nothing to write
    QByteArray current, edited;
    std::optional<plainini::Text> sections;
    fileio::FileIdentity identity;
    bool unchanged = false;
    Status status = currentIniText(file, &current, &sections, &identity, &unchanged);
    if (status.isOk())
        status = iniTextWith(current, &sections, section, key, value, &edited);
    if (status.isOk() && edited != current) {
        status = unchanged ? fileio::replaceRegularFile(file, edited, &identity)
                           : fileio::replaceContents(file, edited, &identity);
        unchanged = status.isOk();
    }
    if (status.isOk() && unchanged && sections)  // the file holds edited, with this identity
        lastSave() = {file, identity, edited, std::move(*sections)};
    if (!status.isOk())
        errno = status.code();
    return status.isOk();
}

QString commonfun::GetPrivateProfileString(QString section, QString key, QString defaultValue, QString file)
{
    return iniValue(section, key, defaultValue, file).toString();
}

int commonfun::GetPrivateProfileInt(QString section, QString key, int defaultValue, QString file)
{
    // A present key whose text is not a number reads as 0, not as the default.
    return iniValue(section, key, defaultValue, file).toInt();
}
