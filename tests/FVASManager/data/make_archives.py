#!/usr/bin/env python3
"""Writes the ZIP archives the extraction tests read, with Python's zipfile.

usage: make_archives.py <folder>

  nested.zip      "a/b/c.txt" two folders deep without folder entries, an empty
                  file, a folder entry "folder/", and a dated entry
  corrupt.zip     three deflated entries; the second one's data is broken
                  (its first deflate block has the reserved type 3)
  duplicate.zip   the same name twice: the later entry must win
  service.zip     a service update package: Service_9.zip holding QSUpdate
  pkg.zip         a plain archive for the ".zip" retry
"""
import io
import sys
import warnings
import zipfile
from pathlib import Path


def write(path, entries, compression=zipfile.ZIP_DEFLATED):
    with zipfile.ZipFile(path, "w", compression=compression) as archive:
        for name, data, *date in entries:
            info = zipfile.ZipInfo(name, date_time=date[0] if date else (2020, 1, 2, 3, 4, 6))
            info.compress_type = compression
            info.external_attr = (0o40755 << 16) | 0x10 if name.endswith("/") else 0o644 << 16
            archive.writestr(info, data)


def main():
    folder = Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)

    write(folder / "nested.zip", [
        ("a/b/c.txt", b"deep text\n" * 100),
        ("empty.txt", b""),
        ("folder/", b""),
        ("dated.txt", b"dated", (2021, 6, 15, 13, 45, 30)),
    ])

    write(folder / "corrupt.zip", [
        ("first.txt", b"first entry " * 200),
        ("second.txt", b"second entry " * 200),
        ("third.txt", b"third entry " * 200),
    ])
    data = bytearray((folder / "corrupt.zip").read_bytes())
    with zipfile.ZipFile(folder / "corrupt.zip") as archive:
        second = archive.getinfo("second.txt")
    # The local header is 30 bytes, then the name and the extra field.
    name_length = int.from_bytes(data[second.header_offset + 26:second.header_offset + 28], "little")
    extra_length = int.from_bytes(data[second.header_offset + 28:second.header_offset + 30], "little")
    start = second.header_offset + 30 + name_length + extra_length
    data[start] = 0xFF  # BFINAL 1, BTYPE 11: a reserved block type
    (folder / "corrupt.zip").write_bytes(bytes(data))

    warnings.filterwarnings("ignore", message="Duplicate name")
    with zipfile.ZipFile(folder / "duplicate.zip", "w") as archive:
        archive.writestr("same.txt", b"older")
        archive.writestr("same.txt", b"newer")

    updater = b'#!/bin/sh\nprintf "%s|%s|" "$0" "$1" > "$1/updater_ran.txt"\nenv >> "$1/updater_ran.txt"\n'
    inner = io.BytesIO()
    with zipfile.ZipFile(inner, "w", zipfile.ZIP_DEFLATED) as archive:
        info = zipfile.ZipInfo("QSUpdate", date_time=(2020, 1, 2, 3, 4, 6))
        info.external_attr = 0o755 << 16
        archive.writestr(info, updater)
        archive.writestr("readme.txt", b"service package")
    (folder / "Service_9.zip").write_bytes(inner.getvalue())
    write(folder / "service.zip", [("Service_9.zip", inner.getvalue())])

    write(folder / "pkg.zip", [("inside.txt", b"retried")])


if __name__ == "__main__":
    main()
