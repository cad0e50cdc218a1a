#!/usr/bin/env python3
"""Writes the seed corpus of tlv_decode_fuzz: small, well-formed TLV messages.

    fuzz/make_seed_corpus.py [output dir]      (default: fuzz/corpus/decode)

The messages are built here byte by byte, independently of the C++ codec, so
that the seeds also check the codec against the wire layout:

  header (28 bytes, little-endian): u32 magic 0x55555555, u32 version 3,
      u32 0, u32 0xFFFFFFFF, u16 0xFFFD, u16 0xFFFF x3, u32 dataLen
  body: records, each u64 identifier, u16 length of its cells, the cells
  cell: u16 tag word (tag << 4 | type), u16 value length, the value bytes
"""

import os
import struct
import sys

RESPONSE_ID = 0xFFFFFFFFFFFFFFFF

T_NONE, T_STRING, T_UINT, T_INT, T_UINT64 = 0, 2, 3, 4, 6


def cell(tag, ctype, value):
    assert 0 <= tag <= 4095 and 0 <= ctype <= 15
    return struct.pack("<HH", (tag << 4) | ctype, len(value)) + value


def string_cell(tag, text):
    # String values carry their terminating NUL.
    return cell(tag, T_STRING, text.encode("ascii") + b"\0")


def uint_cell(tag, value):
    return cell(tag, T_UINT, struct.pack("<I", value))


def int8_cell(tag, value):
    return cell(tag, T_INT, struct.pack("<b", value))


def uint64_cell(tag, value):
    return cell(tag, T_UINT64, struct.pack("<Q", value))


def record(rid, cells):
    body = b"".join(cells)
    assert len(body) <= 0xFFFF
    return struct.pack("<QH", rid, len(body)) + body


def message(records, hdr=(0, 0xFFFFFFFF, 0xFFFD, 0xFFFF, 0xFFFF, 0xFFFF), trailing=b""):
    body = b"".join(records)
    head = struct.pack("<IIIIHHHHI", 0x55555555, 3, *hdr, len(body))
    assert len(head) == 28
    return head + body + trailing


def seeds():
    out = {}
    out["empty_body"] = message([])
    out["one_empty_record"] = message([record(RESPONSE_ID, [])])
    # A port-listing request: command record, one 8-byte command argument.
    out["port_list_request"] = message([record(0xD0000C000, [uint64_cell(0, 213)])])
    # A statistics answer: object type and comma-separated values as text.
    out["stats_answer_strings"] = message(
        [record(RESPONSE_ID, [string_cell(1, "0A"), string_cell(9, "1,2,3")])])
    # A table row with many numeric cells, tags 1..40.
    out["many_cells"] = message(
        [record(RESPONSE_ID, [uint_cell(t, t * 1000 + 7) for t in range(1, 41)])])
    # A signed 1-byte cell next to a 4-byte one.
    out["int8_cell"] = message([record(RESPONSE_ID, [int8_cell(3, -1), uint_cell(4, 1)])])
    # A multi-record answer closed by a control record: tag 4095 = 1.
    rows = [record(RESPONSE_ID, [string_cell(13, str(12340 + i)),
                                 string_cell(9, ",".join(str(v * (i + 1)) for v in
                                                         (0, 17, 4096, 123456, 8, 99, 1)))])
            for i in range(4)]
    control = record(RESPONSE_ID, [uint_cell(4095, 1)])
    out["multi_record_answer"] = message(rows + [control])
    # Header words other than the defaults are carried through.
    out["header_fields"] = message([record(0x1234, [uint_cell(2, 5)])],
                                   hdr=(7, 0x01020304, 0x0001, 0x0203, 0x0405, 0x0607))
    # Bytes after the announced body are not part of the message.
    out["trailing_bytes"] = message([record(RESPONSE_ID, [uint_cell(1, 1)])],
                                    trailing=b"\xde\xad\xbe\xef")
    # An empty type-0 cell, a repeated tag and every accepted type code.
    out["mixed_types"] = message([
        record(42, [cell(4094, T_NONE, b""), uint_cell(5, 1), uint_cell(5, 2)]),
        record(43, [cell(100 + t, t, bytes(range(t))) for t in range(10)]),
    ])
    return out


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    outdir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "corpus", "decode")
    os.makedirs(outdir, exist_ok=True)
    for name, data in sorted(seeds().items()):
        with open(os.path.join(outdir, name + ".bin"), "wb") as f:
            f.write(data)
        print("%-24s %5d bytes" % (name, len(data)))


if __name__ == "__main__":
    main()
