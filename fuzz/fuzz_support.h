#ifndef NXI_FUZZ_SUPPORT_H
#define NXI_FUZZ_SUPPORT_H

// Shared pieces of the libFuzzer targets: the process set-up (core
// application, quiet logger, a RAM-backed scratch root), one fresh DB host
// directory per input, and a bucket range worked out from the bytes of a
// source file without touching the indexer.

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>

// A failed check is a finding: the message goes to stderr and the process
// aborts, so that libFuzzer keeps the input as a crash reproducer.
#define FUZZ_CHECK(condition, ...)                                            \
    do {                                                                      \
        if (!(condition))                                                     \
            nxfuzz::checkFailed(__FILE__, __LINE__, #condition, __VA_ARGS__); \
    } while (0)

namespace nxfuzz {

[[noreturn]] void checkFailed(const char* file, int line, const char* condition, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// A DB host directory of its own for one input, under the scratch root;
// removed with everything in it when the object goes.
class ScratchHost
{
public:
    ScratchHost();
    ~ScratchHost();
    ScratchHost(const ScratchHost&) = delete;
    ScratchHost& operator=(const ScratchHost&) = delete;
    const QString& path() const { return m_Path; }

private:
    QString m_Path;
};

// Writes bytes to path (parent directories created); aborts when it cannot,
// since every later check would be meaningless.
void writeFile(const QString& path, const uint8_t* data, size_t size);
void writeFile(const QString& path, const QByteArray& bytes);
// The whole file; a null array when it is missing or unreadable.
QByteArray readFile(const QString& path);
bool exists(const QString& path);

inline uint32_t le32(const uint8_t* p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint16_t le16(const uint8_t* p) { return uint16_t(p[0] | (p[1] << 8)); }

// A bucket's record range in a source file of the given bytes, as the
// indexer must find it: bucket b runs from bucket start b (0 for bucket 0) to
// bucket start b+1, bucket 255 to the file's last whole record. ok is false
// when the file is too short for the start slots the bucket needs or the
// range is corrupt (inverted, past the file's whole records, or ending
// beyond 4 GiB).
struct BucketRange {
    bool ok = false;
    uint32_t low = 0;
    uint32_t high = 0;
};
BucketRange expectedBucketRange(const uint8_t* data, size_t size, int bucket);

// Byte offset of record index r in a source file.
inline uint64_t recordOffset(uint64_t recordIndex) { return (recordIndex + 64) * 16; }

}  // namespace nxfuzz

#endif
