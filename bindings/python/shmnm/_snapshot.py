"""A whole picture as frozen dataclasses, made from the document that `shmnmctl status --format json` prints."""

from __future__ import annotations

import json
from dataclasses import dataclass
from typing import Any, Dict, Iterator, Mapping, Optional, Tuple

from ._enumeration import Number
from ._servers import CombinedState
from ._text import escaped, unescaped, unescaped_bytes

Words = Dict[str, Optional[int]]


@dataclass(frozen=True)
class RegionPicture:
    """The region: its size in bytes and the counts of its header. A damaged header can hold negative counts."""

    live: bool
    size: int
    max_servers: int
    max_hb: int
    max_np: int
    fst_count: int
    fst_pid_limit: int
    server_count: int
    hb_count: int
    np_count: int
    fst_pid_count: int


@dataclass(frozen=True)
class ClusterPicture:
    """The words of the whole cluster. `alive`: any server has nodestat 1."""

    waitstat: int
    bwflag: int
    bwflagdisk: int
    clstat: int
    hbinfo_a: int
    hbinfo_b: int
    alive: bool


@dataclass(frozen=True)
class ServerPicture:
    """A server. `combstat` is None for a server that has no combined state."""

    name: str
    pri: int
    nodestat: int
    nodestat_nw: int
    downnotifystat: int
    isolateflag: int
    pingstat: int
    holdstat: int
    dfailstatus: int
    combstat: Optional[CombinedState]
    alive: bool


@dataclass(frozen=True)
class ResourcePicture:
    """An hb or np resource. Its rows have one word per server, by position; np resources have no row `network`.

    `descript` is without the zeros at its end.
    """

    type: str
    name: str
    pri: int
    stat: int
    descript: bytes
    svstat: Tuple[int, ...]
    network: Optional[Tuple[int, ...]] = None


@dataclass(frozen=True)
class SimulationPicture:
    """The simulated network partition: the cluster's word and the names of the servers that are simulated as failed."""

    dfailstatus: int
    failed: Tuple[str, ...]


@dataclass(frozen=True)
class ProcessIdPicture:
    """The process ids of a name, and the 64-bit values beside them: one of each per kind."""

    name: str
    pid: Tuple[int, int, int]
    piddata: Tuple[int, int, int]


@dataclass(frozen=True)
class FstPicture:
    """The fst resource. State and description are None in a region without one."""

    stat: Optional[int]
    descript: Optional[bytes]
    pids: Tuple[ProcessIdPicture, ...]


@dataclass(frozen=True)
class InterruptedChange:
    """A change that a killed process left half done (Linux); `shmnmctl repair` completes it."""

    process: int
    call: str
    change: str
    superseded: bool


class Freshness(Number):
    """What the bridge says of another server's words in this region."""

    UNKNOWN = 0
    FRESH = 1
    SILENT = 2


@dataclass(frozen=True)
class MarkPicture:
    """The bridge's mark of another server. Its words here are at most `age_ms` old; None: not known.

    `address` is where that machine's picture is served, or empty.
    """

    name: str
    freshness: Freshness
    age_ms: Optional[int]
    revision: int
    address: str
    claimed: bool
    unmatched: bool
    duplicate_priority: bool
    other_names: bool
    other_times: bool


@dataclass(frozen=True)
class ProposalsPicture:
    """Changes of agreed words that were proposed to all machines, and what became of them."""

    proposed: int
    accepted: int
    lost: int
    replaced: int


@dataclass(frozen=True)
class BridgePicture:
    """The bridge between machines, as it was just before the copy of the region.

    `stopped_ms` says for how long a bridge has stood still; None: it has not. `contested` and `unmatched` are keys,
    `left_out` is how many more of them there are, and `lost_servers` how many servers have no mark for want of room.
    """

    up: bool
    stopped_ms: Optional[int]
    connected: bool
    running: bool
    refused: bool
    fed: bool
    cluster: str
    server: str
    member: str
    proposals: ProposalsPicture
    contested: Tuple[str, ...]
    unmatched: Tuple[str, ...]
    left_out: int
    lost_servers: int
    servers: Tuple[MarkPicture, ...]


@dataclass(frozen=True)
class Snapshot:
    """The picture at one moment. All tables are in order of position. `bridge` is None in a dump."""

    region: RegionPicture
    cluster: ClusterPicture
    servers: Tuple[ServerPicture, ...]
    hb: Tuple[ResourcePicture, ...]
    np: Tuple[ResourcePicture, ...]
    simulation: SimulationPicture
    fst: FstPicture
    interrupted: Tuple[InterruptedChange, ...]
    bridge: Optional[BridgePicture] = None

    def server(self, name: str) -> ServerPicture:
        """The first server of this name. Raises `KeyError`."""
        for server in self.servers:
            if server.name == name:
                return server
        raise KeyError(name)

    def words(self) -> Words:
        """All words by their keys, as `shmnmctl list` shows them. The value None is `none`."""
        return dict(_words(self))


def _plain(kind: Any, members: Mapping[str, Any]) -> Any:
    """A dataclass from the members that it names. A later library may send more."""
    return kind(*[members[name] for name in kind.__dataclass_fields__])


def _server(members: Dict[str, Any]) -> ServerPicture:
    members["name"] = unescaped(members["name"])
    combined = members["combstat"]
    members["combstat"] = None if combined is None else CombinedState(combined)
    made: ServerPicture = _plain(ServerPicture, members)
    return made


