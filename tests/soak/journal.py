"""What a process of the run has written down (journal.h), and how the region is compared with it."""
import mmap
import struct

ENTRIES, HAND_OVERS, TAKEOVERS = 16, 256, 64
FIELDS = ("pid", "state", "lives", "rounds", "sets", "lost", "kept", "undone", "attaches", "refused_attaches", "hand_overs", "is_filled")
FIRST_ENTRY = len(FIELDS)
FIRST_HAND_OVER = FIRST_ENTRY + 2 * ENTRIES
PROBLEM = 8 * (FIRST_HAND_OVER + HAND_OVERS)
SHARED_FIELDS = ("owner", "begun", "done", "released_ns", "takes", "overlaps", "takeovers")
PAUSED = 2


class Page:
    """A file that is shared with processes of the run."""

    def __init__(self, file, size, fields):
        self.file, self.fields = file, fields
        file.write_bytes(bytes(size))
        with open(file, "r+b") as opened:
            self.memory = mmap.mmap(opened.fileno(), size)

    def word(self, index):
        return struct.unpack_from("<Q", self.memory, 8 * index)[0]

    def __getitem__(self, field):
        return self.word(self.fields.index(field))


class Journal(Page):
    """The journal of one process, over all of its lives."""

    def __init__(self, file):
        super().__init__(file, PROBLEM + 256, FIELDS)
        self.keys, self.seen_hand_overs = [], 0

    def values(self):
        """Each key with the values that the region may have: of the last completed call and of the interrupted one."""
        return {key: {self.word(FIRST_ENTRY + 2 * i), self.word(FIRST_ENTRY + 2 * i + 1)} for i, key in enumerate(self.keys)} if self["is_filled"] else {}

    def new_hand_overs(self):
        """Nanoseconds from a release to the take by this process, which waited; those since the last time."""
        count = self["hand_overs"]
        first, self.seen_hand_overs = max(self.seen_hand_overs, count - HAND_OVERS), count
        return [self.word(FIRST_HAND_OVER + number % HAND_OVERS) for number in range(first, count)]

    @property
    def problem(self):
        return bytes(self.memory[PROBLEM:]).split(b"\0")[0].decode()


class SharedJournal(Page):
    """The journal of all processes of a region that take its lock."""

    def __init__(self, file):
        super().__init__(file, 8 * (len(SHARED_FIELDS) + 3 * TAKEOVERS), SHARED_FIELDS)

    def values(self):
        return {"cluster/waitstat": {self["begun"], self["done"]}}

    def takeovers(self):
        """Of each owner that was killed: when the next owner asked for the lock and when it got it."""
        first = len(SHARED_FIELDS)
        count = self["takeovers"]
        places = [number % TAKEOVERS for number in range(max(0, count - TAKEOVERS), count)]
        return {self.word(first + 3 * place): (self.word(first + 3 * place + 1), self.word(first + 3 * place + 2)) for place in places}


def differences(words, values):
    """What a region shows that its journals do not permit. A key of a record that is not there stands for 0, as the journal has it."""
    found = []
    for key, permitted in values.items():
        if key.endswith("/pri"):
            shown = 1 if key in words else 0
        else:
            shown = int(words[key]) if key in words else None
        if shown not in permitted:
            found.append(f"{key} is {shown}, and the journal has {' or '.join(map(str, sorted(permitted)))}")
    return found
