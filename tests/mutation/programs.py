"""Runs the test programs for scripts/mutate: some cases of a program at a time, with limits that a busy machine does not reach."""
import math
import os
import re
import resource
import select
import signal
import subprocess
import tempfile
import threading
import time

LEAST_PROCESSOR, LEAST_ASLEEP = 0.3, 1.0  # seconds that every run may take
MOST = 600  # seconds that a run without a mutant may take
POLL = 0.1
TICKS = os.sysconf('SC_CLK_TCK')


class Outcome:
    """How a run ended. `processor`: seconds of processor time; `asleep`: seconds in which all its threads slept; `output`: what it printed."""

    def __init__(self, passed, processor, asleep, output):
        self.passed, self.processor, self.asleep, self.output = passed, processor, asleep, output


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


def processor_seconds(process):
    """What the process, without its children, has used."""
    with open(f'/proc/{process}/stat', encoding='utf-8', errors='replace') as file:
        fields = file.read().rpartition(') ')[2].split()
    return (int(fields[11]) + int(fields[12])) / TICKS


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
    output = tempfile.TemporaryFile()
    process = subprocess.Popen(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    slept, handle, used = 0.0, os.pidfd_open(process.pid), 0.0
    try:
        # Ends its children too, which inherit it.
        resource.prlimit(process.pid, resource.RLIMIT_CPU, (math.ceil(processor), math.ceil(processor)))
        resource.prlimit(process.pid, resource.RLIMIT_CORE, (0, 0))
    except ProcessLookupError:
        pass
    ended = select.poll()
    ended.register(handle, select.POLLIN)
    last = time.monotonic()
    while slept <= asleep and used <= processor and not ended.poll(POLL * 1000):
        before, used = used, processor_seconds(process.pid)
        now = time.monotonic()
        if used == before and all_sleep(family(process.pid)):
            # This process may have waited for a processor too: no longer than the pause that it asked for counts.
            slept += min(now - last, 2 * POLL)
        last = now
    in_time = slept <= asleep and used <= processor
    if not in_time:
        for one in family(process.pid):
            kill(os.kill, one)
    # Its children too: a mutant may leave them waiting. The search costs more than many a run; who passes has waited for its children.
    if os.waitid(os.P_PIDFD, handle, os.WEXITED | os.WNOWAIT).si_status != 0:
        for one in family(process.pid) - {process.pid}:
            kill(os.kill, one)
    kill(os.killpg, process.pid)
    os.close(handle)
    _, status, used = os.wait4(process.pid, 0)
    process.returncode = status
    with output:
        output.seek(0)
        return Outcome(in_time and status == 0, used.ru_utime + used.ru_stime, slept, output.read().decode(errors='replace'))


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
        self.recording = threading.Lock()
        self.made_of = ''  # names the program and the libraries that it tests
        self.cost = {}  # of each case, run alone: seconds of processor time and of sleep
        self.runs = {}  # of each case: the mutants that it runs

    def cases(self):
        done = subprocess.run([*self.command, '--gtest_list_tests'], cwd=self.folder, env={**os.environ, **self.environment},
                              capture_output=True, check=True)
        # A comment shows the argument of a case, in any bytes.
        return listed_cases(done.stdout.decode(errors='replace'))

    def run(self, cases, processor, asleep, **environment):
        surroundings = {**os.environ, **self.environment, **environment, 'GTEST_FILTER': ':'.join(cases), 'GTEST_FAIL_FAST': '1'}
        with self.lock:
            return run(self.command, self.folder, surroundings, processor, asleep)

    def limits(self, cases):
        """With a mutant the cases may use five times the processor time, and sleep three times as long."""
        processor, asleep = (sum(self.cost[case][one] for case in cases) for one in (0, 1))
        return LEAST_PROCESSOR + 5 * processor, LEAST_ASLEEP + 3 * asleep

    def meet(self, cases, number):
        """Runs the cases with the mutant."""
        return self.run(cases, *self.limits(cases), SHMNM_MUTANT=str(number))

    def fails_alone(self, case, number):
        outcome, (processor, asleep) = self.meet([case], number), self.limits([case])
        if outcome.passed or (outcome.processor <= processor and outcome.asleep <= asleep):
            return not outcome.passed
        # On a busy machine the same work may use more than when it was recorded.
        now = self.run([case], MOST, MOST)
        self.cost[case] = [max(pair) for pair in zip(self.cost[case], (now.processor, now.asleep))]
        return not self.meet([case], number).passed

    def fails(self, cases, number):
        """Whether a case fails with the mutant."""
        outcome = self.meet(cases, number)
        if outcome.passed:
            return False
        # It counts if one case fails again, alone: what passes alone may fail after others, or now and then, without a mutant too.
        last = last_case(outcome.output, cases)
        return any(self.fails_alone(case, number) for case in sorted(cases, key=lambda one: one != last))


def last_case(output, cases):
    """The case that a program ran last."""
    begun = re.findall(r'^\[ RUN      \] (\S+)', output, re.M)
    return next((one for one in reversed(begun) if one in cases), None)


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
        cost = {case: sum(program.cost[case]) for case in mine}
        for group in groups(mine, cost, 0.1):
            plan.append((sum(cost[case] for case in group), program.name != stem, program, group))
    if not plan:
        return None
    # The subject's own test first, where it is quick.
    for _, _, program, group in sorted(plan, key=lambda one: (one[0] > 0.5, one[1], one[0], one[2].name)):
        if program.fails(group, number):
            return program.name
    return ''
