#ifndef NXI_NXILOG_H
#define NXI_NXILOG_H

// Reporting shorthands for the indexer's operations. Every report names the
// reporting operation by its full signature (the logger reduces it to
// "Class::Method"); an Error also carries errno, read before the logger is
// fetched so that nothing in between can change it.

#include "Logger.h"

#include <cerrno>

#define NXI_ERROR(...)                                                                      \
    do {                                                                                    \
        const int nxiSavedErrno = errno;                                                    \
        LOGGER::CLogger::getInstance()->Error(__PRETTY_FUNCTION__, nxiSavedErrno, __VA_ARGS__); \
    } while (0)

#define NXI_TRACE(...) LOGGER::CLogger::getInstance()->Trace(__PRETTY_FUNCTION__, __VA_ARGS__)

#endif
