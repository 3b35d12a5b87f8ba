"""The components that are linked into what ships: their notices, and the list in SPDX's format.

Versions and sums come from the pins in scripts/setup and cmake/breakpad/fetch.cmake, those of the C++
runtime from Debian's packages; the licences from the dependencies as they were built.
"""

import json
import os
import platform
import re
import subprocess
import time
import uuid
from dataclasses import dataclass
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
DEPENDENCIES = Path(os.environ.get("ORVIK_DEPS", TREE / "build/deps"))
DEBIAN_DOCS = Path("/usr/share/doc")


@dataclass
class Component:
    name: str
    version: str
    sha256: str  # of the pinned archive; empty if it is Debian's package as installed
    archive: str
    homepage: str
    used_by: str
    licence: str  # as SPDX names it
    text: str


def pins():
    """What scripts/setup pins for this release of Debian: {"boost": {"version": …, "sha256": …}, …}."""
    codename = platform.freedesktop_os_release()["VERSION_CODENAME"]
    setup = (TREE / "scripts/setup").read_text()
    block = re.search(rf"^{codename}\).*?;;", setup, re.DOTALL | re.MULTILINE).group()
    found = {}
    for name, kind, value in re.findall(r"^ *(\w+)_(version|sha256)=(\S+)", block, re.MULTILINE):
        found.setdefault(name, {})[kind] = value
    fetch = (TREE / "cmake/breakpad/fetch.cmake").read_text()
    found["breakpad"] = dict(re.findall(r"^set\((version|sha256) (\S+)\)", fetch, re.MULTILINE))
    return found


def debian_text(path):
    return path.read_text(encoding="utf-8", errors="replace").strip() + "\n"


def boost_licence():
    """The licence alone: Debian's file lists the authors of each of 20,000 files."""
    text = debian_text(DEPENDENCIES / "licences/boost")
    block = re.search(r"^License: BSL-1.0\n((?: .*\n)+)", text, re.MULTILINE).group(1)
    return "".join(line[1:].replace(".", "", line == " .") + "\n" for line in block.splitlines())


def breakpad_licence():
    """The comment at the top of each of its files."""
    lines = (DEPENDENCIES / "include/client/windows/handler/exception_handler.h").read_text().splitlines()
    comment = lines[: next(i for i, line in enumerate(lines) if not line.startswith("//"))]
    return "".join(line[3:] + "\n" for line in comment)


def debian_version(package):
    command = ["dpkg-query", "-W", "-f", "${Version}", package]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def components():
    pinned = pins()

    def linked(name, pin, archive, **rest):
        return Component(name=name, archive=archive, **pinned.pop(pin), **rest)

    boost_version = pinned["boost"]["version"]
    result = [
        linked("Boost", "boost", f"boost_{boost_version}.orig.tar.xz of Debian",
               homepage="https://www.boost.org", used_by="OrvikService.exe", licence="BSL-1.0",
               text=boost_licence()),
        linked("Breakpad", "breakpad", "minidump of npm, which contains its source; with our patches",
               homepage="https://chromium.googlesource.com/breakpad/breakpad", used_by="OrvikService.exe",
               licence="BSD-3-Clause", text=breakpad_licence()),
        linked("CLI11", "cli11", "libcli11-dev of Debian", homepage="https://github.com/CLIUtils/CLI11",
               used_by="orvikctl.exe", licence="BSD-3-Clause",
               text=debian_text(DEPENDENCIES / "share/doc/libcli11-dev/copyright")),
        linked("nlohmann-json", "json", "nlohmann-json3-dev of Debian",
               homepage="https://github.com/nlohmann/json", used_by="orvikctl.exe", licence="MIT",
               text=debian_text(DEPENDENCIES / "share/doc/nlohmann-json3-dev/copyright")),
    ]  # fmt: skip
    if pinned:
        raise SystemExit(f"package: scripts/setup pins {', '.join(pinned)}: say in components.py what it is")
    everything = "OrvikService.exe, orvikctl.exe, orvik.dll"
    gcc, mingw = "g++-mingw-w64-x86-64-posix", "mingw-w64-x86-64-dev"
    result += [
        Component("GCC runtime libraries (libstdc++, libgcc, libssp)", debian_version(gcc), "",
                  f"{gcc} of Debian", "https://gcc.gnu.org", everything,
                  "GPL-3.0-or-later WITH GCC-exception-3.1",
                  debian_text(DEBIAN_DOCS / gcc / "copyright")
                  + "\n\n" + debian_text(Path("/usr/share/common-licenses/GPL-3"))),
        Component("mingw-w64 runtime (C runtime start-up, winpthreads)", debian_version(mingw), "",
                  f"{mingw} of Debian", "https://www.mingw-w64.org", everything,
                  "LicenseRef-mingw-w64", debian_text(DEBIAN_DOCS / mingw / "copyright")),
    ]  # fmt: skip
    return result


def notices(version):
    rule = "=" * 78 + "\n"
    parts = [f"Third-party software in OrvikService {version}\n\n"]
    for component in components():
        parts.append(
            f"{rule}{component.name} {component.version}\n{component.homepage}\n"
            f"Linked into: {component.used_by}\nLicence: {component.licence}\n{rule}\n{component.text}\n\n"
        )
    return "".join(parts)


def sbom(version, moment, namespace):
    """A document of SPDX 2.3. What is unknown or not ours to say is NOASSERTION."""
    product = "SPDXRef-OrvikService"
    packages = [
        {
            "name": "OrvikService",
            "SPDXID": product,
            "versionInfo": version,
            "supplier": "Organization: Orvik",
            "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False,
            "licenseConcluded": "NOASSERTION",
            "licenseDeclared": "NOASSERTION",
            "copyrightText": "NOASSERTION",
        }
    ]
    relationships = [
        {
            "spdxElementId": "SPDXRef-DOCUMENT",
            "relationshipType": "DESCRIBES",
            "relatedSpdxElement": product,
        }
    ]
    extracted = []
    for component in components():
        identifier = "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]+", "-", component.name.split(" (")[0])
        package = {
            "name": component.name,
            "SPDXID": identifier,
            "versionInfo": component.version,
            "supplier": "NOASSERTION",
            "downloadLocation": "NOASSERTION",
            "homepage": component.homepage,
            "sourceInfo": component.archive,
            "filesAnalyzed": False,
            "licenseConcluded": component.licence,
            "licenseDeclared": component.licence,
            "copyrightText": "NOASSERTION",
            "comment": f"Linked statically into {component.used_by}.",
        }
        if component.sha256:
            package["checksums"] = [{"algorithm": "SHA256", "checksumValue": component.sha256}]
        if component.licence.startswith("LicenseRef-"):
            extracted.append(
                {
                    "licenseId": component.licence,
                    "name": component.name,
                    "extractedText": component.text,
                }
            )
        packages.append(package)
        relationships.append(
            {
                "spdxElementId": product,
                "relationshipType": "STATIC_LINK",
                "relatedSpdxElement": identifier,
            }
        )
    document = {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"OrvikService-{version}",
        "creationInfo": {
            "created": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(moment)),
            "creators": ["Tool: scripts/package"],
        },
        "packages": packages,
        "relationships": relationships,
        "hasExtractedLicensingInfos": extracted,
    }
    content = json.dumps(document, sort_keys=True)
    document["documentNamespace"] = (
        f"https://spdx.org/spdxdocs/OrvikService-{version}-{uuid.uuid5(namespace, content)}"
    )
    return json.dumps(document, indent=2, ensure_ascii=False) + "\n"
