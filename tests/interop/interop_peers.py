"""Interoperability of our tables with other dBase programs.

    /usr/bin/python3 interop_peers.py BUILD_DIR

1. Tables written by python3-dbf (in code pages 850 and 1252, under several
   language drivers) must read through `codpostales tabla` with their accents,
   numbers, flags and dates as written, without their deleted rows.
2. Tables written by this engine (created by crear_tabla_dbf, filled by two
   runs of `codpostales anadir`, with a row deleted in between by python3-dbf)
   must read identically with python3-dbfread and with Perl's XBase and
   DBD::XBase: same rows, same values, same deleted rows, same header count
   and date, and one 0x1A byte right after the last row.

Every check prints "ok - ..." or "FAIL - ..." with the differences; the exit
status is 1 when any check failed.
"""
import csv
import datetime
import io
import json
import os
import struct
import subprocess
import sys
import tempfile

import dbf
import dbfread

HERE = os.path.dirname(os.path.abspath(__file__))

# (name, type, length, decimals)
FIELDS = [
    ("NOMBRE", "C", 40, 0),
    ("CODPOSTAL", "C", 5, 0),
    ("IMPORTE", "N", 12, 2),
    ("CANTIDAD", "N", 7, 0),
    ("ACTIVO", "L", 1, 0),
    ("ALTA", "D", 8, 0),
]
D = datetime.date

# Rows as Python values; the text of every one fits both code pages.
ROWS = [
    ("Ñandú de Peñíscola", "12598", 1234.5, 42, True, D(2024, 2, 29)),
    ("ÁÉÍÓÚ áéíóú", "08001", -0.75, -3, False, D(1999, 12, 31)),
    ("Çç Üü pingüino Barça", "46001", 0.0, 0, None, None),
    ("Panamá", "28001", 123456789.99, -999999, True, D(2000, 1, 1)),
    ('A Coruña, "la" ciudad', "15001", 7.0, 1, False, D(1970, 1, 1)),
    ("", "", None, None, None, None),
    ("Camiño de Santiago ÁÉÍÓÚ ÑÇÜ áéíóú ñçü", "99999", 0.01, 9999999, True, D(2099, 12, 31)),
    ("¿Qué? ¡Olé! 1º 2ª", "00000", -12345678.9, 7, False, D(1900, 1, 1)),
    ("  sangría", "50001", 3.14, 3, True, D(2026, 1, 6)),
]
DELETED_ROW = ("borrada Ñ ü á", "41001", 5.5, 5, True, D(2010, 5, 5))
# Characters one code page has and the other lacks.
EXTRA_ROWS = {
    "cp1252": [("5 € y œ, Š ž", "03001", 5.0, 5, True, D(2002, 1, 1))],
    "cp850": [("ø Ø ß ÿ", "03002", 6.0, 6, False, D(2003, 3, 3))],
}
# (language driver, code page of our engine, python codec, label)
DRIVERS = [
    (0x02, 850, "cp850", "cp850 International MS-DOS"),
    (0x14, 850, "cp850", "cp850 Spanish OEM (BDE DB850ES0)"),
    (0x03, 1252, "cp1252", "cp1252 Windows ANSI"),
    (0x57, 1252, "cp1252", "cp1252 ANSI (BDE DBWINUS0)"),
    (0x59, 1252, "cp1252", "cp1252 Spanish ANSI (BDE DBWINES0)"),
]


class Checks:
    def __init__(self):
        self.passed = self.failed = 0

    def report(self, label, problems):
        if problems:
            self.failed += 1
            print(f"FAIL - {label}")
            for p in problems[:20]:
                print(f"    {p}")
            if len(problems) > 20:
                print(f"    ... {len(problems) - 20} more")
        else:
            self.passed += 1
            print(f"ok - {label}")
        sys.stdout.flush()


# ------------------------------------------------------------------ values

