"""Opens logs, also those that rotation has compressed."""

import bz2
import gzip
import io
import lzma
import sys
import zlib

# What a damaged or cut-off compressed file raises while it is read.
DAMAGED = (EOFError, zlib.error, lzma.LZMAError, gzip.BadGzipFile)

_FORMATS = ((b"\x1f\x8b", gzip.open), (b"BZh", bz2.open), (b"\xfd7zXZ\0", lzma.open))
_ZSTD = b"\x28\xb5\x2f\xfd"


def open_text(name):
    """The lines of a file, of standard input for "-". Raises OSError."""
    raw = sys.stdin.buffer if name == "-" else open(name, "rb")
    start = raw.peek(6)
    if start.startswith(_ZSTD):
        raise OSError(f"{name} is compressed with zstd: unpack it with zstdcat and pass it on standard input")
    unpack = next((opener for magic, opener in _FORMATS if start.startswith(magic)), None)
    return io.TextIOWrapper(unpack(raw) if unpack else raw, encoding="utf-8", errors="surrogateescape", newline="\n")
