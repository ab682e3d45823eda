#include "indexformat.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace nxformat {

int compareKeys(uint32_t a, uint32_t b)
{
    // The wrapped difference read as signed: keys up to 2^31 apart order by
    // value, keys further apart in the opposite order.
    return int32_t(a - b);
}

namespace {

struct Record {
    unsigned char bytes[kRecordSize];
};
uint32_t keyOf(const Record& record) { return recordKey(record.bytes); }

// Ascending by unsigned key and stable: one counting pass per key byte in
// which the records differ (byte 3, the bucket's own, usually does not).
// False, with the table untouched, when its buffer can't be allocated.
bool radixSortByKey(Record* records, size_t count)
{
    size_t starts[4][256] = {};
    for (size_t i = 0; i < count; ++i) {
        const uint32_t key = keyOf(records[i]);
        for (int byte = 0; byte < 4; ++byte)
            ++starts[byte][(key >> (8 * byte)) & 0xFF];
    }
    auto* buffer = static_cast<Record*>(std::malloc(count * sizeof(Record)));
    if (!buffer)
        return false;
    Record* from = records;
    Record* to = buffer;
    for (int byte = 0; byte < 4; ++byte) {
        const int shift = 8 * byte;
        size_t* start = starts[byte];
        if (start[(keyOf(from[0]) >> shift) & 0xFF] == count)
            continue;  // every record has the same byte here
        size_t sum = 0;
        for (int digit = 0; digit < 256; ++digit)
            sum += std::exchange(start[digit], sum);
        for (size_t i = 0; i < count; ++i)
            to[start[(keyOf(from[i]) >> shift) & 0xFF]++] = from[i];
        std::swap(from, to);
    }
    if (from != records)
        std::memcpy(records, from, count * sizeof(Record));
    std::free(buffer);
    return true;
}

}  // namespace

void sortEntryRecords(unsigned char* table, size_t count)
{
    if (count < 2)
        return;
    auto* first = reinterpret_cast<Record*>(table);
    auto* last = first + count;
    auto byKey = [](const Record& a, const Record& b) { return keyOf(a) < keyOf(b); };
    const auto [lowest, highest] = std::minmax_element(first, last, byKey);
    if (keyOf(*highest) - keyOf(*lowest) < 0x80000000u && radixSortByKey(first, count))
        return;
    // Keys 2^31 or more apart (or no memory for the radix sort's buffer): a
    // merge sort by the wrapped order. That order is no total order over such
    // keys, but a merge sort still ends within the table whatever it is told,
    // and keeps equal keys in table order.
    std::stable_sort(first, last, [](const Record& a, const Record& b) { return compareKeys(keyOf(a), keyOf(b)) < 0; });
}

// ---- Source file -------------------------------------------------------------

bool sourceRangeIsValid(DWORD low, DWORD high, uint64_t fileSize)
{
    // The range must lie inside the file's whole records and its end must stay
    // addressable as a 32-bit byte offset, so that 16*(high-low) and
    // (low+64)*16 never wrap.
    return low <= high && high <= sourceWholeRecords(fileSize) && sourceRecordOffset(high) <= UINT32_MAX;
}

QByteArray buildSourceFile(const QVector<QByteArray>& bucketRecords)
{
    QByteArray head(int(kSourceHeadSize), '\0');
    QByteArray records;
    DWORD start = 0;
    for (int bucket = 0; bucket < kBucketCount; ++bucket) {
        if (bucket > 0)
            writeLE32(reinterpret_cast<unsigned char*>(head.data()) + bucketStartSlotOffset(bucket), start);
        if (bucket < bucketRecords.size()) {
            records += bucketRecords[bucket];
            start += DWORD(bucketRecords[bucket].size()) / kRecordSize;
        }
    }
    return head + records;
}

// ---- Conversion of a sorted table ------------------------------------------------

void splitSortedTable(const unsigned char* table, DWORD count, unsigned char* keyList, unsigned char* payloadList,
                      unsigned char* groupTable)
{
    for (int group = 0; group < kBucketCount; ++group)
        writeLE16(groupTable + 2 * group, kNoPosition);
    for (DWORD i = 0; i < count; ++i) {
        const unsigned char* record = table + i * kRecordSize;
        // A group's slot keeps the first position that has its group byte.
        uint8_t group = recordGroup(record);
        if (readLE16(groupTable + 2 * group) == kNoPosition)
            writeLE16(groupTable + 2 * group, uint16_t(i));
        memcpy(keyList + i * kKeySize, record, kKeySize);
        memcpy(payloadList + i * kPayloadSize, record + kPayloadOffset, kPayloadSize);
    }
}

namespace {

QVector<uint16_t> readLE16Array(const unsigned char* p, DWORD count)
{
    QVector<uint16_t> values(static_cast<int>(count));
    for (DWORD i = 0; i < count; ++i)
        values[int(i)] = readLE16(p + 2 * i);
    return values;
}

const unsigned char* bytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

}  // namespace

// ---- Key file ----------------------------------------------------------------------

std::optional<KeyFile> parseKeyFile(const QByteArray& bytes)
{
    DWORD size = DWORD(bytes.size());
    if (size < kGroupTableSize || (size - kGroupTableSize) % kKeySize != 0)
        return std::nullopt;
    DWORD count = (size - kGroupTableSize) / kKeySize;
    KeyFile file;
    file.keys = readLE16Array(bytesOf(bytes), count);
    file.groupTable = readLE16Array(bytesOf(bytes) + kKeySize * count, kBucketCount);
    return file;
}

// ---- Status file -------------------------------------------------------------------

