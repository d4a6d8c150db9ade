#!/bin/bash
# Sorts every distinct municipality name (upper case) with our collation
# (bin/ordenar_nombres) and with Firebird's embedded engine, which carries the
# same BDE Spanish tables, and checks that both give the same order.
#
#   bash collation_firebird.sh BUILD_DIR SHARED_DIR
#
# Equal keys form groups whose inner order is free, so the orders are
# compared group by group. Needs isql-fb (firebird3.0-server-core and
# firebird3.0-utils); no server is started.
set -u

build_dir=${1:?uso: collation_firebird.sh BUILD_DIR SHARED_DIR}
shared_dir=${2:?uso: collation_firebird.sh BUILD_DIR SHARED_DIR}
tool=$build_dir/bin/ordenar_nombres
names_csv=$shared_dir/data/municipios_2026.csv

fail() {
  echo "collation_firebird: $*" >&2
  echo "0 passed, 1 failed"
  exit 1
}

[ -x "$tool" ] || fail "no encuentro $tool (compila el objetivo ordenar_nombres)"
[ -r "$names_csv" ] || fail "no encuentro los nombres de municipios en $names_csv"
command -v isql-fb >/dev/null || fail "falta isql-fb (paquetes firebird3.0-server-core y firebird3.0-utils)"

python=/usr/bin/python3
[ -x "$python" ] || python=python3

work=$(mktemp -d "${TMPDIR:-/tmp}/collation_firebird.XXXXXX") || fail "no puedo crear un directorio temporal"
trap 'rm -rf "$work"' EXIT
# The embedded engine needs a writable lock folder when not run as root.
if [ "$(id -u)" != 0 ]; then
  mkdir -p "$work/lock"
  export FIREBIRD_LOCK=$work/lock
fi

"$python" - "$tool" "$names_csv" "$work" <<'PYTHON'
import csv
import re
import subprocess
import sys
import time

tool, names_csv, work = sys.argv[1:4]

# (driver byte, Firebird charset, Firebird collation, Python codec, characters left out)
CHECKS = [
    (0x14, "DOS850", "DB_ESP850", "cp850", ""),
    (0x18, "DOS437", "DB_ESP437", "cp437", ""),
    # Firebird 3 keeps only 4 bits of PXW_SPAN's secondary weights and so
    # misplaces these four; our tables keep the weights as written.
    (0x59, "WIN1252", "PXW_SPAN", "cp1252", "ÅÆØæ"),
]
BATCH = 250


def read_names():
    """The distinct names upper-cased (how the tables keep them), and as
    written (mixed case, which brings in the case and accent levels)."""
    with open(names_csv, encoding="utf-8", newline="") as f:
        written = {row["nombre"] for row in csv.DictReader(f)}
    written.discard("")
    return {"en mayúsculas": sorted({n.upper() for n in written}), "tal cual": sorted(written)}


def our_groups(ldid, names):
    """Our order as a list of groups of equal keys."""
    run = subprocess.run([tool, "--ldid", hex(ldid), "--claves"], input="\n".join(names) + "\n",
                         capture_output=True, text=True, encoding="utf-8")
    if run.returncode != 0:
        raise RuntimeError(f"ordenar_nombres falló: {run.stderr.strip()}")
    groups, last_key = [], None
    for line in run.stdout.splitlines():
        key, name = line.split("\t", 1)
        if key != last_key:
            groups.append([])
            last_key = key
        groups[-1].append(name)
    return groups


