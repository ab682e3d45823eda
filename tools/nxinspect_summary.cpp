#include "nxinspect.h"

#include "Common.h"
#include "commonfun.h"
#include "nxi.h"

#include <QFileInfo>
#include <QSettings>

#include <algorithm>

namespace nxinspect {

namespace {

using nxformat::Generation;
using nxformat::IndexFile;

uint64_t sizeOf(const QString& path) { return uint64_t(QFileInfo(path).size()); }

void addIndexFiles(const QString& host, DatabaseSummary* summary)
{
    Index index;
    if (!openIndex(host, summary->db, &index).isOk())
        return;
    for (int bucket = 0; bucket < nxformat::kBucketCount; ++bucket) {
        const unsigned char* records = nullptr;
        const long count = nxindex_bucket(index.get(), bucket, &records);
        if (count == 0)
            continue;
        ++summary->buckets;
        summary->records += count > 0 ? uint64_t(count) : 0;
        summary->damagedBuckets += count < 0 ? 1 : 0;
        summary->keyBytes += sizeOf(indexFilePath(host, summary->db, IndexFile::Key, Generation::Current, bucket));
        summary->payloadBytes +=
            sizeOf(indexFilePath(host, summary->db, IndexFile::Payload, Generation::Current, bucket));
        summary->entryBytes += sizeOf(indexFilePath(host, summary->db, IndexFile::Entry, Generation::Current, bucket));
    }
}

void addStatusFile(const QString& host, DatabaseSummary* summary)
{
    QString path = nxformat::statusFilePath(host, summary->db);
    summary->hasStatusFile = QFileInfo::exists(path);
    QByteArray bytes;
    if (summary->hasStatusFile && readWholeFile(path, &bytes).isOk()) {
        summary->statusBytes = uint64_t(bytes.size());
        if (std::optional<QVector<DWORD>> head = nxformat::parseStatusHead(bytes))
            summary->blocks = int(std::count_if(head->begin(), head->end(), [](DWORD offset) { return offset != 0; }));
    }
    summary->sizeRecord = commonfun::getInstance()->GetPrivateProfileString(
        nxformat::kSbfSizeSection, nxformat::sbfSizeKey(summary->db), QString(), nxformat::sbfSizeRecordPath(host));
    summary->sizeRecordBytes = nxformat::parseSbfSizeValue(summary->sizeRecord);
}

void addProgressMarks(const QString& host, DatabaseSummary* summary)
{
    QString path = nxformat::helperProgressPath(host, summary->db);
    QSettings file(path, QSettings::IniFormat);
    file.beginGroup(nxformat::kHelperProgressSection);
    for (const QString& bucket : file.childKeys()) {
        bool ok = false;
        int mark = file.value(bucket).toInt(&ok);
        if (!ok || mark < 0)
            continue;
        ++summary->markedBuckets;
        summary->lowestMark = summary->lowestMark < 0 ? mark : std::min(summary->lowestMark, mark);
        summary->highestMark = std::max(summary->highestMark, mark);
    }
    // The indexer's own reader tells which of them its next run will use.
    int marks[nxformat::kBucketCount];
    std::fill(std::begin(marks), std::end(marks), -1);
    nxi reader;
    reader.getHlpINIData(marks, path);
    summary->marksRead = int(std::count_if(std::begin(marks), std::end(marks), [](int mark) { return mark >= 0; }));
}

QString sizeText(uint64_t bytes) { return Common::getSizeInString(bytes); }

QString sizeRecordLine(const DatabaseSummary& summary)
{
    if (summary.sizeRecord.isEmpty())
        return "none";
    if (!summary.sizeRecordBytes)
        return summary.sizeRecord + ", malformed";
    if (summary.hasStatusFile && *summary.sizeRecordBytes >= 0 &&
        uint64_t(*summary.sizeRecordBytes) == summary.statusBytes)
        return summary.sizeRecord + ", matches the status file";
    return summary.sizeRecord + ", does not match the status file";
}

}  // namespace

DatabaseSummary summarizeDatabase(const QString& host, const QString& db)
{
    DatabaseSummary summary;
    summary.db = db;
    addIndexFiles(host, &summary);
    addStatusFile(host, &summary);
    addProgressMarks(host, &summary);
    return summary;
}

QString formatSummary(const DatabaseSummary& s)
{
    QStringList lines{s.db};
    lines << QString("  buckets written  %1 of 256, %2 records").arg(s.buckets).arg(s.records) +
                 (s.damagedBuckets ? QString(", %1 damaged (nxinspect verify tells more)").arg(s.damagedBuckets)
                                   : QString());
    lines << QString("  index files      key %1, payload %2, entry %3")
                 .arg(sizeText(s.keyBytes), sizeText(s.payloadBytes), sizeText(s.entryBytes));
    lines << (s.hasStatusFile
                  ? QString("  status file      %1.sbf, %2, %3 blocks").arg(s.db, sizeText(s.statusBytes)).arg(s.blocks)
                  : QString("  status file      none"));
    lines << "  size record      " + sizeRecordLine(s);
    lines << (s.markedBuckets == 0 ? QString("  progress marks   none")
                                   : QString("  progress marks   %1 buckets marked, last merged file %2 to %3")
                                         .arg(s.markedBuckets)
                                         .arg(s.lowestMark)
                                         .arg(s.highestMark));
    if (s.marksRead != s.markedBuckets)
        lines << QString(
                     "                   the next run reads %1 of them: its reader stops at the first "
                     "bucket without a mark")
                     .arg(s.marksRead);
    return lines.join('\n');
}

QJsonObject toJson(const DatabaseSummary& s)
{
    const auto orNull = [](bool present, const QJsonValue& value) { return present ? value : QJsonValue(); };
    return QJsonObject{
        {"name", s.db},
        {"buckets", s.buckets},
        {"records", qint64(s.records)},
        {"damaged_buckets", s.damagedBuckets},
        {"bytes",
         QJsonObject{
             {"key", qint64(s.keyBytes)}, {"payload", qint64(s.payloadBytes)}, {"entry", qint64(s.entryBytes)}}},
        {"status_file", orNull(s.hasStatusFile, QJsonObject{{"bytes", qint64(s.statusBytes)}, {"blocks", s.blocks}})},
        {"size_record", orNull(!s.sizeRecord.isEmpty(),
                               QJsonObject{{"value", s.sizeRecord},
                                           {"matches", s.hasStatusFile && s.sizeRecordBytes &&
                                                           qint64(*s.sizeRecordBytes) == qint64(s.statusBytes)}})},
        {"progress_marks", QJsonObject{{"buckets", s.markedBuckets},
                                       {"lowest", orNull(s.markedBuckets > 0, s.lowestMark)},
                                       {"highest", orNull(s.markedBuckets > 0, s.highestMark)},
                                       {"read_next_run", s.marksRead}}},
    };
}

}  // namespace nxinspect
