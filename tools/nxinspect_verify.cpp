// The checks of `nxinspect verify`. A bucket's entry file is the reference:
// libnxindex checks the key and payload files against it, and the writer's
// own conversion (nxformat::splitSortedTable) derives from it what the
// bucket's status block must hold.
#include "nxinspect.h"

#include "commonfun.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QSet>

#include <cstring>

namespace nxinspect {

namespace {

using nxformat::Generation;
using nxformat::IndexFile;

const unsigned char* bytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

QString positionText(int position) { return QString("position %1").arg(position); }
QString slotText(int group) { return QString::asprintf("group slot %02x", group); }
QString slotValue(uint16_t value) { return value == nxformat::kNoPosition ? "none" : QString::number(value); }

// What a sound bucket's status block must hold, made from its entry file by
// the writer's own conversion.
struct Expected {
    QString entryFile;  // relative to the DB host directory, for the messages
    DWORD count = 0;
    QByteArray keyList;
    QByteArray groupTable;
    uint16_t key(int position) const { return nxformat::readLE16(bytesOf(keyList) + nxformat::kKeySize * position); }
    uint16_t slot(int group) const { return nxformat::readLE16(bytesOf(groupTable) + 2 * group); }
};

const IndexFile kLibraryFiles[] = {IndexFile::Key, IndexFile::Payload, IndexFile::Entry};  // by NXINDEX_..._FILE

// What a problem that libnxindex reports means, in words.
QString problemText(const nxindex_problem& p, const QString& entryFile)
{
    const qulonglong found = p.found, expected = p.expected;
    const auto sizeText = [&] {
        return expected ? QString("size %1, expected %2 for the %3 records of %4")
                              .arg(found)
                              .arg(expected)
                              .arg(expected / NXINDEX_PAYLOAD_SIZE)
                              .arg(entryFile)
                        : QString("size %1 is not 12 x count").arg(found);
    };
    switch (p.error) {
    case NXINDEX_EMISSING: return "missing, while the bucket's other index files exist";
    case NXINDEX_EREAD: return QString("cannot be read: ") + strerror(int(found));
    case NXINDEX_EORDER: return QString::asprintf("key 0x%08llx is out of order after 0x%08llx", found, expected);
    case NXINDEX_EGROUP: return QString("holds %1, past the key list of %2 keys").arg(found).arg(expected);
    case NXINDEX_ESIZE:
        if (p.file == NXINDEX_ENTRY_FILE)
            return QString("holds %1 records; a bucket holds 1 to %2").arg(found).arg(nxformat::kMaxBucketRecords);
        return p.file == NXINDEX_KEY_FILE ? QString("size %1 is not 2 x count + 512").arg(found) : sizeText();
    case NXINDEX_ECOUNT:
        return p.file == NXINDEX_KEY_FILE
                   ? QString("holds %1 keys, %2 holds %3 records").arg(found).arg(entryFile).arg(expected)
                   : sizeText();
    default:  // NXINDEX_EMISMATCH
        if (p.group >= 0)
            return QString("holds %1, the group's first position in %2 is %3")
                .arg(slotValue(uint16_t(found)), entryFile, slotValue(uint16_t(expected)));
        return p.file == NXINDEX_KEY_FILE
                   ? QString::asprintf("key 0x%04llx, %s has 0x%04llx", found, qPrintable(entryFile), expected)
                   : "payload differs from the record in " + entryFile;
    }
}

class DatabaseVerifier
{
public:
    DatabaseVerifier(const QString& host, const QString& db) : m_Host(host), m_Db(db) { m_Result.db = db; }

    Verification run()
    {
        QVector<std::optional<Expected>> expected(nxformat::kBucketCount);
        Index index;
        const Status opened = openIndex(m_Host, m_Db, &index);
        for (int bucket = 0; opened.isOk() && bucket < nxformat::kBucketCount; ++bucket)
            expected[bucket] = verifyBucket(index.get(), bucket);
        verifyStatusFile(expected);
        verifySizeRecord();
        verifyNothingLeftBehind();
        return m_Result;
    }

private:
    void report(const QString& path, int bucket, const QString& where, const QString& problem, qint64 position = -1)
    {
        m_Result.violations.append({QDir(m_Host).relativeFilePath(path), bucket, where, problem, position});
    }

    bool read(const QString& path, int bucket, QByteArray* bytes)
    {
        const Status read = readWholeFile(path, bytes);
        if (!read.isOk())
            report(path, bucket, QString(), "cannot be read: " + read.toString());
        return read.isOk();
    }

