"""One random sequence of calls with failing companions answers the same natively and as a Windows program.

    same_answers_test.py WINDOWS_PROGRAM [CALLS [SEED]]

The native program is built if it is not up to date. Both write a digest per block of calls; a block whose digests differ is run
again in full, and the first line that differs is shown with its call.
"""
import itertools
import os
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
NATIVE = ROOT / "build/linux-release/fakes/same_answers"
WINDOWS = sys.argv[1]
CALLS = int(sys.argv[2]) if len(sys.argv) > 2 else 100_000
SEED = int(sys.argv[3]) if len(sys.argv) > 3 else 20261122
FUNCTIONS = set(re.findall(r"^SHMNM_API \w+ shmnm_(\w+)\(", (ROOT / "src/windows/server/library/shmnm/include/shmnm.h").read_text(), re.M))


def build_native():
    for command in (["cmake", "--preset", "linux-release"], ["cmake", "--build", "--preset", "linux-release", "--target", "same_answers"]):
        built = subprocess.run(command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if built.returncode != 0:
            raise RuntimeError(f"{' '.join(command)} failed:\n{built.stdout[-3000:]}")


def start(program, calls, *options):
    command = [ROOT / "scripts/wine", program] if program == WINDOWS else [program]
    # Each run has kernel objects of its own.
    environment = {name: value for name, value in os.environ.items() if name != "KZMUTIL_NAMESPACE"}
    return subprocess.Popen([*command, str(SEED), str(calls), *options], env=environment, stdout=subprocess.PIPE, text=True)


def records(calls, *options, windows_options=()):
    """The lines that both programs write, natively and under wine; both run at the same time."""
    native, windows = start(NATIVE, calls, *options), start(WINDOWS, calls, *options, *windows_options)
    lines = [running.communicate()[0].splitlines() for running in (native, windows)]
    if native.returncode != 0 or windows.returncode != 0:
        raise RuntimeError(f"the programs ended with {native.returncode} and {windows.returncode}")
    return lines


def first_difference(native, windows, calls, **how):
    """The first difference of both records, as text; None if they are the same."""
    for left, right in itertools.zip_longest(native, windows):
        if left == right:
            continue
        if not (left and left.startswith("block ")):
            return f"native:  {left}\nWindows: {right}"
        block = left.split()[1]
        native, windows = records(calls, "--show", block, **how)
        call = "no call"
        for shown, other in itertools.zip_longest(native, windows):
            if shown and shown.startswith("  call "):
                call = shown.strip()
            if shown != other:
                return f"in block {block}, {call}\nnative:  {shown}\nWindows: {other}"
        return f"block {block} differed, but not when it was run again"
    return None


class SameAnswers(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        build_native()
        cls.native, cls.windows = records(CALLS)

    def test_both_platforms_give_the_same_answers(self):
        self.assertEqual(sum(line.startswith("block ") for line in self.native), CALLS // 1000)
        self.assertIsNone(first_difference(self.native, self.windows, CALLS), f"seed {SEED}")

    def test_the_sequence_has_every_function_result_and_failure(self):
        self.assertEqual(len(FUNCTIONS), 91)
        counted = {kind: {} for kind in ("calls", "failures", "results")}
        for line in self.native:
            kind, *_, name, count = line.split()
            if kind in counted:
                counted[kind][name] = int(count)
        self.assertEqual(set(counted["calls"]), FUNCTIONS)
        for name, count in counted["calls"].items():
            self.assertGreater(count, 0, name)
        # 18 is not a result, and 19 stays inside the library.
        self.assertEqual({int(result) for result in counted["results"]}, set(range(18)))
        for failure in ("KzmutilCreateNamedFileMapping", "KzmutilOpenNamedFileMapping", "KzmutilGetInstallPath(1024)", "MapViewOfFile",
                        "kzmlog_open", "kzmlog_close(log)", "xmllib_init(shmnm)", "xmllib_load_config(0)", "xmllib_unload_config()",
                        "xmllib_term()", "xmllib_load_policy(all)", "xmllib_unload_policy(shmnm)"):
            self.assertGreater(counted["failures"].get(failure, 0), 0, failure)

    def test_a_difference_is_found_at_its_call(self):
        how = {"windows_options": ("--differ", "4321")}
        found = first_difference(*records(6000, **how), 6000, **how)
        self.assertIsNotNone(found)
        self.assertRegex(found, r"^in block 4, call 4321 shmnm_\w+ ")
        self.assertIn("native:    outputs", found)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
