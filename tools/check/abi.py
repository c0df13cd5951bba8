"""The ABI as abigail-tools describe it: every exported function with all types that it takes, from the
debug information of the host's library."""

from suite import BUILD, ROOT, output

LIBRARY = BUILD / "host/libsysconfig.so"
DESCRIPTION = ROOT / "tests/golden/libsysconfig.abi"

# Nothing in it depends on where and how the library was built, or on its insides.
PUBLIC = ["--drop-private-types", "--exported-interfaces-only"]
PLAIN = ["--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed",
         "--drop-undefined-syms", "--type-id-style", "hash"]


def check_abi(suite):
    symbols = DESCRIPTION.read_text().count("<elf-symbol ")
    exported = len((ROOT / "tests/golden/exports.txt").read_text().split())
    suite.verdict(symbols == exported, "the description has the %d exported names" % exported,
                  "it has %d" % symbols)
    suite.run(["abidiff", "--headers-dir2", "include/sysconfig", *PUBLIC, DESCRIPTION, LIBRARY],
              check="nothing that a linked program relies on has changed; if it is an addition or "
                    "cannot be helped, run tools/accept_abi")


def accept():
    output(["abidw", "--headers-dir", "include/sysconfig", *PUBLIC, *PLAIN,
            "--out-file", DESCRIPTION, LIBRARY])
