"""The board's two other files: the error log (Error.txt) and the float log (APFLOG.TXT).

The error log is appended one entry at a time: a line end, the time "YYYY/MM/DD HH:MM:SS", a blank,
then the message as its caller wrote it (its own line ends, sometimes several lines).

The float log holds comma-separated lines: header lines that begin "Prefix,Type," (one for the pH
lines, one for the nitrate lines; both come first in a new file and again after the float asks for
it), and one line per sample whose Type field ("pH", "NO3") says which header it follows.
"""

import datetime
import re
from dataclasses import dataclass, field

UTC = datetime.timezone.utc
ERROR_ENTRY = re.compile(r"(?:^|\r?\n)(\d{4}/\d{2}/\d{2} \d{2}:\d{2}:\d{2}) ")


@dataclass
class ErrorEntry:
    time: datetime.datetime | None
    message: str


def read_error_log(text):
    """The entries of an error log, oldest first."""
    entries = []
    marks = list(ERROR_ENTRY.finditer(text))
    for i, m in enumerate(marks):
        end = marks[i + 1].start() if i + 1 < len(marks) else len(text)
        try:
            time = datetime.datetime.strptime(m.group(1), "%Y/%m/%d %H:%M:%S").replace(tzinfo=UTC)
        except ValueError:
            time = None
        message = " ".join(part.strip() for part in text[m.end():end].splitlines() if part.strip())
        entries.append(ErrorEntry(time, message))
    return entries


@dataclass
class FloatTable:
    kind: str  # the Type field: "pH" or "NO3"
    names: list  # column names from the header line
    rows: list = field(default_factory=list)  # (time, [field texts]) in file order
    problems: list = field(default_factory=list)


def _header_kind(names):
    # The sixth name is the first measured value: "pHint" for pH lines, "NO3[umol/kg]" for nitrate.
    first = names[5] if len(names) > 5 else ""
    for kind in ("pH", "NO3"):
        if first.startswith(kind):
            return kind
    return first.split("[")[0]


def read_float_log(text):
    """The float log's tables by kind, each under the header that names its columns."""
    tables = {}
    for number, line in enumerate(text.splitlines(), 1):
        fields = [f.strip() for f in line.split(",")]
        if len(fields) < 3:
            continue
        if fields[0] == "Prefix" and fields[1] == "Type":
            kind = _header_kind(fields)
            if kind and kind not in tables:
                tables[kind] = FloatTable(kind, fields)
            continue
        table = tables.get(fields[1])
        if table is None:
            continue
        if len(fields) != len(table.names):
            table.problems.append(f"line {number}: {len(fields)} fields under a header of {len(table.names)}")
            continue
        table.rows.append((_float_time(fields[2]), fields))
    return tables


def _float_time(text):
    for fmt in ("%m/%d/%y %H:%M:%S", "%m/%d/%Y %H:%M:%S"):
        try:
            return datetime.datetime.strptime(text, fmt).replace(tzinfo=UTC)
        except ValueError:
            pass
    return None
