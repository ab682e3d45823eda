#ifndef NXI_INDEXFORMAT_H
#define NXI_INDEXFORMAT_H

// The byte layouts of every file the indexer reads or writes, and the helpers
// that read and write them: the indexer's writer, the inspector and the
// sample generator all use these, so a layout is never spelled out twice in
// code. doc/formats.md is the full reference, with examples. All integers are
// little-endian; b is a bucket (0-255), named "%02x" in paths; paths are
// under the DB host directory. Nothing here touches the file system.
//
// An entry record (16 bytes) has the form:
//     key: uint32             bytes 0-1 its low 16 bits, byte 2 the group byte
//     payload: char[12]       never interpreted
//
// A source file ("idxnd/<db><nnnn>.yn", read) has the form:
//     start: uint32[256]      start[b] = index of bucket b's first record;
//                             start[0] is never read, bucket 0 starts at 0
//     records: entry[n]       record r at byte (r + 64) * 16; bucket b holds
//                             records start[b] up to start[b+1], bucket 255 up
//                             to the last whole record (trailing bytes unread)
//
// A bucket's count records, sorted by key, make three index files, each
// written as "<bb>.<ext>new" and renamed to "<bb>.<ext>":
//   key file ("idxn/<db>/<bb>.m"):
//     keys: uint16[count]     low 16 bits of each key, in sorted order
//     groups: uint16[256]     groups[g] = first position whose group byte is
//                             g, 0xFFFF when none
//   payload file ("idxn/<db>/<bb>.d"):
//     payloads: char[12][count]
//   entry file ("hl/<db>/hlp/<bb>.hl"):
//     records: entry[count]   then, after a helper file whose size is not a
//                             multiple of 16, as many zero bytes (1-15)
// count is at most 65535: positions are 16-bit and 0xFFFF means none.
//
// A helper file ("hl/<db><bb>.hl", read) has the entry file's layout, entry
// records with no header; it is loaded at the head of the bucket's table.
//
// A status file ("<db>.sbf", built as "<db>.sbftmp") has the form:
//     offsets: uint32[256]    offsets[b] = byte offset of bucket b's block, 0
//                             when the run wrote none; written last
//     blocks: block[]         from byte 1024, in bucket order, one for every
//                             bucket the run wrote
// and a bucket block the form:
//     count: uint32
//     groups: uint16[256]     as in the key file
//     keys: uint16[count]     as in the key file
//
// The SBF size record ("sbf_check_yn.ini") is INI text, one key a database:
//     [SBF_Size]
//     <db>.sbf=<the status file's size in decimal>#NXI
//
// The helper progress file ("hl/<db>/<db>hl.ini") is INI text, keys ascending,
// one for every bucket that reached the writer (parseProgressMarks reads it):
//     [hlpr]
//     <bb>=<last merged file number, "%02d"; -1 for none>

#include <QByteArray>
#include <QString>
#include <QVector>

#include <cstdint>
#include <optional>

typedef uint32_t DWORD;

