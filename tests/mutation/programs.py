"""Runs the test programs for scripts/mutate: some cases of a program at a time, with limits that a busy machine does not reach."""
import math
import os
import re
import resource
import select
import signal
import subprocess
import threading
import time

LEAST = 1.0  # seconds of processor time, and of sleep, that every run may take
POLL = 0.2


class Outcome:
    """How a run ended. `processor`: seconds of processor time; `asleep`: seconds in which all its threads slept."""

    def __init__(self, passed, processor, asleep):
        self.passed, self.processor, self.asleep = passed, processor, asleep


def family(leader):
    """The processes of the leader's session, and their children in sessions of their own."""
    found = {}
    for name in os.listdir('/proc'):
        if name.isdigit():
            try:
                with open(f'/proc/{name}/stat', encoding='utf-8', errors='replace') as file:
                    fields = file.read().rpartition(') ')[2].split()
            except OSError:
                continue
            found[int(name)] = (int(fields[1]), int(fields[3]))
    members = {one for one, (_, session) in found.items() if session == leader}
    while more := {one for one, (parent, _) in found.items() if parent in members} - members:
        members |= more
    return members


def all_sleep(processes):
    """Whether no thread of the processes runs or could run. A thread that waits for a busy processor does not sleep."""
    for process in processes:
        try:
            for thread in os.listdir(f'/proc/{process}/task'):
                with open(f'/proc/{process}/task/{thread}/stat', encoding='utf-8', errors='replace') as file:
                    if file.read().rpartition(') ')[2][0] in 'RD':
                        return False
        except OSError:
            continue
    return True


def run(command, folder, environment, processor, asleep):
    """Runs the command. It fails if a process uses more seconds of processor time than allowed, or if all sleep longer than allowed."""
    process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, start_new_session=True)
    seconds = math.ceil(processor)
    slept, handle = 0.0, os.pidfd_open(process.pid)
    try:
        resource.prlimit(process.pid, resource.RLIMIT_CPU, (seconds, seconds))
        resource.prlimit(process.pid, resource.RLIMIT_CORE, (0, 0))
    except ProcessLookupError:
        pass
    ended = select.poll()
    ended.register(handle, select.POLLIN)
    last = time.monotonic()
    while not ended.poll(POLL * 1000):
        members = family(process.pid)
        now = time.monotonic()
        if all_sleep(members):
            # This process may have waited for a processor too: no longer than the pause that it asked for counts.
            slept += min(now - last, 2 * POLL)
        last = now
        if slept > asleep:
            break
    in_time = slept <= asleep
    if not in_time:
        for one in family(process.pid):
            kill(os.kill, one)
    os.waitid(os.P_PIDFD, handle, os.WEXITED | os.WNOWAIT)
    # Its children too: a mutant may leave them waiting.
    for one in family(process.pid) - {process.pid}:
        kill(os.kill, one)
    kill(os.killpg, process.pid)
    os.close(handle)
    _, status, used = os.wait4(process.pid, 0)
    process.returncode = status
    return Outcome(in_time and status == 0, used.ru_utime + used.ru_stime, slept)


def kill(how, number):
    try:
        how(number, signal.SIGKILL)
    except (ProcessLookupError, PermissionError):
        pass


class Program:
    """A GoogleTest program that ctest knows."""

    def __init__(self, entry, build):
        self.name, self.command = entry['name'], entry['command']
        properties = {one['name']: one['value'] for one in entry.get('properties', [])}
        self.folder = properties.get('WORKING_DIRECTORY', build)
        self.environment = dict(one.split('=', 1) for one in properties.get('ENVIRONMENT', []))
        self.lock = threading.Lock()  # two runs of one program may use the same folder and names
        self.cost = {}  # of each case, run alone: seconds
        self.runs = {}  # of each case: the mutants that it runs
        self.checked = {}  # of each group of cases: how it ended without a mutant

    def cases(self):
        done = subprocess.run([*self.command, '--gtest_list_tests'], cwd=self.folder, env={**os.environ, **self.environment},
                              capture_output=True, text=True, check=True)
        return listed_cases(done.stdout)

    def run(self, cases, processor, asleep, **environment):
        surroundings = {**os.environ, **self.environment, **environment, 'GTEST_FILTER': ':'.join(cases), 'GTEST_FAIL_FAST': '1', 'GTEST_BRIEF': '1'}
        with self.lock:
            return run(self.command, self.folder, surroundings, processor, asleep)

    def check(self, cases):
        """Runs the cases without a mutant, once: what passes alone may fail after others."""
        key = tuple(cases)
        if key not in self.checked:
            self.checked[key] = self.run(cases, 600, 600)
        return self.checked[key]

    def fails(self, cases, number):
        """Whether a case fails, takes ten times as long or sleeps three times as long with the mutant; None if one fails without it."""
        plain = self.check(cases)
        if not plain.passed:
            return None
        return not self.run(cases, LEAST + 10 * plain.processor, LEAST + 3 * plain.asleep, SHMNM_MUTANT=str(number)).passed


def listed_cases(text):
    """The names of the cases from what --gtest_list_tests prints."""
    cases, suite = [], ''
    for line in text.splitlines():
        name = line.split('#')[0].rstrip()
        if not name or not re.fullmatch(r'\s*[\w./]+', name):
            continue
        if name[0] != ' ':
            suite = name
        elif not name.strip().startswith('DISABLED_'):
            cases.append(suite + name.strip())
    return cases


def groups(cases, cost, most):
    """The cases, quickest first, in groups that together cost `most` seconds, each twice as much as the group before it."""
    made, sum_of_last = [], math.inf
    for case in sorted(cases, key=lambda one: (cost[one], one)):
        if sum_of_last + cost[case] > most:
            if made:
                most *= 2
            made.append([])
            sum_of_last = 0.0
        made[-1].append(case)
        sum_of_last += cost[case]
    return made


def killer(programs, stem, number):
    """The name of the case or program that fails with the mutant, '' if none does, None if no case runs it."""
    plan = []
    for program in programs:
        mine = [case for case, runs in program.runs.items() if number in runs]
        for group in groups(mine, program.cost, 0.1):
            plan.append((sum(program.cost[case] for case in group), program.name != stem, program, group))
    if not plan:
        return None
    # The subject's own test first, where it is quick.
    for _, _, program, group in sorted(plan, key=lambda one: (one[0] > 0.5, one[1], one[0], one[2].name)):
        answer = program.fails(group, number)
        if answer is None:
            answer = any(program.fails([case], number) for case in group)
        if answer:
            return program.name
    return ''