    QString current(IndexFile file, int bucket) const
    {
        return indexFilePath(m_Host, m_Db, file, Generation::Current, bucket);
    }

    // A sound bucket gives what its status block must hold; a damaged one
    // is checked in detail by the library, every problem a violation.
    std::optional<Expected> verifyBucket(const nxindex* index, int bucket)
    {
        const unsigned char* records = nullptr;
        const long count = nxindex_bucket(index, bucket, &records);
        if (count != 0)
            ++m_Result.buckets;
        if (count > 0) {
            m_Result.records += count;
            Expected expected{QDir(m_Host).relativeFilePath(current(IndexFile::Entry, bucket)), DWORD(count),
                              QByteArray(int(nxformat::kKeySize * count), '\0'),
                              QByteArray(int(nxformat::kGroupTableSize), '\0')};
            QByteArray payloads(int(nxformat::payloadFileSize(DWORD(count))), '\0');
            nxformat::splitSortedTable(records, DWORD(count), reinterpret_cast<unsigned char*>(expected.keyList.data()),
                                       reinterpret_cast<unsigned char*>(payloads.data()),
                                       reinterpret_cast<unsigned char*>(expected.groupTable.data()));
            return expected;
        }
        if (count < 0) {
            m_Damaged << bucket;
            m_Bucket = bucket;
            nxindex_check(m_Host.toUtf8().constData(), m_Db.toUtf8().constData(), bucket, &reportProblem, this);
        }
        return std::nullopt;
    }

    static int reportProblem(void* context, const nxindex_problem* problem)
    {
        auto* self = static_cast<DatabaseVerifier*>(context);
        const int bucket = self->m_Bucket;
        const QString entryFile = QDir(self->m_Host).relativeFilePath(self->current(IndexFile::Entry, bucket));
        const QString where = problem->position >= 0 ? positionText(int(problem->position))
                              : problem->group >= 0  ? slotText(problem->group)
                                                     : QString();
        self->report(self->current(kLibraryFiles[problem->file], bucket), bucket, where,
                     problemText(*problem, entryFile), problem->position);
        return 0;
    }

    // The head must name, in bucket order, exactly the blocks that follow
    // each other from byte 1024 to the end of the file.
    void verifyStatusFile(const QVector<std::optional<Expected>>& expected)
    {
        QString path = nxformat::statusFilePath(m_Host, m_Db);
        if (!QFileInfo::exists(path)) {
            for (const std::optional<Expected>& bucket : expected)
                if (bucket) {
                    report(path, -1, QString(), "missing, while the database has index files");
                    break;
                }
            return;
        }
        QByteArray bytes;
        if (!read(path, -1, &bytes))
            return;
        std::optional<QVector<DWORD>> head = nxformat::parseStatusHead(bytes);
        if (!head) {
            report(path, -1, QString(), QString("size %1 is shorter than the 1024-byte head").arg(bytes.size()));
            return;
        }
        QVector<DWORD> starts = blockStarts(path, bytes);
        if (starts.isEmpty())
            report(path, -1, QString(), "holds no bucket block");
        QVector<bool> claimed(starts.size(), false);
        int lastClaimed = -1;
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
            DWORD offset = (*head)[bucket];
            if (offset == 0)
                continue;
            QString where = QString::asprintf("head slot %02x", bucket);
            int index = starts.indexOf(offset);
            if (index < 0) {
                report(path, bucket, where, QString("offset %1 is not where a block begins").arg(offset));
                continue;
            }
            if (index <= lastClaimed)
                report(path, bucket, where, QString("the block at %1 is out of bucket order").arg(offset));
            claimed[index] = true;
            lastClaimed = std::max(lastClaimed, index);
            verifyBlock(path, bucket, *nxformat::parseBucketBlock(bytes, offset), expected[bucket]);
        }
        for (int i = 0; i < starts.size(); ++i)
            if (!claimed[i])
                report(path, -1, QString("byte %1").arg(starts[i]), "block belongs to no head slot");
    }

    // Offsets of the blocks that follow each other from the head on.
    QVector<DWORD> blockStarts(const QString& path, const QByteArray& bytes)
    {
        QVector<DWORD> starts;
        uint64_t offset = nxformat::kStatusHeadSize;
        while (offset < uint64_t(bytes.size())) {
            std::optional<nxformat::BucketBlock> block = nxformat::parseBucketBlock(bytes, DWORD(offset));
            if (!block) {
                report(path, -1, QString("byte %1").arg(offset), "block runs past the end of the file");
                break;
            }
            starts << DWORD(offset);
            offset += nxformat::bucketBlockSize(block->count);
        }
        return starts;
    }

