"""Makes the Windows installer from the trees that cpack has laid down, one per component.

    make_msi.py STAGE VERSION OUTPUT

The files of a component are in STAGE/COMPONENT/*. wixl makes the installer; what it cannot express is added to its tables with msibuild. The same trees always give the same bytes: every
identity comes from a name, and every time from SOURCE_DATE_EPOCH.
"""
import hashlib
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import uuid
import xml.etree.ElementTree as ElementTree

# Never changes: by it Windows knows the versions of this product.
UPGRADE_CODE = uuid.UUID("6e7a2f0c-5c1b-4d8e-9f4a-3b1f0a2c7d51")
CONFIGURATION = "etc/cluster.xml"
TOOL = "bin/shmnmctl.exe"
# What the library's companion puts into the folder of the log.
LOGS = ("shmnm.log", "shmnm.log.1", "shmnm.log.2", "shmnm.log.3", "oru_kzmshmnm_log.lock")
COMPONENT_PERMANENT, COMPONENT_NEVER_OVERWRITE, COMPONENT_64_BIT = 16, 128, 256
ON_REMOVAL = 2
TICKS = 10_000_000  # of a FILETIME in a second
LOCATOR_RAW_VALUE_64_BIT = 2 | 16
SET_DIRECTORY = SET_PROPERTY = 51
STARTS_WITH_WINDOWS = 2
RUN_INSTALLED, IGNORE_RESULT, ON_ROLLBACK, DEFERRED, AS_SYSTEM = 18, 64, 256, 1024, 2048
MACHINE = 2  # the root of a row of the table Registry

FEATURES = [
    # Name, title, description, level (1: installed unless it is left out, 100: only if it is asked for), components.
    ("Cluster", "shmnm", "The library, shmnmctl, the documents, and an example configuration.", 1, ("runtime", "tool")),
    ("Web", "shmnmweb", "The picture over HTTP.", 1, ("web",)),
    ("Bridge", "shmnmbridge", "The pictures of several machines converge through etcd.", 1, ("bridge",)),
    ("Service", "Service", "A service of Windows that creates the region and holds it.", 100, ()),
    ("Development", "Development", "Headers, import libraries, and files for CMake and pkg-config.", 100, ("development",)),
]


def guid(*names):
    """An identity that depends on nothing but the names."""
    return "{" + str(uuid.uuid5(UPGRADE_CODE, "/".join(names))).upper() + "}"


def identifier(kind, path):
    """A key of a table for a path, readable and unique."""
    return kind + "_" + re.sub(r"\W", "_", path)[-40:] + "_" + hashlib.sha256(path.encode()).hexdigest()[:8]


class Source:
    """The description of the installer that wixl reads."""

    def __init__(self, version):
        self.root = ElementTree.Element("Wix", xmlns="http://schemas.microsoft.com/wix/2006/wi")
        self.product = self.add(
            self.root, "Product", Id=guid("product", version), Name="shmnm", Version=version, Language="1033", Manufacturer="shmnm", UpgradeCode=str(UPGRADE_CODE).upper(),
        )
        self.add(self.product, "Package", InstallScope="perMachine", Compressed="yes", InstallerVersion="500", Description="shmnm " + version)
        self.add(self.product, "Media", Id="1", Cabinet="shmnm.cab", EmbedCab="yes")
        self.add(self.product, "MajorUpgrade", DowngradeErrorMessage="A newer version of shmnm is installed. Remove it first if you want this version.")
        # Processes that use the library are left alone: they keep the files that they have loaded.
        self.add(self.product, "Property", Id="MSIRESTARTMANAGERCONTROL", Value="Disable")
        target = self.add(self.product, "Directory", Id="TARGETDIR", Name="SourceDir")
        programs = self.add(target, "Directory", Id="ProgramFiles64Folder")
        self.folders = {".": self.add(programs, "Directory", Id="INSTALLDIR", Name="shmnm")}
        self.features = {}
        for name, title, description, level, _ in FEATURES:
            self.features[name] = self.add(self.product, "Feature", Id=name, Title=title, Description=description, Level=str(level))
        self.features["Cluster"].set("Absent", "disallow")

    @staticmethod
    def add(parent, element, **attributes):
        return ElementTree.SubElement(parent, element, attributes)

    def folder(self, path):
        if path not in self.folders:
            parent = self.folder(str(pathlib.PurePosixPath(path).parent))
            self.folders[path] = self.add(parent, "Directory", Id=identifier("d", path), Name=pathlib.PurePosixPath(path).name)
        return self.folders[path]

    def component(self, feature, folder, name):
        component = self.add(self.folder(folder), "Component", Id=identifier("c", name), Guid=guid("component", name), Win64="yes")
        self.add(self.features[feature], "ComponentRef", Id=component.get("Id"))
        return component

    def file(self, feature, path, source):
        component = self.component(feature, str(pathlib.PurePosixPath(path).parent), path)
        self.add(component, "File", Id=identifier("f", path), Name=pathlib.PurePosixPath(path).name, Source=str(source), KeyPath="yes")