def firebird_groups(charset, collation, codec, names, tag):
    """Firebird's order (ORDER BY, ties from DENSE_RANK) as groups."""
    encoded = [n.encode(codec) for n in names]
    width = max(1, max(len(e) for e in encoded))
    db = f"{work}/{tag}.fdb"
    sql = [f"CREATE DATABASE '{db}' USER 'SYSDBA' DEFAULT CHARACTER SET NONE;",
           f"CREATE TABLE T (ID INTEGER NOT NULL, S VARCHAR({width}) CHARACTER SET {charset} COLLATE {collation});",
           "COMMIT;", "SET TERM ^ ;"]
    for start in range(0, len(encoded), BATCH):
        sql.append("EXECUTE BLOCK AS BEGIN")
        for i in range(start, min(start + BATCH, len(encoded))):
            sql.append(f"INSERT INTO T VALUES ({i}, _{charset} x'{encoded[i].hex()}');")
        sql.append("END^")
    sql += ["SET TERM ; ^", "COMMIT;",
            "SELECT ID, DENSE_RANK() OVER (ORDER BY S) FROM T ORDER BY S, ID;", "EXIT;"]
    script = f"{work}/{tag}.sql"
    with open(script, "w", encoding="ascii") as f:
        f.write("\n".join(sql) + "\n")
    run = subprocess.run(["isql-fb", "-q", "-b", "-i", script], capture_output=True, text=True)
    if run.returncode != 0 or run.stderr.strip():
        raise RuntimeError(f"isql-fb falló ({run.returncode}): {run.stderr.strip()[:2000]}")
    groups, last_rank, seen = [], None, 0
    for line in run.stdout.splitlines():
        m = re.fullmatch(r"\s*(\d+)\s+(\d+)\s*", line)
        if not m:
            continue
        ident, rank = int(m.group(1)), int(m.group(2))
        if rank != last_rank:
            groups.append([])
            last_rank = rank
        groups[-1].append(names[ident])
        seen += 1
    if seen != len(names):
        raise RuntimeError(f"Firebird devolvió {seen} filas de {len(names)}")
    return groups


def flatten(groups):
    """(name, group number) in order, each group's names sorted."""
    out = []
    for g, group in enumerate(groups):
        out += [(name, g) for name in sorted(group)]
    return out


def compare(ours, theirs):
    """Returns a list of readable differences (empty when the orders agree)."""
    a = [frozenset(g) for g in ours]
    b = [frozenset(g) for g in theirs]
    if a == b:
        return []
    diffs = []
    fa, fb = flatten(ours), flatten(theirs)
    moved = sum(1 for x, y in zip(fa, fb) if x[0] != y[0])
    diffs.append(f"{moved} de {len(fa)} posiciones difieren; grupos de iguales: nuestros "
                 f"{sum(len(g) > 1 for g in ours)}, Firebird {sum(len(g) > 1 for g in theirs)}")
    for i, (x, y) in enumerate(zip(a, b)):
        if x != y:
            lo = max(0, i - 1)
            diffs.append(f"primera diferencia en el grupo {i}:")
            for j in range(lo, min(i + 4, len(a), len(b))):
                diffs.append(f"  {j:5d}  nuestro {' = '.join(sorted(a[j]))!s:45}  Firebird {' = '.join(sorted(b[j]))}")
            break
    else:
        diffs.append(f"número de grupos distinto: {len(a)} frente a {len(b)}")
    return diffs


def main():
    started = time.time()
    name_sets = read_names()
    passed = failed = 0
    for (ldid, charset, collation, codec, excluded), (set_name, all_names) in (
            (c, s) for s in name_sets.items() for c in CHECKS):
        names = []
        for n in all_names:
            if any(ch in excluded for ch in n):
                continue
            try:
                n.encode(codec)
            except UnicodeEncodeError:
                continue
            names.append(n)
        label = f"{collation} (0x{ldid:02X}, {len(names)} nombres {set_name})"
        try:
            ours = our_groups(ldid, names)
            theirs = firebird_groups(charset, collation, codec, names, f"{collation.lower()}_{passed + failed}")
        except (RuntimeError, OSError) as e:
            print(f"FALLO {label}: {e}")
            failed += 1
            continue
        diffs = compare(ours, theirs)
        ties = sum(len(g) - 1 for g in ours)
        if diffs:
            print(f"FALLO {label}")
            for d in diffs:
                print("  " + d)
            failed += 1
        else:
            print(f"ok    {label}: mismo orden, {len(ours)} grupos, {ties} empates")
            passed += 1
    print(f"({len(name_sets['en mayúsculas'])} nombres distintos en mayúsculas, {time.time() - started:.1f} s)")
    print(f"{passed} passed, {failed} failed")
    return 0 if failed == 0 and passed > 0 else 1


sys.exit(main())
PYTHON
