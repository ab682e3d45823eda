#include "nxinspect.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>

namespace nxinspect {

using nxformat::Generation;
using nxformat::IndexFile;

IndexReader::IndexReader(const QString& host, const QString& db)
    : m_Host(host), m_Db(db), m_Buckets(nxformat::kBucketCount)
{
}

QString IndexReader::currentPath(IndexFile file, int bucket) const
{
    return indexFilePath(m_Host, m_Db, file, Generation::Current, bucket);
}

Status IndexReader::load(int bucket)
{
    Bucket& loaded = m_Buckets[bucket];
    if (loaded.loaded)
        return Status::ok();
    QString keyPath = currentPath(IndexFile::Key, bucket);
    if (!QFileInfo::exists(keyPath)) {
        loaded.loaded = true;  // the bucket has no index
        return Status::ok();
    }
    QByteArray bytes;
    if (const Status read = readWholeFile(keyPath, &bytes); !read.isOk())
        return read;
    std::optional<nxformat::KeyFile> keyFile = nxformat::parseKeyFile(bytes);
    if (!keyFile)
        return Status::error(EBADMSG, QString("%1: not a key file (size %2)").arg(keyPath).arg(bytes.size()));
    // A sorted table whose first and last keys share byte 3 shares it throughout.
    QByteArray entries;
    const QString entryPath = currentPath(IndexFile::Entry, bucket);
    if (const Status read = readWholeFile(entryPath, &entries); !read.isOk())
        return read;
    const qint64 records = entries.size() / qint64(nxformat::kRecordSize);
    if (records == 0)
        return Status::error(EBADMSG, entryPath + ": holds no record");
    if (records != keyFile->keys.size())
        return Status::error(EBADMSG, QString::asprintf("bucket %02x: the key file holds %d keys, the entry file "
                                                        "%lld records; nxinspect verify tells more",
                                                        bucket, keyFile->keys.size(), (long long)records));
    const QByteArray first = entries.left(int(nxformat::kRecordSize));
    const QByteArray last = entries.mid(int((records - 1) * nxformat::kRecordSize), int(nxformat::kRecordSize));
    loaded.sharedTopByte = first[3] == last[3] ? uint8_t(first[3]) : -1;
    loaded.keys = keyFile->keys;
    loaded.groupTable = keyFile->groupTable;
    loaded.present = true;
    loaded.loaded = true;
    return Status::ok();
}

Status IndexReader::findInBucket(int bucket, uint32_t key, QVector<int>* positions)
{
    const Bucket& index = m_Buckets[bucket];
    if (!index.present)
        return Status::ok();
    if (index.sharedTopByte < 0) {
        // Mixed byte 3: the group table cannot delimit a group; scan the records.
        QByteArray records;
        if (const Status read = readWholeFile(currentPath(IndexFile::Entry, bucket), &records); !read.isOk())
            return read;
        const auto* p = reinterpret_cast<const unsigned char*>(records.constData());
        for (int i = 0; i < index.keys.size(); ++i)
            if (nxformat::recordKey(p + i * nxformat::kRecordSize) == key)
                positions->append(i);
        return Status::ok();
    }
    if (uint32_t(index.sharedTopByte) != key >> 24)
        return Status::ok();
    uint16_t start = index.groupTable[int((key >> 16) & 0xFF)];
    if (start == nxformat::kNoPosition)
        return Status::ok();
    int count = index.keys.size();
    if (start >= count)
        return Status::error(EBADMSG, QString::asprintf("bucket %02x: the group table points past the key list; "
                                                        "nxinspect verify tells more", bucket));
    // The group ends where the next group in the table begins.
    int end = count;
    for (uint16_t slot : index.groupTable)
        if (slot != nxformat::kNoPosition && slot > start && slot < end)
            end = slot;
    auto begin = index.keys.begin();
    auto found = std::lower_bound(begin + start, begin + end, uint16_t(key));
    for (; found != begin + end && *found == uint16_t(key); ++found)
        positions->append(int(found - begin));
    return Status::ok();
}

Status IndexReader::readPayload(int bucket, int position, QByteArray* payload)
{
    const QString path = currentPath(IndexFile::Payload, bucket);
    QByteArray payloads;
    if (const Status read = readWholeFile(path, &payloads); !read.isOk())
        return read;
    *payload = payloads.mid(position * int(nxformat::kPayloadSize), int(nxformat::kPayloadSize));
    if (payload->size() != int(nxformat::kPayloadSize))
        return Status::error(EBADMSG, QString("%1: ends before position %2").arg(path).arg(position));
    return Status::ok();
}

Status IndexReader::lookup(uint32_t key, QVector<Match>* matches)
{
    matches->clear();
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        QVector<int> positions;
        Status status = load(bucket);
        if (status.isOk())
            status = findInBucket(bucket, key, &positions);
        for (int i = 0; status.isOk() && i < positions.size(); ++i) {
            Match match{bucket, positions[i], key, QByteArray()};
            status = readPayload(bucket, positions[i], &match.payload);
            matches->append(match);
        }
        if (!status.isOk())
            return status;
    }
    return Status::ok();
}

} // namespace nxinspect
