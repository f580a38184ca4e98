"""scripts/wine: what it adds to wine for the tests of Windows programs."""
import os
import pathlib
import resource
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

    def test_the_server_may_have_as_many_descriptors_as_the_system_allows(self):
        # It has one for each socket of each program, and keeps the limit that it was started with.
        _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
        with tempfile.TemporaryDirectory() as folder:
            prefix, server = pathlib.Path(folder), pathlib.Path(folder) / "server"
            (prefix / ".ready").touch()
            server.write_text(f"#!/bin/sh\nulimit -S -n >{prefix}/limit\nexit 2\n")
            server.chmod(0o755)
            subprocess.run([WINE], env={**os.environ, "WINE": "/bin/true", "WINESERVER": str(server), "SHMNM_WINEPREFIX": folder}, check=True,
                           preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (256, most)))
            limit = (prefix / "limit").read_text().strip()
        self.assertEqual(limit, "unlimited" if most == resource.RLIM_INFINITY else str(most))


if __name__ == "__main__":
    unittest.main()
