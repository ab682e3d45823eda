#ifndef NXI_NXILOG_H
#define NXI_NXILOG_H

// Reporting shorthands for the indexer's operations. Every report names the
// operation it belongs to by that operation's full signature (the logger
// reduces it to "Class::Method"); an Error also carries errno, read before the
// logger is fetched so that nothing in between can change it.
//
// The name in the log is part of the output: a private helper that does a
// step of an operation reports under the operation's name, never its own.
// Such a helper takes the operation's signature as a `const char* reportAs`
// parameter (the operation passes NXI_OPERATION) and reports with the _AS forms.

#include "Logger.h"

#include <cerrno>

// The signature of the enclosing operation, for handing to its helpers.
#define NXI_OPERATION __PRETTY_FUNCTION__

#define NXI_ERROR_AS(reportAs, ...)                                                    \
    do {                                                                               \
        const int nxiSavedErrno = errno;                                               \
        LOGGER::CLogger::getInstance()->Error((reportAs), nxiSavedErrno, __VA_ARGS__); \
    } while (0)

#define NXI_TRACE_AS(reportAs, ...) LOGGER::CLogger::getInstance()->Trace((reportAs), __VA_ARGS__)

// An Error whose code is that of a failed Status (see status.h), taken where
// the system call failed, rather than whatever errno holds by now.
#define NXI_FAILED_AS(reportAs, status, ...) \
    LOGGER::CLogger::getInstance()->Error((reportAs), (status).code(), __VA_ARGS__)

// Reports of the program's own beside those every run makes: what it refused
// or could not make durable.
constexpr const char* kIniWriteFailed = "Error:WritePrivateProfileString failed for the following file- %s";
constexpr const char* kDirectorySyncFailed = "Error:fsync failed for the following directory- %s";
constexpr const char* kSpecialEntryRefused = "Error:Refused the following file, not a regular file- %s";
constexpr const char* kReadFailed = "Error:Could not read the following file- %s";

#define NXI_ERROR(...) NXI_ERROR_AS(NXI_OPERATION, __VA_ARGS__)
#define NXI_TRACE(...) NXI_TRACE_AS(NXI_OPERATION, __VA_ARGS__)
#define NXI_FAILED(status, ...) NXI_FAILED_AS(NXI_OPERATION, status, __VA_ARGS__)

#endif
