"""scripts/wine: what it adds to wine for the tests of Windows programs."""
import os
import pathlib
import subprocess
import tempfile
import unittest

WINE = pathlib.Path(__file__).resolve().parent.parent / "scripts/wine"
LATE_END = '#include <unistd.h>\n__attribute__((destructor)) static void end_late(void) { usleep(2000000); }\n'


class Wine(unittest.TestCase):
    def test_a_program_whose_end_takes_seconds_still_tells_its_exit_code(self):
        with tempfile.TemporaryDirectory() as folder:
            library, loader = pathlib.Path(folder) / "late_end.so", pathlib.Path(folder) / "wine"
            subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", library], input=LATE_END, text=True, check=True)
            loader.write_text(f'#!/bin/sh\nLD_PRELOAD={library} exec {os.environ.get("WINE", "/usr/lib/wine/wine64")} "$@"\n')
            loader.chmod(0o755)
            subprocess.run([WINE, "cmd", "/c", "exit 0"], check=True)
            ended = subprocess.run([WINE, "cmd", "/c", "exit 3"], env={**os.environ, "WINE": str(loader)})
        self.assertEqual(ended.returncode, 3)


if __name__ == "__main__":
    unittest.main()
