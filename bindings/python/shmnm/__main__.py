"""Prints the picture: python -m shmnm [--json] [--file FILE | --from ADDRESS]"""

from __future__ import annotations

import argparse
import sys
from typing import Iterable, List, Optional, Sequence

from ._errors import Error, NoPicture, PictureLockTimeout
from ._picture import Picture
from ._snapshot import ResourcePicture, Snapshot
from ._text import escaped


def _table(rows: Iterable[Sequence[object]]) -> List[str]:
    """Lines with a left column of names and right columns of numbers."""
    texts = [[str(cell) for cell in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*texts)]
    return [
        " ".join([row[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(row[1:], widths[1:]))]).rstrip()
        for row in texts
    ]


def _resources(kind: str, resources: Sequence[ResourcePicture], servers: Sequence[str]) -> List[str]:
    rows: List[List[object]] = [[kind, "pri", "stat", *servers]]
    for resource in resources:
        rows.append([f"{escaped(resource.type)}/{escaped(resource.name)}", resource.pri, resource.stat, *resource.svstat])
        if resource.network is not None:
            rows.append(["  network", "", "", *resource.network])
    return _table(rows)


def text(snapshot: Snapshot) -> str:
    """The picture as people read it. Names are escaped, so nothing in the region can reach the terminal raw."""
    region, cluster = snapshot.region, snapshot.cluster
    words = (f"{name} {int(value)}" for name, value in vars(cluster).items() if name != "alive")
    failed = " ".join(map(escaped, snapshot.simulation.failed))
    lines = [
        f"cluster     {'  '.join(words)}  alive {'yes' if cluster.alive else 'no'}",
        f"in use      servers {region.server_count} of {region.max_servers}  hb {region.hb_count} of {region.max_hb}  "
        f"np {region.np_count} of {region.max_np}  process ids {region.fst_pid_count} of {region.fst_pid_limit}",
        f"simulation  {f'on  failed {failed}'.rstrip() if snapshot.simulation.dfailstatus else 'off'}",
    ]
    lines += [f"interrupted process {each.process} was killed while it {each.change}" for each in snapshot.interrupted]
    servers = [escaped(server.name) for server in snapshot.servers]
    if servers:
        heading = ("server", "pri", "node", "node_nw", "downnotify", "isolate", "ping", "hold", "comb", "alive")
        rows: List[Sequence[object]] = [heading]
        for name, server in zip(servers, snapshot.servers):
            combined = "none" if server.combstat is None else int(server.combstat)
            rows.append(
                (
                    name, server.pri, server.nodestat, server.nodestat_nw, server.downnotifystat, server.isolateflag,
                    server.pingstat, server.holdstat, combined, "yes" if server.alive else "no",
                )  # fmt: skip
            )
        lines += ["", *_table(rows)]
    for kind, resources in (("hb", snapshot.hb), ("np", snapshot.np)):
        if resources:
            lines += ["", *_resources(kind, resources, servers)]
    if snapshot.fst.stat is not None:
        lines += ["", f"fst         stat {snapshot.fst.stat}"]
    if snapshot.fst.pids:
        ids: List[Sequence[object]] = [("process ids", "0", "1", "2", "data 0", "data 1", "data 2")]
        ids += [(escaped(each.name), *each.pid, *each.piddata) for each in snapshot.fst.pids]
        lines += _table(ids)
    return "\n".join(lines) + "\n"


def main(arguments: Optional[Sequence[str]] = None) -> int:
    """Prints the picture. Ends as shmnmctl does: 0, 2 wrong usage, 3 no region, 4 no lock in time, 5 failed."""
    parser = argparse.ArgumentParser(prog="python -m shmnm", description="Prints the picture of the cluster.")
    parser.add_argument("--json", action="store_true", help='the document of "shmnmctl status --format json"')
    source = parser.add_mutually_exclusive_group()
    source.add_argument("--file", metavar="FILE", help="a dump, instead of this machine's region")
    source.add_argument("--from", metavar="ADDRESS", dest="address", help="a server of shmnmweb: unix:PATH or http://HOST:PORT")
    options = parser.parse_args(arguments)
    try:
        with Picture(file=options.file, address=options.address) as picture:
            warning = picture.warning()
            shown = picture.json() if options.json else text(picture.snapshot())
    except Error as error:
        print(f"shmnm: {error}", file=sys.stderr)
        return 3 if isinstance(error, NoPicture) else 4 if isinstance(error, PictureLockTimeout) else 5
    if warning:
        print(f"shmnm: warning: {warning}", file=sys.stderr)
    sys.stdout.write(shown)
    sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