def files_below(folder):
    return sorted((file for file in folder.rglob("*") if file.is_file()), key=lambda file: file.relative_to(folder).as_posix())


def describe(work, version):
    source = Source(version)
    for feature in (name for name, *_ in FEATURES):
        for file in files_below(work / feature):
            # wixl takes only names that are relative to its own folder.
            source.file(feature, file.relative_to(work / feature).as_posix(), file.relative_to(work))
    # The folder of the log belongs to the installation, and so do the files that the library puts there.
    log = source.component("Cluster", "log", "log")
    source.add(log, "CreateFolder")
    place = source.component("Cluster", ".", "place")
    key = source.add(place, "RegistryKey", Root="HKLM", Key="SOFTWARE\\shmnm")
    source.add(key, "RegistryValue", Name="InstallDir", Type="string", Value="[INSTALLDIR]", KeyPath="yes")
    source.add(key, "RegistryValue", Name="Version", Type="string", Value="[ProductVersion]")
    service = source.component("Service", ".", "service")
    source.add(source.add(service, "RegistryKey", Root="HKLM", Key="SOFTWARE\\shmnm"), "RegistryValue", Name="Service", Type="string", Value="1", KeyPath="yes")
    return source.root


def tables(msi):
    return subprocess.run(["msiinfo", "tables", msi], check=True, capture_output=True, text=True).stdout.split()


def keys(msi, table):
    """The first column of a table's rows."""
    exported = subprocess.run(["msiinfo", "export", msi, table], check=True, capture_output=True, text=True).stdout
    return [line.split("\t")[0] for line in exported.splitlines()[3:]]


def service_statements():
    """`shmnmctl service` makes and removes the service, so that it is the same whoever installs it. Services that run a program of
    this installation are stopped while its files are replaced, and go with it; their settings stay as they are."""
    as_system = RUN_INSTALLED | DEFERRED | AS_SYSTEM
    replaced = "(NOT Installed OR REINSTALL)"
    # A removal by a newer version, which has taken the place of this one, leaves the services to that version.
    last = "INSTALLEDVERSION=ProductVersion"
    # 3 or, because wine takes values of the registry for files that run from their source, 4.
    wanted = "(&Service>=3 OR (REINSTALL AND !Service>=3 AND NOT &Service=2))"
    mine, mine_of_web = "SERVICEPROGRAM~><INSTALLDIR", "WEBSERVICEPROGRAM~><INSTALLDIR"
    ran, web_ran = (f'{condition} AND {replaced} AND {prefix}START="#{STARTS_WITH_WINDOWS}"' for condition, prefix in ((mine, "SERVICE"), (mine_of_web, "WEBSERVICE")))
    actions = [
        # Name, type, arguments, sequence, condition. A rollback undoes the actions in reverse: these two come last then, when the old files are back.
        ("StartServiceAgain", as_system | ON_ROLLBACK | IGNORE_RESULT, "start", 1901, ran),
        ("StartWebServiceAgain", as_system | ON_ROLLBACK | IGNORE_RESULT, "start --web", 1902, web_ran),
        ("StopService", as_system | IGNORE_RESULT, "stop", 1910, f"{mine} AND {replaced}"),
        ("StopWebService", as_system | IGNORE_RESULT, "stop --web", 1920, f"{mine_of_web} AND {replaced}"),
        ("RemoveService", as_system | IGNORE_RESULT, "remove", 1930, f'{mine} AND {last} AND (REMOVE~="ALL" OR &Service=2)'),
        ("RemoveWebService", as_system | IGNORE_RESULT, "remove --web", 1940, f'{mine_of_web} AND {last} AND (REMOVE~="ALL" OR &Web=2)'),
        ("TakeServiceBack", as_system | ON_ROLLBACK | IGNORE_RESULT, "remove", 5810, f"{wanted} AND NOT SERVICEPROGRAM"),
        ("InstallService", as_system, "install", 5820, f"{wanted} AND NOT {mine}"),
        ("StartService", as_system | IGNORE_RESULT, "start", 5830, ran),
        ("StartWebService", as_system | IGNORE_RESULT, "start --web", 5840, web_ran),
    ]
    for service, prefix in (("shmnm", "SERVICE"), ("shmnmweb", "WEBSERVICE")):
        for name, value in ((prefix + "START", "Start"), (prefix + "PROGRAM", "ImagePath")):
            yield f"INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('{name}', '{name}')"
            yield (f"INSERT INTO `RegLocator` (`Signature_`, `Root`, `Key`, `Name`, `Type`) VALUES ('{name}', {MACHINE},"
                   f" 'SYSTEM\\CurrentControlSet\\Services\\{service}', '{value}', {LOCATOR_RAW_VALUE_64_BIT})")
    for name, kind, arguments, sequence, condition in actions:
        yield f"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('{name}', {kind}, '{identifier('f', TOOL)}', 'service {arguments}')"
        yield f"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('{name}', '{condition}', {sequence})"
    # Wine replaces files at once and runs these actions late: only after this action are the services stopped before their files are replaced.
    yield "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('InstallExecute', 'SERVICEPROGRAM OR WEBSERVICEPROGRAM', 1950)"
    # Only so does wine's rollback take the service back before it removes the program that does it.
    yield f"INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('InstallExecuteAgain', '{wanted}', 5805)"