def canonical(field, value):
    """A field value as `codpostales tabla` shows it: C text without trailing
    blanks, N with the field's decimals, L as T/F/"", D as YYYYMMDD or ""."""
    _, ftype, _, decimals = field
    if ftype == "C":
        return "" if value is None else value.rstrip(" ")
    if value is None or value == "":
        return ""
    if ftype == "N":
        return f"{float(value):.{decimals}f}"
    if ftype == "L":
        return "T" if value else "F"
    if ftype == "D":
        if isinstance(value, (D, datetime.datetime)):
            return value.strftime("%Y%m%d")
        return f"{int(value):08d}"  # XBase gives dates as numbers
    raise ValueError(ftype)


def canonical_rows(rows):
    return [[canonical(f, v) for f, v in zip(FIELDS, row)] for row in rows]


def diff_rows(expected, got, who):
    problems = []
    if len(expected) != len(got):
        problems.append(f"{who}: {len(got)} rows, expected {len(expected)}")
    for i, (e, g) in enumerate(zip(expected, got)):
        if list(e) != list(g):
            for f, ev, gv in zip(FIELDS, e, g):
                if ev != gv:
                    problems.append(f"{who}: row {i + 1} field {f[0]}: got {gv!r}, expected {ev!r}")
            if len(e) != len(g):
                problems.append(f"{who}: row {i + 1} has {len(g)} values, expected {len(e)}")
    return problems


# ------------------------------------------------------------------ programs

def run(cmd, stdin=None):
    r = subprocess.run(cmd, input=stdin, capture_output=True, text=True, encoding="utf-8")
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)} exited with {r.returncode}: {r.stderr.strip()}")
    return r


class Ours:
    def __init__(self, build_dir):
        self.cli = os.path.join(build_dir, "bin", "codpostales")
        self.create_tool = os.path.join(build_dir, "bin", "crear_tabla_dbf")

    def rows(self, path):
        out = run([self.cli, "tabla", path]).stdout
        rows = list(csv.reader(io.StringIO(out, newline="")))
        header = [f[0] for f in FIELDS]
        if not rows or rows[0] != header:
            raise RuntimeError(f"codpostales tabla: header {rows[:1]!r}, expected {header!r}")
        return rows[1:]

    def info(self, path):
        info, fields = {}, []
        for line in run([self.cli, "tabla", path, "--info"]).stdout.splitlines():
            key, _, value = line.partition(": ")
            if key == "campo":
                name, ftype, length, decimals = value.split()
                fields.append((name, ftype, int(length), int(decimals)))
            else:
                info[key] = value
        info["campos"] = fields
        return info

    def create(self, path, ldid):
        layout = [f"{n}:{t}:{l}" + (f":{d}" if d else "") for n, t, l, d in FIELDS]
        run([self.create_tool, path, hex(ldid)] + layout)

    def append(self, path, rows):
        text = io.StringIO(newline="")
        w = csv.writer(text, lineterminator="\n")
        w.writerow([f[0] for f in FIELDS])
        w.writerows(canonical_rows(rows))
        r = run([self.cli, "anadir", path], stdin=text.getvalue())
        if f": {len(rows)} filas añadidas" not in r.stderr:
            raise RuntimeError(f"codpostales anadir: unexpected report {r.stderr.strip()!r}")


def dbf_layout():
    return "; ".join(f"{n} {t}({l},{d})" if t == "N" else f"{n} {t}({l})" if t == "C" else f"{n} {t}"
                     for n, t, l, d in FIELDS)


def write_with_python_dbf(path, ldid, rows, deleted_at):
    """A table written by python3-dbf with rows, one of them (deleted_at, 0-based) deleted."""
    t = dbf.Table(path, dbf_layout(), dbf_type="db3", codepage=ldid)
    t.open(dbf.READ_WRITE)
    for row in rows:
        t.append(tuple(row))
    dbf.delete(t[deleted_at])
    t.close()


def delete_with_python_dbf(path, recno):
    """python3-dbf marks row recno (1-based) of an existing table deleted."""
    t = dbf.Table(path)
    t.open(dbf.READ_WRITE)
    dbf.delete(t[recno - 1])
    t.close()


def read_xbase(path, codec):
    out = run(["perl", os.path.join(HERE, "leer_xbase.pl"), path, codec]).stdout
    return json.loads(out)


