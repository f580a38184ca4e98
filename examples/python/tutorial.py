"""Attaches to the cluster's picture, marks this server as alive, and lists all servers with their states.

    tutorial.py SERVER
"""

import sys

import shmnm


def main() -> int:
    if len(sys.argv) != 2:
        print("usage: tutorial.py SERVER", file=sys.stderr)
        return 2
    try:
        # Another process has created the region; this process joins it until the end of the block.
        with shmnm.attach() as region:
            # Other processes must not see a change half done, so it is made under the lock. Five seconds are plenty: no
            # process holds the lock for even a millisecond.
            with region.lock(timeout=5):
                region.servers[sys.argv[1]].nodestat = shmnm.State.ALIVE
                states = {name: server.nodestat for name, server in region.servers.items()}
    except shmnm.NotFound:
        print(f'unknown server "{shmnm.escaped(sys.argv[1])}"', file=sys.stderr)
        return 1
    except shmnm.Error as error:
        print(error, file=sys.stderr)
        return 1
    for name, state in states.items():
        print(f"{shmnm.escaped(name)}: {state}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
