#!/usr/bin/python3
"""bill_of_materials.py BUILD DEB...: prints what the packages consist of, as SPDX 2.3 in JSON.
bill_of_materials.py BUILD --built-using PACKAGE: prints what the field Built-Using of the package has to name.

BUILD is the build tree, made with Ninja, that the packages were made from: it knows which headers went into each
object. What the packages need at run time is what they depend on. dpkg knows whose the headers are and which
versions were there; DPKG_ADMINDIR may point it elsewhere. The same packages give the same bytes.
"""

import hashlib
import json
import os
import re
import subprocess
import sys
import urllib.parse
import uuid
from datetime import datetime, timezone

import licences

# The packages whose code the objects of a directory become.
PACKAGES_OF_OBJECTS = [
    ("platform/", ["vfilesys-standins"]),
    ("BaseAPI/VFileSys/CMakeFiles/VFileSysUpgradeTool.dir/", ["libvfilesys", "vfilesys-tools"]),
    ("BaseAPI/VFileSys/", ["libvfilesys"]),
    ("BaseAPI/VCopyFileListIni/", ["vfilesys-tools"]),
    ("BaseAPI/VFileList/", ["vfilesys-tools"]),
]

# C headers declare; the code is in a library that the package depends on, or in the kernel.
DECLARATIONS_ONLY = re.compile(r"(libc6-dev|libssl-dev|linux-libc-dev|zlib1g-dev)(-|$)")


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def control_of(deb):
    """The fields of a package's control file, in which no field that is used here has several lines."""
    fields = re.findall(r"^([A-Za-z-]+): (.*)$", output_of("dpkg-deb", "-f", deb), re.MULTILINE)
    return dict(fields) | {"File": deb}


def plain(package):
    """The name of a package without its architecture."""
    return package.split(":")[0]


def headers_of_objects(build):
    """Pairs of an object and a header of the system that was read for it; the project's own are left out."""
    source = os.path.dirname(os.path.realpath(build))
    unpacked = source + "/build/"  # where a cross build has the system's
    for block in output_of("ninja", "-C", build, "--quiet", "-t", "deps").split("\n\n"):
        lines = block.splitlines()
        for header in lines[1:]:
            path = os.path.realpath(os.path.join(build, header.strip()))
            if path.startswith(unpacked) or not path.startswith(source + "/"):
                yield lines[0].split(":")[0], path


def owners_of(paths):
    """The Debian package of each file, with its architecture if it needs one."""
    owners = {}
    for line in output_of("dpkg-query", "--search", *sorted(paths)).splitlines():
        package, path = line.split(": ", 1)
        owners[path] = package
    return owners


def compiled_in(build, names):
    """For each package of ours the Debian packages whose code became part of it."""
    pairs = list(headers_of_objects(build))
    owners = owners_of({header for _, header in pairs})
    contents = {name: set() for name in names}
    for object_file, header in pairs:
        targets = next(packages for prefix, packages in PACKAGES_OF_OBJECTS if object_file.startswith(prefix))
        if not DECLARATIONS_ONLY.match(plain(owners[header])):
            for name in targets:
                contents[name].add(owners[header])
    return contents


def built_using(build, package):
    """The sources, with their versions, of the code that becomes part of a package and that asks for something."""
    names = {name for _, names in PACKAGES_OF_OBJECTS for name in names}
    contents = {name for name in compiled_in(build, names)[package]
                if licences.licence_of(name) != licences.ASKS_FOR_NOTHING}
    source = "${source:Package} (= ${source:Version})"
    return ", ".join(sorted({output_of("dpkg-query", "--show", "--showformat", source, name) for name in contents}))


def needed_by(control):
    """The names of the packages that a package depends on; of alternatives the first."""
    dependencies = control.get("Depends", "")
    return [re.match(r"[a-z0-9.+-]+", text.strip()).group() for text in dependencies.split(",") if text.strip()]


def spdx_id(name):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", name)


def purl(vendor, name, version, architecture):
    quoted = [urllib.parse.quote(text, safe="") for text in (name, version)]
    return f"pkg:deb/{vendor}{quoted[0]}@{quoted[1]}?arch={architecture}"


def described(name, version, supplier, licence, locator):
    return {
        "SPDXID": spdx_id(name),
        "name": plain(name),
        "versionInfo": version,
        "supplier": supplier,
        "downloadLocation": "NOASSERTION",
        "filesAnalyzed": False,
        "licenseConcluded": licence,
        "licenseDeclared": licence,
        "copyrightText": "NOASSERTION",
        "externalRefs": [
            {"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator": locator}
        ],
    }


