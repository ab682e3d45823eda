#ifndef NXI_INDEXER_FIXTURE_H
#define NXI_INDEXER_FIXTURE_H

// One database under a temporary DB host directory, with the per-database
// paths, directories and status file set up as a run sets them, and the
// indexer's log lines captured from the console.

#include "Logger.h"
#include "indexformat.h"
#include "nxi.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

class IndexerTest : public ::testing::Test
{
protected:
    using IndexFile = nxformat::IndexFile;
    using Generation = nxformat::Generation;

    void SetUp() override
    {
        ASSERT_TRUE(m_Dir.isValid());
        m_Indexer.m_HostPath = host();
        useDatabase("wdx00");
        LOGGER::CLogger::getInstance()->EnableConsoleLogging();
        ::testing::internal::CaptureStdout();
    }
    void TearDown() override { ::testing::internal::GetCapturedStdout(); }

    QString host() const { return m_Dir.path(); }
    QString db() const { return QString::fromUtf8(m_Indexer.m_DbName); }

    void useDatabase(const char* name)
    {
        std::snprintf(m_Indexer.m_DbName, sizeof m_Indexer.m_DbName, "%s", name);
        std::memset(m_Indexer.m_SbfOffsets, 0, sizeof m_Indexer.m_SbfOffsets);
        m_Indexer.m_SbfTmpPath = nxformat::pendingStatusFilePath(host(), name);
        m_Indexer.m_HlPath = host() + "/hl/";
        m_Indexer.m_HlDbPath = m_Indexer.m_HlPath + name;
        m_Indexer.m_IdxnDbPath = nxformat::indexDirPath(host(), name);
        m_Indexer.m_HlpPath = nxformat::entryDirPath(host(), name);
        QDir().mkpath(m_Indexer.m_IdxnDbPath);
        QDir().mkpath(m_Indexer.m_HlpPath);
        nxtest::writeFile(m_Indexer.m_SbfTmpPath, QByteArray(1024, '\0'));
    }

    void writeSource(int fileNumber, const QVector<QByteArray>& buckets)
    {
        nxtest::writeFile(sourcePath(fileNumber), nxformat::buildSourceFile(buckets));
    }
    QString sourcePath(int fileNumber) const { return nxformat::sourceFilePath(host(), db(), fileNumber); }
    QString helperPath(int bucket) const { return nxformat::helperFilePath(host(), db(), bucket); }
    QString indexPath(IndexFile file, Generation generation, int bucket) const
    {
        QString dir = file == IndexFile::Entry ? m_Indexer.m_HlpPath : m_Indexer.m_IdxnDbPath;
        return dir + "/" + nxformat::indexFileName(file, generation, bucket);
    }

    // An entry table of exactly these bytes, allocated by the indexer itself.
    void loadTable(int bucket, const QByteArray& bytes)
    {
        bool hasHelper = false;
        DWORD allocSize = 0;
        ASSERT_TRUE(m_Indexer.AllocateIndexBuffer(bucket, DWORD(bytes.size()), &hasHelper, &allocSize));
        std::memcpy(m_Indexer.m_EntryTable, bytes.constData(), size_t(bytes.size()));
    }
    // size bytes of the entry table from byte from on.
    QByteArray tableBytes(int size, int from = 0) const
    {
        return QByteArray(reinterpret_cast<const char*>(m_Indexer.m_EntryTable) + from, size);
    }
    bool writeBucket(int bucket, const QByteArray& records)
    {
        loadTable(bucket, records);
        m_Indexer.SortEntryTable(DWORD(records.size()));
        return m_Indexer.WriteAllIndexing(bucket, DWORD(records.size()));
    }

    // The log lines since the last call, without time stamps and, unless
    // kept, without the "[0x%08X]: " error codes.
    QStringList takeLog(bool keepCodes = false)
    {
        QString output = QString::fromStdString(::testing::internal::GetCapturedStdout());
        ::testing::internal::CaptureStdout();
        static const QRegularExpression code("\\[0x[0-9A-F]{8}\\]: ");
        QStringList lines;
        for (const QString& line : output.split('\n', Qt::SkipEmptyParts)) {
            QString body = nxtest::withoutTimestamp(line);
            if (!keepCodes)
                body.remove(code);
            lines << body;
        }
        return lines;
    }
    // A 32-bit value as the 4 little-endian bytes of a file.
    static QByteArray le32(uint32_t value)
    {
        unsigned char bytes[4];
        nxformat::writeLE32(bytes, value);
        return QByteArray(reinterpret_cast<const char*>(bytes), 4);
    }
    static QString errorLine(const QString& method, const QString& message)
    {
        return "[ERROR]  [nxi::" + method + "] :: " + message;
    }

    QTemporaryDir m_Dir;
    nxi m_Indexer;
};

#endif
