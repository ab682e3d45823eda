#ifndef NXI_STATUS_H
#define NXI_STATUS_H

// The outcome of one of the program's own steps: ok, or the errno of the
// system call that failed, taken where it failed, and what was being done.
// The operations whose reports the log names turn a failed Status into their
// bool and logged error code at their boundary; nothing reads errno later.

#include <QString>

#include <cerrno>
#include <cstring>
#include <utility>

class Status
{
public:
    Status() = default;
    static Status ok() { return Status(); }
    // errno as the call that just failed left it (EIO should it be 0).
    static Status fromErrno(QString what) { return Status(errno != 0 ? errno : EIO, std::move(what)); }
    static Status error(int code, QString what) { return Status(code != 0 ? code : EIO, std::move(what)); }

    bool isOk() const { return m_Code == 0; }
    // The errno value; 0 when ok.
    int code() const { return m_Code; }
    const QString& what() const { return m_What; }
    // "ok", or what was being done and why it failed: "open /x: No such file or directory".
    QString toString() const
    {
        return isOk() ? QString("ok") : m_What + ": " + QString::fromLocal8Bit(std::strerror(m_Code));
    }

private:
    Status(int code, QString what) : m_Code(code), m_What(std::move(what)) {}

    int m_Code = 0;
    QString m_What;
};

#endif
