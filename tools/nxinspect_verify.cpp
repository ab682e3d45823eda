// The checks of `nxinspect verify`. A bucket's entry file is the reference:
// the writer's own conversion (nxformat::splitSortedTable) derives from it
// what the key file, the payload file and the bucket's status block must hold.
#include "nxinspect.h"

#include "commonfun.h"

#include <QDir>
#include <QFileInfo>

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

// What a bucket's other files must hold, derived from its entry file.
struct Expected {
    QString entryFile;  // relative to the DB host directory, for the messages
    DWORD count = 0;
    QByteArray keyList;
    QByteArray payloadList;
    QByteArray groupTable;
    uint16_t key(int position) const { return nxformat::readLE16(bytesOf(keyList) + nxformat::kKeySize * position); }
    uint16_t slot(int group) const { return nxformat::readLE16(bytesOf(groupTable) + 2 * group); }
};

class DatabaseVerifier
{
public:
    DatabaseVerifier(const QString& host, const QString& db) : m_Host(host), m_Db(db) {}

    QVector<Violation> run()
    {
        QVector<std::optional<nxformat::KeyFile>> keyFiles(nxformat::kBucketCount);
        for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket)
            keyFiles[bucket] = verifyBucket(bucket);
        verifyStatusFile(keyFiles);
        verifySizeRecord();
        verifyNothingLeftBehind();
        return m_Found;
    }

