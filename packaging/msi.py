"""Makes the MSI: wixl compiles orvik.wxs, and msibuild adds what wixl does not know."""

import hashlib
import os
import subprocess
import time
import uuid
from pathlib import Path

HERE = Path(__file__).resolve().parent
NAMESPACE = uuid.UUID("b5bfe1b8-9f90-5bf3-b5f7-95a4d8cf7f90")
PROGRAMS = ("OrvikService.exe", "orvikctl.exe", "orvik.dll")
PAGES = ("c-api", "deploying", "operating", "orvikctl", "protocol")

SC = '"[System64Folder]sc.exe" '
SET_RECOVERY = SC + "failure OrvikService reset= 86400 actions= restart/1000/restart/5000/restart/30000"
SET_RECOVERY_WITHOUT_CRASH = SC + "failureflag OrvikService 1"
# A program with a folder (34) that runs in the transaction (1024), as LocalSystem (2048), and whose
# exit code is ignored (64): the installation succeeds though it fails.
RUN_AND_IGNORE = 34 + 1024 + 2048 + 64
ON_ROLLBACK = RUN_AND_IGNORE + 256  # runs only if the transaction fails later
SET_PROPERTY = 51
# The action on the component: 2 removes it, 3 installs or repairs it. There is none when the MSI is run
# again, and the service goes on.
INSTALLING = "$Service=3"
# Action, type, source, target, condition, place among the actions, text for progress and log.
ACTIONS = [
    # What the command line says comes first, then what an earlier version was installed with.
    ("KeepInstallDir", SET_PROPERTY, "INSTALLDIR", "[PREVIOUSINSTALLDIR]",
     "PREVIOUSINSTALLDIR AND NOT INSTALLDIR", 51, None),
    ("KeepAddToPath", SET_PROPERTY, "ADDTOPATH", "[PREVIOUSADDTOPATH]",
     "PREVIOUSADDTOPATH AND NOT ADDTOPATH", 52, None),
    # Windows Installer makes a deleted service again without its recovery actions. A rollback runs in reverse
    # order: this comes after that.
    ("RestoreRecovery", ON_ROLLBACK, "System64Folder", SET_RECOVERY, "$Service=2", 1898, None),
    ("RestoreRecoveryWithoutCrash", ON_ROLLBACK, "System64Folder", SET_RECOVERY_WITHOUT_CRASH, "$Service=2",
     1899, None),
    # A stopped service has not quite ended, and one in a console is not stopped: either would keep its
    # program's file in use.
    ("EndOrvikService", RUN_AND_IGNORE, "System64Folder",
     '"[System64Folder]taskkill.exe" /f /im OrvikService.exe', "$Service=2 OR $Service=3", 2001,
     None),
    # The table MsiServiceConfigFailureActions fails on Windows.
    ("SetRecovery", RUN_AND_IGNORE, "System64Folder", SET_RECOVERY, INSTALLING, 5860,
     "Setting the recovery actions of OrvikService"),
    ("SetRecoveryWithoutCrash", RUN_AND_IGNORE, "System64Folder", SET_RECOVERY_WITHOUT_CRASH, INSTALLING,
     5861, "Setting the recovery actions of OrvikService"),
    # Cancelled during the next action: the new service must not run on when it is deleted. "net stop" waits.
    ("StopOrvikService", ON_ROLLBACK, "System64Folder", '"[System64Folder]net.exe" stop OrvikService',
     INSTALLING, 6500, None),
    # Not with the table ServiceControl: the installation would fail if the service can't start.
    ("StartOrvikService", RUN_AND_IGNORE, "System64Folder", SC + "start OrvikService",
     INSTALLING + ' AND STARTSERVICE<>"0"', 6501,
     "Starting OrvikService. If it is not running afterwards, the command orvikctl status and the "
     "System event log show why."),
]  # fmt: skip


def quoted(value):
    if value is None:
        return "''"
    if isinstance(value, int):
        return str(value)
    assert "'" not in value, "the SQL of Windows Installer cannot quote this"
    return f"'{value}'"


def insert(table, **row):
    names = ",".join(f"`{name}`" for name in row)
    return f"INSERT INTO `{table}` ({names}) VALUES ({','.join(map(quoted, row.values()))})"


def update(table, name, value, key, key_value):
    return f"UPDATE `{table}` SET `{name}`={quoted(value)} WHERE `{key}`={quoted(key_value)}"


