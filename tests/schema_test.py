#!/usr/bin/python3
"""Holds what scctl exports against what scctl schema says, with and without an overlay.

usage: schema_test.py SCCTL...   the words of the command

The exports of all golden images are valid, and of 50 broken ones none is.
"""

import copy
import gzip
import json
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

from jsonschema import Draft7Validator

TESTS = pathlib.Path(__file__).resolve().parent
IMAGES = TESTS / "golden/images"
# The overlay of the tests in C++.
OVERLAY = re.search(r'R"\((.*?)\)";', (TESTS / "scctl/overlay_case.h").read_text(), re.S).group(1)
MAGIC = 1463897669


def scctl(*words):
    return subprocess.run([*sys.argv[1:], *words], check=True, capture_output=True, text=True).stdout


def wan_image(folder):
    """Two sections that hold, one that does not, and one of zeros."""
    image = bytearray(4476)
    for section in range(3):
        at = 140 + 960 * section
        image[at:at + 956] = bytes((7 * n + section) % 256 for n in range(956))
        if section < 2:
            struct.pack_into("<I", image, at, MAGIC)
            struct.pack_into("<I", image, at + 8, 2)
            struct.pack_into("<I", image, at + 244, 4 + 2 * section)
            image[at + 28] = 3
            image[at + 64] = 2
    path = folder / "wan.cfg"
    path.write_bytes(image)
    return path


# What breaks an export: the path to a value, and what takes its place. None removes it.
REMOVED = object()
BROKEN = [
    ([], []),
    (["Wam"], {}),
    (["Wan"], []),
    (["Wan", "wam"], []),
    (["Wan", "wan"], {}),
    (["Wan", "wan", 0], 1),
    (["Wan", "wan", 0, "id"], REMOVED),
    (["Wan", "wan", 0, "id"], 0),
    (["Wan", "wan", 0, "id"], 5),
    (["Wan", "wan", 0, "id"], "1"),
    (["Wan", "wan", 0, "magic"], -1),
    (["Wan", "wan", 0, "magic"], 1 << 32),
    (["Wan", "wan", 0, "magic"], "1"),
    (["Wan", "wan", 0, "magic"], 1.5),
    (["Wan", "wan", 0, "magic"], [1]),
    (["Wan", "wan", 0, "magic"], None),
    (["Wan", "wan", 0, "mtu"], 65536),
    (["Wan", "wan", 0, "mtx"], 1),
    (["Wan", "wan", 0, "bits.a"], 2),
    (["Wan", "wan", 0, "bits.b"], 4),
    (["Wan", "wan", 0, "bits.b"], -5),
    (["Wan", "wan", 0, "bits.c"], 16),
    (["Wan", "wan", 0, "mode"], "dhcq"),
    (["Wan", "wan", 0, "mode"], True),
    (["Wan", "wan", 0, "mode"], 1 << 32),
    (["Wan", "wan", 0, "level"], -129),
    (["Wan", "wan", 0, "ports"], 1),
    (["Wan", "wan", 0, "ports"], []),
    (["Wan", "wan", 0, "ports"], [1] * 9),
    (["Wan", "wan", 0, "ports"], ["1"]),
    (["Wan", "wan", 0, "ports"], [65536]),
    (["Wan", "wan", 0, "temperature"], 32768),
    (["Wan", "wan", 0, "radio"], []),
    (["Wan", "wan", 0, "radio[4].channel"], 1),
    (["Wan", "wan", 0, "radio[0].ssid"], "12345"),
    (["Wan", "wan", 0, "station"], "02:00:00:00:00"),
    (["Wan", "wan", 0, "station"], "02:00:00:00:00:0g"),
    (["Wan", "wan", 0, "station_text"], "x" * 19),
    (["Wan", "wan", 0, "psk"], 1),
    (["Wan", "wan", 0, "psk"], "x" * 65),
    (["Wan", "wan", 0, "token"], "012"),
    (["Wan", "wan", 0, "token"], "00" * 9),
    (["Wan", "wan", 0, "peer"], "10.0.0"),
    (["Wan", "wan", 0, "peer"], 1),
    (["Wan", "wan", 0, "grid[0]"], [1, 2]),
    (["Wan", "wan", 0, "grid[0]"], [1, 2, 3, 4]),
    (["Wan", "wan", 0, "wide"], 1 << 64),
    (["Wan", "wan", 0, "deep"], -(1 << 63) - 1),
    (["Wan", "wan", 0, "spare_10"], "0x"),
    (["Wan", "wan", 0, "spare_"], "00"),
    (["Wan", "wan", 2, "settings"], "0"),
    (["Wan", "wan", 2, "settings"], "00" * 957),
    (["Wan", "wan_rest", 0, "settings"], None),
]


def broken(export, path, value):
    if not path:
        return value
    made = copy.deepcopy(export)
    at = made
    for step in path[:-1]:
        at = at[step]
    if value is REMOVED:
        del at[path[-1]]
    else:
        at[path[-1]] = value
    return made


def main():
    faults = []
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        plain = json.loads(scctl("schema"))
        Draft7Validator.check_schema(plain)
        images = sorted(IMAGES.glob("*.gz"))
        for packed in images:
            image = folder / packed.stem
            image.write_bytes(gzip.decompress(packed.read_bytes()))
            export = json.loads(scctl("export", "--image", str(image)))
            faults += ["%s: %s" % (packed.name, e.message[:200])
                       for e in Draft7Validator(plain).iter_errors(export)]
        overlay = folder / "vendor.json"
        overlay.write_text(OVERLAY)
        with_overlay = ["--overlay", str(overlay)]
        schema = json.loads(scctl("schema", *with_overlay))
        Draft7Validator.check_schema(schema)
        validator = Draft7Validator(schema)
        wan = ["export", "--image", str(wan_image(folder)), *with_overlay]
        for more in ([], ["--secrets"]):
            export = json.loads(scctl(*wan, *more))
            faults += ["wan: %s" % e.message[:200] for e in validator.iter_errors(export)]
        if Draft7Validator(plain).is_valid(export):
            faults.append("without the overlay its names are valid")
        refused = sum(not validator.is_valid(broken(export, *change)) for change in BROKEN)
        faults += ["valid: %s %s" % change for change in BROKEN
                   if validator.is_valid(broken(export, *change))]
    for fault in faults:
        print(fault)
    print("valid exports: %d images and 2 with an overlay; refused: %d of %d broken ones"
          % (len(images), refused, len(BROKEN)))
    if not images or len(BROKEN) < 50:
        print("too few")
        return 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
