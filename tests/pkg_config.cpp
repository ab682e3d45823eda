// A consumer's C program built with `pkg-config --cflags --libs nxindex`
// against libnxindex installed by `cmake --install` into a temporary prefix
// finds what the real nxindexer indexed.
#include "sampledb.h"
#include "testsupport.h"

#include <QStandardPaths>
#include <gtest/gtest.h>

namespace {

const char kConsumer[] = R"(#include <nxindex.h>
#include <stdio.h>
#include <stdlib.h>
int main(int argc, char** argv)
{
    int error = 0;
    nxindex* index = nxindex_open(argv[1], argv[2], &error);
    if (!index)
        return fprintf(stderr, "%s\n", nxindex_strerror(error)), 2;
    unsigned char payload[NXINDEX_PAYLOAD_SIZE];
    long found = nxindex_lookup(index, (uint32_t)strtoul(argv[3], NULL, 16), payload, 1);
    printf("%ld", found);
    for (int i = 0; found > 0 && i < NXINDEX_PAYLOAD_SIZE; ++i)
        printf("%s%02x", i ? "" : " ", payload[i]);
    nxindex_close(index);
    return 0;
}
)";

// What the program printed, once it ended with status 0 (under AddressSanitizer the library brings its runtime,
// which then is not the first library loaded: the environment of nxtest::run allows for that).
QString run(const QString& program, const QStringList& args, const QStringList& environment = {})
{
    const nxtest::Output output = nxtest::run(program, args, environment);
    EXPECT_EQ(output.status, 0) << program << ": " << output.err;
    return output.out.trimmed();
}

TEST(PkgConfig, ConsumerBuiltWithPkgConfigFindsIndexedRecords)
{
    if (QStandardPaths::findExecutable("pkg-config").isEmpty() || QStandardPaths::findExecutable("cc").isEmpty())
        GTEST_SKIP() << "needs pkg-config and cc";
    nxtest::TempInstall install;
    const QString prefix = install.root() + "/sdk", consumer = install.root() + "/consumer";
    for (const char* component : {"library", "development"})
        run(NXPKG_CMAKE, {"--install", NXPKG_BINARY_DIR, "--prefix", prefix, "--component", component});
    nxtest::writeFile(consumer + ".c", kConsumer);
    const QString flags =
        run("pkg-config", {"--cflags", "--libs", "nxindex"}, {"PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig"});
    run("cc", QStringList{"-o", consumer, consumer + ".c"} + flags.split(' ', Qt::SkipEmptyParts));

    const QByteArray present = nxtest::makeRecord(0x2a0b0c0d, 9);
    QVector<QByteArray> buckets(256);
    buckets[0x2a] = present + nxtest::makeRecord(0x2a0b0c0e, 10);
    nxtest::writeSource(install.host(), "wdx00", 0, buckets);
    nxtest::writeSource(install.host(), "wdx00", 1, {});
    nxtest::writeDbCount(install.host(), "/idxval.ini", "WDX00", 3);
    ASSERT_EQ(install.runIndexer(), 0);
    EXPECT_EQ(run(consumer, {install.host(), "wdx00", "2a0b0c0d"}), "1 " + present.mid(4).toHex());
    EXPECT_EQ(run(consumer, {install.host(), "wdx00", "2a0b0c0c"}), "0");
}

}  // namespace
