// The indexer object and the walk over DB types and volumes.
#include "nxi.h"

#include "Common.h"
#include "commonfun.h"
#include "indexformat.h"
#include "nxilog.h"

#include <cstdio>
#include <cstring>
#include <malloc.h>

namespace {

// DB types are kept in a zero-filled table of 50 names of 10 characters;
// only the first two (three with "wgx") rows are used.
constexpr int kDbTypeRows = 50;
constexpr int kDbNameSize = 10;

// Every bucket allocates and frees its entry table, its sort buffer and its
// lists, a few MiB at most and much the same sizes from bucket to bucket.
// Kept in the heap rather than handed back to the system after each bucket,
// that memory is not faulted in and cleared by the kernel again for the next.
void keepBucketMemory()
{
    mallopt(M_MMAP_THRESHOLD, 8 << 20);
    mallopt(M_TRIM_THRESHOLD, 16 << 20);
}

}  // namespace

nxi::nxi()
    : m_CommonFun(commonfun::getInstance()),
      m_EntryCursor(nullptr),
      m_EntryTable(nullptr),
      m_HostPath(Common::getDbPath() + "/txhost"),
      m_IdxErrIniPath(m_HostPath + "/idxerr.ini"),
      m_SpareFlag(false),
      m_IndexWgx(false),
      m_FullIndexing(false),
      m_DbName{},
      m_SbfOffsets{},
      m_EntryTableEnd(nullptr),
      m_EntryTableOverflow(false)
{}

nxi::~nxi()
{
    // The writer releases the entry table after every bucket; this only
    // matters when a caller stopped between allocation and writing.
    ReleaseIndexBuffer();
}

void nxi::StartProcess()
{
    keepBucketMemory();
    StartLoop();
}

void nxi::StartLoop()
{
    if (!m_CommonFun->PathFileExists(m_HostPath + "/idxnd")) {
        NXI_ERROR("Error:Does not exist idxnd folder!");
        return;
    }

    char dbTypes[kDbTypeRows][kDbNameSize] = {};
    int typeCount = 0;
    std::strcpy(dbTypes[typeCount++], "wdx");
    std::strcpy(dbTypes[typeCount++], "wfx");
    if (m_IndexWgx)
        std::strcpy(dbTypes[typeCount++], "wgx");

    for (int t = 0; t < typeCount; ++t) {
        NXI_TRACE("In get DB type");
        WalkDbType(dbTypes[t], NXI_OPERATION);
    }
}

void nxi::WalkDbType(const char* dbType, const char* reportAs)
{
    for (int volume = 0;; ++volume) {
        char dbName[kDbNameSize] = {};
        const int length = std::snprintf(dbName, sizeof dbName, "%s%02d", dbType, volume);
        if (length < 0 || length >= kDbNameSize) {
            // A three-letter type leaves room for volumes up to 999,999.
            NXI_ERROR_AS(reportAs, "Error:Volume number %d does not fit a database name of type %s - walk ends", volume,
                         dbType);
            return;
        }
        if (IsToStopIndexing(dbName))
            return;
        StartIndexer(dbName);
    }
}

bool nxi::IsToStopIndexing(char* dbName)
{
    const QString path = QString::asprintf("%s/idxnd/%s0000.yn", m_HostPath.toUtf8().constData(), dbName);
    if (m_CommonFun->PathFileExists(path))
        return false;
    NXI_ERROR("Error:Could not get .yn files for following indexer type- %s", path.toUtf8().constData());
    return true;
}