private:
    void report(const QString& path, int bucket, const QString& where, const QString& problem)
    {
        m_Found.append({QDir(m_Host).relativeFilePath(path), bucket, where, problem});
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

    // Checks the bucket's three files; returns its key file for the check
    // of the bucket's status block.
    std::optional<nxformat::KeyFile> verifyBucket(int bucket)
    {
        const QString paths[] = {current(IndexFile::Key, bucket), current(IndexFile::Payload, bucket),
                                 current(IndexFile::Entry, bucket)};
        int present = 0;
        for (const QString& path : paths)
            present += QFileInfo::exists(path) ? 1 : 0;
        if (present == 0)
            return std::nullopt;
        for (const QString& path : paths)
            if (!QFileInfo::exists(path))
                report(path, bucket, QString(), "missing, while the bucket's other index files exist");

        std::optional<Expected> expected;
        if (QFileInfo::exists(paths[2]))
            expected = verifyEntryFile(bucket, paths[2]);
        if (expected && QFileInfo::exists(paths[1]))
            verifyPayloadFile(bucket, paths[1], *expected);
        if (!QFileInfo::exists(paths[0]))
            return std::nullopt;
        return verifyKeyFile(bucket, paths[0], expected);
    }

    std::optional<Expected> verifyEntryFile(int bucket, const QString& path)
    {
        QByteArray bytes;
        if (!read(path, bucket, &bytes))
            return std::nullopt;
        Expected expected;
        expected.entryFile = QDir(m_Host).relativeFilePath(path);
        expected.count = DWORD(bytes.size()) / nxformat::kRecordSize;
        if (expected.count == 0 || expected.count > nxformat::kMaxBucketRecords) {
            report(path, bucket, QString(),
                   QString("holds %1 records; a bucket holds 1 to %2").arg(expected.count).arg(nxformat::kMaxBucketRecords));
            return std::nullopt;
        }
        const unsigned char* records = bytesOf(bytes);
        for (DWORD i = 1; i < expected.count; ++i) {
            uint32_t before = nxformat::recordKey(records + (i - 1) * nxformat::kRecordSize);
            uint32_t key = nxformat::recordKey(records + i * nxformat::kRecordSize);
            if (nxformat::compareKeys(before, key) > 0)
                report(path, bucket, positionText(int(i)),
                       QString::asprintf("key 0x%08x is out of order after 0x%08x", key, before));
        }
        expected.keyList = QByteArray(int(nxformat::kKeySize * expected.count), '\0');
        expected.payloadList = QByteArray(int(nxformat::payloadFileSize(expected.count)), '\0');
        expected.groupTable = QByteArray(int(nxformat::kGroupTableSize), '\0');
        nxformat::splitSortedTable(records, expected.count, reinterpret_cast<unsigned char*>(expected.keyList.data()),
                                   reinterpret_cast<unsigned char*>(expected.payloadList.data()),
                                   reinterpret_cast<unsigned char*>(expected.groupTable.data()));
        return expected;
    }

    std::optional<nxformat::KeyFile> verifyKeyFile(int bucket, const QString& path,
                                                   const std::optional<Expected>& expected)
    {
        QByteArray bytes;
        if (!read(path, bucket, &bytes))
            return std::nullopt;
        std::optional<nxformat::KeyFile> keyFile = nxformat::parseKeyFile(bytes);
        if (!keyFile) {
            report(path, bucket, QString(), QString("size %1 is not 2 x count + 512").arg(bytes.size()));
            return std::nullopt;
        }
        if (!expected)
            return keyFile;
        if (DWORD(keyFile->keys.size()) != expected->count)
            report(path, bucket, QString(),
                   QString("holds %1 keys, %2 holds %3 records")
                       .arg(keyFile->keys.size()).arg(expected->entryFile).arg(expected->count));
        else
            for (int i = 0; i < keyFile->keys.size(); ++i)
                if (keyFile->keys[i] != expected->key(i))
                    report(path, bucket, positionText(i),
                           QString::asprintf("key 0x%04x, %s has 0x%04x", keyFile->keys[i],
                                             qPrintable(expected->entryFile), expected->key(i)));
        for (int group = 0; group < nxformat::kBucketCount; ++group)
            if (keyFile->groupTable[group] != expected->slot(group))
                report(path, bucket, slotText(group),
                       QString("holds %1, the group's first position in %2 is %3")
                           .arg(slotValue(keyFile->groupTable[group]), expected->entryFile,
                                slotValue(expected->slot(group))));
        return keyFile;
    }

    void verifyPayloadFile(int bucket, const QString& path, const Expected& expected)
    {
        QByteArray bytes;
        if (!read(path, bucket, &bytes))
            return;
        if (DWORD(bytes.size()) != nxformat::payloadFileSize(expected.count)) {
            report(path, bucket, QString(),
                   QString("size %1, expected %2 for the %3 records of %4")
                       .arg(bytes.size()).arg(nxformat::payloadFileSize(expected.count)).arg(expected.count)
                       .arg(expected.entryFile));
            return;
        }
        for (DWORD i = 0; i < expected.count; ++i) {
            DWORD offset = i * nxformat::kPayloadSize;
            if (memcmp(bytes.constData() + offset, expected.payloadList.constData() + offset, nxformat::kPayloadSize) != 0)
                report(path, bucket, positionText(int(i)), "payload differs from the record in " + expected.entryFile);
        }
    }

    // The head must name, in bucket order, exactly the blocks that follow
    // each other from byte 1024 to the end of the file.
    void verifyStatusFile(const QVector<std::optional<nxformat::KeyFile>>& keyFiles)
    {
        QString path = nxformat::statusFilePath(m_Host, m_Db);
        if (!QFileInfo::exists(path)) {
            for (const std::optional<nxformat::KeyFile>& keyFile : keyFiles)
                if (keyFile) {
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
            verifyBlock(path, bucket, *nxformat::parseBucketBlock(bytes, offset), keyFiles[bucket]);
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
                     const std::optional<nxformat::KeyFile>& keyFile)
    {
        if (!keyFile) {
            report(path, bucket, "block", "the bucket has no readable key file");
            return;
        }
        if (int(block.count) != keyFile->keys.size())
            report(path, bucket, "block",
                   QString("holds %1 keys, the key file %2").arg(block.count).arg(keyFile->keys.size()));
        else
            for (int i = 0; i < keyFile->keys.size(); ++i)
                if (block.keys[i] != keyFile->keys[i])
                    report(path, bucket, "block " + positionText(i),
                           QString::asprintf("key 0x%04x, the key file has 0x%04x", block.keys[i], keyFile->keys[i]));
        for (int group = 0; group < nxformat::kBucketCount; ++group)
            if (block.groupTable[group] != keyFile->groupTable[group])
                report(path, bucket, "block " + slotText(group),
                       QString("holds %1, the key file %2")
                           .arg(slotValue(block.groupTable[group]), slotValue(keyFile->groupTable[group])));
    }

    void verifySizeRecord()
    {
        QFileInfo status(nxformat::statusFilePath(m_Host, m_Db));
        std::optional<uint64_t> statusSize;
        if (status.exists())
            statusSize = uint64_t(status.size());
        QString path = nxformat::sbfSizeRecordPath(m_Host);
        QString key = nxformat::sbfSizeKey(m_Db);
        QString value = commonfun::getInstance()->GetPrivateProfileString(nxformat::kSbfSizeSection, key,
                                                                          QString(), path);
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
    QVector<Violation> m_Found;
};

} // namespace

QVector<Violation> verifyDatabase(const QString& host, const QString& db)
{
    return DatabaseVerifier(host, db).run();
}

} // namespace nxinspect