def additions(version):
    """The statements that complete what wixl made."""
    yield update("Property", "Value",
                 "ADDTOPATH;INSTALLDIR;STARTSERVICE;WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED",
                 "Property", "SecureCustomProperties")  # fmt: skip
    # wixl removes the old version before the transaction begins, so a failure would not bring it back.
    yield update("InstallExecuteSequence", "Sequence", 1501, "Action", "RemoveExistingProducts")
    # An upgrade keeps the service and changes it. If it were deleted, a program that has it open would delay
    # that, and the new one could not be made.
    yield update("InstallExecuteSequence", "Condition", "VersionNT AND NOT UPGRADINGPRODUCTCODE", "Action",
                 "DeleteServices")  # fmt: skip
    # 0x8000: the installation fails if the service can't be made.
    yield update("ServiceInstall", "ErrorControl", 0x8001, "ServiceInstall", "OrvikService")
    # Windows Installer quotes the path of a service that has a blank. Wine does not, so the quoted path
    # is written once more, after InstallServices.
    yield update("Registry", "Value", '#%"[INSTALLDIR]OrvikService.exe"', "Name", "ImagePath")
    yield update("InstallExecuteSequence", "Sequence", 5850, "Action", "WriteRegistryValues")

    yield update("Component", "Condition", 'ADDTOPATH<>"0"', "Component", "Path")
    yield (
        "CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL"
        " LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE, `Component_` CHAR(72) NOT NULL"
        " PRIMARY KEY `Environment`)"
    )
    # Behind the machine's PATH; removed with the product.
    yield insert("Environment", Environment="Path", Name="=-*PATH", Value="[~];[INSTALLDIR]",
                 Component_="Path")  # fmt: skip
    for action, sequence in (("RemoveEnvironmentStrings", 3300), ("WriteEnvironmentStrings", 5200)):
        yield insert("InstallExecuteSequence", Action=action, Sequence=sequence)

    # Without a version Windows Installer would not put a program over one that has a version.
    for program in PROGRAMS:
        yield update("File", "Version", version + ".0", "File", program)
        yield update("File", "Language", "1033", "File", program)
        yield f"DELETE FROM `MsiFileHash` WHERE `File_`='{program}'"  # for files without a version

    yield insert("Directory", Directory="System64Folder", Directory_Parent="TARGETDIR", DefaultDir=".")
    yield (
        "CREATE TABLE `ActionText` (`Action` CHAR(72) NOT NULL, `Description` CHAR(255) LOCALIZABLE,"
        " `Template` CHAR(255) LOCALIZABLE PRIMARY KEY `Action`)"
    )
    for action, kind, source, target, condition, sequence, text in ACTIONS:
        yield insert("CustomAction", Action=action, Type=kind, Source=source, Target=target)
        tables = ["InstallExecuteSequence"]
        if kind == SET_PROPERTY:  # also where a dialog's process looks for the earlier version
            tables.append("InstallUISequence")
        for table in tables:
            yield insert(table, Action=action, Condition=condition, Sequence=sequence)
        if text:
            yield insert("ActionText", Action=action, Description=text)


def run(*command, **options):
    subprocess.run(command, check=True, env=dict(os.environ, TZ="UTC"), **options)


def upper_uuid(name):
    return str(uuid.uuid5(NAMESPACE, name)).upper()


def make_msi(stage, version, moment, output):
    """Packs the files in the folder `stage`. The same files, version and moment give the same bytes."""
    content = hashlib.sha256()
    for path in [HERE / "orvik.wxs", HERE / "msi.py", *sorted(p for p in stage.rglob("*") if p.is_file())]:
        if path.is_relative_to(stage):
            os.utime(path, (moment, moment))  # the cabinet has the times of its files
        content.update(hashlib.sha256(path.read_bytes()).digest())
    product = upper_uuid("product " + version)
    package = upper_uuid(f"package {version} {content.hexdigest()}")

    output.unlink(missing_ok=True)
    # wixl finds the files beside its input, and no absolute paths.
    source = stage.parent / "orvik.wxs"
    source.write_bytes((HERE / "orvik.wxs").read_bytes())
    run("wixl", "-a", "x64", "-D", f"Version={version}", "-D", f"ProductCode={product}",
        "-o", str(output.resolve()), str(source), cwd=stage)  # fmt: skip

    table = stage.parent / "summary.idt"
    date = time.strftime("%Y/%m/%d %H:%M:%S", time.gmtime(moment))
    # Title, subject, comments, package code, times, and the program that made the file.
    summary = {2: "Installation Database", 3: f"Orvik Service {version}", 4: "Orvik", 5: "Installer",
               6: "Installs Orvik Service.", 7: "x64;1033", 9: "{" + package + "}", 12: date, 13: date,
               14: 500, 15: 2, 18: "wixl", 19: 2, 1: 1252}  # fmt: skip
    lines = ["PropertyId\tValue", "i2\tl255", "_SummaryInformation\tPropertyId"]
    lines += [f"{key}\t{value}" for key, value in sorted(summary.items())]
    table.write_text("".join(line + "\r\n" for line in lines), newline="")
    run("msibuild", str(output), "-i", str(table))
    for statement in additions(version):
        run("msibuild", str(output), "-q", statement)