namespace nxformat {

// ---- Little-endian integers ------------------------------------------------
inline uint16_t readLE16(const unsigned char* p) { return uint16_t(p[0] | (p[1] << 8)); }
inline uint32_t readLE32(const unsigned char* p)
{
    return uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline void writeLE16(unsigned char* p, uint16_t v)
{
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
inline void writeLE32(unsigned char* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = uint8_t(v >> (8 * i));
}

// ---- Entry record: 4-byte key (byte 2 is the group byte), 12 payload bytes --
constexpr DWORD kRecordSize = 16;
constexpr DWORD kKeySize = 2;  // bytes 0-1 of the key go to the key list
constexpr DWORD kPayloadSize = 12;  // bytes 4-15 go to the payload list
constexpr DWORD kPayloadOffset = 4;
constexpr int kGroupByteOffset = 2;
constexpr int kBucketCount = 256;

inline uint32_t recordKey(const unsigned char* record) { return readLE32(record); }
inline uint8_t recordGroup(const unsigned char* record) { return record[kGroupByteOffset]; }

// The sort order of entry records: the key difference modulo 2^32 read as a
// signed number. Ascending by key whenever the keys span less than 2^31.
int compareKeys(uint32_t a, uint32_t b);
// Sorts count entry records in that order, stably: records with equal keys
// stay in table order (the helper file's first, then each source file's in
// file order). A radix sort where the keys span less than 2^31, a merge sort
// by compareKeys where they span more.
void sortEntryRecords(unsigned char* table, size_t count);

// ---- Source file (.yn): 256-slot bucket start table, then 16-byte records --
constexpr DWORD kSourceHeadSize = 1024;
// Byte offset of bucket start slot b (slots 1..255 are read; bucket 0 starts at 0).
inline DWORD bucketStartSlotOffset(int bucket) { return DWORD(4 * bucket); }
// Byte offset of record index r.
inline uint64_t sourceRecordOffset(uint64_t recordIndex) { return (recordIndex + 64) * kRecordSize; }
// Number of whole records in a source file of the given size.
inline uint64_t sourceWholeRecords(uint64_t fileSize)
{
    return fileSize < kSourceHeadSize ? 0 : (fileSize - kSourceHeadSize) / kRecordSize;
}
// True when the bucket range [low, high) lies inside the file's whole records
// and its end stays below 4 GiB; a corrupt start table fails this test.
bool sourceRangeIsValid(DWORD low, DWORD high, uint64_t fileSize);
// A complete source file from the records of each bucket (index = bucket),
// bucket 0 first; slot 0 of the start table is written as 0.
QByteArray buildSourceFile(const QVector<QByteArray>& bucketRecords);

// ---- Positions and the group table ----------------------------------------
constexpr uint16_t kNoPosition = 0xFFFF;
constexpr DWORD kMaxBucketRecords = 65535;  // positions are 16-bit, 0xFFFF is reserved
constexpr DWORD kGroupTableSize = 512;  // 256 unsigned 16-bit slots

// One pass over a sorted table of count records: key list (2 bytes a record),
// payload list (12 bytes a record) and group table (slot g = first position of
// group byte g, 0xFFFF when none). count must not exceed kMaxBucketRecords.
void splitSortedTable(const unsigned char* table, DWORD count, unsigned char* keyList, unsigned char* payloadList,
                      unsigned char* groupTable);

// ---- Key file (.m): key list, then group table ------------------------------
inline DWORD keyFileSize(DWORD count) { return kKeySize * count + kGroupTableSize; }
// ---- Payload file (.d): payload list ----------------------------------------
inline DWORD payloadFileSize(DWORD count) { return kPayloadSize * count; }

struct KeyFile {
    QVector<uint16_t> keys;  // low 16 bits of each sorted record's key
    QVector<uint16_t> groupTable;  // 256 slots
};
// Parses a key file; nullopt when its size is not 2*count + 512.
std::optional<KeyFile> parseKeyFile(const QByteArray& bytes);

// ---- Status file (.sbf): 1024-byte head of block offsets, then blocks ------
constexpr DWORD kStatusHeadSize = 1024;
// Block: count (4 bytes), group table (512), key list (2*count).
constexpr DWORD kBlockCountSize = 4;
inline DWORD bucketBlockSize(DWORD count) { return kBlockCountSize + kGroupTableSize + kKeySize * count; }

// The 256 block offsets of a status file head; nullopt when shorter than 1024 bytes.
std::optional<QVector<DWORD>> parseStatusHead(const QByteArray& statusFile);
struct BucketBlock {
    DWORD count = 0;
    QVector<uint16_t> groupTable;
    QVector<uint16_t> keys;
};
// The block at offset; nullopt when it does not fit inside the file.
std::optional<BucketBlock> parseBucketBlock(const QByteArray& statusFile, DWORD offset);

// ---- SBF size record ("sbf_check_yn.ini") ---------------------------------
extern const char* const kSbfSizeSection;  // "SBF_Size"
QString sbfSizeKey(const QString& dbName);  // "wdx00.sbf"
QString sbfSizeValue(int size);  // "3540#NXI"
// The size from a value written by sbfSizeValue; nullopt when malformed.
std::optional<int> parseSbfSizeValue(const QString& value);

// ---- Names under the DB host directory ------------------------------------
// Source file number fileNumber of database db: "<host>/idxnd/<db><nnnn>.yn".
QString sourceFilePath(const QString& host, const QString& db, int fileNumber);
// The DB-count file that holds db's DB-COUNT: "/wfx_idxval.ini" for "wfx00" only.
QString dbCountFilePath(const QString& host, const QString& db);
extern const char* const kDbCountSection;  // "DB-COUNT"
QString indexDirPath(const QString& host, const QString& db);  // <host>/idxn/<db>
QString helperDirPath(const QString& host, const QString& db);  // <host>/hl/<db>
QString entryDirPath(const QString& host, const QString& db);  // <host>/hl/<db>/hlp
QString helperFilePath(const QString& host, const QString& db, int bucket);  // <host>/hl/<db><bb>.hl
QString helperProgressPath(const QString& host, const QString& db);  // <host>/hl/<db>/<db>hl.ini
extern const char* const kHelperProgressSection;  // "hlpr"
// Counting the lines of the helper progress file's text after the first (the
// section line) from 0, lines split at runs of CR and LF, sets marks[n] from
// line n when its leading hexadecimal number (0 when it has none) is n, and
// leaves marks[n] as it was otherwise: a missing or surplus line shifts the
// later lines off their slots until one lines up again ("00,01,03,03,04" sets
// 00, 01, 03 and 04). The mark is the decimal number after "=", -1 when "="
// ends the line, clamped to [-1, INT_MAX - 1] so that mark + 1 fits an int; a
// line in its place without "=" gives -1 and, past slot 0, ends the reading.
void parseProgressMarks(QByteArray text, int* marks);
QString statusFilePath(const QString& host, const QString& db);  // <host>/<db>.sbf
QString pendingStatusFilePath(const QString& host, const QString& db);  // <host>/<db>.sbftmp
QString sbfSizeRecordPath(const QString& host);  // <host>/sbf_check_yn.ini

// The three index files of a bucket under their three names: key and payload
// files in the index directory, the entry file in the entry directory.
enum class IndexFile { Key, Payload, Entry };
enum class Generation { Pending, Current, Previous };
// "%02x.mnew", "%02x.m", "%02x.mold", "%02x.dnew", ... , "%02x.hlold".
QString indexFileName(IndexFile file, Generation generation, int bucket);

}  // namespace nxformat

#endif
