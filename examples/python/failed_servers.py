"""Prints a line whenever a server stops or begins to be alive, until Ctrl-C. Other processes do not notice it: it holds no
region and takes no lock.

    failed_servers.py
"""

import sys

import shmnm


def main() -> int:
    alive = None
    try:
        for event in shmnm.watch():
            now = set() if event.snapshot is None else {server.name for server in event.snapshot.servers if server.alive}
            if alive is None:
                print(f"alive: {' '.join(sorted(map(shmnm.escaped, now)))}", flush=True)
            else:
                for name in sorted(alive ^ now):
                    print(f"{shmnm.escaped(name)} is {'alive' if name in now else 'not alive'}", flush=True)
            alive = now
    except KeyboardInterrupt:
        return 0
    except shmnm.Error as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
