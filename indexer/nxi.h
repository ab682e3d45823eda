#ifndef NXI_NXI_H
#define NXI_NXI_H

#include "indexformat.h"
#include "sourcefiles.h"

#include <QString>

#include <cstdint>

typedef uint32_t DWORD;

class commonfun;

// The indexer. One object walks every database under the DB host directory;
// for each database and bucket it merges the records that are new since the
// last run with the bucket's helper file, sorts them and writes the bucket's
// key, payload and entry files plus its block in the database's status file.
//
// The public part is the indexer's own interface: its operations and fields,
// which tests drive step by step. The private part is bookkeeping of this
// implementation; tests reach it only through NxiTestDoor (tests/support).
class nxi
{
public:
    nxi();
    ~nxi();
    nxi(const nxi&) = delete;
    nxi& operator=(const nxi&) = delete;

    // ---- The walk over DB types and volumes --------------------------------
    void StartProcess();
    void StartLoop();
    // True when dbName's first source file is missing: the DB type's walk ends.
    bool IsToStopIndexing(char* dbName);

    // ---- Indexing state files ----------------------------------------------
    // True when the next volume's first source file exists (a closed volume).
    bool IsToDoFullIndexing(char* dbName);
    // Number of consecutive source files from file 0 (full) or 1 (newest volume).
    int GetDBCount();
    // The database's DB-COUNT; 0 when absent. Sets m_ValIniPath.
    int GetValDBCount();
    // Fills marks[0..255] from the helper progress file; slots it cannot read stay.
    void getHlpINIData(int* marks, QString path);
    // Records the bucket's last merged file number in the helper progress file.
    void Updateini(int bucket, int mark);

    // ---- The per-database run ----------------------------------------------
    void StartIndexer(char* dbName);

    // ---- Source files and bucket ranges ------------------------------------
    bool GetIndexHighAndLow(char* path, int bucket, DWORD* low, DWORD* high);
    bool ReadIndexBuffer(char* path, DWORD offset, DWORD length);

    // ---- Entry table ----------------------------------------------------------
    DWORD CalculateSizeOfIndex(int bucket, int firstFile, bool fill, int* lastFile, int dbCount);
    bool AllocateIndexBuffer(int bucket, DWORD size, bool* hasHelper, DWORD* allocSize);
    bool ReadHelperFile(int bucket);

    // ---- Index file writer and rotation -------------------------------------
    bool WriteAllIndexing(int bucket, DWORD size);
    bool DeleteFile(const QString& path);

    // ---- Fields --------------------------------------------------------------
    commonfun* m_CommonFun;
    unsigned char* m_EntryCursor;
    unsigned char* m_EntryTable;
    QString m_HostPath;
    QString m_IdxnDbPath;
    QString m_SbfTmpPath;
    QString m_SbfPath;
    QString m_HlPath;
    QString m_HlDbPath;
    QString m_IdxErrIniPath;
    QString m_HlpPath;
    QString m_HlIniPath;
    QString m_ValIniPath;
    bool m_SpareFlag;
    bool m_IndexWgx;
    bool m_FullIndexing;
    char m_DbName[10];
    uint32_t m_SbfOffsets[256];

private:
    friend struct NxiTestDoor;

    // Bookkeeping that keeps the entry table safe when files change between
    // the sizing and the collecting pass: the table's end, and whether a copy
    // had to be refused because it would not fit (the bucket is then given up).
    unsigned char* m_EntryTableEnd;
    bool m_EntryTableOverflow;
    // The current database's source files, kept open while it is indexed.
    SourceFiles m_SourceFiles;

    // Sorts the entry table's whole records in the order compare() defines.
    void SortEntryTable(DWORD allocSize);
    // Frees the entry table (if any) and clears the table fields.
    void ReleaseIndexBuffer();

    // Private steps of the public operations. Each reports under the name of
    // the operation it is a step of, passed in as reportAs (see nxilog.h).

    // StartLoop: walks the volumes of one DB type until the first missing one.
    void WalkDbType(const char* dbType, const char* reportAs);
    // StartIndexer: the steps of one database's run.
    bool CreateStatusFile(const char* reportAs);
    bool PrepareDirectories(const char* reportAs);
    void IndexBucket(int bucket, int lastMergedFile, int dbCount, const char* reportAs);
    void CompleteStatusFile(const char* reportAs);

    // WriteAllIndexing: where a bucket's index files stand under each name, and
    // the move of the bucket's pending files into place.
    QString IndexFilePath(nxformat::IndexFile file, nxformat::Generation generation, int bucket) const;
    bool RotateIndexFiles(int bucket, const char* reportAs);
};

// Sort comparison of two 16-byte entry records for qsort: the key difference
// modulo 2^32 read as a signed 32-bit number.
int compare(const void* a, const void* b);

#endif
