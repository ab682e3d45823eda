#pragma once
// One database under a temporary DB host directory as a run sets it up; the log captured.
#include "Logger.h"
#include "indexformat.h"
#include "nxi.h"
#include "nxitestdoor.h"
#include "sampledb.h"
#include "testsupport.h"

#include <QDir>
#include <QRegularExpression>
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
    void TearDown() override  // failure messages went to the captured console too
    {
        std::string output = ::testing::internal::GetCapturedStdout();
        if (HasFailure())
            std::fputs(output.c_str(), stdout);
    }
    QString host() const { return m_Dir.path(); }

    void useDatabase(const QString& name)
    {
        std::snprintf(m_Indexer.m_DbName, sizeof m_Indexer.m_DbName, "%s", qPrintable(name));
        std::memset(m_Indexer.m_SbfOffsets, 0, sizeof m_Indexer.m_SbfOffsets);
        m_Indexer.m_SbfTmpPath = nxformat::pendingStatusFilePath(host(), name);
        m_Indexer.m_IdxnDbPath = nxformat::indexDirPath(host(), name);
        m_Indexer.m_HlpPath = nxformat::entryDirPath(host(), name);
        QDir().mkpath(m_Indexer.m_IdxnDbPath);
        QDir().mkpath(m_Indexer.m_HlpPath);
        nxtest::writeFile(m_Indexer.m_SbfTmpPath, QByteArray(1024, '\0'));
    }
    QString sourcePath(int number) const { return nxformat::sourceFilePath(host(), m_Indexer.m_DbName, number); }
    QString helperPath(int bucket) const { return nxformat::helperFilePath(host(), m_Indexer.m_DbName, bucket); }
    QString indexPath(IndexFile file, Generation generation, int bucket) const
    {
        return (file == IndexFile::Entry ? m_Indexer.m_HlpPath : m_Indexer.m_IdxnDbPath) + "/" +
               nxformat::indexFileName(file, generation, bucket);
    }

    // Allocates the table for newBytes plus the helper file; returns allocSize.
    DWORD allocate(int bucket, DWORD newBytes)
    {
        bool helper = false;
        DWORD size = 0;
        EXPECT_TRUE(m_Indexer.AllocateIndexBuffer(bucket, newBytes, &helper, &size));
        return size;
    }
    QByteArray tableBytes(int size) const { return QByteArray(reinterpret_cast<char*>(m_Indexer.m_EntryTable), size); }
    bool writeBucket(int bucket, const QByteArray& records)
    {
        allocate(bucket, DWORD(records.size()));
        std::memcpy(m_Indexer.m_EntryTable, records.constData(), size_t(records.size()));
        NxiTestDoor::sortEntryTable(m_Indexer, DWORD(records.size()));
        return m_Indexer.WriteAllIndexing(bucket, DWORD(records.size()));
    }

    // The log lines since the last call, without time stamps and "[0x%08X]: " codes.
    QStringList takeLog()
    {
        QString output = QString::fromStdString(::testing::internal::GetCapturedStdout());
        ::testing::internal::CaptureStdout();
        static const QRegularExpression code("\\[0x[0-9A-F]{8}\\]: ");
        QStringList lines;
        for (const QString& line : output.split('\n', Qt::SkipEmptyParts))
            lines << nxtest::withoutTimestamp(line).remove(code);
        return lines;
    }
    static QStringList errorLog(QString fn, QString text) { return {"[ERROR]  [nxi::" + fn + "] :: " + text}; }

    QTemporaryDir m_Dir;
    nxi m_Indexer;
};