def _resource(members: Mapping[str, Any]) -> ResourcePicture:
    return ResourcePicture(
        type=unescaped(members["type"]),
        name=unescaped(members["name"]),
        pri=members["pri"],
        stat=members["stat"],
        descript=unescaped_bytes(members["descript"]),
        svstat=tuple(members["svstat"]),
        network=tuple(members["network"]) if "network" in members else None,
    )


def _process_id(members: Mapping[str, Any]) -> ProcessIdPicture:
    pid, data = members["pid"], members["piddata"]
    return ProcessIdPicture(unescaped(members["name"]), (pid[0], pid[1], pid[2]), (int(data[0]), int(data[1]), int(data[2])))


def _mark(members: Dict[str, Any]) -> MarkPicture:
    members["name"] = unescaped(members["name"])
    members["freshness"] = Freshness[members["freshness"].upper()]
    members["revision"] = int(members["revision"])
    made: MarkPicture = _plain(MarkPicture, members)
    return made


def _bridge(members: Dict[str, Any]) -> BridgePicture:
    members["proposals"] = ProposalsPicture(*[int(members["proposals"][name]) for name in ProposalsPicture.__dataclass_fields__])
    members["server"] = unescaped(members["server"])
    for name in ("contested", "unmatched"):
        members[name] = tuple(members[name])
    for name in ("left_out", "lost_servers"):
        members[name] = int(members[name])
    members["servers"] = tuple(map(_mark, members["servers"]))
    made: BridgePicture = _plain(BridgePicture, members)
    return made


def parsed(document: "str | bytes") -> Snapshot:
    """The snapshot of a document "status"."""
    status = json.loads(document)
    simulation, fst = status["simulation"], status["fst"]
    return Snapshot(
        region=_plain(RegionPicture, status["region"]),
        cluster=_plain(ClusterPicture, status["cluster"]),
        servers=tuple(map(_server, status["servers"])),
        hb=tuple(map(_resource, status["hb"])),
        np=tuple(map(_resource, status["np"])),
        simulation=SimulationPicture(simulation["dfailstatus"], tuple(map(unescaped, simulation["failed"]))),
        fst=FstPicture(
            stat=fst["stat"],
            descript=None if fst["descript"] is None else unescaped_bytes(fst["descript"]),
            pids=tuple(map(_process_id, fst["pids"])),
        ),
        interrupted=tuple(_plain(InterruptedChange, change) for change in status["interrupted"]),
        bridge=_bridge(status["bridge"]) if "bridge" in status else None,
    )


_CLUSTER_WORDS = ("waitstat", "bwflag", "bwflagdisk", "clstat", "hbinfo_a", "hbinfo_b")
_MAXIMA = ("max_servers", "max_hb", "max_np")
_SERVER_WORDS = (
    "pri", "nodestat", "nodestat_nw", "downnotifystat", "isolateflag", "pingstat", "holdstat", "dfailstatus", "combstat",
)  # fmt: skip


def _words(snapshot: Snapshot) -> Iterator[Tuple[str, Optional[int]]]:
    for word in _CLUSTER_WORDS:
        yield f"cluster/{word}", getattr(snapshot.cluster, word)
    for word in _MAXIMA:
        yield f"cluster/{word}", getattr(snapshot.region, word) & 0xFFFFFFFF
    yield "cluster/dfailstatus", snapshot.simulation.dfailstatus
    yield "cluster/alive", int(snapshot.cluster.alive)

    # Of several records with one name, a key means the first.
    columns = []
    seen = set()
    for server in snapshot.servers:
        name = escaped(server.name)
        columns.append(None if name in seen else name)
        if name not in seen:
            seen.add(name)
            for word in _SERVER_WORDS:
                value = getattr(server, word)
                yield f"servers/{name}/{word}", value if value is None else int(value)
    for kind, resources in (("hb", snapshot.hb), ("np", snapshot.np)):
        for resource in resources:
            record = f"{kind}/{escaped(resource.type)}/{escaped(resource.name)}"
            if record in seen:
                continue
            seen.add(record)
            yield f"{record}/pri", resource.pri
            yield f"{record}/stat", resource.stat
            for row, values in (("svstat", resource.svstat), ("network", resource.network or ())):
                for column, state in zip(columns, values):
                    if column is not None:
                        yield f"{record}/{row}/{column}", state
    if snapshot.fst.stat is not None:
        yield "fst/stat", snapshot.fst.stat
    for record_of_ids in snapshot.fst.pids:
        name = escaped(record_of_ids.name)
        if f"fst/{name}" in seen:
            continue
        seen.add(f"fst/{name}")
        for number in range(3):
            yield f"fst/pids/{name}/{number}", record_of_ids.pid[number]
            yield f"fst/piddata/{name}/{number}", record_of_ids.piddata[number]
    if snapshot.bridge is not None:
        yield from _bridge_words(snapshot.bridge)


def _bridge_words(bridge: BridgePicture) -> Iterator[Tuple[str, Optional[int]]]:
    yield "bridge/up", int(bridge.up)
    if not bridge.up and bridge.stopped_ms is None:
        return
    for flag in ("connected", "running", "refused", "fed"):
        yield f"bridge/{flag}", int(getattr(bridge, flag))
    yield "bridge/contested", len(bridge.contested)
    yield "bridge/unmatched", len(bridge.unmatched)
    for count in ProposalsPicture.__dataclass_fields__:
        yield f"bridge/{count}", getattr(bridge.proposals, count)
    for mark in bridge.servers:
        record = f"bridge/servers/{escaped(mark.name)}"
        yield f"{record}/freshness", int(mark.freshness)
        yield f"{record}/age_ms", mark.age_ms
        yield f"{record}/revision", mark.revision
        yield f"{record}/claimed", int(mark.claimed)