def raw_header(path):
    with open(path, "rb") as f:
        data = f.read()
    count, header_len, record_len = struct.unpack_from("<IHH", data, 4)
    return {
        "data": data,
        "version": data[0],
        "date": D(1900 + data[1], data[2], data[3]),
        "count": count,
        "header_len": header_len,
        "record_len": record_len,
        "ldid": data[29],
    }


# ------------------------------------------------------------------ checks

def written_by_python_dbf(checks, ours, work, ldid, cp, codec, label):
    rows = ROWS + EXTRA_ROWS[codec]
    deleted_at = 3
    all_rows = rows[:deleted_at] + [DELETED_ROW] + rows[deleted_at:]
    path = os.path.join(work, f"pydbf_{ldid:02x}.dbf")
    try:
        write_with_python_dbf(path, ldid, all_rows, deleted_at)
        h = raw_header(path)
        problems = []
        if h["ldid"] != ldid:
            problems.append(f"python3-dbf wrote driver 0x{h['ldid']:02X}, asked for 0x{ldid:02X}")
        # python3-dbf strips the blanks around a text before writing it.
        stored = [[v.strip() if isinstance(v, str) else v for v in row] for row in rows]
        problems += diff_rows(canonical_rows(stored), ours.rows(path), "codpostales tabla")
        checks.report(f"tables written by python3-dbf in {label} (0x{ldid:02X}) read with their accents, "
                      f"numbers, flags and dates, the deleted row skipped", problems)

        info = ours.info(path)
        expected = {
            "controlador de idioma": f"0x{ldid:02X}",
            "página de códigos": str(cp),
            "registros": str(len(all_rows)),
            "borrados": "1",
            "última actualización": h["date"].isoformat(),
        }
        problems = [f"--info {k}: got {info.get(k)!r}, expected {v!r}" for k, v in expected.items() if info.get(k) != v]
        if info["campos"] != FIELDS:
            problems.append(f"--info fields: got {info['campos']}, expected {FIELDS}")
        checks.report(f"header of the python3-dbf table in {label} (0x{ldid:02X}) read as written: driver, "
                      f"code page, {len(all_rows)} rows with 1 deleted, date, fields", problems)
    except (RuntimeError, OSError, dbf.DbfError) as e:
        checks.report(f"tables written by python3-dbf in {label} (0x{ldid:02X})", [str(e)])


