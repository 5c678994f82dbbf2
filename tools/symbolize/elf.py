"""The little of an ELF file (64 bits, little endian) that is needed to find its debug file and to tell whether it fits."""

import os
import struct
import zlib

_PT_LOAD, _PF_X, _SHT_NOBITS, _SHT_NOTE, _SHT_DYNSYM, _SHT_SYMTAB = 1, 1, 8, 7, 11, 2
_STT_FUNC, _STT_GNU_IFUNC = 2, 10


class ElfFile:
    """Raises OSError when the file cannot be read and ValueError when it is no such ELF file."""

    def __init__(self, path):
        self.path = path
        with open(path, "rb") as file:
            self._data = file.read()
        if self._data[:6] != b"\x7fELF\x02\x01":
            raise ValueError("not a 64-bit little-endian ELF file")
        try:
            self._read_tables()
        except (struct.error, IndexError) as error:
            raise ValueError("damaged ELF file") from error

    def _read_tables(self):
        phoff, shoff = struct.unpack_from("<QQ", self._data, 32)
        phsize, phcount, shsize, shcount, shnames = struct.unpack_from("<HHHHH", self._data, 54)
        self._segments = []
        for i in range(phcount):
            kind, flags, offset, address, _, filesize = struct.unpack_from("<IIQQQQ", self._data, phoff + i * phsize)
            if kind == _PT_LOAD:
                self._segments.append((address, filesize, offset, flags))
        sections = [struct.unpack_from("<IIQQQQIIQQ", self._data, shoff + i * shsize) for i in range(shcount)]
        self._sections = [(self._string(sections[shnames][4] + s[0]), s) for s in sections] if sections else []
        self.build_id = self._build_id()
        self.symbols, self._functions = self._read_symbols()

    def _string(self, offset):
        return self._data[offset:self._data.index(b"\0", offset)].decode("utf-8", "surrogateescape")

    def _content(self, section):
        return b"" if section[1] == _SHT_NOBITS else self._data[section[4]:section[4] + section[5]]

    def _build_id(self):
        for name, section in self._sections:
            note = self._content(section)
            if section[1] == _SHT_NOTE and name == ".note.gnu.build-id" and len(note) > 16:
                return note[16:16 + struct.unpack_from("<I", note, 4)[0]].hex()
        return None

    def _read_symbols(self):
        """Values of each name (local symbols of one name may stand at several places), and the ranges of functions."""
        symbols, functions = {}, []
        for _, section in self._sections:
            if section[1] not in (_SHT_DYNSYM, _SHT_SYMTAB):
                continue
            names = self._sections[section[6]][1][4]
            content = self._content(section)
            for name, info, _, index, value, size in struct.iter_unpack("<IBBHQQ", content[:len(content) // 24 * 24]):
                if index:
                    text = self._string(names + name)
                    symbols.setdefault(text, set()).add(value)
                    if info & 15 in (_STT_FUNC, _STT_GNU_IFUNC) and size:
                        functions.append((value, value + size))
        return symbols, functions

    def covers(self, address):
        """Whether the address lies within a function that has a symbol."""
        return any(start <= address < end for start, end in self._functions)

    @property
    def has_debug_info(self):
        return any(name in (".debug_info", ".zdebug_info") and self._content(s) for name, s in self._sections)

    def debug_link(self):
        """Name and checksum of the separate debug file, or None."""
        for name, section in self._sections:
            if name == ".gnu_debuglink":
                content = self._content(section)
                return content[:content.index(b"\0")].decode(), struct.unpack("<I", content[-4:])[0]
        return None

    def checksum(self):
        return zlib.crc32(self._data)

    def is_code(self, address):
        return any(a <= address < a + size and flags & _PF_X for a, size, _, flags in self._segments)

    def follows_call(self, address):
        """Whether a call instruction ends right before the address, as it must before a return address."""
        for start, size, offset, _ in self._segments:
            if start <= address - 8 and address <= start + size:
                code = self._data[offset + address - start - 8:offset + address - start]
                # A near call, or the forms of an indirect one (FF /2) by their lengths.
                return code[-5] == 0xE8 or any(code[-n] == 0xFF and code[1 - n] >> 3 & 7 == 2 for n in (2, 3, 4, 6, 7))
        return False


def find_debug_file(elf, debug_roots):
    """Returns (ElfFile or None, remarks on debug files that were found but do not fit)."""
    folder = os.path.dirname(os.path.realpath(elf.path))
    candidates, remarks = [], []
    if elf.build_id:
        candidates += [f"{r}/.build-id/{elf.build_id[:2]}/{elf.build_id[2:]}.debug" for r in debug_roots]
    link = elf.debug_link()
    if link:
        folders = [folder, f"{folder}/.debug"] + [r + folder for r in debug_roots] + list(debug_roots)
        candidates += [f"{f}/{link[0]}" for f in folders]
    for path in candidates:
        if not os.path.isfile(path) or os.path.realpath(path) == os.path.realpath(elf.path):
            continue
        try:
            debug = ElfFile(path)
        except (OSError, ValueError) as error:
            remarks.append(f"the debug file {path} cannot be used: {error}")
            continue
        fits = debug.build_id == elf.build_id if elf.build_id else debug.checksum() == link[1]
        if fits:
            return debug, remarks
        remarks.append(f"the debug file {path} does not match {elf.path} and is not used")
    return None, remarks
