#!/usr/bin/env python3
"""Writes the ZIP archives the extraction tests read, with Python's zipfile:
    make_archives.py <folder>
nested.zip (a file two folders deep without folder entries, an empty file, a
folder entry, a dated entry), corrupt.zip (the second of three entries has a
reserved deflate block type), duplicate.zip (one name twice, the later wins),
Service_9.zip (an update package holding QSUpdate) and pkg.zip
(a plain archive for the ".zip" retry)."""
import io
import sys
import warnings
import zipfile
from pathlib import Path


def write(target, entries):
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data, *date in entries:
            info = zipfile.ZipInfo(name, date_time=date[0] if date else (2020, 1, 2, 3, 4, 6))
            info.compress_type = zipfile.ZIP_DEFLATED
            info.external_attr = (0o40755 << 16) | 0x10 if name.endswith("/") else (
                0o755 if name == "QSUpdate" else 0o644) << 16
            archive.writestr(info, data)


folder = Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)
write(folder / "nested.zip", [("a/b/c.txt", b"deep text\n" * 100), ("empty.txt", b""), ("folder/", b""),
                              ("dated.txt", b"dated", (2021, 6, 15, 13, 45, 30))])
write(folder / "corrupt.zip", [(name + ".txt", (name + " entry ").encode() * 200) for name in ("first", "second", "third")])
data = bytearray((folder / "corrupt.zip").read_bytes())
offset = zipfile.ZipFile(folder / "corrupt.zip").getinfo("second.txt").header_offset
# The local header is 30 bytes, then the name and the extra field; 0xFF is
# BFINAL 1 with BTYPE 11, a reserved block type.
data[offset + 30 + int.from_bytes(data[offset + 26:offset + 28], "little") +
     int.from_bytes(data[offset + 28:offset + 30], "little")] = 0xFF
(folder / "corrupt.zip").write_bytes(bytes(data))
warnings.filterwarnings("ignore", message="Duplicate name")
with zipfile.ZipFile(folder / "duplicate.zip", "w") as archive:
    archive.writestr("same.txt", b"older")
    archive.writestr("same.txt", b"newer")
inner = io.BytesIO()
write(inner, [("QSUpdate", b'#!/bin/sh\nprintf "%s|%s|" "$0" "$1" > "$1/updater_ran.txt"\nenv >> "$1/updater_ran.txt"\n'),
              ("readme.txt", b"service package")])
(folder / "Service_9.zip").write_bytes(inner.getvalue())
write(folder / "pkg.zip", [("inside.txt", b"retried")])
