"""Makes the packages of a build, which the other tests of the packages share.

    pack.py BUILD
"""
import pathlib
import shutil
import subprocess
import sys

build = pathlib.Path(sys.argv[1])
shutil.rmtree(build / "package/packed", ignore_errors=True)
sys.exit(subprocess.run(["cpack", "--config", build / "CPackConfig.cmake", "-B", build / "package/packed"]).returncode)