    void verifyBlock(const QString& path, int bucket, const nxformat::BucketBlock& block,
                     const std::optional<Expected>& expected)
    {
        if (m_Damaged.contains(bucket))
            return;  // its index files are reported already
        if (!expected) {
            report(path, bucket, "block", "the bucket has no index files");
            return;
        }
        if (block.count != expected->count)
            report(path, bucket, "block",
                   QString("holds %1 keys, %2 holds %3 records")
                       .arg(block.count)
                       .arg(expected->entryFile)
                       .arg(expected->count));
        else
            for (int i = 0; i < int(block.count); ++i)
                if (block.keys[i] != expected->key(i))
                    report(path, bucket, "block " + positionText(i),
                           QString::asprintf("key 0x%04x, %s has 0x%04x", block.keys[i],
                                             qPrintable(expected->entryFile), expected->key(i)),
                           i);
        for (int group = 0; group < nxformat::kBucketCount; ++group)
            if (block.groupTable[group] != expected->slot(group))
                report(path, bucket, "block " + slotText(group),
                       QString("holds %1, the group's first position in %2 is %3")
                           .arg(slotValue(block.groupTable[group]), expected->entryFile,
                                slotValue(expected->slot(group))));
    }

    void verifySizeRecord()
    {
        QFileInfo status(nxformat::statusFilePath(m_Host, m_Db));
        std::optional<uint64_t> statusSize;
        if (status.exists())
            statusSize = uint64_t(status.size());
        QString path = nxformat::sbfSizeRecordPath(m_Host);
        QString key = nxformat::sbfSizeKey(m_Db);
        QString value =
            commonfun::getInstance()->GetPrivateProfileString(nxformat::kSbfSizeSection, key, QString(), path);
        QString where = "key " + key;
        if (!statusSize) {
            if (!value.isEmpty())
                report(path, -1, where, "records " + value + " for a status file that does not exist");
            return;
        }
        std::optional<int> size = nxformat::parseSbfSizeValue(value);
        if (value.isEmpty())
            report(path, -1, where, "missing");
        else if (!size)
            report(path, -1, where, "'" + value + "' is not a size record");
        else if (*size < 0 || uint64_t(*size) != *statusSize)
            report(path, -1, where, QString("records %1 bytes, the status file has %2").arg(*size).arg(*statusSize));
    }

    void verifyNothingLeftBehind()
    {
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket)
            for (IndexFile file : {IndexFile::Key, IndexFile::Payload, IndexFile::Entry}) {
                QString pending = indexFilePath(m_Host, m_Db, file, Generation::Pending, bucket);
                if (QFileInfo::exists(pending))
                    report(pending, bucket, QString(), "pending file left behind by an unfinished write");
                QString previous = indexFilePath(m_Host, m_Db, file, Generation::Previous, bucket);
                if (QFileInfo::exists(previous))
                    report(previous, bucket, QString(), "previous file left behind by an unfinished rotation");
            }
        QString statusTmp = nxformat::pendingStatusFilePath(m_Host, m_Db);
        if (QFileInfo::exists(statusTmp))
            report(statusTmp, -1, QString(), "status file under construction left behind by an unfinished run");
    }

    QString m_Host;
    QString m_Db;
    Verification m_Result;
    int m_Bucket = -1;  // the bucket being checked
    QSet<int> m_Damaged;  // buckets whose files the library refused
};

}  // namespace

Verification verifyDatabase(const QString& host, const QString& db) { return DatabaseVerifier(host, db).run(); }

QJsonObject toJson(const Verification& verification)
{
    QJsonArray violations;
    for (const Violation& v : verification.violations)
        violations.append(QJsonObject{{"file", v.file},
                                      {"bucket", v.bucket >= 0 ? QJsonValue(v.bucket) : QJsonValue()},
                                      {"position", v.position >= 0 ? QJsonValue(v.position) : QJsonValue()},
                                      {"where", v.where},
                                      {"problem", v.problem}});
    return QJsonObject{{"name", verification.db},
                       {"buckets", verification.buckets},
                       {"records", verification.records},
                       {"violations", violations}};
}

}  // namespace nxinspect
