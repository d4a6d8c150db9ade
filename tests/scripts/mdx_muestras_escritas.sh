#!/bin/bash
# The dBASE IV samples written from the command line, their production
# indexes kept by the engine, held against Perl's XBase::Index (Debian
# libdbd-xbase-perl). For a copy of every sample in SHARED_DIR/mdx:
#   * `codpostales anadir` appends its rows again as they are (every key held
#     twice), then changed (letters and digits moved on, numbers and years
#     up by one: new keys among the old);
#   * `codpostales editar` rewrites a few rows, old and new, with the values
#     of other rows (keys moving across the tree);
# then every tag, walked by Perl and by us (volcar_mdx), gives the same keys
# and record numbers in the same order, holds every row exactly once, and
# is what `codpostales reindexar` writes from the rows on a copy.
#
#   bash mdx_muestras_escritas.sh BUILD_DIR SHARED_DIR
set -u

build_dir=${1:?usage: mdx_muestras_escritas.sh BUILD_DIR SHARED_DIR}
shared_dir=${2:?usage: mdx_muestras_escritas.sh BUILD_DIR SHARED_DIR}
cli=$build_dir/bin/codpostales

. "$(dirname "$0")/comun/perl_mdx.sh"

[ -x "$cli" ] || { fail "$cli not built (target codpostales-cli)"; finish; }
command -v python3 >/dev/null || { fail "python3 missing"; finish; }

work=$(mktemp -d "${TMPDIR:-/tmp}/mdx_muestras.XXXXXX")
trap '[ -n "${KEEP_WORK:-}" ] || rm -rf "$work"' EXIT

