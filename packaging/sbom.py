#!/usr/bin/env python3
"""Prints what scripts/package has left in a directory as a list of components, SPDX 2.3 in JSON: the packages, what they need
to run, and what they were built with, in the versions that are installed here.

usage: SOURCE_DATE_EPOCH=SECONDS sbom.py DIRECTORY
"""
import datetime
import hashlib
import json
import os
import re
import subprocess
import sys
from pathlib import Path

TOP = Path(__file__).resolve().parents[1]
LICENSE = "LicenseRef-libUdpSocket"


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def fields(text):
    """The fields of a paragraph of Debian control data."""
    return {name: value.strip() for name, value in re.findall(r"^([A-Za-z0-9-]+):(.*(?:\n[ \t].*)*)", text, re.MULTILINE)}


def names(dependencies):
    """Of each dependency, its first alternative, without version and architecture."""
    return [re.split(r"[\s(:|\[<]", each.strip())[0] for each in dependencies.split(",") if each.strip()]


def identifier(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name.replace("+", "plus"))


class Installed:
    """The packages of this system."""

    def __init__(self):
        listed = output("dpkg-query", "--show", "--showformat",
                        "${db:Status-Status}\t${Package}\t${Version}\t${Architecture}\n")
        native = output("dpkg", "--print-architecture").strip()
        self.versions = {name: (version, architecture)
                         for status, name, version, architecture in map(lambda line: line.split("\t"), listed.splitlines())
                         if status == "installed" and architecture in (native, "all")}
        self.vendor = output("sh", "-c", '. /etc/os-release; echo "$ID"').strip()

    def component(self, name):
        component = {"SPDXID": identifier(name), "name": name, "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
                     "licenseConcluded": "NOASSERTION", "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION"}
        if name in self.versions:  # nothing is known of one that is only recommended, and is not here
            version, architecture = self.versions[name]
            component["versionInfo"] = version
            component["externalRefs"] = [{
                "referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                "referenceLocator": f"pkg:deb/{self.vendor}/{name.replace('+', '%2B')}@{version.replace('+', '%2B')}"
                                    f"?arch={architecture}"}]
        return component

    def is_compiled_in(self, name):
        """Whether a development package brings headers only, whose code becomes part of what includes them."""
        if name not in self.versions:
            return False
        files = output("dpkg-query", "--listfiles", name).splitlines()
        return (any(file.startswith("/usr/include/") for file in files)
                and not any(re.search(r"\.(so|a)$", file) for file in files))


def ours(name, version, **more):
    return {"SPDXID": identifier(name), "name": name, "versionInfo": version, "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False, "licenseConcluded": LICENSE, "licenseDeclared": LICENSE,
            "copyrightText": (TOP / "LICENSE").read_text().splitlines()[1], **more}


def main():
    directory = Path(sys.argv[1])
    built, = directory.glob("*.buildinfo")
    build = fields(built.read_text())
    direct = set(names(fields((TOP / "packaging/debian/control").read_text())["Build-Depends"]))
    installed = Installed()

    source = ours(build["Source"], build["Version"])
    components, relations = {source["name"]: source}, []

    def relate(one, kind, other):
        relations.append({"spdxElementId": identifier(one), "relationshipType": kind,
                          "relatedSpdxElement": identifier(other)})

    debs = {}
    for deb in sorted(directory.glob("*.deb")):
        debs[deb] = fields(output("dpkg-deb", "--field", deb))
        name = debs[deb]["Package"]
        digest = hashlib.sha256(deb.read_bytes()).hexdigest()
        components[name] = ours(name, debs[deb]["Version"], packageFileName=deb.name,
                                checksums=[{"algorithm": "SHA256", "checksumValue": digest}])
        relate(name, "GENERATED_FROM", source["name"])
    for control in debs.values():
        for field, kind in (("Depends", "RUNTIME_DEPENDENCY_OF"), ("Recommends", "OPTIONAL_DEPENDENCY_OF"),
                            ("Suggests", "OPTIONAL_DEPENDENCY_OF")):
            for name in names(control.get(field, "")):
                components.setdefault(name, installed.component(name))
                relate(name, kind, control["Package"])
    for name in sorted(set(names(build["Installed-Build-Depends"]))):
        components.setdefault(name, installed.component(name))
        relate(name, "BUILD_DEPENDENCY_OF", source["name"])
        if name in direct and installed.is_compiled_in(name):
            relate(source["name"], "STATIC_LINK", name)

    created = datetime.datetime.fromtimestamp(int(os.environ["SOURCE_DATE_EPOCH"]), datetime.timezone.utc)
    content = hashlib.sha256(json.dumps([components, relations], sort_keys=True).encode()).hexdigest()
    print(json.dumps({
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"{source['name']}-{source['versionInfo']}-{build['Build-Architecture']}",
        "documentNamespace": f"https://udpsocket.example/spdx/{content}",
        "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": ["Tool: packaging/sbom.py"]},
        "hasExtractedLicensingInfos": [{"licenseId": LICENSE, "extractedText": (TOP / "LICENSE").read_text()}],
        "documentDescribes": [identifier(control["Package"]) for control in debs.values()],
        "packages": list(components.values()), "relationships": relations}, indent=1))


main()
