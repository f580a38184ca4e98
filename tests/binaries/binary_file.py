"""Reads what a shared library or a program shows to the outside: its exports, its imports, how it is hardened.

One class for each format: Elf asks nm and readelf, Pe reads the file itself.
"""
import re
import struct
import subprocess


def _run(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Elf:
    def __init__(self, path, nm, readelf):
        self.path = path
        self.type = re.search(r"^  Type: +(\w+)", _run(readelf, "-hW", path), re.M)[1]
        symbols = [line.split() for line in _run(nm, "-D", "-P", path).splitlines()]
        # The name carries the version of the symbol, if it has one, behind an @.
        self.exports = {name.split("@")[0]: kind for name, kind, *_ in symbols if kind not in "Uwv"}
        self.imports = {name.split("@")[0] for name, kind, *_ in symbols if kind in "Uwv"}
        dynamic = _run(readelf, "-dW", path)
        self.needed = re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)
        self.run_path = re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", dynamic)
        self.soname = re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)
        self.flags = set(re.findall(r"[A-Z_0-9]+", " ".join(re.findall(r"\(FLAGS(?:_1)?\)(.*)", dynamic))))
        self.tags = set(re.findall(r"\(([A-Z_0-9]+)\)", dynamic))
        # Type, five numbers, flags such as "R E", alignment.
        self.segments = [(kind, flags.replace(" ", "")) for kind, flags in
                         re.findall(r"^  ([A-Z_]+) +(?:0x[0-9a-f]+ +){5}([R W E]+?) +0x", _run(readelf, "-lW", path), re.M)]


class Pe:
    """A 64-bit Portable Executable."""

    def __init__(self, path, nm):
        self.path = path
        with open(path, "rb") as file:
            self._bytes = file.read()
        header = self._u32(0x3C)
        if self._bytes[header:header + 4] != b"PE\0\0":
            raise ValueError(f"{path} is no Portable Executable")
        sections, = struct.unpack_from("<H", self._bytes, header + 6)
        optional_size, = struct.unpack_from("<H", self._bytes, header + 20)
        optional = header + 24
        if struct.unpack_from("<H", self._bytes, optional) != (0x20B,):
            raise ValueError(f"{path} is no 64-bit file")
        self.time_stamp = self._u32(header + 8)
        self.image_base, = struct.unpack_from("<Q", self._bytes, optional + 24)
        self.dll_characteristics, = struct.unpack_from("<H", self._bytes, optional + 70)
        self._directories = [struct.unpack_from("<II", self._bytes, optional + 112 + 8 * i) for i in range(16)]
        self.sections = []
        for i in range(sections):
            at = optional + optional_size + 40 * i
            name = self._bytes[at:at + 8].rstrip(b"\0").decode()
            virtual_size, address, raw_size, raw = struct.unpack_from("<IIII", self._bytes, at + 8)
            self.sections.append((name, address, max(virtual_size, raw_size), raw, self._u32(at + 36)))
        self.symbols = {line.split()[0] for line in _run(nm, "-P", path).splitlines() if line.strip()}

    def _u32(self, at):
        return struct.unpack_from("<I", self._bytes, at)[0]

    def _place(self, address):
        for _, start, size, raw, _ in self.sections:
            if start <= address < start + size:
                return address - start + raw
        raise ValueError(f"{self.path}: no section holds {address:#x}")

    def _text(self, address):
        at = self._place(address)
        return self._bytes[at:self._bytes.index(b"\0", at)].decode()

    def has_relocations(self):
        return self._directories[5][1] > 0

    def debug_entries(self):
        """The contents of the debug directory's entries, each with its type."""
        address, size = self._directories[6]
        found = []
        for at in range(self._place(address), self._place(address) + size, 28) if size else ():
            kind, length, _, raw = struct.unpack_from("<IIII", self._bytes, at + 12)
            found.append((kind, self._bytes[raw:raw + length]))
        return found

    def exports(self):
        """The names, each with its section's name ("forwarded" for what another library does)."""
        start, size = self._directories[0]
        if not size:
            return {}
        at = self._place(start)
        functions, count = self._u32(at + 28), self._u32(at + 24)
        names, ordinals = self._u32(at + 32), self._u32(at + 36)
        found = {}
        for i in range(count):
            ordinal, = struct.unpack_from("<H", self._bytes, self._place(ordinals) + 2 * i)
            address = self._u32(self._place(functions) + 4 * ordinal)
            section = next(name for name, begin, length, _, _ in self.sections if begin <= address < begin + length)
            found[self._text(self._u32(self._place(names) + 4 * i))] = (
                "forwarded" if start <= address < start + size else section)
        if self._u32(at + 20) != count:
            raise ValueError(f"{self.path}: functions without a name")
        return found

    def imports(self):
        """The names of the functions by the library that has them."""
        at = self._place(self._directories[1][0])
        found = {}
        while self._u32(at + 12):
            functions = set()
            thunk = self._place(self._u32(at) or self._u32(at + 16))
            while (entry := struct.unpack_from("<Q", self._bytes, thunk)[0]):
                functions.add(f"#{entry & 0xFFFF}" if entry >> 63 else self._text(entry + 2))
                thunk += 8
            found.setdefault(self._text(self._u32(at + 12)), set()).update(functions)
            at += 20
        return found

    def version(self):
        """The version resource: (file version, product version) as four numbers each, and its texts by name."""
        address, size = self._directories[2]
        if not size:
            return None
        root = self._place(address)

        def entries(at):
            named, numbered = struct.unpack_from("<HH", self._bytes, at + 12)
            for i in range(named + numbered):
                yield struct.unpack_from("<II", self._bytes, at + 16 + 8 * i)

        node = next((to for kind, to in entries(root) if kind == 16), None)  # RT_VERSION
        while node is not None and node >> 31:
            node = next(to for _, to in entries(root + (node & 0x7FFFFFFF)))
        if node is None:
            return None
        data = self._place(self._u32(root + node))
        block = self._bytes[data:data + self._u32(root + node + 4)]
        fixed = block.index(struct.pack("<I", 0xFEEF04BD))
        numbers = [struct.unpack_from("<I", block, fixed + 8 + 4 * i)[0] for i in range(4)]
        quad = [(n >> 16, n & 0xFFFF) for n in numbers]
        texts = {}
        self._version_texts(block, 0, texts)
        return quad[0] + quad[1], quad[2] + quad[3], texts

    def _version_texts(self, block, at, texts):
        """Walks a node of the resource: length, length of value, type, name, value, then further nodes."""
        length, value_length, kind = struct.unpack_from("<HHH", block, at)
        end = at + length
        name_at = at + 6
        after = name_at
        while block[after:after + 2] != b"\0\0":
            after += 2
        name = block[name_at:after].decode("utf-16-le")
        value_at = (after + 2 + 3) & ~3
        value_size = value_length * (2 if kind == 1 else 1)
        child = (value_at + value_size + 3) & ~3
        if kind == 1 and value_length and child >= end:
            texts[name] = block[value_at:value_at + value_size].decode("utf-16-le").rstrip("\0")
        while child < end:
            child_length, = struct.unpack_from("<H", block, child)
            if not child_length:
                break
            self._version_texts(block, child, texts)
            child = (child + child_length + 3) & ~3
