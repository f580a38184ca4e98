"""Builds the wheel, and unpacks it beside: make_wheel.py FOLDER EPOCH

FOLDER receives the wheel and the folder `site`, in which it is unpacked. Two runs make the same bytes: every time in the wheel is
EPOCH (seconds since 1970), and the mode of a file does not depend on the umask or on where the source is.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import zipfile

SOURCE = pathlib.Path(__file__).resolve().parent


def main():
    folder, epoch = pathlib.Path(sys.argv[1]).resolve(), sys.argv[2]
    os.umask(0o022)
    shutil.rmtree(folder, ignore_errors=True)
    # The build leaves files beside the source, so it gets a copy.
    source = folder / "source"
    (source / "shmnm").mkdir(parents=True)
    for file in (*SOURCE.glob("*.toml"), *SOURCE.glob("*.md"), *SOURCE.glob("shmnm/*.py"), SOURCE / "shmnm/py.typed"):
        copy = source / file.relative_to(SOURCE)
        copy.write_bytes(file.read_bytes())
        copy.chmod(0o644)
    environment = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    done = subprocess.run(
        [sys.executable, "-m", "build", "--no-isolation", "--wheel", "--outdir", folder, source],
        env=environment | {"SOURCE_DATE_EPOCH": epoch},
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
    )
    if done.returncode != 0:
        sys.exit(f"{done.stdout}\nmake_wheel.py: cannot build the wheel; scripts/install-dependencies installs what it needs")
    shutil.rmtree(source)
    (wheel,) = folder.glob("*.whl")
    with zipfile.ZipFile(wheel) as archive:
        archive.extractall(folder / "site")
    # The list of files is pip's, and dpkg has its own.
    for record in folder.glob("site/*.dist-info/RECORD"):
        record.unlink()


if __name__ == "__main__":
    main()
