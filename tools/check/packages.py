"""Checks the Debian packages of a build folder; tools/package_test installs and runs them."""

import csv
import io
import re
import shutil
import subprocess
import tarfile

from binaries import EXPORTS
from suite import LOGS, ROOT, output

FILES = ROOT / "tests/golden/packages.csv"
# What stands for itself in FILES.
NAMES = {"amd64": {"TRIPLET": "x86_64-linux-gnu", "CONFIG": "release"},
         "mipsel": {"TRIPLET": "mipsel-linux-gnu", "CONFIG": "minsizerel"}}
MACHINES = {"amd64": "Advanced Micro Devices X86-64", "mipsel": "MIPS R3000"}
C_LIBRARY = (2, 34)
DEPENDS = {"libsysconfig1": "libc6 (>= 2.34)",
           "libsysconfig-dev": "libsysconfig1 (= 1.0.0-1), libc6-dev, python3:any, python3-pyelftools",
           "sysconfig-tools": "libsysconfig1 (= 1.0.0-1), libc6 (>= 2.34)",
           "sysconfig-page": "python3 (>= 3.9)"}
# For all architectures; made with those for amd64.
FOR_ALL = "sysconfig-page"


# Of the ldconfig that dpkg runs once for all packages; programs find the library by its cache.
TRIGGERS = {"libsysconfig1": ["activate-noawait ldconfig"]}


def check_packages(suite, build, architecture):
    folder = LOGS / "packages" / architecture
    shutil.rmtree(folder, ignore_errors=True)
    suite.run(["cpack", "--config", build / "CPackConfig.cmake", "-B", folder],
              check=architecture + ": packages are made")
    packages = {}
    for path in sorted(folder.glob("*.deb")):
        name = output(["dpkg-deb", "--field", path, "Package"]).strip()
        packages[name] = path
        suite.verdict(path.name == "%s_1.0.0-1_%s.deb" % (
            name, "all" if name == FOR_ALL else architecture), path.name)
    wanted = DEPENDS.keys() - (set() if architecture == "amd64" else {FOR_ALL})
    if not suite.verdict(packages.keys() == wanted, architecture + ": the packages"):
        return
    with open(FILES, newline="") as file:
        listed = [(row["package"], "./" + re.sub(
            r"[A-Z]{6,}\b", lambda word: NAMES[architecture].get(word[0], word[0]), row["path"]))
                  for row in csv.DictReader(file)]
    for name, path in packages.items():
        fields = [output(["dpkg-deb", "--field", path, field]).strip()
                  for field in ("Architecture", "Depends")]
        suite.verdict(fields == ["all" if name == FOR_ALL else architecture, DEPENDS[name]], "fields of " + path.name,
                      str(fields))
        suite.verdict(triggers_of(path) == TRIGGERS.get(name, []), "triggers of " + path.name,
                      str(triggers_of(path)))
        check_content(suite, path, architecture, {file for package, file in listed
                                                  if package == name})


def triggers_of(path):
    """The lines of a package's triggers, without comments."""
    control = tarfile.open(fileobj=io.BytesIO(subprocess.run(
        ["dpkg-deb", "--ctrl-tarfile", path], check=True, stdout=subprocess.PIPE).stdout))
    return [line for member in control if member.name == "./triggers"
            for line in control.extractfile(member).read().decode().splitlines()
            if line and not line.startswith("#")]


def check_content(suite, path, architecture, listed):
    what = path.name
    content = tarfile.open(fileobj=io.BytesIO(subprocess.run(
        ["dpkg-deb", "--fsys-tarfile", path], check=True, stdout=subprocess.PIPE).stdout))
    members = [member for member in content if not member.isdir()]
    names = {member.name for member in members}
    pages = {name for name in names if name.startswith("./usr/share/man/man3/")}
    wrong = (names - pages) ^ listed
    suite.verdict(not wrong, "files of " + what, "differs in " + " ".join(sorted(wrong)))
    if "libsysconfig-dev" in what:
        missing = [name for name in EXPORTS.read_text().split()
                   if "./usr/share/man/man3/%s.3.gz" % name not in pages]
        suite.verdict(not missing, "a page for each function in " + what, " ".join(missing))
    else:
        suite.verdict(not pages, "no page of a function in " + what)

    wrong = [member.name for member in content if member.uid or member.gid or
             not member.issym() and member.mode != (
                 0o755 if member.isdir() or re.search("/s?bin/|/private_world$", member.name) else 0o644)]
    suite.verdict(not wrong, "owners and modes in " + what, " ".join(wrong))

    for member in members:
        if not member.isfile() or not re.search(r"/s?bin/|\.so\.", member.name) or \
                member.name.endswith("/scctl-overlay-import"):
            continue
        file = LOGS / "packages" / "file"
        file.write_bytes(content.extractfile(member).read())
        if file.read_bytes().startswith(b"#!"):
            continue
        about = output(["readelf", "--wide", "--file-header", "--sections", "--dynamic",
                        "--version-info", file])
        versions = re.findall(r"Name: GLIBC_(\d+)\.(\d+)", about)
        suite.verdict("Machine:                           " + MACHINES[architecture] in about
                      and ".symtab" not in about and "RUNPATH" not in about and versions
                      and max((int(a), int(b)) for a, b in versions) <= C_LIBRARY,
                      "%s in %s" % (member.name, what))
