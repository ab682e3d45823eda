/* Lookups per second on one core after nxindex_open(): every present key
 * in random order, then as many absent keys.
 *   nxindex_bench HOST DB [ROUNDS] */
#define _POSIX_C_SOURCE 200809L

#include "nxindex.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static uint64_t state = 88172645463325252u;
static uint32_t next_random(void)
{
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    return (uint32_t)state;
}

/* Looks every key up rounds times; returns lookups per second, adds the records found to *found. */
static double measure(nxindex* index, const uint32_t* keys, size_t count, int rounds, long long* found)
{
    unsigned char payloads[4 * NXINDEX_PAYLOAD_SIZE];
    const double start = now();
    for (int round = 0; round < rounds; ++round)
        for (size_t i = 0; i < count; ++i)
            *found += nxindex_lookup(index, keys[i], payloads, 4);
    return (double)count * rounds / (now() - start);
}

int main(int argc, char** argv)
{
    if (argc < 3)
        return fprintf(stderr, "usage: nxindex_bench HOST DB [ROUNDS]\n"), 2;
    const int rounds = argc > 3 ? atoi(argv[3]) : 10;
    int error = 0;
    const double opening = now();
    nxindex* index = nxindex_open(argv[1], argv[2], &error);
    if (!index)
        return fprintf(stderr, "nxindex_bench: %s\n", nxindex_strerror(error)), 2;
    const double openSeconds = now() - opening;
    const size_t count = (size_t)nxindex_records(index);
    uint32_t* present = malloc(count * sizeof *present);
    uint32_t* absent = malloc(count * sizeof *absent);
    size_t n = 0, a = 0;
    for (int bucket = 0; bucket < NXINDEX_BUCKETS && present; ++bucket) {
        const unsigned char* records = NULL;
        const long records_in_bucket = nxindex_bucket(index, bucket, &records);
        for (long i = 0; i < records_in_bucket; ++i, ++n)
            present[n] = (uint32_t)records[16 * i] | (uint32_t)records[16 * i + 1] << 8 |
                         (uint32_t)records[16 * i + 2] << 16 | (uint32_t)records[16 * i + 3] << 24;
    }
    while (absent && a < n) { /* keys in the same ranges that the index does not hold */
        const uint32_t key = present[next_random() % n] ^ (next_random() & 0xFFFF);
        if (nxindex_lookup(index, key, NULL, 0) == 0)
            absent[a++] = key;
    }
    for (size_t i = n; i > 1; --i) { /* random order, so that the caches do not help */
        const size_t j = next_random() % i;
        const uint32_t t = present[i - 1];
        present[i - 1] = present[j], present[j] = t;
    }
    long long foundPresent = 0, foundAbsent = 0;
    const double presentRate = measure(index, present, n, rounds, &foundPresent);
    const double absentRate = measure(index, absent, a, rounds, &foundAbsent);
    printf("records %zu, open %.1f ms\n", n, openSeconds * 1e3);
    printf("present keys: %.2f million lookups/s (%lld records found)\n", presentRate / 1e6, foundPresent);
    printf("absent keys:  %.2f million lookups/s (%lld records found)\n", absentRate / 1e6, foundAbsent);
    nxindex_close(index);
    free(present);
    free(absent);
    return foundAbsent == 0 && foundPresent >= (long long)n * rounds ? 0 : 1;
}
