#!/usr/bin/env python3
"""make_archives.py <folder>: the update tests' ZIP archives, written with zipfile: nested.zip (a file two
folders deep without folder entries, an empty file, a folder entry), Service_9.zip (an update package holding
QSUpdate) and pkg.zip (an archive without one)."""
import io
import sys
import zipfile
from pathlib import Path


def write(target, entries):
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as archive:
        for name, data in entries:
            info = zipfile.ZipInfo(name, date_time=(2020, 1, 2, 3, 4, 6))
            info.compress_type = zipfile.ZIP_DEFLATED
            info.external_attr = (0o40755 << 16) | 0x10 if name.endswith("/") else (
                0o755 if name == "QSUpdate" else 0o644) << 16
            archive.writestr(info, data)


folder = Path(sys.argv[1])
folder.mkdir(parents=True, exist_ok=True)
write(folder / "nested.zip", [("a/b/c.txt", b"deep text\n" * 100), ("empty.txt", b""), ("folder/", b"")])
inner = io.BytesIO()
write(inner, [("QSUpdate", b'#!/bin/sh\nprintf "%s|%s|" "$0" "$1" > "$1/updater_ran.txt"\nenv >> "$1/updater_ran.txt"\n'),
              ("readme.txt", b"service package")])
(folder / "Service_9.zip").write_bytes(inner.getvalue())
write(folder / "pkg.zip", [("inside.txt", b"retried")])
