#!/usr/bin/env python3
"""Writes region.bin: the region's bytes after the calls of golden_test.cpp, put together by hand from the format.

    generate_region.py FILE           writes FILE
    generate_region.py --check FILE   fails unless FILE holds just these bytes

Knows nothing of the library. Every place is a sum of the format's own numbers, for 3 servers, 2 hb, 2 np and 1 fst
resource; every value is one that golden_test.cpp hands over, or one that the library is documented to write.
"""
import struct
import sys

SIZE = 10680

SERVERS, SERVER = 1084, 320
HB = 1084 + 320 * 3
NP = HB + 584 * 2 * 3
RESOURCE = 584 + 4 * 3
FST = NP + 584 * 2 * 3
PIDS, PID = FST + 584 * 1, 324
NETWORK, ROW = PIDS + 324 * 1 * 3, 4 * 3
assert NETWORK + 4 * (2 * 2 + 2) * 3 == SIZE

region = bytearray(SIZE)


def text(offset, value):
    region[offset:offset + len(value)] = value


def words(offset, *values):
    struct.pack_into(f"<{len(values)}I", region, offset, *values)


def long_word(offset, value):
    struct.pack_into("<Q", region, offset, value)


# ---- header ----
words(0, 0x05060708, 0x01020304)  # the second value of the pair first
words(8, 3, 2, 2)  # the configured maxima
words(20, 1, 3)  # fst resources, and room for process ids
words(28, 2, 1, 2, 2)  # servers, hb, np resources and names with process ids in use
words(44, 0x11111111, 0x22222222, 0x33333333, 0x44444444)
words(60, 1)  # the simulation is on

# ---- servers: "delta" was the first one, and is removed ----
alpha, beta = SERVERS, SERVERS + SERVER
text(alpha, b"alpha")
words(alpha + 256, 0)  # priority
words(alpha + 260, 0x1, 0x80000002, 0x3)
words(alpha + 276, 0x4, 0x5, 0xFFFFFFFF)
words(alpha + 288, 1)  # simulated as failed
text(beta, b"beta")
words(beta + 256, 5)  # modified, from 1
words(beta + 260, 2, 2, 0)  # as a new server has them
words(beta + 280, 0x50)

# ---- hb: "diskhb1" was the first one and "diskhb2" the last one, and both are removed ----
lan = HB
text(lan, b"lanhb1")
text(lan + 256, b"lan")
text(lan + 288, b"\x00\xFFbytes\x00")
words(lan + 544, 73, 0xB0)  # priority modified from 71, state
words(lan + 584, 0xA2, 0xA3, 0xA3)  # on "alpha", on "beta", and what "beta" left behind when "delta" went

# ---- np ----
ping, majority = NP, NP + RESOURCE
text(ping, b"pingnp1")
text(ping + 256, b"ping")
text(ping + 288, b"p" * 256)  # cut, from 300
words(ping + 544, 80, 0xB1)
words(ping + 584, 0xC2, 0xC3, 0xC3)
text(majority, b"majoritynp1-cut-at-31-bytes-of-")
text(majority + 256, b"majority")
words(majority + 544, 0x80000051, 0x77)
words(majority + 584, 0x77, 0x77, 0xE3)  # set by type, but not where no server is

# ---- fst ----
text(FST + 288, b"fst\x00tail")  # four bytes over eight
words(FST + 548, 0x99)

first, second = PIDS, PIDS + PID
text(first, b"lan")
words(first + 256, 1001, 1002, 0)
long_word(first + 268, 0x0123456789ABCDEF)
long_word(first + 276, 0xFFFFFFFFFFFFFFFF)
text(second, b"ping")
words(second + 264, 0xFFFFFFFF)
long_word(second + 284, 2)

# ---- network-wide states ----
words(NETWORK, 0x1A2, 0x1A3, 0x1A3)  # "lanhb1", moved down from the second row
words(NETWORK + ROW, 2, 2, 0)  # "diskhb2": a removed last resource leaves its row as it was


def main(arguments):
    if len(arguments) == 2 and arguments[0] == "--check":
        with open(arguments[1], "rb") as file:
            contents = file.read()
        if contents == region:
            return 0
        different = [i for i, (a, b) in enumerate(zip(contents, region)) if a != b]
        print(f"{arguments[1]}: {len(contents)} bytes, expected {SIZE}; different at {different[:20]}")
        return 1
    if len(arguments) != 1 or arguments[0].startswith("-"):
        print(__doc__)
        return 2
    with open(arguments[0], "wb") as file:
        file.write(region)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
