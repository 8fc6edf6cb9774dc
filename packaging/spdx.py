#!/usr/bin/env python3
"""Writes the SPDX document of a Debian package, or checks a package against its document.

Usage: spdx.py write PACKAGE.deb COMMIT DATE BUILD_PACKAGE...   makes PACKAGE.spdx.json beside it
       spdx.py check PACKAGE.deb         prints the commit that it was built from
       spdx.py tools PACKAGE.deb         prints the packages that it was built with

The document (SPDX 2.3, JSON) names every file of the package with its checksum, the commit of the
source, the Debian packages that it was built with, and those that it depends on. Another build of the
same commit with the same packages gives the same document.
"""

import hashlib
import io
import json
import pathlib
import re
import subprocess
import sys
import tarfile

HOME = "https://orvex.invalid/"


def run(*words):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE).stdout


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def files_of(deb):
    """The regular files of a package: a dict from path to content."""
    with tarfile.open(fileobj=io.BytesIO(run("dpkg-deb", "--fsys-tarfile", deb))) as tar:
        return {entry.name: tar.extractfile(entry).read() for entry in tar if entry.isfile()}


def field(deb, name):
    return run("dpkg-deb", "-f", deb, name).decode().strip()


def checksums(data):
    return [{"algorithm": "SHA1", "checksumValue": hashlib.sha1(data).hexdigest()},
            {"algorithm": "SHA256", "checksumValue": sha256(data)}]


def file_entries(deb):
    return [{"SPDXID": f"SPDXRef-File-{number}", "fileName": name, "checksums": checksums(data),
             "licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION"}
            for number, (name, data) in enumerate(sorted(files_of(deb).items()))]


def package_entry(ref, name, version, **more):
    return {"SPDXID": ref, "name": name, "versionInfo": version, "downloadLocation": "NOASSERTION",
            "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
            "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION", **more}


def relation(one, kind, other):
    return {"spdxElementId": one, "relationshipType": kind, "relatedSpdxElement": other}


def verification_code(files):
    """As SPDX 2.3 defines it: the SHA-1 of the sorted SHA-1s of all files."""
    sums = sorted(file["checksums"][0]["checksumValue"] for file in files)
    return hashlib.sha1("".join(sums).encode()).hexdigest()


def installed_version(tool):
    """Of a package NAME[:ARCHITECTURE], which may be installed for several architectures."""
    name, _, architecture = tool.partition(":")
    wanted = {architecture} if architecture else {run("dpkg", "--print-architecture").decode().strip(), "all"}
    for line in run("dpkg-query", "-W", "-f", "${Architecture} ${Version}\\n", name).decode().splitlines():
        of, version = line.split(" ", 1)
        if of in wanted:
            return version
    sys.exit(f"spdx.py: {tool} is not installed")


def document(deb, commit, date, tools):
    files = file_entries(deb)
    name, version = field(deb, "Package"), field(deb, "Version")
    itself, source = "SPDXRef-Package", "SPDXRef-Source"
    packages = [
        package_entry(itself, name, version, packageFileName=deb.name, filesAnalyzed=True,
                      checksums=checksums(deb.read_bytes()),
                      packageVerificationCode={"packageVerificationCodeValue": verification_code(files)}),
        package_entry(source, "orvex", commit, sourceInfo=f"git commit {commit}")]
    relations = [relation("SPDXRef-DOCUMENT", "DESCRIBES", itself),
                 relation(itself, "GENERATED_FROM", source)]
    relations += [relation(itself, "CONTAINS", file["SPDXID"]) for file in files]
    for tool in sorted(tools):
        ref = "SPDXRef-Build-" + re.sub("[^A-Za-z0-9.-]", "-", tool)
        packages.append(package_entry(ref, tool, installed_version(tool)))
        relations.append(relation(ref, "BUILD_DEPENDENCY_OF", itself))
    for needed in filter(None, re.split(r",\s*", field(deb, "Depends"))):
        found = re.match(r"(\S+)(?: \((.*)\))?", needed)
        ref = "SPDXRef-Needs-" + re.sub("[^A-Za-z0-9.-]", "-", found[1])
        packages.append(package_entry(ref, found[1], found[2] or "any"))
        relations.append(relation(itself, "DEPENDS_ON", ref))
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
            "name": deb.stem, "documentNamespace": f"{HOME}{deb.stem}-{sha256(deb.read_bytes())}",
            "creationInfo": {"created": date, "creators": ["Organization: orvex maintainers"]},
            "packages": packages, "files": files, "relationships": relations}


def check(deb, told):
    """The differences between a package and its document."""
    by_ref = {entry["SPDXID"]: entry for entry in told["packages"]}
    files = file_entries(deb)
    if by_ref["SPDXRef-Package"]["checksums"] != checksums(deb.read_bytes()):
        yield f"{deb.name} is not the file that the document describes"
    theirs = {file["fileName"]: file["checksums"] for file in told["files"]}
    ours = {file["fileName"]: file["checksums"] for file in files}
    for name in sorted(theirs.keys() | ours.keys()):
        if theirs.get(name) != ours.get(name):
            yield f"{name} differs from the document"


def main(what, deb, *rest):
    deb = pathlib.Path(deb)
    beside = deb.with_suffix(".spdx.json")
    if what == "write":
        text = json.dumps(document(deb, rest[0], rest[1], rest[2:]), indent=1, sort_keys=True)
        beside.write_text(text + "\n", encoding="utf-8")
        return 0
    told = json.loads(beside.read_text(encoding="utf-8"))
    if what == "tools":
        for entry in told["packages"]:
            if entry["SPDXID"].startswith("SPDXRef-Build-"):
                print(entry["name"], entry["versionInfo"])
        return 0
    differences = list(check(deb, told))
    for line in differences:
        print(line, file=sys.stderr)
    if not differences:
        print(next(entry["versionInfo"] for entry in told["packages"]
                   if entry["SPDXID"] == "SPDXRef-Source"))
    return 1 if differences else 0


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
