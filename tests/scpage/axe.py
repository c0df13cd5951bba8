"""The script of axe-core, which looks for barriers in a page. Fetched once from npm, into build/axe."""

import hashlib
import pathlib
import subprocess
import tarfile

import world

NAME = "axe-core-4.10.3.tgz"
SHA256 = "0f2b4d7dcdf7d1219df8d1959ad68e565f51d14c3f0d88bb71cd59abeb956292"


def script():
    folder = world.ROOT / "build/axe"
    path = folder / NAME
    if not path.exists():
        folder.mkdir(parents=True, exist_ok=True)
        subprocess.run(["npm", "pack", "axe-core@4.10.3", "--ignore-scripts", "--silent",
                        "--pack-destination", folder, "--cache", folder / "cache"],
                       check=True, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
    data = pathlib.Path(path).read_bytes()
    if hashlib.sha256(data).hexdigest() != SHA256:
        path.unlink()
        raise AssertionError("%s has another checksum" % NAME)
    with tarfile.open(path) as packed:
        return packed.extractfile("package/axe.min.js").read().decode()


def findings(tab, source):
    """One line for each finding on the page as it is shown."""
    tab.run(source + "; 0")
    return tab.run("""axe.run(document, {resultTypes: ['violations']}).then((found) => found.violations.flatMap(
        (rule) => rule.nodes.map((node) => rule.id + ' ' + node.target + ' ' + node.failureSummary)))""")
