#!/usr/bin/python3
"""Writes src/dbase/core/collation_weights.inc from the weight tables of the
BDE Spanish language drivers (one weights_<NAME>.csv and one
contractions_<NAME>.csv per driver, as exported from Firebird's collations).

    /usr/bin/python3 tools/gen_collation_weights.py WEIGHTS_DIR [OUTPUT]

The key layout of collation.cpp relies on properties of the tables that are
checked here, so a table that breaks them never reaches the build:
  * no primary weight is 0 or 1 (0x01 separates the levels, 0x00 ends a field);
  * secondary and tertiary weights fit in a byte;
  * within one primary weight, either every element has a secondary (tertiary)
    or none has, so equal primaries mean equally long lower levels;
  * no byte both expands and starts a contraction, an expansion's second byte
    is a plain one, and a contraction sorts after its first letter alone
    (so a partial key ending in that letter stays before it).
"""
import csv
import os
import sys

# (C++ identifier, table name, code page) in the order they are written.
DRIVERS = [
    ("kDbEsp850", "DB_ESP850", 850),
    ("kDbEsp437", "DB_ESP437", 437),
    ("kPxwSpan", "PXW_SPAN", 1252),
]
MAX_CONTRACTIONS = 8
EXPAND, COMPRESS = 1, 2


class TableError(Exception):
    pass


def check(condition, message):
    if not condition:
        raise TableError(message)


def read_weights(directory, name):
    path = os.path.join(directory, f"weights_{name}.csv")
    rows = {}
    with open(path, encoding="utf-8", newline="") as f:
        for r in csv.DictReader(f):
            b = int(r["byte"])
            check(0 <= b <= 255 and b not in rows, f"{path}: bad or repeated byte {r['byte']}")
            expands_to = bytes.fromhex(r["expands_to"]) if r["expands_to"].strip() else b""
            rows[b] = {
                "p": int(r["primary"]),
                "s": int(r["secondary"]),   # as written, not Firebird 3's 4-bit value
                "t": int(r["tertiary"]),
                "expand": int(r["expand"]) != 0,
                "compress": int(r["compress"]) != 0,
                "expands_to": expands_to,
            }
    check(len(rows) == 256, f"{path}: {len(rows)} bytes instead of 256")
    return [rows[b] for b in range(256)]


def read_contractions(directory, name):
    path = os.path.join(directory, f"contractions_{name}.csv")
    pairs = []
    with open(path, encoding="utf-8", newline="") as f:
        for r in csv.DictReader(f):
            pair = bytes.fromhex(r["pair_hex"])
            check(len(pair) == 2, f"{path}: pair {r['pair_hex']} is not two bytes")
            # Firebird sorts with the case-insensitive ("NoCase") weights only.
            pairs.append((pair[0], pair[1], int(r["primary"]), int(r["secondary"]), int(r["tertiary"])))
    check(len(pairs) <= MAX_CONTRACTIONS, f"{path}: more than {MAX_CONTRACTIONS} contractions")
    check(len({(a, b) for a, b, *_ in pairs}) == len(pairs), f"{path}: repeated pair")
    return pairs


