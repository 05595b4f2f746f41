"""A deployment as a tidy table: one CSV row per sample with an ISO-8601 UTC time, one named and
typed column per logged value, empty cells where a value is missing or not finite, and the quality
flag; beside it a JSON file with the metadata, the columns' units and what the reader set aside.
"""

import csv
import json
import math
import os
import re

from . import qc

TIME_NOTE = ("Times are UTC: the board's clock keeps UTC whatever its 'Time zone' line says. Epoch-millisecond "
             "stamps are converted back from the board's offset form.")


def iso(time):
    return "" if time is None else time.strftime("%Y-%m-%dT%H:%M:%SZ")


def table_columns(deployment):
    """The value columns of a table (the time and the sample number have their own)."""
    return [c for c in deployment.columns if c.kind not in ("sample", "time")]


def cell(value):
    """A CSV cell: the board's digits (so nothing is lost or invented), "" for missing or nan/inf."""
    if value is None or value.missing:
        return ""
    if isinstance(value.number, float):
        if not math.isfinite(value.number):
            return ""
        return value.text.lstrip("-") if value.number == 0.0 else value.text
    return value.text


def stem(deployment):
    base = os.path.splitext(os.path.basename(deployment.source))[0].lower()
    return f"{re.sub(r'[^a-z0-9_-]+', '_', base)}_{deployment.number}"


def write_csv(deployment, path, flags=None):
    flags = flags if flags is not None else qc.check(deployment)
    columns = table_columns(deployment)
    with open(path, "w", newline="") as f:
        out = csv.writer(f, lineterminator="\n")
        out.writerow(["time", "sample"] + [c.key for c in columns] + ["qc_flag", "qc_rules"])
        for s, fl in zip(deployment.samples, flags):
            number = "" if s.number is None else s.number
            out.writerow([iso(s.time), number] + [cell(s.values.get(c.key)) for c in columns]
                         + [fl.flag, fl.rule_text()])


def _metadata(deployment):
    """The metadata lines as a mapping; a label given twice (pump groups) keeps every value."""
    out = {}
    for label, value in deployment.metadata:
        if label in out:
            out[label] = (out[label] if isinstance(out[label], list) else [out[label]]) + [value]
        else:
            out[label] = value
    return out


def sidecar(deployment, flags=None):
    flags = flags if flags is not None else qc.check(deployment)
    per_flag, per_rule = qc.summary(flags)
    return {
        "source": deployment.source,
        "deployment": deployment.number,
        "header_line": deployment.header_line,
        "time_zone": "UTC",
        "notes": [TIME_NOTE],
        "samples": len(deployment.samples),
        "start": iso(deployment.start),
        "end": iso(deployment.end),
        "sampling_period_s": deployment.period,
        "columns": [{"name": "time", "type": "time", "units": "ISO 8601, UTC"},
                    {"name": "sample", "type": "int", "units": "", "board_name": "SampNum"}]
                   + [{"name": c.key, "type": c.kind, "units": c.units, "description": c.long_name,
                       "board_name": c.header, **({"standard_name": c.standard_name} if c.standard_name else {})}
                      for c in table_columns(deployment)]
                   + [{"name": "qc_flag", "type": "int", "units": "",
                       "description": "1 good, 3 probably bad, 4 bad, 9 missing"},
                      {"name": "qc_rules", "type": "text", "units": "",
                       "description": "rule:variable pairs that set the flag"}],
        "instrument_groups": deployment.groups,
        "metadata": _metadata(deployment),
        "data_fields": deployment.data_fields,
        "qc": {"flags": {str(k): v for k, v in per_flag.items()}, "rules": per_rule},
        "set_aside": deployment.problems,
    }


def write(deployment, directory):
    """Writes NAME.csv and NAME.json for a deployment; returns the CSV's path."""
    flags = qc.check(deployment)
    path = os.path.join(directory, stem(deployment) + ".csv")
    write_csv(deployment, path, flags)
    with open(os.path.join(directory, stem(deployment) + ".json"), "w") as f:
        json.dump(sidecar(deployment, flags), f, indent=2)
        f.write("\n")
    return path


def write_error_log(entries, path):
    with open(path, "w", newline="") as f:
        out = csv.writer(f, lineterminator="\n")
        out.writerow(["time", "message"])
        for e in entries:
            out.writerow([iso(e.time), e.message])


def write_float_table(table, path):
    with open(path, "w", newline="") as f:
        out = csv.writer(f, lineterminator="\n")
        out.writerow(["time"] + table.names)
        for time, fields in table.rows:
            out.writerow([iso(time)] + fields)
