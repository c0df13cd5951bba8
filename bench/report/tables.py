"""Tables as the documents have them."""

# The other stores, as the benchmark programs and as people call them.
PEERS = {"lmdb": "LMDB", "lmdb_in_place": "LMDB, no sync, in place", "sqlite": "SQLite, WAL"}


def table(columns, rows):
    lines = ["| %s |" % " | ".join(columns), "|---" * len(columns) + "|"]
    lines += ["| %s |" % " | ".join(row) for row in rows]
    return "\n".join(lines)
