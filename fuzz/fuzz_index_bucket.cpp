// libnxindex's checks and search over one bucket's three files. The input is
// the key file's length and the payload file's (16 bits each, little-endian),
// then the key file, the payload file and the entry file. Each file gets a
// heap block of exactly its size, so that any read past it is caught. When the
// checks pass, the files must agree record by record and every search must
// give what a scan of the entry file gives.
#include "bucket.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

void require(bool condition, const char* what)
{
    if (!condition) {
        fprintf(stderr, "fuzz_index_bucket: %s\n", what);
        abort();
    }
}

int countProblem(void* context, const nxindex_problem* problem)
{
    require(problem->file >= 0 && problem->file < NX_FILES && problem->error < 0, "a problem outside its range");
    ++*static_cast<long*>(context);
    return 0;
}

// The records of the entry file with key: how many, and the first position.
uint32_t scan(const nx_bucket& bucket, uint32_t key, uint32_t* first)
{
    uint32_t count = 0;
    *first = bucket.count;
    for (uint32_t i = 0; i < bucket.count; ++i)
        if (nx_key(bucket.records, i) == key && count++ == 0)
            *first = i;
    return count;
}

void checkSearch(const nx_bucket& bucket, uint32_t key)
{
    uint32_t first = 0, expectedFirst = 0;
    const uint32_t count = nx_find(&bucket, key, &first), expected = scan(bucket, key, &expectedFirst);
    require(count == expected, "the search finds another number of records than the scan");
    require(count == 0 || first == expectedFirst, "the search finds another first record than the scan");
    require(count == 0 || nx_in_range(&bucket, key), "a found key lies outside the bucket's range");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 4)
        return 0;
    size_t lengths[NX_FILES] = {size_t(data[0] | data[1] << 8), size_t(data[2] | data[3] << 8), 0};
    data += 4;
    size -= 4;
    std::vector<std::vector<unsigned char>> blocks(NX_FILES);
    nx_span files[NX_FILES];
    for (int f = 0; f < NX_FILES; ++f) {
        const size_t length = f == NX_FILES - 1 || lengths[f] > size ? size : lengths[f];
        blocks[f].assign(data, data + length);
        blocks[f].shrink_to_fit();
        files[f] = {blocks[f].empty() ? nullptr : blocks[f].data(), length, 0, 0};
        data += length;
        size -= length;
    }
    long problems = 0;
    require(nx_check(files, countProblem, &problems) == problems, "nx_check miscounts its problems");
    if (problems > 0)
        return 0;

    const nx_bucket bucket = nx_bucket_of(files);
    for (uint32_t i = 0; i < bucket.count; ++i) {
        const uint32_t key = nx_key(bucket.records, i);
        require(nx_le16(files[NXINDEX_KEY_FILE].data + 2 * i) == (key & 0xFFFF), "a sound key file differs");
        require(memcmp(files[NXINDEX_PAYLOAD_FILE].data + 12 * i, bucket.records + 16 * i + 4, 12) == 0,
                "a sound payload file differs");
        for (uint32_t near : {key - 1, key, key + 1})
            checkSearch(bucket, near);
    }
    checkSearch(bucket, bucket.first_key ^ 0x80000000u);
    return 0;
}