def complete(msi, version):
    """Adds what wixl cannot express."""
    kept = COMPONENT_PERMANENT | COMPONENT_NEVER_OVERWRITE | COMPONENT_64_BIT
    configuration, log, place = (identifier("c", name) for name in (CONFIGURATION, "log", "place"))
    statements = [
        # The configuration is the administrator's: neither an upgrade nor a removal touches it.
        f"UPDATE `Component` SET `Attributes` = {kept} WHERE `Component` = '{configuration}'",
        # By their versions Windows decides which of two files is newer. Only files without versions have hashes.
        *(statement for file in keys(msi, "File") if file.startswith("f_bin_") for statement in (
            f"UPDATE `File` SET `Version` = '{version}.0', `Language` = '1033' WHERE `File` = '{file}'",
            f"DELETE FROM `MsiFileHash` WHERE `File_` = '{file}'")),
        # The old version is removed last, when the new one is complete: what both have stays where it is.
        "UPDATE `InstallExecuteSequence` SET `Sequence` = 6700 WHERE `Action` = 'RemoveExistingProducts'",
        # Behind the folders of the PATH, for all users; `-`: taken out again by a removal.
        "CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE,"
        " `Component_` CHAR(72) NOT NULL PRIMARY KEY `Environment`)",
        f"INSERT INTO `Environment` (`Environment`, `Name`, `Value`, `Component_`) VALUES ('Path', '=-*PATH', '[~];[{identifier('d', 'bin')}]', '{place}')",
        "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RemoveEnvironmentStrings', '', 3300)",
        "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('WriteEnvironmentStrings', '', 5200)",
        "CREATE TABLE `RemoveFile` (`FileKey` CHAR(72) NOT NULL, `Component_` CHAR(72) NOT NULL, `FileName` CHAR(255) LOCALIZABLE,"
        " `DirProperty` CHAR(72) NOT NULL, `InstallMode` SHORT NOT NULL PRIMARY KEY `FileKey`)",
        *(f"INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `FileName`, `DirProperty`, `InstallMode`)"
          f" VALUES ('{identifier('f', name)}', '{log}', '{name}', '{identifier('d', 'log')}', {ON_REMOVAL})" for name in LOGS),
        # An upgrade and a repair stay in the folder of the installation.
        "CREATE TABLE `AppSearch` (`Property` CHAR(72) NOT NULL, `Signature_` CHAR(72) NOT NULL PRIMARY KEY `Property`, `Signature_`)",
        "INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDDIR', 'InstalledDir')",
        "CREATE TABLE `RegLocator` (`Signature_` CHAR(72) NOT NULL, `Root` SHORT NOT NULL, `Key` CHAR(255) NOT NULL, `Name` CHAR(255), `Type` SHORT"
        " PRIMARY KEY `Signature_`)",
        f"INSERT INTO `RegLocator` (`Signature_`, `Root`, `Key`, `Name`, `Type`) VALUES ('InstalledDir', {MACHINE}, 'SOFTWARE\\shmnm', 'InstallDir', {LOCATOR_RAW_VALUE_64_BIT})",
        "INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDVERSION', 'InstalledVersion')",
        f"INSERT INTO `RegLocator` (`Signature_`, `Root`, `Key`, `Name`, `Type`) VALUES ('InstalledVersion', {MACHINE}, 'SOFTWARE\\shmnm', 'Version', {LOCATOR_RAW_VALUE_64_BIT})",
        "CREATE TABLE `CustomAction` (`Action` CHAR(72) NOT NULL, `Type` SHORT NOT NULL, `Source` CHAR(72), `Target` CHAR(255) PRIMARY KEY `Action`)",
        f"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('StayInFolder', {SET_DIRECTORY}, 'INSTALLDIR', '[INSTALLEDDIR]')",
        "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('AppSearch', '', 50)",
        "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('StayInFolder', 'INSTALLEDDIR', 60)",
        # The other features' files are of no use without those of this one, and a list of features may leave it out.
        f"INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('AddCluster', {SET_PROPERTY}, 'ADDLOCAL', 'Cluster,[ADDLOCAL]')",
        "INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES"
        " ('AddCluster', 'NOT Installed AND ADDLOCAL AND NOT (ADDLOCAL><\"Cluster\") AND NOT (ADDLOCAL~=\"ALL\")', 70)",
        *service_statements(),
    ]
    present = tables(msi)
    for statement in statements:
        created = re.match(r"CREATE TABLE `(\w+)`", statement)
        if not (created and created[1] in present):
            subprocess.run(["msibuild", msi, "-q", statement], check=True)


