/* libnxindex: looks keys up in the index that nxindexer writes.
 *
 * For every database ("wdx00") and bucket (00..ff) the indexer writes three
 * files under the DB host directory: the entry file hl/<db>/hlp/<bb>.hl (the
 * bucket's 16-byte records sorted by key), the key file idxn/<db>/<bb>.m and
 * the payload file idxn/<db>/<bb>.d (the same records split in two). A record
 * is a 32-bit little-endian key and 12 payload bytes.
 *
 * An open index maps each bucket's three files and keeps that generation of
 * them until nxindex_refresh() or nxindex_close(): a bucket answers only when
 * its three files agree, so no answer mixes an old file with a new one.
 *
 * Errors are a positive errno value (from a system call) or a negative
 * NXINDEX_E... code; nxindex_strerror() names both. Lookups on one index may
 * run in several threads at once, but not while it is refreshed or closed. */
#ifndef NXINDEX_H
#define NXINDEX_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define NXINDEX_API __attribute__((visibility("default")))
#else
#define NXINDEX_API
#endif

#define NXINDEX_BUCKETS 256
#define NXINDEX_RECORD_SIZE 16 /* key (4 bytes, little-endian), then payload */
#define NXINDEX_PAYLOAD_SIZE 12

#define NXINDEX_EARG (-1) /* a null pointer, a bad database name or bucket number */
#define NXINDEX_EMISSING (-2) /* one of a bucket's files is missing while the others exist */
#define NXINDEX_EREAD (-3) /* one of a bucket's files cannot be opened or mapped */
#define NXINDEX_ESIZE (-4) /* a file's size does not fit its layout (truncated, too long) */
#define NXINDEX_EORDER (-5) /* the entry file's keys are not in ascending order */
#define NXINDEX_EGROUP (-6) /* a group table slot points past the key list */
#define NXINDEX_ECOUNT (-7) /* the bucket's files hold different numbers of records */
#define NXINDEX_EMISMATCH (-8) /* the key or payload file differs from the entry file */

typedef struct nxindex nxindex;

/* Opens the index of database db ("wdx00") under the DB host directory host.
 * NULL on failure, with *error set to a positive errno value or a negative
 * NXINDEX_E... code. A damaged bucket does not fail the open: lookups that
 * could find their key in it fail instead. */
NXINDEX_API nxindex* nxindex_open(const char* host, const char* db, int* error);

/* Finds the records whose key is key: copies up to capacity 12-byte payloads,
 * in index order (bucket, then position), into payloads (capacity * 12 bytes)
 * and returns how many records have the key (possibly more than capacity); a
 * negative NXINDEX_E... code when a damaged bucket may hold the key. */
NXINDEX_API long nxindex_lookup(nxindex* index, uint32_t key, unsigned char* payloads, size_t capacity);

NXINDEX_API const char* nxindex_strerror(int error);
NXINDEX_API void nxindex_close(nxindex* index);

/* The records of one bucket: sets *records to its count 16-byte records, in
 * key order, inside the mapped entry file (valid until the bucket is
 * refreshed or the index closed) and returns count; 0 for a bucket that has
 * no index; a negative NXINDEX_E... code for a damaged bucket. */
NXINDEX_API long nxindex_bucket(const nxindex* index, int bucket, const unsigned char** records);

/* Records of the bucket with key: returns how many (they follow each other)
 * and sets *first to the position of the first; a negative code when the
 * bucket is damaged and may hold the key. */
NXINDEX_API long nxindex_find(const nxindex* index, int bucket, uint32_t key, size_t* first);

/* Records in all buckets that answer lookups. */
NXINDEX_API long long nxindex_records(const nxindex* index);

/* Takes in the buckets whose files were replaced since they were read. A
 * bucket whose new files do not (yet) agree keeps its old ones if those were
 * sound. Returns the number of buckets taken in, or a negative code. */
NXINDEX_API int nxindex_refresh(nxindex* index);

/* Checking a bucket in detail, for tools such as nxinspect verify. */
enum { NXINDEX_KEY_FILE, NXINDEX_PAYLOAD_FILE, NXINDEX_ENTRY_FILE };
typedef struct nxindex_problem {
    int file; /* NXINDEX_KEY_FILE, NXINDEX_PAYLOAD_FILE or NXINDEX_ENTRY_FILE */
    int error; /* NXINDEX_E... */
    long position; /* record position, or -1 */
    int group; /* group table slot, or -1 */
    uint64_t found; /* what the file holds: key, slot, size, count; errno for NXINDEX_EREAD */
    uint64_t expected; /* what the entry file says it should hold (0 when unknown) */
} nxindex_problem;
/* Returns non-zero to stop the check. */
typedef int (*nxindex_report)(void* context, const nxindex_problem* problem);

/* Reads the bucket's three files as nxindex_open() does and reports every
 * problem, in file order. Returns the number reported (0 also for a bucket
 * without files) or NXINDEX_EARG. */
NXINDEX_API long nxindex_check(const char* host, const char* db, int bucket, nxindex_report report, void* context);

#ifdef __cplusplus
}
#endif

#endif
