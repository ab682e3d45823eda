// The pause seam, preloaded into the real nxindexer by the tests and the benchmark: no 50 ms pause before a bucket,
// and no wait for the disk (fsync, fdatasync) unless NXNOPAUSE_KEEP_SYNCS is set, as the benchmark sets it to count
// and wait for every sync. The fault library, preloaded before it, still sees every sync.
#include <QThread>

#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool keepSyncs()
{
    static const bool keep = std::getenv("NXNOPAUSE_KEEP_SYNCS") != nullptr;
    return keep;
}

}  // namespace

void QThread::msleep(unsigned long) {}

extern "C" int fsync(int fd) { return keepSyncs() ? int(::syscall(SYS_fsync, fd)) : 0; }
extern "C" int fdatasync(int fd) { return keepSyncs() ? int(::syscall(SYS_fdatasync, fd)) : 0; }
