#include "fuzz_support.h"

#include "Logger.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace nxfuzz {
namespace {

// The scratch root of this process: a directory of its own under
// $NXI_FUZZ_ROOT, else under /dev/shm (RAM-backed, so the file traffic of
// thousands of inputs a second never reaches a disk), else the temp dir.
QString g_ScratchRoot;
unsigned long g_NextHost = 0;

void removeScratchRoot()
{
    if (!g_ScratchRoot.isEmpty())
        QDir(g_ScratchRoot).removeRecursively();
}

QString makeScratchRoot()
{
    QByteArray parent = qgetenv("NXI_FUZZ_ROOT");
    if (parent.isEmpty())
        parent = QDir("/dev/shm").exists() && access("/dev/shm", W_OK) == 0 ? QByteArray("/dev/shm")
                                                                            : QDir::tempPath().toUtf8();
    QByteArray pattern = parent + "/nxfuzz-XXXXXX";
    if (!mkdtemp(pattern.data())) {
        std::fprintf(stderr, "nxfuzz: cannot create a scratch directory under %s\n", parent.constData());
        std::abort();
    }
    return QString::fromUtf8(pattern);
}

}  // namespace

void checkFailed(const char* file, int line, const char* condition, const char* format, ...)
{
    std::fprintf(stderr, "\nnxfuzz: check failed at %s:%d: %s\nnxfuzz: ", file, line, condition);
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fputc('\n', stderr);
    std::abort();
}

ScratchHost::ScratchHost() : m_Path(g_ScratchRoot + "/" + QString::number(g_NextHost++))
{
    if (!QDir().mkpath(m_Path)) {
        std::fprintf(stderr, "nxfuzz: cannot create %s\n", qPrintable(m_Path));
        std::abort();
    }
}

ScratchHost::~ScratchHost() { QDir(m_Path).removeRecursively(); }

void writeFile(const QString& path, const uint8_t* data, size_t size)
{
    const QByteArray name = path.toUtf8();
    QDir().mkpath(path.section('/', 0, -2));
    FILE* file = std::fopen(name.constData(), "wb");
    bool written = file && (size == 0 || std::fwrite(data, size, 1, file) == 1);
    if (file && std::fclose(file) != 0)
        written = false;
    if (!written) {
        std::fprintf(stderr, "nxfuzz: cannot write %s\n", name.constData());
        std::abort();
    }
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    writeFile(path, reinterpret_cast<const uint8_t*>(bytes.constData()), size_t(bytes.size()));
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QByteArray bytes = file.readAll();
    return bytes.isNull() ? QByteArray("") : bytes;
}

bool exists(const QString& path) { return QFile::exists(path); }

BucketRange expectedBucketRange(const uint8_t* data, size_t size, int bucket)
{
    // Start slot s is the 4 bytes at 4*s; the file must hold them whole.
    auto slotFits = [&](int slot) { return size >= size_t(4 * slot + 4); };
    BucketRange range;
    if (bucket == 0) {
        if (!slotFits(1))
            return range;
        range.high = le32(data + 4);
    } else if (bucket < 255) {
        if (!slotFits(bucket + 1))
            return range;
        range.low = le32(data + 4 * bucket);
        range.high = le32(data + 4 * bucket + 4);
    } else {
        if (!slotFits(255))
            return range;
        range.low = le32(data + 1020);
        range.high = uint32_t((size - 1024) / 16);  // size >= 1024 here
    }
    const uint64_t wholeRecords = size < 1024 ? 0 : (size - 1024) / 16;
    range.ok = range.low <= range.high && range.high <= wholeRecords && recordOffset(range.high) <= UINT32_MAX;
    return range;
}

}  // namespace nxfuzz

// Before the first input: the core application (the installation root and
// the logger's file name come from it), then the logger. Its reports go to
// the console, and the console to /dev/null, so that millions of inputs do not
// fill a disk; NXI_FUZZ_LOG=1 keeps them on stdout to follow one reproducer.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    static int appArgc = 1;
    static char* appArgv[] = {(*argc > 0 ? (*argv)[0] : const_cast<char*>("nxfuzz")), nullptr};
    static QCoreApplication* app = new QCoreApplication(appArgc, appArgv);
    (void)app;

    LOGGER::CLogger::getInstance()->EnableConsoleLogging();
    if (qgetenv("NXI_FUZZ_LOG") != "1" && !std::freopen("/dev/null", "w", stdout)) {
        std::fprintf(stderr, "nxfuzz: cannot send the log to /dev/null\n");
        std::abort();
    }

    nxfuzz::g_ScratchRoot = nxfuzz::makeScratchRoot();
    std::atexit(nxfuzz::removeScratchRoot);
    // Whatever the code under test puts in the temp dir stays in RAM as well
    // and goes with the scratch root.
    qputenv("TMPDIR", nxfuzz::g_ScratchRoot.toUtf8());
    return 0;
}
