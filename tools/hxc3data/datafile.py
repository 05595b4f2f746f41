"""Reading a board's data file into its deployments.

A data file holds one or more deployments. Each starts with a metadata header (lines beginning
"//", from the "//++" star line to the "//--" one), then a line of column names, each followed by a
tab, then one line per sample with one field fewer: every column's value followed by a tab, the last
tab left out. Sample lines begin with "#" when the sample number is logged, which many readers take
for a comment, and sample numbers restart with every deployment.

The columns are found from the header line by name (see columns.py). Values come as the board
printed them: padded with blanks, possibly "nan", "inf" or "-0.000"; an instrument that failed
leaves its fields empty. A line the reader cannot use whole (cut short, glued to the next one,
holding text where a number belongs) is set aside with the reason, never half used.
"""

import datetime
import math
import re
from dataclasses import dataclass, field

from . import columns as cols

UTC = datetime.timezone.utc

# The epoch-millisecond column holds the RTC seconds times 1000 minus this constant, in unsigned
# 64-bit arithmetic: before 2040 the value wraps to twenty digits.
EPOCH_MS_OFFSET = 2208963602000
WRAP = 1 << 64

METADATA_START = "//++"
METADATA_END = "//--"
SAMPLE_START = re.compile(r"#\d{7}\t")
FIELD_LINE = re.compile(r"^//\s*(?:([A-Z]) -- )?(.*?)\s*=\s*(\d+)")


@dataclass
class Value:
    text: str  # as the board printed it, blanks stripped
    number: float | int | None = None  # parsed; None for text and empty fields

    @property
    def missing(self):
        return self.text == ""

    @property
    def finite(self):
        return isinstance(self.number, int) or (self.number is not None and math.isfinite(self.number))


@dataclass
class Sample:
    line: int  # line number in the file, from 1
    number: int | None  # the board's sample number, when logged
    time: datetime.datetime | None
    values: dict  # column key -> Value
    extra: str = ""  # text after the last named column (timing diagnostics, the pump's extra tab)


@dataclass
class Deployment:
    source: str
    metadata: list = field(default_factory=list)  # (label, value) pairs in file order
    data_fields: dict = field(default_factory=dict)  # data-field block: name -> switch value
    columns: list = field(default_factory=list)  # cols.Column, in line order
    groups: list = field(default_factory=list)  # instrument group keys present, in line order
    header_line: int = 0
    samples: list = field(default_factory=list)
    problems: list = field(default_factory=list)  # "line N: reason"
    number: int = 0  # 1-based across everything read

    def meta(self, label, default=""):
        """The value of a metadata line, by its label (first occurrence)."""
        for k, v in self.metadata:
            if k == label:
                return v
        return default

    @property
    def period(self):
        try:
            return int(self.meta("Sampling period (s)"))
        except ValueError:
            return None

    @property
    def start(self):
        times = [s.time for s in self.samples if s.time is not None]
        return min(times) if times else None

    @property
    def end(self):
        times = [s.time for s in self.samples if s.time is not None]
        return max(times) if times else None

    def column(self, key):
        for c in self.columns:
            if c.key == key:
                return c
        return None

    def serial_numbers(self):
        """The serial numbers the metadata names (those not left blank)."""
        return {k: v for k, v in self.metadata if k.endswith(" SN") and v.strip()}


def parse_metadata_line(text):
    """(label, value) of a "// label:\tvalue" line, or None for star lines and data-field lines."""
    body = text[2:]
    if "\t" not in body:
        return None
    label, value = body.split("\t", 1)
    return label.strip().rstrip(":").strip(), value.strip()


def parse_time(column, text):
    """The UTC time of a time field, or None when it is not one."""
    text = text.strip()
    if column.header == "Epoch millisec":
        if not text.isdigit():
            return None
        ms = (int(text) + EPOCH_MS_OFFSET) % WRAP
        if ms >= WRAP // 2:
            return None
        try:
            return datetime.datetime.fromtimestamp(ms / 1000, UTC)
        except (OverflowError, OSError, ValueError):
            return None
    try:
        # The board's clock keeps UTC; the metadata's "Time zone: Local" line does not change that.
        return datetime.datetime.strptime(text, "%m/%d/%Y %H:%M:%S").replace(tzinfo=UTC)
    except ValueError:
        return None


def parse_number(kind, text):
    """The number of a numeric field: an int for int columns, a float (maybe nan or inf) otherwise;
    raises ValueError when the text is not a number."""
    if kind == "int":
        return int(text)
    value = float(text)  # accepts nan, inf, -inf as the board prints them
    if value == 0.0:
        value = 0.0  # "-0.000" is zero
    return value


def find_columns(names):
    """The columns and instrument groups a header line's names stand for.

    The board's own columns come first, in their fixed order, then the instrument groups. The split
    between them is the latest point where what follows is made of whole groups and what precedes
    is board columns in order: so a Brisa group, which repeats some board names, is told from the
    board's own columns."""
    for split in range(len(names), -1, -1):
        head = _board_columns(names[:split])
        if head is None:
            continue
        tail = _group_columns(names[split:])
        if tail is not None:
            return head + tail[0], tail[1]
    # Names the catalogue does not know: keep every column as text, still by its name.
    return [cols.unknown_column(n, i) for i, n in enumerate(names)], []


