#include "bucket.h"

#include <string.h>

/* A check in progress: where problems go and whether to stop. */
typedef struct checker {
    nxindex_report report;
    void* context;
    long reported;
    int stop;
} checker;

static void problem(checker* c, int file, int error, long position, int group, uint64_t found, uint64_t expected)
{
    if (c->stop)
        return;
    const nxindex_problem p = {file, error, position, group, found, expected};
    ++c->reported;
    c->stop = c->report(c->context, &p) != 0;
}

static uint32_t entry_count(const nx_span* entry) { return (uint32_t)(entry->size / NXINDEX_RECORD_SIZE); }

/* 1..65535 records whose keys ascend from the first one. */
static int check_entry_file(checker* c, const nx_span* entry)
{
    if (entry->size / NXINDEX_RECORD_SIZE == 0 || entry->size / NXINDEX_RECORD_SIZE > NX_MAX_RECORDS) {
        problem(c, NXINDEX_ENTRY_FILE, NXINDEX_ESIZE, -1, -1, entry->size / NXINDEX_RECORD_SIZE, 0);
        return 0;
    }
    const uint32_t count = entry_count(entry), base = nx_key(entry->data, 0);
    int sorted = 1;
    for (uint32_t i = 1; i < count && !c->stop; ++i) {
        const uint32_t before = nx_key(entry->data, i - 1), key = nx_key(entry->data, i);
        if (key - base < before - base) {
            problem(c, NXINDEX_ENTRY_FILE, NXINDEX_EORDER, (long)i, -1, key, before);
            sorted = 0;
        }
    }
    return sorted;
}

static uint32_t slot_at(const nx_span* key_file, uint32_t keys, int group)
{
    return nx_le16(key_file->data + 2 * (size_t)keys + 2 * (size_t)group);
}

/* A key list of at most 65535 keys and a group table inside it. */
static int check_key_file(checker* c, const nx_span* key_file, uint32_t* keys)
{
    if (key_file->size < NX_GROUP_TABLE_SIZE || (key_file->size - NX_GROUP_TABLE_SIZE) % 2 != 0 ||
        (key_file->size - NX_GROUP_TABLE_SIZE) / 2 > NX_MAX_RECORDS) {
        problem(c, NXINDEX_KEY_FILE, NXINDEX_ESIZE, -1, -1, key_file->size, 0);
        return 0;
    }
    *keys = (uint32_t)((key_file->size - NX_GROUP_TABLE_SIZE) / 2);
    for (int group = 0; group < 256; ++group) {
        const uint32_t slot = slot_at(key_file, *keys, group);
        if (slot != NX_NO_POSITION && slot >= *keys)
            problem(c, NXINDEX_KEY_FILE, NXINDEX_EGROUP, -1, group, slot, *keys);
    }
    return 1;
}

/* What the writer makes of the entry file: slot g holds the position where
 * the records of group byte g begin (the first run of them). */
static void expected_groups(const nx_span* entry, uint16_t slots[256])
{
    const uint32_t count = entry_count(entry);
    for (int g = 0; g < 256; ++g)
        slots[g] = NX_NO_POSITION;
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned char group = entry->data[16 * (size_t)i + 2];
        if ((i == 0 || group != entry->data[16 * (size_t)(i - 1) + 2]) && slots[group] == NX_NO_POSITION)
            slots[group] = (uint16_t)i;
    }
}

