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

bool IndexReader::load(int bucket, QString* error)
{
    Bucket& loaded = m_Buckets[bucket];
    if (loaded.loaded)
        return true;
    QString keyPath = currentPath(IndexFile::Key, bucket);
    if (!QFileInfo::exists(keyPath)) {
        loaded.loaded = true;  // the bucket has no index
        return true;
    }
    QByteArray bytes;
    if (!readWholeFile(keyPath, &bytes, error))
        return false;
    std::optional<nxformat::KeyFile> keyFile = nxformat::parseKeyFile(bytes);
    if (!keyFile) {
        *error = QString("%1: not a key file (size %2)").arg(keyPath).arg(bytes.size());
        return false;
    }
    // A sorted table whose first and last keys share byte 3 shares it throughout.
    QFile entry(currentPath(IndexFile::Entry, bucket));
    if (!entry.open(QIODevice::ReadOnly)) {
        *error = entry.fileName() + ": " + entry.errorString();
        return false;
    }
    qint64 records = entry.size() / nxformat::kRecordSize;
    if (records == 0) {
        *error = entry.fileName() + ": holds no record";
        return false;
    }
    if (records != keyFile->keys.size()) {
        *error = QString::asprintf("bucket %02x: the key file holds %d keys, the entry file %lld records; "
                                   "nxinspect verify tells more",
                                   bucket, keyFile->keys.size(), (long long)records);
        return false;
    }
    QByteArray first = entry.read(nxformat::kRecordSize);
    entry.seek((records - 1) * nxformat::kRecordSize);
    QByteArray last = entry.read(nxformat::kRecordSize);
    if (first.size() != int(nxformat::kRecordSize) || last.size() != int(nxformat::kRecordSize)) {
        *error = entry.fileName() + ": " + entry.errorString();
        return false;
    }
    loaded.sharedTopByte = first[3] == last[3] ? uint8_t(first[3]) : -1;
    loaded.keys = keyFile->keys;
    loaded.groupTable = keyFile->groupTable;
    loaded.present = true;
    loaded.loaded = true;
    return true;
}

bool IndexReader::findInBucket(int bucket, uint32_t key, QVector<int>* positions, QString* error)
{
    const Bucket& index = m_Buckets[bucket];
    if (!index.present)
        return true;
    if (index.sharedTopByte < 0) {
        // Mixed byte 3: the group table cannot delimit a group; scan the records.
        QByteArray records;
        if (!readWholeFile(currentPath(IndexFile::Entry, bucket), &records, error))
            return false;
        const auto* p = reinterpret_cast<const unsigned char*>(records.constData());
        for (int i = 0; i < index.keys.size(); ++i)
            if (nxformat::recordKey(p + i * nxformat::kRecordSize) == key)
                positions->append(i);
        return true;
    }
    if (uint32_t(index.sharedTopByte) != key >> 24)
        return true;
    uint16_t start = index.groupTable[int((key >> 16) & 0xFF)];
    if (start == nxformat::kNoPosition)
        return true;
    int count = index.keys.size();
    if (start >= count) {
        *error = QString::asprintf("bucket %02x: the group table points past the key list; "
                                   "nxinspect verify tells more", bucket);
        return false;
    }
    // The group ends where the next group in the table begins.
    int end = count;
    for (uint16_t slot : index.groupTable)
        if (slot != nxformat::kNoPosition && slot > start && slot < end)
            end = slot;
    auto begin = index.keys.begin();
    auto found = std::lower_bound(begin + start, begin + end, uint16_t(key));
    for (; found != begin + end && *found == uint16_t(key); ++found)
        positions->append(int(found - begin));
    return true;
}

bool IndexReader::readPayload(int bucket, int position, QByteArray* payload, QString* error)
{
    QFile file(currentPath(IndexFile::Payload, bucket));
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.fileName() + ": " + file.errorString();
        return false;
    }
    file.seek(qint64(position) * nxformat::kPayloadSize);
    *payload = file.read(nxformat::kPayloadSize);
    if (payload->size() != int(nxformat::kPayloadSize)) {
        *error = QString("%1: ends before position %2").arg(file.fileName()).arg(position);
        return false;
    }
    return true;
}

bool IndexReader::lookup(uint32_t key, QVector<Match>* matches, QString* error)
{
    matches->clear();
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        QVector<int> positions;
        if (!load(bucket, error) || !findInBucket(bucket, key, &positions, error))
            return false;
        for (int position : positions) {
            Match match{bucket, position, key, QByteArray()};
            if (!readPayload(bucket, position, &match.payload, error))
                return false;
            matches->append(match);
        }
    }
    return true;
}

} // namespace nxinspect