def _board_columns(names):
    out, last = [], -1
    for n in names:
        order = cols.BOARD_ORDER.get(n)
        if order is None or order <= last:
            return None
        last = order
        out.append(cols.board_column(n))
    return out


def _group_columns(names):
    out, keys, i = [], [], 0
    while i < len(names):
        for sequence, (key, _, group_cols) in cols.GROUP_BY_NAMES.items():
            if tuple(names[i:i + len(sequence)]) == sequence:
                out += group_cols
                keys.append(key)
                i += len(sequence)
                break
        else:
            return None
    return out, keys


class _Reader:
    def __init__(self, source):
        self.source = source
        self.deployments = []
        self.pending = None  # metadata being read, not yet given a header line
        self.want_header = False
        self.current = None
        self.orphans = []  # problems before any header

    def feed(self, number, line):
        if line.startswith("//"):
            self.metadata_line(number, line)
        elif line.strip() == "":
            return
        elif self.want_header or (self.current is None and not SAMPLE_START.match(line)):
            self.header(number, line)
        elif self.current is None:
            self.orphans.append(f"line {number}: sample line before any column header")
        elif is_header_line(line):
            self.header(number, line)
        else:
            self.data_line(number, line)

    def metadata_line(self, number, line):
        if line.startswith(METADATA_START) or self.pending is None:
            self.pending = Deployment(self.source)
            self.want_header = False
        if line.startswith(METADATA_END):
            self.want_header = True
            return
        pair = parse_metadata_line(line)
        if pair is not None:
            self.pending.metadata.append(pair)
            return
        m = FIELD_LINE.match(line)
        if m:
            self.pending.data_fields[m.group(2).strip()] = int(m.group(3))

    def header(self, number, line):
        names = [n.strip() for n in line.rstrip("\t").split("\t")]
        deployment = self.pending or Deployment(self.source)
        if self.pending is None and self.current is not None:
            # A header line without a metadata header of its own: the deployment goes on under it.
            deployment.metadata = list(self.current.metadata)
            deployment.data_fields = dict(self.current.data_fields)
        deployment.columns, deployment.groups = find_columns(names)
        deployment.header_line = number
        self.deployments.append(deployment)
        self.current = deployment
        self.pending = None
        self.want_header = False

    def data_line(self, number, line):
        sample, problem = parse_sample(self.current.columns, number, line)
        if sample is not None and not SAMPLE_START.search(sample.extra + "\t"):
            self.current.samples.append(sample)
            return
        # A line cut short with the next sample glued to it: the sample that starts whole is read on
        # its own, the fragment before it is set aside.
        for m in SAMPLE_START.finditer(line, 1):
            after, _ = parse_sample(self.current.columns, number, line[m.start():])
            if after is not None:
                self.current.problems.append(f"line {number}: cut short, the next sample glued to it")
                self.current.samples.append(after)
                return
        self.current.problems.append(f"line {number}: {problem or 'more fields than the header names'}")


KNOWN_NAMES = {c.header for c in cols.BOARD_COLUMNS} | {c.header for _, _, g in cols.GROUPS for c in g}


def is_header_line(line):
    """A line of column names only (a header written again inside a deployment)."""
    names = [n.strip() for n in line.rstrip("\t").split("\t")]
    return all(n in KNOWN_NAMES for n in names)


def parse_sample(columns, number, line):
    """(Sample, None) for a usable line, (None, reason) otherwise."""
    fields = line.split("\t")
    if len(fields) < len(columns):
        return None, f"{len(fields)} fields where the header names {len(columns)} (cut short?)"
    extra = "\t".join(fields[len(columns):]).strip()
    values, sample_number, time = {}, None, None
    for column, raw in zip(columns, fields):
        text = raw.strip()
        if column.kind == "sample":
            if not re.fullmatch(r"#\d+", text):
                return None, f"sample number '{text}' is not one"
            sample_number = int(text[1:])
            values[column.key] = Value(text, sample_number)
        elif column.kind == "time":
            time = parse_time(column, text)
            if time is None:
                return None, f"time '{text}' is not one"
            values[column.key] = Value(text)
        elif column.kind in ("float", "int") and text != "":
            try:
                values[column.key] = Value(text, parse_number(column.kind, text))
            except ValueError:
                return None, f"{column.header} '{text}' is not a number"
        else:
            values[column.key] = Value(text)
    return Sample(number, sample_number, time, values, extra), None


def read_text(text, source):
    """(deployments, problems) of a data file's text. Lines a deployment cannot use are in its own
    problems; sample lines before any column header are in the second list."""
    reader = _Reader(source)
    for number, line in enumerate(text.split("\n"), 1):
        reader.feed(number, line.rstrip("\r"))
    return reader.deployments, reader.orphans


def looks_like_data_file(data):
    """A file the board wrote as its data file (has a metadata header or sample lines)."""
    head = data[:200000]
    return b"Deployment Settings" in head or re.search(rb"(^|\n)#\d{7}\t", head) is not None