static void compare_key_file(checker* c, const nx_span* key_file, uint32_t keys, const nx_span* entry)
{
    const uint32_t count = entry_count(entry);
    if (keys != count)
        problem(c, NXINDEX_KEY_FILE, NXINDEX_ECOUNT, -1, -1, keys, count);
    for (uint32_t i = 0; i < count && keys == count && !c->stop; ++i) {
        const uint32_t found = nx_le16(key_file->data + 2 * (size_t)i), expected = nx_key(entry->data, i) & 0xFFFF;
        if (found != expected)
            problem(c, NXINDEX_KEY_FILE, NXINDEX_EMISMATCH, (long)i, -1, found, expected);
    }
    uint16_t slots[256];
    expected_groups(entry, slots);
    for (int group = 0; group < 256; ++group) {
        const uint32_t found = slot_at(key_file, keys, group);
        if (found != slots[group] && (found == NX_NO_POSITION || found < keys)) /* else reported as EGROUP */
            problem(c, NXINDEX_KEY_FILE, NXINDEX_EMISMATCH, -1, group, found, slots[group]);
    }
}

static void check_payload_file(checker* c, const nx_span* payload, const nx_span* entry, int entry_sound)
{
    const uint64_t expected = entry_sound ? (uint64_t)entry_count(entry) * NXINDEX_PAYLOAD_SIZE : 0;
    if (payload->size % NXINDEX_PAYLOAD_SIZE != 0 || payload->size / NXINDEX_PAYLOAD_SIZE > NX_MAX_RECORDS) {
        problem(c, NXINDEX_PAYLOAD_FILE, NXINDEX_ESIZE, -1, -1, payload->size, expected);
        return;
    }
    if (!entry_sound)
        return;
    if (payload->size != expected) {
        problem(c, NXINDEX_PAYLOAD_FILE, NXINDEX_ECOUNT, -1, -1, payload->size, expected);
        return;
    }
    for (uint32_t i = 0; i < entry_count(entry) && !c->stop; ++i)
        if (memcmp(payload->data + NXINDEX_PAYLOAD_SIZE * (size_t)i, entry->data + 16 * (size_t)i + 4,
                   NXINDEX_PAYLOAD_SIZE) != 0)
            problem(c, NXINDEX_PAYLOAD_FILE, NXINDEX_EMISMATCH, (long)i, -1, 0, 0);
}

long nx_check(const nx_span files[NX_FILES], nxindex_report report, void* context)
{
    checker c = {report, context, 0, 0};
    for (int f = 0; f < NX_FILES; ++f)
        if (files[f].error)
            problem(&c, f, files[f].error, -1, -1, (uint64_t)files[f].sys_errno, 0);
    const nx_span* entry = &files[NXINDEX_ENTRY_FILE];
    const nx_span* key_file = &files[NXINDEX_KEY_FILE];
    const int entry_sound = !entry->error && check_entry_file(&c, entry);
    uint32_t keys = 0;
    if (!key_file->error && check_key_file(&c, key_file, &keys) && entry_sound)
        compare_key_file(&c, key_file, keys, entry);
    if (!files[NXINDEX_PAYLOAD_FILE].error)
        check_payload_file(&c, &files[NXINDEX_PAYLOAD_FILE], entry, entry_sound);
    return c.reported;
}

nx_bucket nx_bucket_of(const nx_span files[NX_FILES])
{
    const nx_span* entry = &files[NXINDEX_ENTRY_FILE];
    const uint32_t count = entry_count(entry);
    const nx_bucket bucket = {entry->data, count, nx_key(entry->data, 0), nx_key(entry->data, count - 1)};
    return bucket;
}

/* The first position whose key, counted from the bucket's first key, is past
 * wanted (upper) or not below it (lower). */
static uint32_t bound(const nx_bucket* bucket, uint32_t wanted, int upper)
{
    uint32_t low = 0, high = bucket->count;
    while (low < high) {
        const uint32_t middle = low + (high - low) / 2;
        const uint32_t offset = nx_key(bucket->records, middle) - bucket->first_key;
        if (upper ? offset <= wanted : offset < wanted)
            low = middle + 1;
        else
            high = middle;
    }
    return low;
}

uint32_t nx_find(const nx_bucket* bucket, uint32_t key, uint32_t* first)
{
    const uint32_t wanted = key - bucket->first_key;
    *first = bound(bucket, wanted, 0);
    return bound(bucket, wanted, 1) - *first;
}
