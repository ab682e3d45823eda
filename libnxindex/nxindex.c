/* Opening an index: mapping each bucket's three files, reading them again
 * while a rotation is under way, and finding a key's buckets. The layouts
 * and their checks are in bucket.c. */
#define _POSIX_C_SOURCE 200809L

#include "nxindex.h"

#include "bucket.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

/* The indexer replaces a bucket's files with three renames (key, payload,
 * entry file), each a delete and a rename, so a reader can find a name
 * missing or files of two generations side by side. A bucket that looks so
 * is read again after 1, 2, 4, ... ms, at most this many times in all. */
#define NX_ATTEMPTS 8

typedef struct nx_file {
    void* map;
    size_t size;
    int exists;
    dev_t dev;
    ino_t ino;
} nx_file;

/* One bucket as read: its files (kept mapped while it answers) and either a
 * sound bucket, or an error with the key range it may hold in bucket. */
typedef struct nx_slot {
    nx_file files[NX_FILES];
    int error;
    nx_bucket bucket;
} nx_slot;

struct nxindex {
    char* host;
    char* db;
    nx_slot slots[NXINDEX_BUCKETS];
    /* By key byte 3: a bit per bucket whose key range reaches that byte. */
    uint64_t candidates[256][NXINDEX_BUCKETS / 64];
};

/* ---- Files ---------------------------------------------------------------- */

static const char* const kFileFormats[NX_FILES] = {"%s/idxn/%s/%02x.m", "%s/idxn/%s/%02x.d", "%s/hl/%s/hlp/%02x.hl"};

static int file_path(const char* host, const char* db, int file, int bucket, char path[PATH_MAX])
{
    const int length = snprintf(path, PATH_MAX, kFileFormats[file], host, db, bucket);
    return length > 0 && length < PATH_MAX;
}

/* Maps a regular file, never through a symbolic link. */
static nx_span map_file(const char* path, nx_file* file)
{
    nx_span span = {NULL, 0, 0, 0};
    memset(file, 0, sizeof *file);
    const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        span.sys_errno = errno;
        span.error = errno == ENOENT ? NXINDEX_EMISSING : NXINDEX_EREAD;
    } else {
        file->exists = 1;
        file->dev = st.st_dev;
        file->ino = st.st_ino;
        if (!S_ISREG(st.st_mode) || (uint64_t)st.st_size > SIZE_MAX) {
            span.error = NXINDEX_EREAD;
            span.sys_errno = S_ISREG(st.st_mode) ? EFBIG : EINVAL;
        } else if (st.st_size > 0) {
            void* map = mmap(NULL, (size_t)st.st_size, PROT_READ, MAP_SHARED, fd, 0);
            if (map == MAP_FAILED) {
                span.error = NXINDEX_EREAD;
                span.sys_errno = errno;
            } else {
                file->map = map;
                file->size = (size_t)st.st_size;
                span.data = map;
                span.size = file->size;
            }
        }
    }
    if (fd >= 0)
        close(fd);
    return span;
}

static void unmap_files(nx_file files[NX_FILES])
{
    for (int f = 0; f < NX_FILES; ++f) {
        if (files[f].map)
            munmap(files[f].map, files[f].size);
        files[f].map = NULL;
    }
}

/* Maps the bucket's files, the entry file first: it is renamed last, so a
 * reader that finds the new one finds the other two new already. Returns how
 * many exist. */
static int map_bucket(const char* host, const char* db, int bucket, nx_file files[NX_FILES], nx_span spans[NX_FILES])
{
    int present = 0;
    for (int f = NX_FILES - 1; f >= 0; --f) {
        char path[PATH_MAX];
        if (!file_path(host, db, f, bucket, path)) {
            memset(&files[f], 0, sizeof files[f]);
            spans[f] = (nx_span){NULL, 0, NXINDEX_EREAD, ENAMETOOLONG};
            continue;
        }
        spans[f] = map_file(path, &files[f]);
        present += files[f].exists;
    }
    return present;
}

static int keep_first(void* context, const nxindex_problem* problem)
{
    *(nxindex_problem*)context = *problem;
    return 1;
}

/* Problems that a rotation in progress shows as well as a damaged bucket. */
static int may_pass(int error)
{
    return error == NXINDEX_EMISSING || error == NXINDEX_ECOUNT || error == NXINDEX_EMISMATCH;
}

static void pause_ms(long ms)
{
    struct timespec wait = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&wait, &wait) != 0 && errno == EINTR)
        ;
}

/* Maps the bucket until its files agree or a problem stays. Returns 0 when
 * it has no file, else the first problem's code (0: sound), files mapped. */
