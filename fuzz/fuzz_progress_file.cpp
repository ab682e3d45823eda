// The helper progress file reader: the input is the file. Every mark must be
// at least -1 and equal to what the reading rule gives, worked out here
// without strtok: lines are the non-empty runs between CR and LF characters
// (the text ends at its first NUL), the first line is skipped, the second
// sets mark 0 when its leading hexadecimal number is 0, and the n-th line
// after the first sets mark n only when it carries n; a line without "="
// there ends the reading. The value after "=" is read in base 10 and held to
// -1 ... INT_MAX - 1; "=" at the end of the line gives -1.
#include "fuzz_support.h"

#include "indexformat.h"
#include "nxi.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr int kBuckets = 256;

int expectedValue(const std::string& line, size_t equals)
{
    if (equals + 1 == line.size())
        return -1;
    const long value = std::strtol(line.c_str() + equals + 1, nullptr, 10);
    return int(std::clamp<long>(value, -1, INT_MAX - 1));
}

std::vector<int> expectedMarks(const uint8_t* data, size_t size)
{
    std::vector<int> marks(kBuckets, -1);
    const size_t textSize = std::find(data, data + size, uint8_t(0)) - data;
    std::vector<std::string> lines;
    std::string line;
    for (size_t i = 0; i <= textSize; ++i) {
        if (i == textSize || data[i] == '\r' || data[i] == '\n') {
            if (!line.empty())
                lines.push_back(line);
            line.clear();
        } else {
            line += char(data[i]);
        }
    }
    if (lines.size() < 2)
        return marks;
    for (size_t n = 0; n + 1 < lines.size() && n < size_t(kBuckets); ++n) {
        const std::string& current = lines[n + 1];
        if (std::strtol(current.c_str(), nullptr, 16) != long(n))
            continue;
        const size_t equals = current.find('=');
        if (equals == std::string::npos) {
            marks[n] = -1;
            if (n == 0)
                continue;  // mark 0 without "=" reads as -1 and reading goes on
            break;
        }
        marks[n] = expectedValue(current, equals);
    }
    return marks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    nxfuzz::ScratchHost host;
    const QString path = nxformat::helperProgressPath(host.path(), "wdx00");
    nxfuzz::writeFile(path, data, size);

    nxi indexer;
    indexer.m_HostPath = host.path();
    int marks[kBuckets];
    std::fill(marks, marks + kBuckets, -1);
    indexer.getHlpINIData(marks, path);

    const std::vector<int> expected = expectedMarks(data, size);
    for (int bucket = 0; bucket < kBuckets; ++bucket) {
        FUZZ_CHECK(marks[bucket] >= -1, "mark %02x is %d", bucket, marks[bucket]);
        FUZZ_CHECK(marks[bucket] == expected[size_t(bucket)], "mark %02x is %d, expected %d", bucket, marks[bucket],
                   expected[size_t(bucket)]);
    }
    return 0;
}