std::optional<QVector<DWORD>> parseStatusHead(const QByteArray& statusFile)
{
    if (DWORD(statusFile.size()) < kStatusHeadSize)
        return std::nullopt;
    QVector<DWORD> offsets(kBucketCount);
    for (int bucket = 0; bucket < kBucketCount; ++bucket)
        offsets[bucket] = readLE32(bytesOf(statusFile) + 4 * bucket);
    return offsets;
}

std::optional<BucketBlock> parseBucketBlock(const QByteArray& statusFile, DWORD offset)
{
    uint64_t fileSize = uint64_t(statusFile.size());
    if (uint64_t(offset) + kBlockCountSize + kGroupTableSize > fileSize)
        return std::nullopt;
    const unsigned char* block = bytesOf(statusFile) + offset;
    BucketBlock parsed;
    parsed.count = readLE32(block);
    if (uint64_t(offset) + bucketBlockSize(0) + uint64_t(kKeySize) * parsed.count > fileSize)
        return std::nullopt;
    parsed.groupTable = readLE16Array(block + kBlockCountSize, kBucketCount);
    parsed.keys = readLE16Array(block + kBlockCountSize + kGroupTableSize, parsed.count);
    return parsed;
}

// ---- SBF size record ---------------------------------------------------------------

const char* const kSbfSizeSection = "SBF_Size";
static const char kSbfSizeSuffix[] = "#NXI";

QString sbfSizeKey(const QString& dbName) { return dbName + ".sbf"; }

QString sbfSizeValue(int size) { return QString::asprintf("%d%s", size, kSbfSizeSuffix); }

std::optional<int> parseSbfSizeValue(const QString& value)
{
    if (!value.endsWith(kSbfSizeSuffix))
        return std::nullopt;
    QString number = value.left(value.size() - int(strlen(kSbfSizeSuffix)));
    // Digits only (an optional minus as "%d" writes it): no blanks, no sign '+'.
    int firstDigit = number.startsWith('-') ? 1 : 0;
    if (number.size() == firstDigit)
        return std::nullopt;
    for (int i = firstDigit; i < number.size(); ++i)
        if (number[i] < '0' || number[i] > '9')
            return std::nullopt;
    bool ok = false;
    int size = number.toInt(&ok);
    if (!ok)
        return std::nullopt;
    return size;
}

// ---- Names ---------------------------------------------------------------------------

const char* const kDbCountSection = "DB-COUNT";
const char* const kHelperProgressSection = "hlpr";

// "%02x" of the bucket; formed without printf, as twelve names are formed
// for every bucket written.
static QString bucketName(int bucket)
{
    if (bucket < 0 || bucket >= kBucketCount)
        return QString::asprintf("%02x", bucket);
    static const char digits[] = "0123456789abcdef";
    const char name[2] = {digits[bucket >> 4], digits[bucket & 15]};
    return QString::fromLatin1(name, 2);
}

QString sourceFilePath(const QString& host, const QString& db, int fileNumber)
{
    return QString::asprintf("%s/idxnd/%s%04d.yn", host.toUtf8().constData(), db.toUtf8().constData(), fileNumber);
}

QString dbCountFilePath(const QString& host, const QString& db)
{
    return host + (db == "wfx00" ? "/wfx_idxval.ini" : "/idxval.ini");
}

QString indexDirPath(const QString& host, const QString& db) { return host + "/idxn/" + db; }
QString helperDirPath(const QString& host, const QString& db) { return host + "/hl/" + db; }
QString entryDirPath(const QString& host, const QString& db) { return helperDirPath(host, db) + "/hlp"; }

QString helperFilePath(const QString& host, const QString& db, int bucket)
{
    // No separator: the helper files lie beside the database's helper
    // directory, "<host>/hl/wdx003f.hl".
    return helperDirPath(host, db) + bucketName(bucket) + ".hl";
}

QString helperProgressPath(const QString& host, const QString& db)
{
    return helperDirPath(host, db) + "/" + db + "hl.ini";
}

QString statusFilePath(const QString& host, const QString& db) { return host + "/" + db + ".sbf"; }
QString pendingStatusFilePath(const QString& host, const QString& db) { return host + "/" + db + ".sbftmp"; }
QString sbfSizeRecordPath(const QString& host) { return host + "/sbf_check_yn.ini"; }

QString indexFileName(IndexFile file, Generation generation, int bucket)
{
    static const char* const suffixes[3][3] = {
        {".mnew", ".m", ".mold"},
        {".dnew", ".d", ".dold"},
        {".hlnew", ".hl", ".hlold"},
    };
    return bucketName(bucket) + suffixes[int(file)][int(generation)];
}

namespace {

// A progress line's value: the number after "=", or -1 when "=" ends the line.
int progressValue(const char* equals)
{
    if (equals[1] == '\0')
        return -1;
    return int(std::clamp<long>(std::strtol(equals + 1, nullptr, 10), -1, INT_MAX - 1));
}

}  // namespace

void parseProgressMarks(QByteArray text, int* marks)
{
    const char* delimiters = "\r\n";
    char* save = nullptr;
    if (text.isEmpty() || !strtok_r(text.data(), delimiters, &save))  // the section line
        return;
    const char* token = strtok_r(nullptr, delimiters, &save);
    if (!token)
        return;
    if (std::strtol(token, nullptr, 16) == 0) {
        const char* equals = std::strchr(token, '=');
        marks[0] = equals ? progressValue(equals) : -1;
    }
    for (int bucket = 1; bucket < kBucketCount; ++bucket) {
        token = strtok_r(nullptr, delimiters, &save);
        if (!token)
            return;
        if (std::strtol(token, nullptr, 16) != bucket)
            continue;
        const char* equals = std::strchr(token, '=');
        if (!equals) {
            marks[bucket] = -1;
            return;
        }
        marks[bucket] = progressValue(equals);
    }
}

}  // namespace nxformat
