"""Checks how scripts/mutate runs the tests: which cases meet a mutant, in which order, and when one counts as failed."""
import os
import select
import subprocess
import sys
import tempfile
import unittest

FOLDER = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, FOLDER)
import programs  # noqa: E402

# Behaves as a GoogleTest program: case Kills.Seven fails with mutant 7, Never.Together fails after another case,
# Once.Fails the first time. Slow.Now takes much processor time, and with mutant 7 no end of it.
PROGRAM = r'''#!/bin/sh
[ "$1" != --gtest_list_tests ] || { printf 'Kills.\n  Seven\n  DISABLED_Eight\nSome/Kills.\n  Other/0  # GetParam() = 3\nNever.\n  Together\n'; exit; }
echo "$SHMNM_MUTANT $GTEST_FILTER" >>"$0.runs"
echo "[ RUN      ] ${GTEST_FILTER##*:}"
case "$GTEST_FILTER" in *:Never.Together | Never.Together:*) exit 1 ;; esac
[ "$GTEST_FILTER" != Once.Fails ] || [ -e "$0.once" ] || { : >"$0.once"; exit 1; }
case "$SHMNM_MUTANT $GTEST_FILTER" in "7 "*Kills.Seven*) exit 1 ;; "7 Slow.Now") while :; do :; done ;; esac
[ "$GTEST_FILTER" != Slow.Now ] || { i=0; while [ $i -lt 250000 ]; do i=$((i + 1)); done; }
'''


def run(script, processor=20, asleep=20, folder='/'):
    return programs.run(['sh', '-c', script], folder, dict(os.environ), processor, asleep)


class Runs(unittest.TestCase):
    def test_a_run_passes_or_fails_as_its_program(self):
        self.assertTrue(run('exit 0').passed)
        self.assertFalse(run('exit 1').passed)
        self.assertFalse(run('kill -SEGV $$').passed)

    def test_an_endless_loop_ends_at_the_limit_of_processor_time(self):
        outcome = run('while :; do :; done', processor=1)
        self.assertFalse(outcome.passed)
        self.assertLess(outcome.processor, 1.9)

    def test_an_endless_wait_ends_with_all_its_processes(self):
        with tempfile.TemporaryDirectory() as folder:
            self.assertFalse(run('setsid sleep 1000 & echo $! >child; sleep 1000', asleep=0.5, folder=folder).passed)
            with open(os.path.join(folder, 'child'), encoding='utf-8') as file:
                child = file.read().strip()
        try:
            handle = os.pidfd_open(int(child))
        except ProcessLookupError:
            return
        # A killed process may have to wait for a processor to end.
        ended, _, _ = select.select([handle], [], [], 60)
        os.close(handle)
        self.assertTrue(ended)

    def test_sleep_and_processor_time_are_measured(self):
        self.assertGreaterEqual(run('sleep 1').asleep, 0.4)
        self.assertGreater(run('i=0; while [ $i -lt 30000 ]; do i=$((i + 1)); done').processor, 0)

    def test_only_a_program_whose_threads_all_sleep_is_asleep(self):
        self.assertFalse(programs.all_sleep([os.getpid()]))
        with subprocess.Popen(['cat'], stdin=subprocess.PIPE) as sleeper:
            while not programs.all_sleep([sleeper.pid]):
                pass
            self.assertFalse(programs.all_sleep([sleeper.pid, os.getpid()]))
            self.assertIn(sleeper.pid, programs.family(os.getsid(0)))
            sleeper.stdin.close()


class Order(unittest.TestCase):
    def test_groups_hold_the_quick_cases_first_and_double(self):
        cost = {'a': 0.06, 'b': 0.01, 'c': 0.02, 'd': 0.9, 'e': 0.12, 'f': 0.05}
        self.assertEqual(programs.groups('abcdef', cost, 0.1), [['b', 'c', 'f'], ['a', 'e'], ['d']])
        self.assertEqual(programs.groups('', cost, 0.1), [])


class Cases(unittest.TestCase):
    def setUp(self):
        self.temporary = tempfile.TemporaryDirectory()
        self.addCleanup(self.temporary.cleanup)
        path = os.path.join(self.temporary.name, 'program')
        with open(path, 'w', encoding='utf-8') as file:
            file.write(PROGRAM)
        os.chmod(path, 0o755)
        self.program = programs.Program({'name': 'kills', 'command': [path]}, self.temporary.name)
        self.program.cost = {'Kills.Seven': (0.01, 0.01), 'Some/Kills.Other/0': (0.01, 0), 'Never.Together': (0.03, 0), 'Once.Fails': (0.01, 0),
                             'Slow.Now': (0.01, 0)}

    def runs(self):
        with open(self.program.command[0] + '.runs', encoding='utf-8') as file:
            return file.read().splitlines()

    def test_a_program_lists_its_cases(self):
        self.assertEqual(self.program.cases(), ['Kills.Seven', 'Some/Kills.Other/0', 'Never.Together'])

    def test_a_mutant_meets_only_the_cases_that_run_it(self):
        self.program.runs = {'Kills.Seven': {7, 8}, 'Some/Kills.Other/0': {7}, 'Never.Together': {9}}
        self.assertEqual(programs.killer([self.program], 'kills', 7), 'kills')
        self.assertEqual(programs.killer([self.program], 'kills', 8), '')
        self.assertIsNone(programs.killer([self.program], 'kills', 10))
        self.assertEqual(self.runs(), ['7 Some/Kills.Other/0:Kills.Seven', '7 Kills.Seven', '8 Kills.Seven'])

    def test_a_group_that_fails_without_a_mutant_proves_nothing(self):
        self.program.runs = {'Kills.Seven': {7}, 'Some/Kills.Other/0': {8}, 'Never.Together': {7, 8}}
        self.assertEqual(programs.killer([self.program], 'kills', 8), '')
        self.assertEqual(self.runs(), ['8 Some/Kills.Other/0:Never.Together', '8 Never.Together', '8 Some/Kills.Other/0'])
        self.assertEqual(programs.killer([self.program], 'kills', 7), 'kills')

    def test_a_failure_that_does_not_come_again_proves_nothing(self):
        self.program.runs = {'Once.Fails': {9}}
        self.assertEqual(programs.killer([self.program], 'kills', 9), '')
        self.assertEqual(self.runs(), ['9 Once.Fails', '9 Once.Fails'])

    def test_a_limit_that_the_case_exceeds_without_the_mutant_too_proves_nothing(self):
        least, programs.LEAST_PROCESSOR = programs.LEAST_PROCESSOR, 0
        self.addCleanup(setattr, programs, 'LEAST_PROCESSOR', least)
        self.program.runs = {'Slow.Now': {7, 8}}
        for number, killer in (7, 'kills'), (8, ''):
            self.program.cost['Slow.Now'] = (0.01, 0)
            self.assertEqual(programs.killer([self.program], 'kills', number), killer)
            self.assertEqual(self.runs()[-4:], [f'{number} Slow.Now', f'{number} Slow.Now', ' Slow.Now', f'{number} Slow.Now'])

    def test_the_case_that_ran_last_is_tried_again(self):
        printed = '[ RUN      ] A.B\n[       OK ] A.B (0 ms)\n[ RUN      ] A.C/1\n[ RUN      ] In.AChild\n'
        self.assertEqual(programs.last_case(printed, ['A.B', 'A.C/1']), 'A.C/1')
        self.assertIsNone(programs.last_case('', ['A.B']))


if __name__ == '__main__':
    unittest.main()
