#!/usr/bin/env python3
"""Checks an SPDX 2.3 document in JSON: CheckSbom.py <document> <package.deb>...

It has the fields that the format requires, every identifier that it refers to, the packages as they are, and nothing but
versions that are installed on this machine.
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
    assert package["name"] and package["versionInfo"], package
    assert re.match("(Organization|Person): .", package["supplier"]), package
    assert package["downloadLocation"] and package["filesAnalyzed"] is False, package
    for reference in package["externalRefs"]:
        assert reference["referenceCategory"] == "PACKAGE-MANAGER" and reference["referenceType"] == "purl", reference
        assert re.fullmatch(r"pkg:deb/[^/]+/[^/@]+@[^@?]+\?arch=\w+", reference["referenceLocator"]), reference

uses = {}
described = set()
for relationship in document["relationships"]:
    source, target = relationship["spdxElementId"], relationship["relatedSpdxElement"]
    assert source in ids and target in ids, relationship
    if relationship["relationshipType"] == "DESCRIBES":
        described.add(target)
    elif relationship["relationshipType"] == "DYNAMIC_LINK":
        uses.setdefault(source, set()).add(target)
    else:
        assert relationship["relationshipType"] == "BUILD_DEPENDENCY_OF", relationship

ours = {package["packageFileName"]: package for package in document["packages"] if "packageFileName" in package}
assert ours.keys() == debs.keys(), (ours.keys(), debs.keys())
assert described == {package["SPDXID"] for package in ours.values()}
for name, package in ours.items():
    (checksum,) = package["checksums"]
    assert checksum["algorithm"] == "SHA256"
    assert checksum["checksumValue"] == hashlib.sha256(debs[name].read_bytes()).hexdigest(), name

for package in document["packages"]:
    if "packageFileName" not in package:
        shown = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package["name"]], check=True,
                               capture_output=True, text=True).stdout
        assert shown == package["versionInfo"], (package["name"], shown)

# What a package depends on is in the document as well.
for name, package in ours.items():
    depends = subprocess.run(["dpkg-deb", "--field", debs[name], "Depends"], check=True, capture_output=True, text=True)
    for dependency in filter(None, depends.stdout.strip().split(", ")):
        needed = dependency.split(" ")[0]
        assert by_name[needed]["SPDXID"] in uses[package["SPDXID"]], (name, needed)
