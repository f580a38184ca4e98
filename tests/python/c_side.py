"""A program that makes the library's calls as C does, without the Python package: functions and arguments are declared from the
header's text.

It reads pickled lists of calls, (name, inputs), from standard input. The answer to each list is one list: for each call the result, the
outputs of a call that succeeded, and the checksum of the region's bytes after it; and at the end all bytes of the region.

    c_side.py LIBRARY HEADER
"""

import ctypes
import pickle
import re
import struct
import sys
import zlib

TYPES = {
    "const char*": ctypes.c_char_p,
    "int32_t": ctypes.c_int32,
    "uint32_t": ctypes.c_uint32,
    "uint64_t": ctypes.c_uint64,
    "int32_t*": ctypes.POINTER(ctypes.c_int32),
    "const int32_t*": ctypes.POINTER(ctypes.c_int32),
    "uint32_t*": ctypes.POINTER(ctypes.c_uint32),
    "const uint32_t*": ctypes.POINTER(ctypes.c_uint32),
    "uint64_t*": ctypes.POINTER(ctypes.c_uint64),
    "char*": ctypes.c_void_p,
    "uint8_t*": ctypes.c_void_p,
    "void*": ctypes.c_void_p,
    "const void*": ctypes.c_void_p,
}


def declarations(header):
    """Each function of the header with the C types of its parameters."""
    text = re.sub(r"/\*.*?\*/", "", header, flags=re.S)
    for name, parameters in re.findall(r"SHMNM_API uint32_t (shmnm_\w+)\(([^)]*)\);", text):
        words = [] if parameters.strip() == "void" else parameters.split(",")
        yield name, [re.sub(r"\s*\w+$", "", " ".join(word.split())) for word in words]


class Side:
    def __init__(self, library, header):
        functions = ctypes.CDLL(library)
        self.types = dict(declarations(header))
        for name, types in self.types.items():
            function = getattr(functions, name)
            function.argtypes, function.restype = [TYPES[each] for each in types], ctypes.c_uint32
            setattr(self, name.removeprefix("shmnm_"), function)

    def call(self, name, *inputs):
        """The result and the outputs."""
        special = getattr(self, f"c_{name}", None)
        if special:
            return special(*inputs)
        if name.startswith("enum"):
            return self.listing(name, *inputs)
        if "descript" in name:
            return self.description(name, *inputs)
        if name.endswith("rscinfo"):
            return self.text(getattr(self, name), 32, *inputs)
        # What points to a number is an output; all else is an input.
        outputs, arguments, rest = [], [], list(inputs)
        for each in self.types[f"shmnm_{name}"]:
            if each.endswith("*") and "char" not in each:
                outputs.append(TYPES[each]._type_())
                arguments.append(ctypes.byref(outputs[-1]))
            else:
                arguments.append(rest.pop(0))
        assert not rest
        result = getattr(self, name)(*arguments)
        return result, [each.value for each in outputs]

    def listing(self, name, *inputs):
        function, size = getattr(self, name), ctypes.c_uint32()
        result = function(*inputs, None, ctypes.byref(size))
        if result != 0:
            return result, []
        words = "uint32_t*" in self.types[f"shmnm_{name}"][:-1]
        buffer = (ctypes.c_uint32 if words else ctypes.c_char).__mul__(size.value + 1)()
        used = ctypes.c_uint32(size.value)
        result = function(*inputs, buffer, ctypes.byref(used))
        raw = bytes(buffer)[: used.value]
        return result, [raw if not words else list(struct.unpack(f"<{used.value // 4}I", raw))]

    def text(self, function, size, *inputs):
        buffer = ctypes.create_string_buffer(size)
        result = function(buffer, *inputs)
        return result, [buffer.value]

    def description(self, name, *inputs):
        if name.startswith("set"):
            *names, data = inputs
            return getattr(self, name)(*names, data, len(data)), []
        buffer, size = ctypes.create_string_buffer(256), ctypes.c_int32(256)
        result = getattr(self, name)(*inputs, buffer, ctypes.byref(size))
        return result, [buffer.raw]

    def c_getnodename(self, pri):
        return self.text(self.getnodename, 256, pri)

    def c_getnodecombstat(self, name):
        word = ctypes.c_uint32(0)
        return self.getnodecombstat(name, ctypes.byref(word)), [word.value]

    def c_setnpsimu(self, flag, words):
        array = None if words is None else (ctypes.c_uint32 * (len(words) + 1))(*words)
        return self.setnpsimu(flag, array, 0 if words is None else len(words)), []

    def c_getnpsimu(self, count):
        flag, words = ctypes.c_uint32(), (ctypes.c_uint32 * (max(count, 0) + 1))()
        result = self.getnpsimu(ctypes.byref(flag), words, count)
        return result, [flag.value, list(words[: max(count, 0)])]

    def c_getfstrscpid(self, name, kind):
        """Whether there is a record at all shows only in what the call leaves alone."""
        outputs = []
        for preset in (1, 2):
            pid, data = ctypes.c_uint32(preset), ctypes.c_uint64(preset)
            result = self.getfstrscpid(name, kind, ctypes.byref(pid), ctypes.byref(data))
            outputs.append((pid.value, data.value))
        return result, [None if outputs == [(1, 1), (2, 2)] else outputs[1]]

    def c_dump(self):
        size = ctypes.c_int32()
        result = self.dump(None, ctypes.byref(size))
        if result != 0:
            return result, []
        buffer = ctypes.create_string_buffer(max(size.value, 1))
        result = self.dump(buffer, ctypes.byref(size))
        return result, [buffer.raw[: size.value]]

    def bytes(self):
        result, outputs = self.c_dump()
        return outputs[0] if result == 0 else b""


def main():
    with open(sys.argv[2]) as header:
        side = Side(sys.argv[1], header.read())
    while True:
        try:
            calls = pickle.load(sys.stdin.buffer)
        except EOFError:
            return
        answers = []
        for name, *inputs in calls:
            result, outputs = side.call(name, *inputs)
            answers.append((result, outputs if result == 0 else [], zlib.crc32(side.bytes())))
        pickle.dump((answers, side.bytes()), sys.stdout.buffer)
        sys.stdout.buffer.flush()


if __name__ == "__main__":
    main()
