#ifndef NXI_NXITESTDOOR_H
#define NXI_NXITESTDOOR_H

// The one way tests and fuzz targets reach the indexer's private part: its
// entry table bookkeeping and the steps that only its own operations call.

#include "nxi.h"

struct NxiTestDoor {
    static bool entryTableOverflowed(const nxi& indexer) { return indexer.m_EntryTableOverflow; }
    static void sortEntryTable(nxi& indexer, DWORD allocSize) { indexer.SortEntryTable(allocSize); }
    static void releaseIndexBuffer(nxi& indexer) { indexer.ReleaseIndexBuffer(); }
};

#endif
