#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets into fuzz/corpus/<target>/.

Deterministic: the same files every time. Run it from anywhere; it replaces
only the seeds it names (reproducers added by hand stay).
"""
import os
import struct

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "corpus")


def write(target, name, data):
    directory = os.path.join(ROOT, target)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)


def record(key, seed):
    """A 16-byte entry record: the key, then 12 payload bytes from seed."""
    return struct.pack("<I", key) + bytes((seed * 7 + i) & 0xFF for i in range(12))


def source_file(buckets, slot0=0):
    """A source file whose bucket b holds buckets.get(b, []) records."""
    starts, records, index = [], b"", 0
    for b in range(256):
        starts.append(index)
        for r in buckets.get(b, []):
            records += r
            index += 1
    head = struct.pack("<I", slot0) + b"".join(struct.pack("<I", s) for s in starts[1:])
    return head + records


def head(slots, slot0=0):
    """A 1024-byte start table from explicit slots 1..255 (missing ones 0)."""
    return struct.pack("<I", slot0) + b"".join(struct.pack("<I", slots.get(b, 0)) for b in range(1, 256))


# ---- bucket_range: the input is a source file; its first byte picks the bucket.
def bucket_range():
    ten = head({1: 2, 2: 2, 3: 5, **{b: 10 for b in range(4, 256)}})[4:] + b"".join(
        record(0x02000000 + i, i) for i in range(10))
    for bucket in (0x00, 0x01, 0x02, 0xFF):
        write("bucket_range", "ten-records-bucket%02x" % bucket, bytes([bucket, 0, 0, 0]) + ten)
    # 1024 + 16*3 + 7 bytes: the trailing part record is not a record.
    partial = head({b: 1 for b in range(1, 256)}, slot0=0xFF) + b"".join(record(i, i) for i in range(3)) + b"\x55" * 7
    write("bucket_range", "trailing-part-record-bucketff", partial)
    write("bucket_range", "short-head-bucket00", b"\x00\x00\x00\x00\x02\x00")
    write("bucket_range", "short-head-bucket80", bytes([0x80]) + b"\x00" * 519)
    inverted = head({1: 0, 2: 1, 3: 3, 4: 1, **{b: 4 for b in range(5, 256)}}, slot0=0x03)
    write("bucket_range", "inverted-range-bucket03", inverted + b"".join(record(i, i) for i in range(4)))
    past_end = head({1: 1, 2: 9, **{b: 9 for b in range(3, 256)}}, slot0=0x01)
    write("bucket_range", "range-past-end-bucket01", past_end + b"".join(record(i, i) for i in range(2)))
    wrapped = head({1: 0xFFFFFFF0, 2: 0x10, **{b: 0x10 for b in range(3, 256)}}, slot0=0x01)
    write("bucket_range", "wrapped-range-bucket01", wrapped + record(1, 1))


# ---- progress_file: the input is the helper progress file.
def progress_file():
    full = "[hlpr]\n" + "".join("%02x=41\n" % b for b in range(256))
    write("progress_file", "all-buckets", full.encode())
    write("progress_file", "three-marks", b"[hlpr]\n00=05\n01=-1\n02=07\n")
    write("progress_file", "gap-at-02", b"[hlpr]\n00=05\n01=05\n03=05\n")
    write("progress_file", "no-00", b"[hlpr]\n01=05\n02=05\n")
    write("progress_file", "empty-value-and-no-equals",
          b"[hlpr]\n00=01\n01=02\n02=03\n03=04\n04=\n05=06\n06\n07=08\n")
    write("progress_file", "crlf-blank-lines", b"[hlpr]\r\n\r\n00=12\r\n01=13\r\n\r\n\r\n02=14\r\n")
    write("progress_file", "out-of-range-values",
          b"[hlpr]\n00=-5\n01=99999999999\n02=2147483647\n03=-2147483649\n04=0x10\n05= 7\n06=+3\n")
    write("progress_file", "nul-inside", b"[hlpr]\n00=01\n01=0\x002\n02=03\n")


# ---- ini_int: the input is a DB-count file.
def ini_int():
    write("ini_int", "one-count", b"[DB-COUNT]\nWDX00=43\n")
    write("ini_int", "three-counts", b"[DB-COUNT]\nWDX00=43\nWFX00=7\nWFX01=-2\n")
    write("ini_int", "not-numbers", b"[DB-COUNT]\nWDX00=abc\nWFX00=\nWFX01=12abc\n")
    write("ini_int", "wide-numbers", b"[DB-COUNT]\nWDX00=4294967301\nWFX00=-2147483648\nWFX01=2147483648\n")
    write("ini_int", "quoted-list-hex", b"[DB-COUNT]\nWDX00=\"12\"\nWFX00=1,2\nWFX01=0x10\n")
    write("ini_int", "crlf-spaces", b"; comment\r\n[DB-COUNT]\r\n  WDX00 = 12  \r\n[other]\r\nWFX00=5\r\n")
    write("ini_int", "escaped-key", b"[DB-COUNT]\n%57DX00=9\nwdx00=8\n")
    write("ini_int", "typed-values", b"[DB-COUNT]\nWDX00=@Variant(\\0\\0\\0\\x2\\0\\0\\0\\x5)\n"
                                     b"WFX00=@ByteArray(17)\nWFX01=@@5\n")


# ---- bucket_write: header (bucket, flags, helper length, first source
# length, padding), then the helper file and the source files.
TWO_SOURCES, HELPER, FILE_ZERO_MISSING, WRITE_TWICE, PAD_HELPER = 0x01, 0x02, 0x04, 0x08, 0x70


def bucket_write_input(bucket, flags, helper=b"", sources=(), pad=(0, 0)):
    first_length = len(sources[0]) if len(sources) == 2 else 0
    header = struct.pack("<BBHHBB", bucket, flags, len(helper), first_length, pad[0], pad[1])
    return header + helper + b"".join(sources)


def bucket_write():
    b = 0x3F
    keys = lambda groups: [record(0x3F000000 | (g << 16) | i, i) for i, g in enumerate(groups)]
    one = source_file({b: keys([0x00, 0x00, 0x05]), 0x10: keys([1])})
    two = source_file({b: keys([0x05, 0xFF, 0x05]), 0x40: keys([2])})
    write("bucket_write", "one-source", bucket_write_input(b, 0, sources=[one]))
    write("bucket_write", "two-sources-written-twice", bucket_write_input(b, TWO_SOURCES | WRITE_TWICE,
                                                                          sources=[one, two]))
    helper48 = b"".join(record(0x3F070000 + i, 100 + i) for i in range(3))
    write("bucket_write", "helper-48-file-zero-missing",
          bucket_write_input(b, HELPER | FILE_ZERO_MISSING, helper=helper48, sources=[one]))
    write("bucket_write", "helper-50", bucket_write_input(b, HELPER, helper=helper48 + b"\x99\x98", sources=[two]))
    write("bucket_write", "helper-empty", bucket_write_input(b, HELPER, sources=[one]))
    wide = source_file({0x00: [record(0, 1), record(0x80000001, 2), record(0x7FFFFFFF, 3)]})
    write("bucket_write", "keys-span-2-31", bucket_write_input(0x00, 0, sources=[wide]))
    last = source_file({0xFF: keys([0x01, 0x02])}) + b"\x11" * 5
    write("bucket_write", "bucket-ff-trailing-bytes", bucket_write_input(0xFF, 0, sources=[last]))
    single = source_file({b: keys([0x07])})
    # Helper grown to 65,534 records: with the one new record the bucket is full.
    write("bucket_write", "at-record-limit",
          bucket_write_input(b, HELPER | PAD_HELPER, helper=helper48, sources=[single], pad=(1, 0)))
    # Helper of 65,535 records: one new record more is refused.
    write("bucket_write", "over-record-limit",
          bucket_write_input(b, HELPER | PAD_HELPER, helper=helper48, sources=[single], pad=(0, 0)))


if __name__ == "__main__":
    bucket_range()
    progress_file()
    ini_int()
    bucket_write()
