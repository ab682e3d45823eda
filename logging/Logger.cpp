#include "Logger.h"

#include "Common.h"
#include "fileio.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QFileInfo>
#include <QStringList>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace LOGGER {

CLogger* CLogger::m_Instance = nullptr;

namespace {

// glibc reads "ra+" as "r+": reading and writing, the file is neither created
// nor truncated, and writes land at the current position.
constexpr char kUpdateMode[] = "ra+";

// printf-style formatting of any length: a measuring pass on a copy of the
// argument list sizes the buffer exactly. A formatting error gives "".
std::string formatMessage(char const* format, va_list args)
{
    if (format == nullptr)
        return std::string();
    va_list measuring;
    va_copy(measuring, args);
    int length = vsnprintf(nullptr, 0, format, measuring);
    va_end(measuring);
    if (length < 0)
        return std::string();
    size_t size = size_t(length) + 1;
    char* buffer = static_cast<char*>(calloc(size, 1));
    if (buffer == nullptr)
        return std::string();
    vsnprintf(buffer, size, format, args);
    std::string message(buffer);
    free(buffer);
    return message;
}

// "[0x%08X]: " for an error code; negative codes show in two's complement.
std::string errorCodePiece(int errorCode)
{
    char piece[15] = {};
    snprintf(piece, sizeof piece, "[0x%08X]: ", static_cast<unsigned>(errorCode));
    return piece;
}

// The running executable's real path, empty when it cannot be resolved.
QString resolvedSelfExe()
{
    char* resolved = realpath("/proc/self/exe", nullptr);
    if (resolved == nullptr)
        return QString();
    QString path = QString::fromUtf8(resolved);
    free(resolved);
    return path;
}

long fileSize(FILE* file)
{
    if (fseek(file, 0, SEEK_END) != 0)
        return -1;
    return ftell(file);
}

void writeText(FILE* file, char const* text, size_t length)
{
    if (length > 0)
        fwrite(text, 1, length, file);
}

}  // namespace

CLogger* CLogger::getInstance()
{
    // The constructor logs its start line through itself, so the instance is
    // published only once construction is complete.
    if (m_Instance == nullptr) {
        CLogger* created = new CLogger();
        m_Instance = created;
    }
    return m_Instance;
}

void CLogger::releaseInstance()
{
    delete m_Instance;
    m_Instance = nullptr;
}

CLogger::CLogger()
{
    QString path = Common::getLogsPath() + "/" + programName() + ".log";
    init(path.toUtf8().toStdString());
}

CLogger::CLogger(std::string const& logFilePath) { init(logFilePath); }

CLogger::~CLogger() { pthread_mutex_destroy(&m_Mutex); }

void CLogger::init(std::string const& logFilePath)
{
    m_LogFilePath = logFilePath;
    m_RepeatCount = 0;
    m_LogType = TYPE_FILE;
    m_LogLevel = LEVEL_TRACE;
    moveToBackupIfOversized();
    pthread_mutex_init(&m_Mutex, nullptr);
    QByteArray buildDateTime = Common::getBuildDateTime().toUtf8();
    Info("LoggerStarted", "Build Date: %s", buildDateTime.constData());
}

QString CLogger::programName()
{
    QStringList arguments;
    if (QCoreApplication::instance() != nullptr)
        arguments = QCoreApplication::arguments();
    return programNameFrom(arguments, resolvedSelfExe());
}

QString CLogger::programNameFrom(QStringList const& arguments, QString const& resolvedExePath)
{
    QString name;
    if (!arguments.isEmpty())
        name = QFileInfo(arguments.first()).fileName().trimmed();
    if (name.isEmpty() && !arguments.isEmpty())
        name = arguments.first().trimmed();
    if (name.isEmpty())
        name = resolvedExePath.mid(resolvedExePath.lastIndexOf('/') + 1);
    return name.isEmpty() ? QStringLiteral("Unknown") : name;
}