def validate(name, table, pairs):
    elements = [(f"byte 0x{b:02X}", e["p"], e["s"], e["t"]) for b, e in enumerate(table)]
    elements += [(f"pair {chr(a)}{chr(b)}", p, s, t) for a, b, p, s, t in pairs]
    for what, p, s, t in elements:
        check(2 <= p <= 255, f"{name}: {what} has primary weight {p}")
        check(0 <= s <= 255, f"{name}: {what} has secondary weight {s}")
        check(0 <= t <= 255, f"{name}: {what} has tertiary weight {t}")

    has_s, has_t = {}, {}
    for what, p, s, t in elements:
        check(has_s.setdefault(p, s != 0) == (s != 0),
              f"{name}: primary {p} mixes elements with and without a secondary weight ({what})")
        check(has_t.setdefault(p, t != 0) == (t != 0),
              f"{name}: primary {p} mixes elements with and without a tertiary weight ({what})")

    for b, e in enumerate(table):
        check(not (e["expand"] and e["compress"]), f"{name}: byte 0x{b:02X} both expands and contracts")
        if e["expand"]:
            check(len(e["expands_to"]) == 2, f"{name}: byte 0x{b:02X} expands to {e['expands_to'].hex()}")
            second = table[e["expands_to"][1]]
            check(not second["expand"] and not second["compress"],
                  f"{name}: byte 0x{b:02X} expands to a byte that expands or contracts")
        else:
            check(not e["expands_to"], f"{name}: byte 0x{b:02X} has an expansion without the flag")

    starters = {b for b, e in enumerate(table) if e["compress"]}
    for a, b, p, s, t in pairs:
        check(a in starters, f"{name}: pair {chr(a)}{chr(b)} starts with a byte without the contraction flag")
        check(p > table[a]["p"], f"{name}: pair {chr(a)}{chr(b)} does not sort after {chr(a)}")
    for a in starters:
        check(any(x == a for x, *_ in pairs), f"{name}: byte 0x{a:02X} has the contraction flag but no pair")


def byte_array(values):
    lines = []
    for start in range(0, 256, 16):
        chunk = ", ".join(f"{v:3d}" for v in values[start:start + 16])
        lines.append(f"        {chunk},  // {start:02X}")
    return "\n".join(lines)


def emit_table(ident, name, code_page, table, pairs):
    flags = [(EXPAND if e["expand"] else 0) | (COMPRESS if e["compress"] else 0) for e in table]
    expansion = [e["expands_to"][1] if e["expand"] else 0 for e in table]
    contraction_lines = []
    for a, b, p, s, t in pairs:
        contraction_lines.append(f"        {{0x{a:02X}, 0x{b:02X}, {p}, {s}, {t}}},  // {chr(a)}{chr(b)}")
    padding = MAX_CONTRACTIONS - len(pairs)
    contraction_lines += ["        {0, 0, 0, 0, 0},"] * padding
    return f"""// {name} (code page {code_page})
constexpr WeightTable {ident} = {{
    // primary
    {{
{byte_array([e['p'] for e in table])}
    }},
    // secondary
    {{
{byte_array([e['s'] for e in table])}
    }},
    // tertiary
    {{
{byte_array([e['t'] for e in table])}
    }},
    // flags: 1 = expands into two elements, 2 = may start a contraction
    {{
{byte_array(flags)}
    }},
    // byte whose weights make the second element of an expansion
    {{
{byte_array(expansion)}
    }},
    // contractions: first byte, second byte, primary, secondary, tertiary
    {{
{chr(10).join(contraction_lines)}
    }},
    {len(pairs)},
}};
"""


HEADER = """// Generated by tools/gen_collation_weights.py; do not edit, rerun the tool.
//
// Weights of the BDE Spanish language drivers DB850ES0, DB437ES1 and
// ANSISPAN, as Firebird's DB_ESP850, DB_ESP437 and PXW_SPAN collations carry
// them. The weight data originates in the InterBase Public License sources
// (Borland); see Firebird's src/intl/collations.
//
// Included by collation.cpp, which defines WeightTable.
"""


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    directory = argv[1]
    here = os.path.dirname(os.path.abspath(__file__))
    output = argv[2] if len(argv) > 2 else os.path.join(here, "..", "src", "dbase", "core", "collation_weights.inc")
    parts = [HEADER]
    try:
        for ident, name, code_page in DRIVERS:
            table = read_weights(directory, name)
            pairs = read_contractions(directory, name)
            validate(name, table, pairs)
            parts.append(emit_table(ident, name, code_page, table, pairs))
    except (TableError, OSError, KeyError, ValueError) as e:
        print(f"gen_collation_weights: {e}", file=sys.stderr)
        return 1
    with open(output, "w", encoding="utf-8", newline="\n") as f:
        f.write("\n".join(parts))
    print(f"wrote {os.path.normpath(output)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