def our_package(control, contents, copyright_text):
    name, version = control["Package"], control["Version"]
    package = described(name, version, supplier_of(control), "Apache-2.0",
                        purl("", name, version, control["Architecture"]))
    compiled = {licences.licence_of(content) for content in contents} - {licences.ASKS_FOR_NOTHING}
    with open(control["File"], "rb") as deb:
        checksum = hashlib.sha256(deb.read()).hexdigest()
    return package | {
        "licenseConcluded": licences.all_of({"Apache-2.0"} | compiled),
        "copyrightText": copyright_text,
        "packageFileName": os.path.basename(control["File"]),
        "checksums": [{"algorithm": "SHA256", "checksumValue": checksum}],
    }


def supplier_of(control):
    return "Organization: " + re.sub(r" *<(.*)>", r" (\1)", control["Maintainer"])


def debian_package(name, architecture):
    query = output_of("dpkg-query", "--show", "--showformat", "${Version} ${Architecture}\n",
                      name if ":" in name else find_installed(name, architecture))
    version, own_architecture = query.split()
    return described(name, version, "Organization: Debian", licences.licence_of(name),
                     purl("debian/", plain(name), version, own_architecture))


def find_installed(name, architecture):
    """The name as dpkg wants it: with the architecture if the package can be installed for several."""
    for candidate in (f"{name}:{architecture}", name):
        query = subprocess.run(["dpkg-query", "--show", candidate], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL, check=False)
        if query.returncode == 0:
            return candidate
    raise SystemExit(f"bill_of_materials.py: dpkg knows no package {name}")


def relationship(element, kind, related):
    return {"spdxElementId": element, "relationshipType": kind, "relatedSpdxElement": spdx_id(related)}


def bill(build, controls):
    architecture = controls[0]["Architecture"]
    ours = {control["Package"]: control for control in controls}
    contents = compiled_in(build, ours)
    copyright_text = copyright_of(build)
    packages = [our_package(control, contents[name], copyright_text) for name, control in ours.items()]
    relationships = [relationship("SPDXRef-DOCUMENT", "DESCRIBES", name) for name in ours]
    foreign = set()
    for name, control in ours.items():
        needed = [package if package in ours else find_installed(package, architecture)
                  for package in needed_by(control)]
        foreign.update(set(needed) - set(ours) | contents[name])
        relationships += [relationship(spdx_id(name), "DEPENDS_ON", package) for package in sorted(needed)]
        relationships += [relationship(spdx_id(name), "CONTAINS", package) for package in sorted(contents[name])]
    packages += [debian_package(name, architecture) for name in sorted(foreign)]
    sums = "".join(package["checksums"][0]["checksumValue"] for package in packages if "checksums" in package)
    return {
        "spdxVersion": "SPDX-2.3",
        "dataLicense": "CC0-1.0",
        "SPDXID": "SPDXRef-DOCUMENT",
        "name": f"vfilesys_{controls[0]['Version']}_{architecture}",
        "documentNamespace": f"urn:uuid:{uuid.uuid5(uuid.NAMESPACE_OID, sums)}",
        "creationInfo": {
            "created": time_of_release(build),
            "creators": [supplier_of(controls[0]), "Tool: bill_of_materials.py"],
        },
        "packages": packages,
        "relationships": relationships,
    }


def copyright_of(build):
    with open(os.path.join(build, "../debian/copyright"), encoding="utf-8") as copyright_file:
        return "Copyright " + re.search(r"^Copyright: (.*)$", copyright_file.read(), re.MULTILINE).group(1)


def time_of_release(build):
    changelog = os.path.join(build, "../debian/changelog")
    seconds = int(output_of("dpkg-parsechangelog", "-l", changelog, "-S", "Timestamp"))
    return datetime.fromtimestamp(seconds, timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def main():
    if sys.argv[2] == "--built-using":
        print(built_using(sys.argv[1], sys.argv[3]))
        return
    build, debs = sys.argv[1], sorted(sys.argv[2:])
    controls = [control_of(deb) for deb in debs]
    # The packages of debug information hold what the others are made of, and nothing else.
    controls = [control for control in controls if not control["Package"].endswith("-dbgsym")]
    print(json.dumps(bill(build, controls), indent=2, ensure_ascii=False))


if __name__ == "__main__":
    main()
