"""The package and the header agree: every function is declared as in C and can be reached, every constant has its value."""

import ctypes
import re
import subprocess
import sys

import pytest

import conftest
import shmnm
from c_side import TYPES, declarations
from test_same_as_c import PythonSide

HEADER = conftest.PROJECT / "src/windows/server/library/shmnm/include/shmnm.h"
PICTURE_HEADER = conftest.PROJECT / "tools/picture_library/include/shmnmpicture.h"
DECLARED = dict(declarations(HEADER.read_text()))


class TestInterface:
    def test_all_91_functions_are_declared_as_in_the_header(self):
        declared = {f"shmnm_{name}": types for name, types in shmnm._calls.PROTOTYPES.items()}
        assert len(DECLARED) == 91 and declared.keys() == DECLARED.keys()
        for name, types in DECLARED.items():
            assert [shmnm._calls._TYPES[letter] for letter in declared[name]] == [TYPES[each] for each in types], name

    def test_all_91_functions_are_called_by_uses_of_the_package(self, monkeypatch):
        """One use for each function, with every function counted."""
        called = set()

        def counting(name, function):
            def call(*arguments):
                called.add(name)
                return function(*arguments)

            call.__name__ = f"shmnm_{name}"
            return call

        calls = shmnm._calls.calls()
        for name in shmnm._calls.PROTOTYPES:
            monkeypatch.setattr(calls, name, counting(name, getattr(calls, name)))
        for kind in ("hb", "np"):
            for name in shmnm._calls._TWINS:
                monkeypatch.setattr(getattr(calls, kind), name.format(""), getattr(calls, name.format(kind)))

        # Another process has the region, so that this one can attach to it.
        code = "import shmnm, sys\nwith shmnm.create() as region:\n    print('ready', flush=True)\n    sys.stdin.readline()\n"
        with conftest.python(code) as holder:
            assert holder.stdout.readline() == "ready\n"
            shmnm.attach().close()
            python = PythonSide()
            python.call("addnode", b"a", 0)
            for kind in ("hb", "np"):
                python.call(f"add{kind}rsc", b"t", b"a", 0)
            for lock in ("rolock", "rwlock"):
                python.call(lock, 0)
                python.call("rounlock")
            inputs = {
                "t": b"a", "i": 1, "u": 1, "Q": 1,
            }  # fmt: skip
            for name, types in shmnm._calls.PROTOTYPES.items():
                arguments = [inputs[letter] for letter in types if letter in inputs]
                if name in ("create", "attach", "detach", "delete", "rolock", "rwlock", "rounlock", "rwunlock", "getnpsimu", "setnpsimu"):
                    continue
                if name.startswith("set") and "descript" in name:
                    arguments = [*arguments[:-1], b"x"]
                python.call(name, *arguments)
            python.call("setnpsimu", 1, [0])
            python.call("getnpsimu", 4)
            python.close()
            holder.communicate("end\n", timeout=60)
        assert {f"shmnm_{name}" for name in called} == DECLARED.keys()

    def test_the_functions_that_can_wait_give_up_the_interpreter_lock_and_no_others(self):
        calls = shmnm._calls.calls()
        python_api = 0x4  # FUNCFLAG_PYTHONAPI: the interpreter lock is kept
        released = {name for name in shmnm._calls.PROTOTYPES if not getattr(calls, name)._flags_ & python_api}
        assert released == {"create", "attach", "rolock", "rwlock"}

    def test_the_functions_of_pictures_are_declared_as_in_their_header(self):
        text = re.sub(r"/\*.*?\*/", "", PICTURE_HEADER.read_text(), flags=re.S)
        types = {
            "const shmnmpicture_options*": ctypes.POINTER(shmnm._picture._Options),
            "shmnmpicture*": ctypes.c_void_p,
            "const shmnmpicture*": ctypes.c_void_p,
            "shmnmpicture**": ctypes.POINTER(ctypes.c_void_p),
            "const char*": ctypes.c_char_p,
            "const char**": ctypes.POINTER(ctypes.c_char_p),
            "size_t*": ctypes.POINTER(ctypes.c_size_t),
            "int32_t*": ctypes.POINTER(ctypes.c_int32),
            "int32_t": ctypes.c_int32,
            "uint32_t": ctypes.c_uint32,
            "void": None,
        }
        functions = {}
        for result, name, parameters in re.findall(r"SHMNMPICTURE_API ([\w ]+\*?) ?shmnmpicture_(\w+)\(([^)]*)\);", text):
            words = [] if parameters == "void" else [re.sub(r"\s*\w+$", "", " ".join(each.split())) for each in parameters.split(",")]
            functions[name] = (types[result.strip()], [types[each] for each in words])
        assert functions == shmnm._picture._PROTOTYPES

    def test_the_options_of_pictures_are_laid_out_as_in_their_header(self):
        text = re.sub(r"/\*.*?\*/", "", PICTURE_HEADER.read_text(), flags=re.S)
        members = re.findall(r"^\s+(const char\*|uint32_t) (\w+);", text[text.index("typedef struct shmnmpicture_options") :], re.M)
        types = {"const char*": ctypes.c_char_p, "uint32_t": ctypes.c_uint32}
        assert [(name, types[each]) for each, name in members] == shmnm._picture._Options._fields_

    def test_the_results_of_pictures_are_those_of_their_header(self):
        codes = {name: int(value) for name, value in re.findall(r"X\(SHMNMPICTURE_(?:ERR_)?(\w+), (\d+),", PICTURE_HEADER.read_text())}
        for name in ("OK", "NO_SUCH_KEY", "INVALID_CONDITION", "NO_SUCH_WORD", "NO_REGION", "LOCK_TIMEOUT"):
            assert getattr(shmnm._picture, name) == codes[name]

    def test_every_public_name_is_exported_and_documented(self):
        assert sorted(shmnm.__all__) == shmnm.__all__
        for name in shmnm.__all__:
            assert getattr(shmnm, name) is not None
            if isinstance(getattr(shmnm, name), type) or callable(getattr(shmnm, name)):
                assert getattr(shmnm, name).__doc__, name
        public = {name for name in vars(shmnm) if not name.startswith("_")}
        assert public == set(shmnm.__all__)

    def test_every_public_attribute_is_documented(self):
        for name in shmnm.__all__:
            kind = getattr(shmnm, name)
            if not isinstance(kind, type) or issubclass(kind, (BaseException, tuple)):
                continue
            for attribute, value in vars(kind).items():
                if not attribute.startswith("_") and (callable(value) or isinstance(value, (property, shmnm._holder.Word))):
                    assert value.__doc__, f"{name}.{attribute}"

    def test_the_version_is_the_project_s(self):
        (version,) = re.findall(r"^project\(shmnm VERSION ([\d.]+)", (conftest.PROJECT / "CMakeLists.txt").read_text(), re.M)
        (packaged,) = re.findall(r'^version = "([\d.]+)"$', (conftest.PACKAGE / "pyproject.toml").read_text(), re.M)
        assert version == packaged == shmnm.__version__ == shmnm.picture_version()

    def test_an_interpreter_without_its_lock_is_refused(self, monkeypatch):
        monkeypatch.setattr(sys, "_is_gil_enabled", lambda: False, raising=False)
        with pytest.raises(shmnm.LibraryNotFound, match="PYTHON_GIL=1"):
            shmnm.create()

    def test_importing_loads_no_library_and_little_of_python(self):
        code = "import sys, shmnm\nassert 'asyncio' not in sys.modules\nprint(open('/proc/self/maps').read().count('kzm'))"
        assert subprocess.run([sys.executable, "-B", "-c", code], capture_output=True, text=True, check=True).stdout == "0\n"
