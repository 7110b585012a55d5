#!/usr/bin/env python3
"""Checks an SPDX 2.3 document in JSON: CheckSbom.py <document> <package.deb>...

The document has the fields that the format requires and defines every identifier that it uses. It has the checksums of
the packages, and what each of them depends on, recommends or suggests. All versions are installed on this machine. Every
package has a licence.
"""
import datetime
import hashlib
import json
import pathlib
import re
import subprocess
import sys

document = json.load(open(sys.argv[1], encoding="utf-8"))
debs = {pathlib.Path(name).name: pathlib.Path(name) for name in sys.argv[2:]}

assert document["spdxVersion"] == "SPDX-2.3"
assert document["dataLicense"] == "CC0-1.0"
assert document["SPDXID"] == "SPDXRef-DOCUMENT"
assert document["name"]
assert re.fullmatch(r"[a-z][a-z0-9+.-]*:[^\s#]+", document["documentNamespace"]), document["documentNamespace"]
datetime.datetime.strptime(document["creationInfo"]["created"], "%Y-%m-%dT%H:%M:%SZ")
assert document["creationInfo"]["creators"]
for creator in document["creationInfo"]["creators"]:
    assert re.match("(Tool|Person|Organization): .", creator), creator

ids = {document["SPDXID"]}
by_name = {}
for package in document["packages"]:
    assert re.fullmatch("SPDXRef-[A-Za-z0-9.-]+", package["SPDXID"]), package
    assert package["SPDXID"] not in ids, package["SPDXID"]
    ids.add(package["SPDXID"])
    by_name[package["name"]] = package
    assert package["name"], package
    versioned = "versionInfo" in package
    assert package["versionInfo"] if versioned else package["supplier"] == "NOASSERTION", package
    assert not versioned or re.match("(Organization|Person): .", package["supplier"]), package
    assert package["downloadLocation"] and package["filesAnalyzed"] is False, package
    for reference in package["externalRefs"]:
        assert reference["referenceCategory"] == "PACKAGE-MANAGER" and reference["referenceType"] == "purl", reference
        version = r"@[^@?]+\?arch=\w+" if versioned else ""
        assert re.fullmatch(r"pkg:deb/[^/]+/[^/@?]+" + version, reference["referenceLocator"]), reference

# For each package: what it is linked with, what it is compiled with, and what it recommends or suggests.
uses, headers, optional = {}, {}, {}
described = set()
for relationship in document["relationships"]:
    source, target = relationship["spdxElementId"], relationship["relatedSpdxElement"]
    assert source in ids and target in ids, relationship
    if relationship["relationshipType"] == "DESCRIBES":
        described.add(target)
    elif relationship["relationshipType"] == "DYNAMIC_LINK":
        uses.setdefault(source, set()).add(target)
    elif relationship["relationshipType"] == "BUILD_DEPENDENCY_OF":
        headers.setdefault(target, set()).add(source)
    else:
        assert relationship["relationshipType"] == "OPTIONAL_DEPENDENCY_OF", relationship
        optional.setdefault(target, set()).add(source)

ours = {package["packageFileName"]: package for package in document["packages"] if "packageFileName" in package}
assert ours.keys() == debs.keys(), (ours.keys(), debs.keys())
assert described == {package["SPDXID"] for package in ours.values()}
for name, package in ours.items():
    (checksum,) = package["checksums"]
    assert checksum["algorithm"] == "SHA256"
    assert checksum["checksumValue"] == hashlib.sha256(debs[name].read_bytes()).hexdigest(), name

for package in document["packages"]:
    if "packageFileName" not in package:
        shown = subprocess.run(["dpkg-query", "-W", "-f", "${Status} ${Version}", package["name"]], check=False,
                               capture_output=True, text=True).stdout
        # A package has a version if it is installed. Only an optional package may be missing.
        if "versionInfo" in package:
            assert shown == f"install ok installed {package['versionInfo']}", (package["name"], shown)
        else:
            assert " installed " not in shown, (package["name"], shown)
            assert any(package["SPDXID"] in those for those in optional.values()), package["name"]


def field(name, kind):
    shown = subprocess.run(["dpkg-deb", "--field", debs[name], kind], check=True, capture_output=True, text=True).stdout
    return [alternatives.split(" ")[0] for alternatives in filter(None, shown.strip().split(", "))]


# The document also lists the packages that a package depends on, recommends and suggests.
for name, package in ours.items():
    for needed in field(name, "Depends"):
        assert by_name[needed]["SPDXID"] in uses[package["SPDXID"]], (name, needed)
    wanted = {by_name[other]["SPDXID"] for kind in ("Recommends", "Suggests") for other in field(name, kind)}
    assert wanted == optional.get(package["SPDXID"], set()), (name, wanted)
(toolkit,) = (package for package in ours.values() if package["name"] == "libvexclienttk-substitute")
assert by_name["p11-kit"]["SPDXID"] in optional[toolkit["SPDXID"]]
# The document lists header packages only if the headers come from packages.
for name, header_packages in {"libvexclienttk-substitute": ["libp11-kit-dev"],
                              "tavclientjni-tools": ["libcli11-dev", "libasio-dev"]}.items():
    compiled = headers.get(by_name[name]["SPDXID"], set())
    for header_package in header_packages:
        if subprocess.run(["dpkg-query", "-W", header_package], check=False, capture_output=True).returncode == 0:
            assert by_name[header_package]["SPDXID"] in compiled, (name, header_package)

# The licences of what is linked or compiled in. The names are SPDX's, the licences those that the projects publish.
RUN_TIME_OF_GCC = "GPL-3.0-or-later WITH GCC-exception-3.1"
LICENCES = {
    "libtavclientjni-java": "LicenseRef-proprietary AND GPL-2.0-only WITH Classpath-exception-2.0",
    "libvexclienttk-substitute": "LicenseRef-proprietary AND LicenseRef-pkcs11-permissive",
    "tavclientjni-tools": "LicenseRef-proprietary AND BSD-3-Clause AND BSL-1.0",
    "libvexclienttk-dev": "LicenseRef-proprietary",
    "libc6": "LGPL-2.1-or-later",
    "libgcc-s1": RUN_TIME_OF_GCC,
    "libstdc++6": RUN_TIME_OF_GCC,
    "libssl3": "Apache-2.0",
    "libssl3t64": "Apache-2.0",
    "libasio-dev": "BSL-1.0",
    "libcli11-dev": "BSD-3-Clause",
    "libp11-kit-dev": "BSD-3-Clause",
    "zlib1g": "Zlib",
    "libzstd1": "BSD-3-Clause OR GPL-2.0-only",
}
texts = {text["licenseId"]: text["extractedText"] for text in document["hasExtractedLicensingInfos"]}
used = set()
for package in document["packages"]:
    licence = package["licenseDeclared"]
    if "versionInfo" not in package:
        assert licence == "NOASSERTION", package
        continue
    if package["name"] in LICENCES:
        assert licence == LICENCES[package["name"]], (package["name"], licence)
    for name in re.split(" (?:AND|OR|WITH) ", licence):
        assert re.fullmatch("[A-Za-z0-9.-]+", name) and name != "NOASSERTION", (package["name"], licence)
        if name.startswith("LicenseRef-"):
            used.add(name)
            assert len(texts[name]) > 100, name
assert used == texts.keys(), (used, texts.keys())