static int read_bucket(const char* host, const char* db, int bucket, nx_file files[NX_FILES], nx_span spans[NX_FILES])
{
    for (int attempt = 1;; ++attempt) {
        if (map_bucket(host, db, bucket, files, spans) == 0)
            return 0;
        nxindex_problem first;
        if (nx_check(spans, keep_first, &first) == 0)
            return 0;
        if (!may_pass(first.error) || attempt == NX_ATTEMPTS)
            return first.error;
        unmap_files(files);
        pause_ms(1L << (attempt - 1));
    }
}

/* The keys a damaged bucket may hold: those between its entry file's lowest
 * and highest key, or all when it has no record to go by. */
static nx_bucket claimed_range(const nx_span* entry)
{
    nx_bucket claim = {NULL, 0, 0, UINT32_MAX};
    const size_t count = entry->size / NXINDEX_RECORD_SIZE;
    if (entry->error || count == 0 || count > NX_MAX_RECORDS)
        return claim;
    claim.first_key = UINT32_MAX;
    claim.last_key = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t key = nx_key(entry->data, i);
        claim.first_key = key < claim.first_key ? key : claim.first_key;
        claim.last_key = key > claim.last_key ? key : claim.last_key;
    }
    return claim;
}

static void load_slot(const nxindex* index, int bucket, nx_slot* slot)
{
    nx_span spans[NX_FILES];
    memset(slot, 0, sizeof *slot);
    slot->error = read_bucket(index->host, index->db, bucket, slot->files, spans);
    if (slot->error) {
        slot->bucket = claimed_range(&spans[NXINDEX_ENTRY_FILE]);
        unmap_files(slot->files); /* what identifies the files stays for refresh */
    } else if (slot->files[NXINDEX_ENTRY_FILE].exists) {
        slot->bucket = nx_bucket_of(spans);
    }
}

/* ---- Finding a key's buckets ---------------------------------------------- */

static void claim_key_range(nxindex* index, int bucket, uint32_t low, uint32_t high)
{
    const uint64_t bit = (uint64_t)1 << (bucket % 64);
    if (high - low >= 0xFF000000u) { /* reaches every value of byte 3 */
        for (int top = 0; top < 256; ++top)
            index->candidates[top][bucket / 64] |= bit;
        return;
    }
    for (uint32_t top = low >> 24;; top = (top + 1) & 0xFF) {
        index->candidates[top][bucket / 64] |= bit;
        if (top == high >> 24)
            break;
    }
}

static void build_candidates(nxindex* index)
{
    memset(index->candidates, 0, sizeof index->candidates);
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket) {
        const nx_slot* slot = &index->slots[bucket];
        if (slot->error || slot->bucket.count > 0)
            claim_key_range(index, bucket, slot->bucket.first_key, slot->bucket.last_key);
    }
}

static long find_in_slot(const nx_slot* slot, uint32_t key, uint32_t* first)
{
    *first = 0;
    if (!nx_in_range(&slot->bucket, key))
        return 0;
    if (slot->error)
        return slot->error;
    return slot->bucket.count ? (long)nx_find(&slot->bucket, key, first) : 0;
}

/* ---- The interface -------------------------------------------------------- */

/* Three lower-case letters and a volume of 2 to 6 digits: "wdx00". */
static int is_database_name(const char* db)
{
    size_t length = strlen(db);
    if (length < 5 || length > 9)
        return 0;
    for (size_t i = 0; i < length; ++i)
        if (i < 3 ? (db[i] < 'a' || db[i] > 'z') : (db[i] < '0' || db[i] > '9'))
            return 0;
    return 1;
}

static int valid_bucket(int bucket) { return bucket >= 0 && bucket < NXINDEX_BUCKETS; }

nxindex* nxindex_open(const char* host, const char* db, int* error)
{
    int ignored;
    error = error ? error : &ignored;
    if (!host || !db || !is_database_name(db)) {
        *error = NXINDEX_EARG;
        return NULL;
    }
    char dir[PATH_MAX];
    struct stat st;
    if (snprintf(dir, sizeof dir, "%s/idxn/%s", host, db) >= (int)sizeof dir) {
        *error = ENAMETOOLONG;
        return NULL;
    }
    if (stat(dir, &st) != 0 || !S_ISDIR(st.st_mode)) { /* the database was never indexed */
        *error = stat(dir, &st) != 0 ? errno : ENOTDIR;
        return NULL;
    }
    nxindex* index = calloc(1, sizeof *index);
    if (index) {
        index->host = strdup(host);
        index->db = strdup(db);
    }
    if (!index || !index->host || !index->db) {
        nxindex_close(index);
        *error = ENOMEM;
        return NULL;
    }
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket)
        load_slot(index, bucket, &index->slots[bucket]);
    build_candidates(index);
    *error = 0;
    return index;
}

