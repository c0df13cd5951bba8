"""Checks of the manual pages that the host's build made."""

import re
import subprocess

from binaries import EXPORTS
from suite import BUILD, ROOT, output

MAN = BUILD / "host/man"
# What mandoc says of every page and is meant: a page has no date, as it is made with the library.
MEANT = re.compile(r'WARNING: missing date, using "": TH$')


def source_of(name):
    """A page's own text, behind the link if it is one; None when there is none."""
    path = MAN / "man3" / (name + ".3")
    text = path.read_text() if path.exists() else ""
    link = re.fullmatch(r"\.so (man3/\S+)\n", text)
    if link:
        path = MAN / link[1]
        text = path.read_text() if path.exists() else ""
    return text


def check_manual(suite):
    """Every exported function is described on the page of its name; formatters find no fault."""
    for name in EXPORTS.read_text().split():
        text = source_of(name)
        named = re.search(r"^\.SH NAME\n(.*) \\- ", text, re.M)
        suite.verdict(named and name in named[1].split(", ")
                      and re.search(r'^\.B ".*\b%s\(' % name, text, re.M), "page of " + name)

    pages = [path for path in sorted(MAN.glob("man[1-8]/*"))
             if not path.read_text().startswith(".so ")]
    sources = ROOT / "docs/man"
    written = {path.name for path in sources.glob("*.[1-8]")}
    tested = re.search(r"set\(pages (.*)\)", (sources / "CMakeLists.txt").read_text())[1].split()
    suite.verdict({path.name for path in pages} >= written | {"sysconfig.3"}, "the pages are there")
    suite.verdict(set(tested) == written, "the examples of all pages are run")
    faults = said(["mandoc", "-T", "lint", "-W", "warning", *pages])
    for page in pages:
        # Lines as wide as man makes them.
        found = [line for line in faults if ": %s:" % page in line and not MEANT.search(line)] + \
            said(["groff", "-ww", "-rLL=78n", "-man", "-t", "-T", "utf8", "-z", page])
        suite.verdict(not found, "lint of " + page.name, "; ".join(found))


def check_commands(suite):
    """scctl(1) has every command with the words and the options that its help shows, and no other."""
    scctl = BUILD / "host/scctl/scctl"
    page = subprocess.run(["mandoc", "-T", "ascii", "-O", "width=200", MAN / "man1/scctl.1"],
                          stdout=subprocess.PIPE, check=True).stdout
    lines = re.sub(rb".\x08", b"", page).decode().splitlines()
    helped = output([scctl, "help"])
    names = re.findall(r"^  (\w+) {2,}\S", helped, re.M)
    suite.verdict(len(names) > 20, "help names the commands")
    for name in names:
        text = output([scctl, name, "--help"])
        usage = re.match(r"usage: scctl (.*)\n", text)[1]
        words = re.sub(r" \[OPTION\]\.\.\.", "", usage)
        # Each of several forms may have a paragraph of its own.
        forms = ["%s %s" % (name, form) for form in words.removeprefix(name + " ").split("|")]
        suite.verdict(has(lines, words) or (len(forms) > 1 and all(has(lines, form) for form in forms)),
                      "scctl(1) on %s" % name, words)
        for option in re.findall(r"^  (--[\w-]+)", text, re.M):
            suite.verdict(any(re.search(re.escape(option) + r"\b", line) for line in lines),
                          "scctl(1) on %s of %s" % (option, name))


def has(lines, words):
    """Whether a paragraph of the page begins with these words."""
    return any(re.match(" {7}%s( |$)" % re.escape(words), line) for line in lines)


def said(command):
    ended = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT)
    return ended.stdout.splitlines()
