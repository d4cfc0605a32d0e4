#!/usr/bin/env python3
"""Shows what landed on a simulated target: the GPT of every LUN, read back
from the simulator's LUN files and checked, and for each image the recipe
flashed, whether its partition starts with the image's bytes and holds
zeros behind them.

usage: show.py STORAGE_DIR CONTAINER_DIR [RECIPE]

Exits 1 when a GPT is broken or an image is not where the recipe put it."""

import os
import struct
import sys
import xml.etree.ElementTree as ET
import zlib

SECTOR = 4096  # the simulated UFS target's sector size


def read_at(f, pos, n):
    f.seek(pos)
    return f.read(n)


def read_gpt(path):
    """Returns (problems, partitions) of one LUN file; each partition is a
    dict with slot, name, start, end and attributes."""
    problems = []
    size = os.path.getsize(path)
    sectors = size // SECTOR
    parts = []
    with open(path, "rb") as f:
        for which, at in (("primary", 1), ("backup", sectors - 1)):
            hdr = read_at(f, at * SECTOR, 92)
            if hdr[:8] != b"EFI PART":
                problems.append(f"{which} header missing")
                continue
            hsize, = struct.unpack_from("<I", hdr, 12)
            stored, = struct.unpack_from("<I", hdr, 16)
            blank = hdr[:16] + b"\0\0\0\0" + hdr[20:hsize]
            if zlib.crc32(blank) != stored:
                problems.append(f"{which} header checksum wrong")
            entries_at, count, esize, array_crc = struct.unpack_from("<QIII", hdr, 72)
            array = read_at(f, entries_at * SECTOR, count * esize)
            if zlib.crc32(array) != array_crc:
                problems.append(f"{which} array checksum wrong")
            if which != "primary":
                continue
            for slot in range(count):
                e = array[slot * esize:(slot + 1) * esize]
                if e[:16] == bytes(16):
                    continue
                start, end, attrs = struct.unpack_from("<QQQ", e, 32)
                name = e[56:128].decode("utf-16-le").split("\0")[0]
                parts.append(dict(slot=slot + 1, name=name, start=start, end=end, attrs=attrs))
    return problems, parts


def human(n):
    for unit in ("B", "KiB", "MiB", "GiB"):
        if n < 1024 or unit == "GiB":
            return f"{n:.0f} {unit}" if unit == "B" else f"{n:.1f} {unit}"
        n /= 1024


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__.split("\n\n")[1])
    storage, container = sys.argv[1], sys.argv[2]
    recipe = sys.argv[3] if len(sys.argv) == 4 else os.path.join(container, "ufs.xml")
    ok = True

    luns = sorted(int(n[3:-4]) for n in os.listdir(storage) if n.startswith("lun") and n.endswith(".img"))
    tables = {}
    print("Partition tables read back from the target:")
    for lun in luns:
        path = os.path.join(storage, f"lun{lun}.img")
        problems, parts = read_gpt(path)
        tables[lun] = parts
        state = "; ".join(problems) if problems else "primary and backup GPT valid"
        print(f"  LUN {lun}: {human(os.path.getsize(path))}, {state}")
        ok &= not problems
        for p in parts:
            flags = []
            if p["attrs"] & (1 << 5):
                flags.append("survives flash")
            if p["attrs"] & (1 << 50):
                flags.append("active")
            line = (f"    {p['slot']:2}  {p['name']:<10} sectors {p['start']:>5} .. {p['end']:<5}"
                    f" {human((p['end'] - p['start'] + 1) * SECTOR):>9}  {', '.join(flags)}")
            print(line.rstrip())

    print("Images the recipe flashed, checked on the target:")
    for tag in ET.parse(recipe).getroot().iter("flash"):
        name = tag.get("partition")
        image = tag.get("filename")
        with open(os.path.join(container, image), "rb") as f:
            want = f.read()
        # The highest LUN holding the name wins, as on the host.
        found = [(lun, p) for lun, parts in sorted(tables.items()) for p in parts if p["name"] == name]
        if not found:
            ok = False
            print(f"  {name:<8} no such partition  MISMATCH")
            continue
        lun, part = found[-1]
        size = (part["end"] - part["start"] + 1) * SECTOR
        with open(os.path.join(storage, f"lun{lun}.img"), "rb") as f:
            got = read_at(f, part["start"] * SECTOR, size)
        landed = got[:len(want)] == want and got[len(want):].count(0) == size - len(want)
        verdict = "ok" if landed else "MISMATCH"
        ok &= landed
        print(f"  {name:<8} LUN {lun} sector {part['start']:>5}  {image:<11} {human(len(want)):>9}"
              f"  crc32 {zlib.crc32(want):08x} -> {zlib.crc32(got[:len(want)]):08x}  {verdict}")
    print("Everything landed where the recipe put it." if ok else "Something did not land.")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