long nxindex_lookup(nxindex* index, uint32_t key, unsigned char* payloads, size_t capacity)
{
    if (!index || (capacity > 0 && !payloads))
        return NXINDEX_EARG;
    const uint64_t* words = index->candidates[key >> 24];
    size_t found = 0;
    for (int word = 0; word < NXINDEX_BUCKETS / 64; ++word)
        for (uint64_t bits = words[word]; bits; bits &= bits - 1) {
            const nx_slot* slot = &index->slots[word * 64 + __builtin_ctzll(bits)];
            uint32_t first;
            const long count = find_in_slot(slot, key, &first);
            if (count < 0)
                return count;
            for (long i = 0; i < count && found + (size_t)i < capacity; ++i)
                memcpy(payloads + NXINDEX_PAYLOAD_SIZE * (found + (size_t)i),
                       slot->bucket.records + NXINDEX_RECORD_SIZE * (first + (size_t)i) + 4, NXINDEX_PAYLOAD_SIZE);
            found += (size_t)count;
        }
    return (long)found;
}

long nxindex_find(const nxindex* index, int bucket, uint32_t key, size_t* first)
{
    if (!index || !valid_bucket(bucket) || !first)
        return NXINDEX_EARG;
    uint32_t position;
    const long count = find_in_slot(&index->slots[bucket], key, &position);
    *first = position;
    return count;
}

long nxindex_bucket(const nxindex* index, int bucket, const unsigned char** records)
{
    if (!index || !valid_bucket(bucket) || !records)
        return NXINDEX_EARG;
    const nx_slot* slot = &index->slots[bucket];
    *records = slot->bucket.records;
    return slot->error ? slot->error : (long)slot->bucket.count;
}

long long nxindex_records(const nxindex* index)
{
    long long records = 0;
    for (int bucket = 0; index && bucket < NXINDEX_BUCKETS; ++bucket)
        records += index->slots[bucket].error ? 0 : index->slots[bucket].bucket.count;
    return records;
}

/* Whether any of the bucket's names now leads to another file than was read. */
static int slot_changed(const nxindex* index, int bucket, const nx_slot* slot)
{
    for (int f = 0; f < NX_FILES; ++f) {
        char path[PATH_MAX];
        struct stat st;
        const int exists = file_path(index->host, index->db, f, bucket, path) && lstat(path, &st) == 0;
        if (exists != slot->files[f].exists ||
            (exists && (st.st_dev != slot->files[f].dev || st.st_ino != slot->files[f].ino)))
            return 1;
    }
    return 0;
}

int nxindex_refresh(nxindex* index)
{
    if (!index)
        return NXINDEX_EARG;
    int taken = 0;
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket) {
        nx_slot* slot = &index->slots[bucket];
        if (!slot_changed(index, bucket, slot))
            continue;
        nx_slot fresh;
        load_slot(index, bucket, &fresh);
        if (fresh.error && !slot->error && slot->bucket.count > 0) {
            unmap_files(fresh.files); /* keep the sound old generation */
            continue;
        }
        unmap_files(slot->files);
        *slot = fresh;
        ++taken;
    }
    if (taken > 0)
        build_candidates(index);
    return taken;
}

long nxindex_check(const char* host, const char* db, int bucket, nxindex_report report, void* context)
{
    if (!host || !db || !is_database_name(db) || !valid_bucket(bucket) || !report)
        return NXINDEX_EARG;
    nx_file files[NX_FILES];
    nx_span spans[NX_FILES];
    long problems = 0;
    if (read_bucket(host, db, bucket, files, spans) != 0)
        problems = nx_check(spans, report, context);
    unmap_files(files);
    return problems;
}

const char* nxindex_strerror(int error)
{
    switch (error) {
    case 0: return "no error";
    case NXINDEX_EARG: return "bad argument: a null pointer, a database name or a bucket number";
    case NXINDEX_EMISSING: return "one of the bucket's index files is missing while the others exist";
    case NXINDEX_EREAD: return "one of the bucket's index files cannot be read";
    case NXINDEX_ESIZE: return "an index file's size does not fit its layout";
    case NXINDEX_EORDER: return "the entry file's keys are not in ascending order";
    case NXINDEX_EGROUP: return "the key file's group table points past its key list";
    case NXINDEX_ECOUNT: return "the bucket's index files hold different numbers of records";
    case NXINDEX_EMISMATCH: return "the key or payload file differs from the entry file";
    default: return error > 0 ? strerror(error) : "unknown error";
    }
}

void nxindex_close(nxindex* index)
{
    if (!index)
        return;
    for (int bucket = 0; bucket < NXINDEX_BUCKETS; ++bucket)
        unmap_files(index->slots[bucket].files);
    free(index->host);
    free(index->db);
    free(index);
}