def written_by_us(checks, ours, work, ldid, cp, codec, label):
    path = os.path.join(work, f"ours_{ldid:02x}.dbf")
    first, second = ROWS[:5], ROWS[5:] + EXTRA_ROWS[codec]
    deleted_recno = 2  # deleted by python3-dbf between the two appends
    live = [r for i, r in enumerate(first + second, 1) if i != deleted_recno]
    total = len(first) + len(second)
    tag = f"{label} (0x{ldid:02X})"
    try:
        day_before = D.today()
        if os.access(ours.create_tool, os.X_OK):
            ours.create(path, ldid)
        else:
            t = dbf.Table(path, dbf_layout(), dbf_type="db3", codepage=ldid)
            t.close()
        ours.append(path, first)
        delete_with_python_dbf(path, deleted_recno)
        ours.append(path, second)
        day_after = D.today()
        h = raw_header(path)
        expected_live = canonical_rows(live)
        expected_deleted = canonical_rows([first[deleted_recno - 1]])

        # The file itself: count, date, driver and end-of-file byte.
        problems = []
        if h["ldid"] != ldid:
            problems.append(f"driver byte 0x{h['ldid']:02X}, expected 0x{ldid:02X}")
        if h["count"] != total:
            problems.append(f"header count {h['count']}, expected {total}")
        if h["date"] not in (day_before, day_after):
            problems.append(f"header date {h['date']}, expected today ({day_after})")
        end = h["header_len"] + total * h["record_len"]
        if len(h["data"]) != end + 1 or h["data"][end:] != b"\x1a":
            problems.append(f"file of {len(h['data'])} bytes, expected {end + 1} ending in one 0x1A "
                            f"(tail {h['data'][end:end + 4]!r})")
        flags = [h["data"][h["header_len"] + i * h["record_len"]:][:1] for i in range(total)]
        if flags != [b"*" if i == deleted_recno else b" " for i in range(1, total + 1)]:
            problems.append(f"deletion flags {b''.join(flags)!r}")
        problems += diff_rows(expected_live, ours.rows(path), "codpostales tabla")
        checks.report(f"tables we write in {tag}, appended twice, keep the header count and date and end "
                      f"in one 0x1A", problems)

        # python3-dbfread, with the code page it derives from the driver and told one.
        for encoding in (None, codec):
            problems = []
            table = dbfread.DBF(path, encoding=encoding, load=True)
            if table.encoding != codec:
                problems.append(f"dbfread chose encoding {table.encoding}, expected {codec}")
            if table.header.numrecords != total:
                problems.append(f"dbfread header count {table.header.numrecords}, expected {total}")
            if table.date not in (day_before, day_after):
                problems.append(f"dbfread header date {table.date}, expected today ({day_after})")
            got_fields = [(f.name, f.type, f.length, f.decimal_count) for f in table.fields]
            if got_fields != FIELDS:
                problems.append(f"dbfread fields {got_fields}, expected {FIELDS}")
            to_rows = lambda recs: [[canonical(f, r[f[0]]) for f in FIELDS] for r in recs]
            problems += diff_rows(expected_live, to_rows(table.records), "dbfread live rows")
            problems += diff_rows(expected_deleted, to_rows(table.deleted), "dbfread deleted rows")
            how = "the encoding it derives from the driver" if encoding is None else f"encoding={codec}"
            checks.report(f"python3-dbfread reads our {tag} table identically with {how}, "
                          f"the deleted row apart", problems)

        # Perl's XBase (every row with its flag) and DBD::XBase (SELECT *).
        x = read_xbase(path, codec)
        problems = []
        if x["last_record"] + 1 != total:
            problems.append(f"XBase sees {x['last_record'] + 1} rows, expected {total}")
        y, m, d = (int(p) for p in x["last_change"].split("/"))
        if D(y, m, d) not in (day_before, day_after):
            problems.append(f"XBase last change {x['last_change']}, expected today ({day_after})")
        got_fields = [tuple(f) for f in x["fields"]]
        if got_fields != FIELDS:
            problems.append(f"XBase fields {got_fields}, expected {FIELDS}")
        flags = [r[0] for r in x["records"]]
        if flags != [int(i == deleted_recno) for i in range(1, total + 1)]:
            problems.append(f"XBase deletion flags {flags}")
        to_rows = lambda recs: [[canonical(f, v) for f, v in zip(FIELDS, r)] for r in recs]
        problems += diff_rows(expected_live, to_rows(r[1:] for r in x["records"] if not r[0]), "XBase live rows")
        problems += diff_rows(expected_deleted, to_rows(r[1:] for r in x["records"] if r[0]), "XBase deleted rows")
        checks.report(f"Perl XBase reads our {tag} table identically, header count, date and deleted flag "
                      f"included", problems)
        checks.report(f"Perl DBD::XBase SELECT * on our {tag} table gives the live rows, the deleted row "
                      f"skipped", diff_rows(expected_live, to_rows(x["dbi_rows"]), "DBD::XBase"))
    except (RuntimeError, OSError, ValueError, dbf.DbfError) as e:
        checks.report(f"tables we write in {tag}", [str(e)])


def main():
    build_dir = sys.argv[1]
    ours = Ours(build_dir)
    checks = Checks()
    if not os.access(ours.create_tool, os.X_OK):
        print(f"note - {ours.create_tool} is not built: the empty tables of the second half "
              f"are created by python3-dbf and only their rows are ours")
    with tempfile.TemporaryDirectory(prefix="interop_peers.") as work:
        for driver in DRIVERS:
            written_by_python_dbf(checks, ours, work, *driver)
        for driver in DRIVERS:
            written_by_us(checks, ours, work, *driver)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 0 if checks.failed == 0 and checks.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