// ---- Entry points ---------------------------------------------------------

void CLogger::Error(char const* function, int errorCode, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(true, "[ERROR] ", function, errorCodePiece(errorCode), format, args);
    va_end(args);
}

void CLogger::Always(char const* function, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(true, "[ALWAYS] ", function, std::string(), format, args);
    va_end(args);
}

void CLogger::Info(char const* function, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(m_LogLevel > LEVEL_ERROR, "[INFO] ", function, std::string(), format, args);
    va_end(args);
}

void CLogger::Trace(char const* function, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(m_LogLevel > LEVEL_INFO, "[TRACE] ", function, std::string(), format, args);
    va_end(args);
}

void CLogger::Buffer(char const* function, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(m_LogLevel > LEVEL_TRACE, "", function, std::string(), format, args);
    va_end(args);
}

void CLogger::Debug(char const* function, char const* format, ...)
{
    va_list args;
    va_start(args, format);
    writeReport(m_LogLevel > LEVEL_BUFFER, "[DEBUG] ", function, std::string(), format, args);
    va_end(args);
}

// Body: tag, " [", short name, "] :: ", code piece, message. The time stamp
// and the line end belong to the writers.
void CLogger::writeReport(bool passes, char const* tag, char const* function, std::string const& codePiece,
                          char const* format, va_list args)
{
    if (!passes)
        return;
    std::string body = tag;
    body += " [";
    body += getProperMethodName(QString::fromUtf8(function)).toUtf8().toStdString();
    body += "] :: ";
    body += codePiece;
    body += formatMessage(format, args);
    if (m_LogType == TYPE_FILE)
        logIntoFile(body);
    else if (m_LogType == TYPE_CONSOLE)
        logOnConsole(body);
}

// ---- Settings -------------------------------------------------------------

void CLogger::UpdateLogLevel(LOG_LEVEL level) { m_LogLevel = level; }
void CLogger::EnaleLog() { m_LogLevel = LEVEL_ALL; }
void CLogger::DisableLog() { m_LogLevel = LEVEL_ERROR; }
void CLogger::UpdateLogType(LOG_TYPE type) { m_LogType = type; }
void CLogger::EnableConsoleLogging() { m_LogType = TYPE_CONSOLE; }
void CLogger::EnableFileLogging() { m_LogType = TYPE_FILE; }

// ---- Line pieces ----------------------------------------------------------

// The text after the first blank (the return type) up to the first "(".
QString CLogger::getProperMethodName(QString const& decoratedName)
{
    int start = decoratedName.indexOf(' ') + 1;
    int end = decoratedName.indexOf('(');
    if (end < start)
        end = decoratedName.size();
    return decoratedName.mid(start, end - start);
}

// The local time as "yyyy-MM-dd hh:mm:ss:zzz". localtime_r reads the time
// zone once per process, where QDateTime::currentDateTime() consulted the
// zone file again for every line.
char* CLogger::getCurrentTime()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    const int msec = int(now.tv_nsec / 1000000);
    m_CurrentTime =
        QDateTime(QDate(local.tm_year + 1900, local.tm_mon + 1, local.tm_mday),
                  QTime(local.tm_hour, local.tm_min, local.tm_sec, msec), Qt::OffsetFromUTC, int(local.tm_gmtoff));
    char text[96];  // room for any int in every field; a real date takes 23 characters
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d:%03d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, msec);
    snprintf(m_TimeBuffer, sizeof m_TimeBuffer, "%.23s", text);
    return m_TimeBuffer;
}

// ---- Writers --------------------------------------------------------------

void CLogger::logOnConsole(std::string const& body)
{
    char const* time = getCurrentTime();
    fprintf(stdout, "%s  ", time);
    writeText(stdout, body.data(), body.size());
    fputc('\n', stdout);
    fflush(stdout);
}