def make_reproducible(msi, epoch):
    """Replaces the times and the random identity in the summary."""
    content = bytearray(msi.read_bytes())
    summary = subprocess.run(["msiinfo", "suminfo", msi], check=True, capture_output=True, text=True).stdout
    identity = re.search(r"\{[0-9A-F-]{36}\}", summary)[0].encode()
    now, hour = file_time(time.time()), 3600 * TICKS
    (place,) = (found.start() for found in re.finditer(re.escape(identity), content))
    times = [found.start(1) for found in re.finditer(rb"(?s)\x40\0\0\0(?=(.{8}))", content[place - 1024:place + 1024])
             if abs(struct.unpack("<Q", found[1])[0] - now) < hour]
    if len(times) != 2:
        raise ValueError(f"{msi} has {len(times)} times of its making in its summary, not 2")
    for at in times:
        content[place - 1024 + at:place - 1024 + at + 8] = struct.pack("<Q", file_time(epoch))
    content[place:place + len(identity)] = b"{" + b"0" * 36 + b"}"
    content[place:place + len(identity)] = guid("package", hashlib.sha256(content).hexdigest()).encode()
    msi.write_bytes(content)


def file_time(seconds):
    """As Windows counts: from the year 1601, in ticks."""
    return int((seconds + 11644473600) * TICKS)


def main():
    stage, version, output = pathlib.Path(sys.argv[1]), sys.argv[2], pathlib.Path(sys.argv[3])
    with tempfile.TemporaryDirectory(prefix="shmnm-msi-") as folder:
        work = pathlib.Path(folder)
        for feature, *_, components in FEATURES:
            for component in components:
                (tree,) = (stage / component).iterdir()
                shutil.copytree(tree, work / feature, dirs_exist_ok=True)
        example = work / "Cluster/share/doc/shmnm/examples/cluster.xml"
        (work / "Cluster" / CONFIGURATION).parent.mkdir()
        shutil.copy(example, work / "Cluster" / CONFIGURATION)
        epoch = int(os.environ["SOURCE_DATE_EPOCH"])
        for file in work.rglob("*"):
            os.utime(file, (epoch, epoch))
        description = work / "shmnm.wxs"
        root = describe(work, version)
        ElementTree.indent(root)
        description.write_text(ElementTree.tostring(root, encoding="unicode"))
        msi = work / "shmnm.msi"
        subprocess.run(["wixl", "--arch", "x64", "--output", msi.name, description.name], cwd=work, check=True)
        complete(msi, version)
        make_reproducible(msi, epoch)
        shutil.copy(msi, output)


if __name__ == "__main__":
    main()
