#include "nxinspect.h"

namespace nxinspect {

Status openIndex(const QString& host, const QString& db, Index* index)
{
    int error = 0;
    index->reset(nxindex_open(host.toUtf8().constData(), db.toUtf8().constData(), &error));
    if (*index)
        return Status::ok();
    const QString what = "open the index of " + db + " under " + host;
    return error > 0 ? Status::error(error, what) : Status::error(EBADMSG, what + ": " + nxindex_strerror(error));
}

Status lookup(const nxindex* index, uint32_t key, QVector<Match>* matches)
{
    matches->clear();
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket) {
        size_t first = 0;
        const long count = nxindex_find(index, bucket, key, &first);
        if (count < 0)
            return Status::error(EBADMSG, QString::asprintf("bucket %02x: %s; nxinspect verify tells more", bucket,
                                                            nxindex_strerror(int(count))));
        const unsigned char* records = nullptr;
        nxindex_bucket(index, bucket, &records);
        for (size_t at = first; at < first + size_t(count); ++at) {
            const char* payload = reinterpret_cast<const char*>(records) + at * NXINDEX_RECORD_SIZE + 4;
            matches->append({bucket, int(at), key, QByteArray(payload, NXINDEX_PAYLOAD_SIZE)});
        }
    }
    return Status::ok();
}

}  // namespace nxinspect
