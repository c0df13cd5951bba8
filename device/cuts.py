"""What is written to the flash of a box, and what a power cut leaves of it."""

import re

import box


def frozen_when_ready(job, path):
    """Freezes a box that has booted for a job; gives what its console said."""
    with box.Box(job) as router:
        router.wait_for("^ready", 60)
        router.freeze(path)
        return router.lines


def flash_driver(lines):
    """The addresses of the flash driver's write and erase, by what a job's console said."""
    symbols = re.findall(r"([0-9a-f]+) t (phram_write|phram_erase)\b", "\n".join(lines))
    if len(symbols) != 2:
        raise box.BoxError("the flash driver's write and erase are not to be found")
    return [int(address, 16) for address, _ in symbols]


def said(router, text):
    return any(text in line for line in router.lines)


def difference(before, now):
    """Where two images of a flash begin to differ, and the new bytes up to where they end to."""
    def edge(low, high, pick):
        # Halves the range that holds the first (pick 0) or the last (pick -1) difference.
        while high - low > 1:
            middle = (low + high) // 2
            halves = [(low, middle), (middle, high)]
            differing = [(a, b) for a, b in halves if before[a:b] != now[a:b]]
            low, high = differing[pick]
        return low

    if before == now:
        return None
    first = edge(0, len(now), 0)
    return first, now[first:edge(first, len(now), -1) + 1]


def cut_lengths(new, every):
    """How much of a write a cut leaves: up to all of it. every=0: only that. An erased block is cut
    as often as a page would be."""
    step = max(every, every * len(new) // 4096 // 4 * 4) or len(new)
    return [*range(step, len(new), step), len(new)]


def cut_images(start, writes, every):
    """The flash before the first write, within and after each write."""
    flash = bytearray(start)
    yield bytes(flash)
    for offset, new in writes:
        for length in cut_lengths(new, every):
            flash[offset:offset + length] = new[:length]
            yield bytes(flash)
