#!/usr/bin/env python3
"""Describes a zip archive with Python's own reader, as JSON: one object per entry, plus the
result of testing every entry's CRC."""
import json
import sys
import zipfile

with zipfile.ZipFile(sys.argv[1]) as archive:
    entries = [{"name": i.filename, "method": i.compress_type, "utf8": bool(i.flag_bits & 0x800),
                "size": i.file_size, "data": archive.read(i).hex() if i.file_size < 4096 else ""}
               for i in archive.infolist()]
    print(json.dumps({"entries": entries, "bad": archive.testzip()}))
