"""Where the package looks for the libraries, on Linux and on Windows.

The rules for Windows are tested with recorded calls: no Windows Python runs here.
"""

import ctypes
import os
import shutil
import subprocess
import sys

import pytest

import conftest
from shmnm import LibraryNotFound, _loader, set_library_folder

USE = "import shmnm\nwith shmnm.create() as region:\n    region.cluster.clstat = 5\nprint(open('/proc/self/maps').read())"


def run(code, *, folder=None, expect=0, **environment):
    """What a Python process says that finds the libraries as the environment has it."""
    names = {name: value for name, value in os.environ.items() if name != "SHMNM_LIBRARY_PATH"}
    done = subprocess.run([sys.executable, "-B", "-c", code], cwd=folder, env=names | environment, capture_output=True, text=True, timeout=60)
    assert done.returncode == expect, done.stderr
    return done.stdout if expect == 0 else done.stderr


@pytest.fixture
def libraries(tmp_path):
    """A folder with copies of the libraries."""
    for name in ("libkzmshmnm.so.1", "libkzmutil.so", "libkzmxml.so", "libkzmlog.so", "libkzmkernel.so", "libshmnmpicture.so.1"):
        shutil.copy(conftest.BIN / name, tmp_path / name)
    return tmp_path


@pytest.fixture
def fresh(monkeypatch):
    """The loader as in a new process."""
    monkeypatch.setattr(_loader, "_found", {})
    monkeypatch.setattr(_loader, "_folder", None)
    monkeypatch.delenv("SHMNM_LIBRARY_PATH", raising=False)
    return monkeypatch


class TestLoaderOnLinux:
    def test_takes_the_folder_that_the_program_names(self, libraries):
        other = libraries / "other"
        other.mkdir()
        said = run(f"import shmnm\nshmnm.set_library_folder({str(libraries)!r})\n{USE}", SHMNM_LIBRARY_PATH=str(other))
        assert f"{libraries}/libkzmshmnm.so.1" in said and f"{libraries}/libkzmutil.so" in said

    def test_takes_the_folder_that_the_environment_names(self, libraries):
        empty = libraries / "empty"
        empty.mkdir()
        assert f"{libraries}/libkzmshmnm.so.1" in run(USE, SHMNM_LIBRARY_PATH=f"{empty}{os.pathsep}{libraries}")

    def test_takes_the_system_s_library_otherwise(self, libraries):
        assert f"{libraries}/libkzmshmnm.so.1" in run(USE, LD_LIBRARY_PATH=str(libraries))

    def test_takes_the_library_beside_the_package_at_last(self, libraries):
        package = libraries / "site/shmnm"
        shutil.copytree(conftest.PACKAGE / "shmnm", package)
        for file in libraries.glob("*.so*"):
            shutil.copy(file, package / file.name)
        assert f"{package}/libkzmshmnm.so.1" in run(USE, PYTHONPATH=str(libraries / "site"))

    def test_an_error_lists_where_it_looked_and_what_to_do(self, tmp_path):
        said = run(USE, SHMNM_LIBRARY_PATH=str(tmp_path), expect=1)
        assert f"LibraryNotFound: cannot load libkzmshmnm.so.1; install it or set SHMNM_LIBRARY_PATH to its folder. Tried: {tmp_path}/libkzmshmnm.so.1: no such file" in said
        (tmp_path / "libkzmshmnm.so.1").write_text("no library")
        assert f"{tmp_path}/libkzmshmnm.so.1: {tmp_path}/libkzmshmnm.so.1: file too short" in run(USE, SHMNM_LIBRARY_PATH=str(tmp_path), expect=1)

    def test_a_library_without_the_functions_is_refused(self, libraries):
        shutil.copy(libraries / "libkzmutil.so", libraries / "libkzmshmnm.so.1")
        said = run(USE, SHMNM_LIBRARY_PATH=str(libraries), expect=1)
        assert "LibraryNotFound" in said and "has no function shmnm_create" in said

    def test_pictures_need_only_their_own_library(self, libraries):
        """As far as a copy needs no lock; a dump never does."""
        (libraries / "libkzmshmnm.so.1").unlink()
        said = run("import shmnm\ntry:\n    shmnm.snapshot(file='missing')\nexcept shmnm.PictureError as error:\n    print(error.result)", SHMNM_LIBRARY_PATH=str(libraries))
        assert said == "501\n"

    def test_refuses_another_folder_once_a_library_is_loaded(self, libraries):
        code = f"import shmnm\nwith shmnm.create():\n    pass\nshmnm.set_library_folder({str(libraries)!r})"
        assert "is loaded already" in run(code, SHMNM_LIBRARY_PATH=str(conftest.BIN), expect=1)

    def test_refuses_a_folder_that_does_not_exist(self, tmp_path):
        with pytest.raises(LibraryNotFound, match="no such folder"):
            set_library_folder(tmp_path / "missing")


class TestLoaderOnWindows:
    def test_the_same_places_have_the_names_of_dlls(self, fresh):
        beside = os.path.join(_loader.PACKAGE, "kzmshmnm.dll")
        assert _loader.candidates("kzmshmnm", windows=True) == ["kzmshmnm.dll", beside]
        fresh.setenv("SHMNM_LIBRARY_PATH", "/a")
        assert _loader.candidates("kzmshmnm", windows=True) == ["/a/kzmshmnm.dll"]

    def test_the_folder_is_added_before_the_dll_is_loaded_so_that_it_finds_its_companions(self, fresh, tmp_path):
        for name in ("kzmshmnm.dll", "shmnmpicture.dll"):
            (tmp_path / name).write_bytes(b"MZ")
        steps = []
        fresh.setattr(os, "add_dll_directory", lambda folder: steps.append(("folder", folder)), raising=False)
        set_library_folder(tmp_path)

        class Dll(ctypes.CDLL):
            def __init__(self, path):
                steps.append(("dll", path))

        _loader.load("kzmshmnm", Dll, windows=True)
        assert steps == [("folder", str(tmp_path)), ("dll", str(tmp_path / "kzmshmnm.dll"))]
        # The second handle of the same file needs no second folder.
        _loader.load("kzmshmnm", Dll, windows=True)
        assert steps[2:] == [("dll", str(tmp_path / "kzmshmnm.dll"))]

    def test_a_dll_of_the_system_s_paths_adds_no_folder(self, fresh):
        steps = []
        fresh.setattr(os, "add_dll_directory", lambda folder: steps.append(folder), raising=False)

        class Dll(ctypes.CDLL):
            def __init__(self, path):
                steps.append(path)

        _loader.load("kzmshmnm", Dll, windows=True)
        assert steps == ["kzmshmnm.dll"]

    def test_the_next_place_is_tried_when_a_dll_does_not_load(self, fresh):
        tried = []

        class Dll(ctypes.CDLL):
            def __init__(self, path):
                tried.append(path)
                raise OSError("not a DLL for this machine")

        with pytest.raises(LibraryNotFound, match="not a DLL for this machine"):
            _loader.load("kzmshmnm", Dll, windows=True)
        assert tried == ["kzmshmnm.dll"]

    def test_the_dlls_of_the_build_have_these_names(self):
        """The names in the project's own rules for Windows, where the build has no prefix "lib"."""
        assert _loader.file_name("kzmshmnm", windows=True) == "kzmshmnm.dll"
        text = (conftest.PROJECT / "cmake/compiler.cmake").read_text()
        assert 'PREFIX ""' in text