void CLogger::logIntoFile(std::string const& body)
{
    lock();
    if (body == m_LastMessage)
        writeCountLine();
    else
        writeNewBody(body);
    unlock();
}

void CLogger::writeNewBody(std::string const& body)
{
    m_LastMessage = body;
    m_RepeatCount = 0;
    m_CountLineLength = 0;
    const int fd = openLog("a+");
    if (fd < 0)
        return;
    // The whole line in one write.
    std::string line = getCurrentTime();
    line.append("  ").append(body).append("\r\n");
    (void)fileio::writeAll(fd, line.data(), line.size());
    ::close(fd);
}

// A repeat of the last body: the count line at the end of the file is
// rewritten in place, or added after the body on its first repeat.
void CLogger::writeCountLine()
{
    if (m_RepeatCount < INT_MAX)
        ++m_RepeatCount;
    char countLine[50] = {};
    int written = snprintf(countLine, sizeof countLine, "Repeated [%05d] times.\r\n", m_RepeatCount);
    if (written < 0 || size_t(written) >= sizeof countLine)
        return;
    long length = written;

    m_File = openLogFile(kUpdateMode);
    if (m_File == nullptr) {
        // Whatever file appears here later does not end with our count line.
        m_CountLineLength = 0;
        return;
    }
    long size = fileSize(m_File);
    if (size > kMaxLogFileSize) {
        closeFile();
        moveToBackup();
        m_CountLineLength = 0;
        // The reopen does not create the file: the log was just moved away,
        // so this count line is dropped and the next new body starts a fresh
        // file. Should something stand there after all, the line is appended.
        m_File = openLogFile(kUpdateMode);
        if (m_File == nullptr)
            return;
        fileSize(m_File);
    } else if (m_CountLineLength > 0 && m_CountLineLength <= size) {
        // Back by the previous count line's own length: once the count passes
        // five digits the new line is longer, and the line before must stay.
        fseek(m_File, -m_CountLineLength, SEEK_END);
    }
    writeText(m_File, countLine, size_t(length));
    closeFile();
    m_CountLineLength = length;
}

// ---- File housekeeping ----------------------------------------------------

// At start-up: an existing log over the limit is moved to the backup; the
// next line then starts a fresh file.
void CLogger::moveToBackupIfOversized()
{
    m_File = openLogFile("a+");
    if (m_File == nullptr)
        return;
    long size = fileSize(m_File);
    closeFile();
    if (size > kMaxLogFileSize)
        moveToBackup();
}

// Replaces the backup by the log file; failures leave the log in place to be
// tested again on the next occasion.
void CLogger::moveToBackup()
{
    std::string backupPath = m_LogFilePath + ".bkp";
    remove(backupPath.c_str());
    rename(m_LogFilePath.c_str(), backupPath.c_str());
}

int CLogger::openLog(char const* mode)
{
    int fd = -1;
    qint64 size = 0;
    const Status status = fileio::openDescriptor(m_LogFilePath.c_str(), mode, &fd, &size);
    if (!status.isOk() && !m_OpenFailureTold && !(status.code() == ENOENT && std::strcmp(mode, kUpdateMode) == 0)) {
        m_OpenFailureTold = true;
        std::fprintf(stderr, "%s: could not open the log file %s: %s\n", programName().toUtf8().constData(),
                     m_LogFilePath.c_str(), std::strerror(status.code()));
    }
    return fd;
}

FILE* CLogger::openLogFile(char const* mode)
{
    const int fd = openLog(mode);
    FILE* file = fd < 0 ? nullptr : fdopen(fd, mode);
    if (fd >= 0 && file == nullptr)
        ::close(fd);
    return file;
}

void CLogger::closeFile()
{
    fclose(m_File);
    m_File = nullptr;
}

void CLogger::lock() { pthread_mutex_lock(&m_Mutex); }
void CLogger::unlock() { pthread_mutex_unlock(&m_Mutex); }

}  // namespace LOGGER
