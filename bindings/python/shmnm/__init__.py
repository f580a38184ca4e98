"""The live picture of a machine's failover cluster, in one region of memory that all its processes share.

    with shmnm.attach() as region:
        with region.lock(timeout=5):
            region.servers["alpha"].nodestat = 1

docs/python.md is the tutorial and the reference. The package uses the installed libraries `libkzmshmnm` and, for
pictures, `libshmnmpicture`; it looks for them as `set_library_folder` says.
"""

from ._cluster import Cluster, HbInfo, Maxima
from ._errors import (
    AlreadyExists,
    AlreadyMapped,
    BufferTooSmall,
    ColumnNotClosed,
    ColumnNotOpened,
    ConfigurationLibraryFailed,
    ConfigurationNotLoaded,
    CountsNotLoaded,
    CreateFailed,
    Detached,
    Error,
    IndexOutOfRange,
    InstallationPathUnknown,
    InvalidArgument,
    InvalidCondition,
    InvalidKind,
    LibraryNotFound,
    LockMisuse,
    LockTimeout,
    MapFailed,
    NoPicture,
    NoRegion,
    NoSuchKey,
    NotFound,
    NotMapped,
    PictureError,
    PictureLockTimeout,
    ResourceTableFull,
    Result,
    TableFull,
    WaitTimeout,
)
from ._fst import Fst, ProcessId, ProcessIds
from ._loader import set_library_folder
from ._lock import Lock
from ._picture import Finding, Picture, picture_version, snapshot
from ._region import Region, attach, create
from ._resources import HbResource, HbResources, NpResource, NpResources, Resource, Row
from ._servers import CombinedState, Server, Servers, State
from ._simulation import Simulation
from ._snapshot import (
    BridgePicture,
    ClusterPicture,
    Freshness,
    FstPicture,
    InterruptedChange,
    MarkPicture,
    ProcessIdPicture,
    ProposalsPicture,
    RegionPicture,
    ResourcePicture,
    ServerPicture,
    SimulationPicture,
    Snapshot,
)
from ._text import escaped, unescaped
from ._watch import MISSING, Change, Event, Missing, wait, watch

__version__ = "1.0.0"

__all__ = [
    "AlreadyExists",
    "AlreadyMapped",
    "BridgePicture",
    "BufferTooSmall",
    "Change",
    "Cluster",
    "ClusterPicture",
    "ColumnNotClosed",
    "ColumnNotOpened",
    "CombinedState",
    "ConfigurationLibraryFailed",
    "ConfigurationNotLoaded",
    "CountsNotLoaded",
    "CreateFailed",
    "Detached",
    "Error",
    "Event",
    "Finding",
    "Freshness",
    "Fst",
    "FstPicture",
    "HbInfo",
    "HbResource",
    "HbResources",
    "IndexOutOfRange",
    "InstallationPathUnknown",
    "InterruptedChange",
    "InvalidArgument",
    "InvalidCondition",
    "InvalidKind",
    "LibraryNotFound",
    "Lock",
    "LockMisuse",
    "LockTimeout",
    "MISSING",
    "MapFailed",
    "MarkPicture",
    "Maxima",
    "Missing",
    "NoPicture",
    "NoRegion",
    "NoSuchKey",
    "NotFound",
    "NotMapped",
    "NpResource",
    "NpResources",
    "Picture",
    "PictureError",
    "PictureLockTimeout",
    "ProcessId",
    "ProcessIdPicture",
    "ProcessIds",
    "ProposalsPicture",
    "Region",
    "RegionPicture",
    "Resource",
    "ResourcePicture",
    "ResourceTableFull",
    "Result",
    "Row",
    "Server",
    "ServerPicture",
    "Servers",
    "Simulation",
    "SimulationPicture",
    "Snapshot",
    "State",
    "TableFull",
    "WaitTimeout",
    "attach",
    "create",
    "escaped",
    "picture_version",
    "set_library_folder",
    "snapshot",
    "unescaped",
    "wait",
    "watch",
]