# From the table's rows as CSV (stdin) and its fields (name type length
# decimals per line, file $1): mode "changed" prints the rows changed, mode
# "edits" prints the edits to make (record, then CAMPO=VALOR, separated by
# the unit separator), given the rows now in the table ($2) and how many the
# sample had ($3).
transform() {
  python3 -c '
import csv, sys
mode, fields_file = sys.argv[1], sys.argv[2]
fields = [l.split() for l in open(fields_file, encoding="utf-8") if l.strip()]
kind = {f[0]: (f[1], int(f[2]), int(f[3])) for f in fields}

def moved(c):
    for lo, hi in (("A", "Z"), ("a", "z"), ("0", "9")):
        if lo <= c <= hi:
            return lo if c == hi else chr(ord(c) + 1)
    return c

def change(name, v):
    t, length, dec = kind[name]
    if v == "" or t == "L":
        return v
    if t == "C":
        return "".join(moved(c) for c in v)
    if t == "D":
        y, m, d = int(v[:4]), v[4:6], v[6:8]
        return "%04d%s%s" % (y + 1, m, "28" if (m, d) == ("02", "29") else d)
    if t in "NF":
        neg = v.startswith("-")
        whole, _, frac = v.lstrip("-").partition(".")
        room = length - (dec + 1 if dec else 0) - 1
        whole = str((int(whole or "0") + 1) % (10 ** room))
        return ("-" if neg else "") + whole + ("." + frac if frac else "")
    return v

rows = list(csv.reader(sys.stdin))
header, rows = rows[0], rows[1:]
out = csv.writer(sys.stdout, lineterminator="\n")
if mode == "changed":
    out.writerow(header)
    for r in rows:
        out.writerow([change(h, v) for h, v in zip(header, r)])
else:
    now, first = int(sys.argv[3]), int(sys.argv[4])
    targets = sorted({1, first, first + 1, 2 * first + 1, now, (now + 1) // 2})
    for k, target in enumerate(targets):
        source = rows[(target * 5 + 3 + k) % len(rows)]
        values = [change(h, v) if k % 2 else v for h, v in zip(header, source)]
        print("\x1f".join([str(target)] + ["%s=%s" % (h, v) for h, v in zip(header, values)]))
' "$@"
}

rows_of() { "$cli" tabla "$1" --info | awk '/^registros:/ { print $2 }'; }

tables=0 tags_seen=0 entries_seen=0 appended=0 edited=0
for dbf in "$samples"/*.DBF; do
  base=$(basename "$dbf" .DBF)
  [ -f "$samples/$base.MDX" ] || continue
  tables=$((tables + 1))
  mkdir -p "$work/$base"
  cp "$samples/$base".* "$work/$base/"
  table=$work/$base/$base.DBF
  mdx=$work/$base/$base.MDX
  # Every field but memos and dBase's lock field: name type length decimals.
  "$cli" tabla "$table" --info | awk '/^campo: / && $3 != "M" && $2 != "_DBASELOCK" { print $2, $3, $4, $5 }' \
    >"$work/$base.fields"
  columns=$(cut -d' ' -f1 "$work/$base.fields" | paste -sd,)
  before=$(rows_of "$table")
  if ! "$cli" tabla "$table" --campos "$columns" >"$work/$base.csv"; then fail "$base: could not list the rows"; continue; fi
  transform changed "$work/$base.fields" <"$work/$base.csv" >"$work/$base.changed.csv"

  if "$cli" anadir "$table" <"$work/$base.csv" 2>"$work/err" &&
     "$cli" anadir "$table" <"$work/$base.changed.csv" 2>>"$work/err"; then pass
  else fail "$base: anadir failed: $(cat "$work/err")"; continue; fi
  now=$(rows_of "$table")
  if [ "$now" -eq $((before * 3)) ]; then pass; else fail "$base: $now rows after appending to $before"; fi
  appended=$((appended + now - before))

  while IFS=$'\x1f' read -r -a edit; do
    if "$cli" editar "$table" --registro "${edit[@]}" 2>"$work/err"; then
      pass
      edited=$((edited + 1))
    else
      fail "$base: editar ${edit[0]} failed: $(cat "$work/err")"
    fi
  done < <("$cli" tabla "$table" --campos "$columns" | transform edits "$work/$base.fields" "$now" "$before")

  [ -e "$mdx.escribiendo" ] && fail "$base: the mark of a write under way was left behind"
  # Written whole from the rows: a copy reindexed with the tags it had.
  mkdir -p "$work/$base/copia"
  cp "$work/$base/$base".* "$work/$base/copia/"
  if "$cli" reindexar "$work/$base/copia/$base.DBF" 2>"$work/err"; then pass
  else fail "$base: reindexar failed: $(cat "$work/err")"; continue; fi
  if diff <("$tool" tags "$mdx") <("$tool" tags "$work/$base/copia/$base.MDX") >"$work/diff"; then pass
  else fail "$base: the tags differ from the reindexed copy's"; cat "$work/diff" >&2; fi

  for tag in $("$tool" tags "$mdx" | cut -f1); do
    if ! "$tool" walk "$mdx" "$tag" >"$work/ours.walk"; then fail "$base $tag: our walk failed"; continue; fi
    perl_walk "$mdx" "$tag" >"$work/perl.walk" 2>"$work/err" || fail "$base $tag: Perl's walk failed: $(cat "$work/err")"
    "$tool" walk "$work/$base/copia/$base.MDX" "$tag" >"$work/rebuilt.walk"
    if cmp -s "$work/perl.walk" "$work/ours.walk"; then pass
    else fail "$base $tag: Perl and we walk differently"; diff "$work/perl.walk" "$work/ours.walk" | head -5 >&2; fi
    if cmp -s "$work/rebuilt.walk" "$work/ours.walk"; then pass
    else fail "$base $tag: the index kept differs from the one written from the rows"
      diff "$work/rebuilt.walk" "$work/ours.walk" | head -5 >&2; fi
    if cut -d' ' -f2 "$work/ours.walk" | sort -n | cmp -s - <(seq 1 "$now"); then pass
    else fail "$base $tag: does not hold every one of the $now rows exactly once"; fi
    tags_seen=$((tags_seen + 1))
    entries_seen=$((entries_seen + $(wc -l <"$work/ours.walk")))
  done
done
echo "$tables samples: $appended rows appended, $edited rows edited; $tags_seen tags, $entries_seen entries walked alike by Perl, by us and as reindexed"

finish
