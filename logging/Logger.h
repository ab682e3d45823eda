#ifndef NXI_LOGGER_H
#define NXI_LOGGER_H

#include <pthread.h>

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace LOGGER {

enum LOG_LEVEL { LEVEL_ERROR = 1, LEVEL_INFO = 2, LEVEL_TRACE = 3, LEVEL_BUFFER = 4, LEVEL_DEBUG = 5, LEVEL_ALL = 6 };

enum LOG_TYPE { TYPE_CONSOLE = 2, TYPE_FILE = 3 };

// Process-wide logger. Each report becomes one line
//   "yyyy-MM-dd hh:mm:ss:zzz  [TAG]  [Class::Method] :: message\r\n"
// in logs/<program>.log; runs of identical lines collapse into one line and a
// count line that is rewritten in place, and an oversized file is moved to
// "<log>.bkp".
class CLogger
{
public:
    static CLogger* getInstance();
    static void releaseInstance();

    void Error(char const* function, int errorCode, char const* format, ...);
    void Always(char const* function, char const* format, ...);
    void Info(char const* function, char const* format, ...);
    void Trace(char const* function, char const* format, ...);
    void Buffer(char const* function, char const* format, ...);
    void Debug(char const* function, char const* format, ...);

    void UpdateLogLevel(LOG_LEVEL level);
    void EnaleLog();
    void DisableLog();
    void UpdateLogType(LOG_TYPE type);
    void EnableConsoleLogging();
    void EnableFileLogging();

    // "bool nxi::ReadHelperFile(int)" -> "nxi::ReadHelperFile".
    QString getProperMethodName(QString const& decoratedName);
    char* getCurrentTime();
    void logIntoFile(std::string const& body);
    void logOnConsole(std::string const& body);

    // Logs larger than this many bytes are moved to the backup.
    static constexpr long kMaxLogFileSize = 2097152;

    // A logger writing to logFilePath instead of the program's own log file.
    // The program itself only ever uses getInstance().
    explicit CLogger(std::string const& logFilePath);
    ~CLogger();
    CLogger(CLogger const&) = delete;
    CLogger& operator=(CLogger const&) = delete;

    std::string const& logFilePath() const { return m_LogFilePath; }
    // The running program's name: the first argument's file name, else the
    // whole first argument, else the name behind /proc/self/exe, else "Unknown".
    static QString programName();
    // The rule behind programName(), given the argument list (empty without a
    // core application object) and the resolved "/proc/self/exe" path.
    static QString programNameFrom(QStringList const& arguments, QString const& resolvedExePath);

private:
    CLogger();
    void init(std::string const& logFilePath);
    void lock();
    void unlock();
    void moveToBackupIfOversized();
    void moveToBackup();
    void closeFile();
    void writeReport(bool passes, char const* tag, char const* function, std::string const& codePiece,
                     char const* format, va_list args);
    void writeNewBody(std::string const& body);
    void writeCountLine();
    // The log file opened with mode (see fileio::openFile); -1 or nullptr
    // when it can't be, which is told on stderr once.
    int openLog(char const* mode);
    FILE* openLogFile(char const* mode);

    std::string m_LastMessage;
    std::string m_LogFilePath;
    int m_RepeatCount = 0;
    FILE* m_File = nullptr;
    pthread_mutex_t m_Mutex;
    int m_LogLevel = LEVEL_TRACE;
    int m_LogType = TYPE_FILE;
    char m_TimeBuffer[32] = {};
    QDateTime m_CurrentTime;
    // Length of the count line last written, so that a longer count replaces
    // exactly that line and never the one before it.
    long m_CountLineLength = 0;
    // A log that cannot be opened is told on stderr once: without it a run
    // that could not log would be silent.
    bool m_OpenFailureTold = false;

    static CLogger* m_Instance;
};

}  // namespace LOGGER

#endif
