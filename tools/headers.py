"""The structs of the public headers, for the documents and the manual pages that are made of them."""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
FOLDER = ROOT / "include/sysconfig"

STRUCT = re.compile(r"(/\*(?:(?!\*/).)*\*/\n)?^struct (\w+) \{\n(.*?)^\} SC_PACKED;\n((?:SC_[^\n]*\n)*)",
                    re.M | re.S)
MEMBER = re.compile(r"  (((?:struct )?\w+) (\w+)(\[\w+\])?;)(?:\s*/\* (.*) \*/)?")


class Member:
    def __init__(self, line):
        match = MEMBER.fullmatch(line)
        if not match:
            sys.exit("include/sysconfig: not understood: " + line)
        self.declaration, self.type, self.name, array, note = match.groups()
        self.is_array = bool(array)
        self.note = note or ""


class Struct:
    def __init__(self, comment, name, body, facts):
        self.comment, self.name = comment, name
        self.members = [Member(line) for line in body.splitlines()]
        self.size = re.search(r"SC_SIZE\(\w+, (\d+)\)", facts)[1]
        self.offsets = dict(re.findall(r"SC_OFFSET\(\w+, (\w+), (\d+)\)", facts))


def source_of(name):
    return (FOLDER / (name + ".h")).read_text()


def structs_of(source):
    return [Struct(*match.groups()) for match in STRUCT.finditer(source)]
