"""What an overlay makes of bytes: the second reader of the format, written without the first."""

import itertools


def decode(overlay, type_name, data, at=0, prefix=""):
    """{name: (kind, place, size, values)} of a type's members; place and size are None for bits."""
    refuse_overlaps(overlay, type_name)
    found = {}
    for name, row in overlay["types"][type_name]["members"].items():
        counts = row.get("count", [])
        counts = counts if isinstance(counts, list) else [counts]
        if "type" in row:
            size = overlay["types"][row["type"]]["size"]
            for index, suffix in elements(counts):
                found.update(decode(overlay, row["type"], data, at + row["at"] + index * size,
                                    prefix + name + suffix + "."))
            continue
        order = row.get("order", overlay["order"])
        start = at + row["at"]
        if row["kind"] == "bit":
            found[prefix + name] = ("bit", None, None, [bits(row, data[start:], order)])
            continue
        numbers = row["kind"] in ("unsigned", "signed")
        inner = counts[-1] if numbers and counts else 1
        size = row["size"]
        for index, suffix in elements(counts[:-1] if numbers else counts):
            place = start + index * size * inner
            parts = [data[place + i * size:place + (i + 1) * size] for i in range(inner)]
            if row["kind"] in ("text", "bytes"):
                values = [part.hex() for part in parts]
            else:
                signed = row["kind"] == "signed" or row.get("signed", False)
                values = [int.from_bytes(part, order, signed=signed) for part in parts]
            found[prefix + name + suffix] = (row["kind"], place, size * inner, values)
    return found


def elements(counts):
    """(position, "[i][j]") of an array's elements; of a single member one with no suffix."""
    for position, indexes in enumerate(itertools.product(*map(range, counts))):
        yield position, "".join("[%d]" % index for index in indexes)


def bits(row, data, order):
    first, width = row["bit"], row["width"]
    size = (first + width + 7) // 8
    number = int.from_bytes(data[:size], order)
    number >>= first if order == "little" else size * 8 - first - width
    number &= (1 << width) - 1
    if row.get("signed") and number >> (width - 1):
        number -= 1 << width
    return number


def refuse_overlaps(overlay, type_name):
    """Only the members of a union may overlap; all lie in the type."""
    row = overlay["types"][type_name]
    taken = set()
    for name, member in row["members"].items():
        if member.get("kind") == "bit":
            own = bits_taken(member, member.get("order", overlay["order"]))
        else:
            size = overlay["types"][member["type"]]["size"] if "type" in member else member["size"]
            counts = member.get("count", 1)
            for count in counts if isinstance(counts, list) else [counts]:
                size *= count
            own = set(range(member["at"] * 8, (member["at"] + size) * 8))
        if max(own) >= row["size"] * 8 or own & taken and not row.get("union"):
            raise ValueError("%s.%s overlaps or does not fit" % (type_name, name))
        taken |= own


def bits_taken(member, order):
    """As bits counted from the least significant one of each byte."""
    own = range(member["bit"], member["bit"] + member["width"])
    return {member["at"] * 8 + (bit if order == "little" else bit // 8 * 8 + 7 - bit % 8) for bit in own}
