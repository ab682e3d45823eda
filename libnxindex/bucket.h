/* One bucket's three index files as bytes: the checks that make them one
 * sound generation, and the search. Nothing here touches the file system.
 *
 * Entry file, <host>/hl/<db>/hlp/<bb>.hl:
 *     record[count]   16 bytes each: key (4, little-endian; byte 2 is the
 *                     group byte, byte 3 the top byte), payload (12)
 *     tail            0..15 bytes left by a helper file; ignored
 *   count = size / 16, 1..65535. Keys ascend from the first record's key,
 *   counted modulo 2^32 (the indexer's sort order for a bucket whose keys
 *   span less than 2^31); equal keys follow each other.
 * Key file, <host>/idxn/<db>/<bb>.m:
 *     key_list[count] 16 bits each: bytes 0-1 of record i's key
 *     group[256]      16 bits each: position of the first record whose
 *                     group byte is g (0xFFFF: none)
 *   size = 2 * count + 512.
 * Payload file, <host>/idxn/<db>/<bb>.d:
 *     payload[count]  12 bytes each: bytes 4-15 of record i
 *   size = 12 * count.
 *
 * The entry file alone holds whole records, so it is the reference: the key
 * and payload files must be exactly what the writer makes of it. */
#ifndef NXINDEX_BUCKET_H
#define NXINDEX_BUCKET_H

#include "nxindex.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NX_MAX_RECORDS 65535u /* positions are 16 bits; 0xFFFF means none */
#define NX_GROUP_TABLE_SIZE 512u
#define NX_NO_POSITION 0xFFFFu
#define NX_FILES 3 /* indexed by NXINDEX_KEY_FILE, NXINDEX_PAYLOAD_FILE, NXINDEX_ENTRY_FILE */

/* A file's bytes, or why there are none (NXINDEX_EMISSING, NXINDEX_EREAD with
 * the errno in sys_errno). */
typedef struct nx_span {
    const unsigned char* data;
    size_t size;
    int error;
    int sys_errno;
} nx_span;

/* A sound bucket: its records and the range of its keys (first <= last
 * counted from first, modulo 2^32). */
typedef struct nx_bucket {
    const unsigned char* records;
    uint32_t count;
    uint32_t first_key, last_key;
} nx_bucket;

static inline uint32_t nx_le32(const unsigned char* p)
{
    return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}
static inline uint32_t nx_le16(const unsigned char* p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }
static inline uint32_t nx_key(const unsigned char* records, uint32_t i) { return nx_le32(records + 16 * (size_t)i); }

/* Reports every problem of the three files (in file order: files that could
 * not be read, each file's own layout, then each against the entry file)
 * until report returns non-zero. Returns the number reported. */
long nx_check(const nx_span files[NX_FILES], nxindex_report report, void* context);

/* The bucket of three files that nx_check() found sound. */
nx_bucket nx_bucket_of(const nx_span files[NX_FILES]);

/* Records with key: how many, and in *first the position of the first (or
 * where the key would be). */
uint32_t nx_find(const nx_bucket* bucket, uint32_t key, uint32_t* first);

/* Whether key lies in the bucket's key range. */
static inline int nx_in_range(const nx_bucket* bucket, uint32_t key)
{
    return key - bucket->first_key <= bucket->last_key - bucket->first_key;
}

#ifdef __cplusplus
}
#endif

#endif
