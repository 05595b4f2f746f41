"""How long a battery runs a board, from the simulator's power-on periods.

`hxc3-sim --stats FILE` appends one CSV line per power-on period (a wake): when it started, what woke
the board, how long it stayed powered, the card's sector reads and writes, the console bytes it
sent, and how long the spectrometer's and its lamp's supplies were on. Between the end of one period
and the start of the next the board hibernates. A current model turns each of these into charge and
energy; the battery's usable energy over the mean power gives the days it lasts.

The model's figures are assumptions, not measurements: every one has a default stated below, can be
set in a model file (`key = value` lines) and on the command line, and is printed with the result.

    supply_v      12 V      the voltage the currents below are drawn at
    awake_ma      50 mA     the board powered (processor, card idle, console driver, sensor front end)
    hibernate_ua  50 uA     the board hibernating: the processor's hibernation module (a few uA) and
                            the board's always-on supply and wake circuits
    spec_ma       60 mA     the spectrometer's supply on
    lamp_ma       500 mA    its lamp's supply on
    sd_write_mj   0.5 mJ    one card sector written (SPI mode, ~50 mA at 3.3 V for ~3 ms with the
                            card's programming time)
    sd_read_mj    0.1 mJ    one card sector read (~30 mA at 3.3 V for ~1 ms)
    battery_ah    17 Ah     four lithium thionyl chloride D cells in series ...
    battery_v     14.4 V    ... at 3.6 V each
    usable        0.7       of the battery's energy, after derating for cold water, passivation and
                            the end voltage

The card's energies are taken from the supply as they stand (no converter loss). Console output is
not charged apart: the board is awake while it sends (awake_ms holds that time) and the line driver
draws its current whenever it is enabled, idle or sending, which the awake current already holds.

Stats files are read by their header, so files without the later columns (uvs_ms, lamp_ms) count
them as zero. The last period is left out: no next wake ends the hibernation after it, and the run
that wrote the file may have stopped in the middle of it. The span is therefore from the first
period's start to the last period's start, and every moment of it is either awake or hibernating.
"""

import argparse
import json
import math
import statistics
import sys
from dataclasses import dataclass
from datetime import datetime, timezone

PROG = "hxc3-data endurance"

WAKE_KINDS = ("power", "pin", "rtc", "watchdog", "reset")
REQUIRED_COLUMNS = ("start_utc", "wake", "awake_ms", "sd_reads", "sd_writes")
OPTIONAL_COLUMNS = ("tx_bytes", "uvs_ms", "lamp_ms")
TIME_FORMAT = "%Y-%m-%dT%H:%M:%SZ"

# start_utc holds whole seconds, so a period can seem to run past the next one's start by up to a
# second (and a millisecond of awake_ms rounding); more than that is a file that does not add up.
START_RESOLUTION_S = 1.001


@dataclass(frozen=True)
class Setting:
    """One figure of the current model or battery: its default, unit and what it stands for."""

    default: float
    unit: str
    meaning: str


MODEL = {
    "supply_v": Setting(12.0, "V", "supply voltage the currents are drawn at"),
    "awake_ma": Setting(50.0, "mA", "board awake"),
    "hibernate_ua": Setting(50.0, "uA", "board hibernating (hibernation module, always-on parts)"),
    "spec_ma": Setting(60.0, "mA", "spectrometer supply on"),
    "lamp_ma": Setting(500.0, "mA", "lamp supply on"),
    "sd_write_mj": Setting(0.5, "mJ", "per card sector written, from the supply"),
    "sd_read_mj": Setting(0.1, "mJ", "per card sector read, from the supply"),
    "battery_ah": Setting(17.0, "Ah", "battery capacity (4 Li-SOCl2 D cells in series)"),
    "battery_v": Setting(14.4, "V", "battery voltage"),
    "usable": Setting(0.7, "", "usable fraction of the battery's energy"),
}


BATTERY = ("battery_ah", "battery_v", "usable")


class StatsError(Exception):
    """Input the estimate cannot use; the message names the file and, where there is one, the line."""


@dataclass(frozen=True)
class Wake:
    """One power-on period of the stats file."""

    line: int
    start: int  # seconds since 1970, UTC
    kind: str
    awake_ms: float
    sd_reads: float
    sd_writes: float
    tx_bytes: float = 0.0
    uvs_ms: float = 0.0
    lamp_ms: float = 0.0


def utc_text(seconds):
    return datetime.fromtimestamp(seconds, timezone.utc).strftime(TIME_FORMAT)


def parse_time(text, where):
    try:
        moment = datetime.strptime(text, TIME_FORMAT).replace(tzinfo=timezone.utc)
    except ValueError:
        raise StatsError(f"{where}: start_utc {text!r} is not a time like 2026-01-01T00:15:00Z") from None
    return int(moment.timestamp())


def parse_count(text, column, where):
    """A non-negative finite number from a stats field (an int when whole, as counts are)."""
    try:
        value = float(text)
    except ValueError:
        raise StatsError(f"{where}: {column} {text!r} is not a number") from None
    if not math.isfinite(value) or value < 0:
        raise StatsError(f"{where}: {column} {text!r} is not a finite number of 0 or more")
    return int(value) if value.is_integer() else value


def header_columns(fields, where):
    """Column name -> index from a header line; every column the estimate needs must be there."""
    columns = {}
    for index, name in enumerate(fields):
        if name in columns:
            raise StatsError(f"{where}: column {name} appears twice in the header")
        columns[name] = index
    missing = [name for name in REQUIRED_COLUMNS if name not in columns]
    if missing:
        raise StatsError(f"{where}: the header has no {', '.join(missing)} column")
    return columns


def parse_wake(fields, columns, where, line):
    if len(fields) != len(columns):
        raise StatsError(f"{where}: {len(fields)} fields where the header has {len(columns)}")
    start = parse_time(fields[columns["start_utc"]], where)
    kind = fields[columns["wake"]]
    if kind not in WAKE_KINDS:
        raise StatsError(f"{where}: wake {kind!r} is none of {', '.join(WAKE_KINDS)}")
    counts = {
        name: parse_count(fields[columns[name]], name, where)
        for name in REQUIRED_COLUMNS[2:] + OPTIONAL_COLUMNS
        if name in columns
    }
    return Wake(line=line, start=start, kind=kind, **counts)


def check_order(wakes, name):
    """Each wake starts no earlier than the one before, and not while that one is still awake."""
    for before, after in zip(wakes, wakes[1:]):
        if after.start < before.start:
            raise StatsError(
                f"{name}:{after.line}: start {utc_text(after.start)} is before that of the wake "
                f"on line {before.line} ({utc_text(before.start)})"
            )
        overrun = before.start + before.awake_ms / 1000 - after.start
        if overrun > START_RESOLUTION_S:
            raise StatsError(
                f"{name}:{before.line}: awake {before.awake_ms:g} ms from {utc_text(before.start)} "
                f"runs past the next wake's start, {utc_text(after.start)} (line {after.line})"
            )


def parse_stats(lines, name):
    """The wakes of a stats file given as lines; a later header line (files joined) starts anew."""
    columns = None
    wakes = []
    for number, raw in enumerate(lines, 1):
        line = raw.rstrip("\r\n")
        if not line.strip():
            continue
        fields = [field.strip() for field in line.split(",")]
        where = f"{name}:{number}"
        if "start_utc" in fields:
            columns = header_columns(fields, where)
        elif columns is None:
            raise StatsError(f"{where}: no header line (start_utc,wake,awake_ms,...) before the wakes")
        else:
            wakes.append(parse_wake(fields, columns, where, number))
    if columns is None:
        raise StatsError(f"{name}: empty: no header and no wakes")
    if len(wakes) < 2:
        found = "no wakes" if not wakes else f"only one wake (line {wakes[0].line})"
        raise StatsError(f"{name}: {found}: the time between wakes needs two or more")
    check_order(wakes, name)
    return wakes


def read_text(path, parse):
    """parse(lines, path) over a text file; a file that cannot be read is refused like a bad line."""
    try:
        with open(path, encoding="utf-8") as text:
            return parse(text.readlines(), path)
    except OSError as error:
        raise StatsError(f"{path}: {error.strerror or error}") from None
    except UnicodeDecodeError:
        raise StatsError(f"{path}: not a text file") from None


def read_stats(path):
    return read_text(path, parse_stats)


def model_key(text):
    """A model figure's name as written in a model file or option (awake-ma, awake_ma)."""
    return text.strip().lower().replace("-", "_")


def option_name(key):
    return "--" + key.replace("_", "-")


def parse_model(lines, name):
    """The figures a model file sets: `key = value` lines, `#` comments, keys named as the options."""
    figures = {}
    for number, raw in enumerate(lines, 1):
        line = raw.split("#", 1)[0].strip()
        if not line:
            continue
        where = f"{name}:{number}"
        key, equals, value = line.partition("=")
        key = model_key(key)
        if not equals:
            raise StatsError(f"{where}: {line!r} is not a `key = value` line")
        if key not in MODEL:
            raise StatsError(f"{where}: unknown key {key!r} (known: {', '.join(MODEL)})")
        try:
            figures[key] = float(value)
        except ValueError:
            raise StatsError(f"{where}: {key} = {value.strip()!r} is not a number") from None
    return figures


def read_model(path):
    return read_text(path, parse_model)


def check_model(model):
    """Refuses figures no battery or board can have, naming the option that sets them."""
    for key, value in model.items():
        if not math.isfinite(value) or value < 0:
            raise StatsError(f"{option_name(key)} {value:g}: must be a finite number of 0 or more")
    for key in ("supply_v", "battery_v", "battery_ah"):
        if model[key] == 0:
            raise StatsError(f"{option_name(key)} 0: must be more than 0")
    if not 0 < model["usable"] <= 1:
        raise StatsError(f"--usable {model['usable']:g}: must be a fraction above 0, at most 1")


def build_model(overrides=(), model_file=None):
    """The model from the defaults, then a model file's figures, then options; with each one's source.

    overrides: (key, value) pairs from the command line, value None where the option was not given.
    """
    model = {key: setting.default for key, setting in MODEL.items()}
    sources = dict.fromkeys(MODEL, "default")
    layers = []
    if model_file is not None:
        layers.append((read_model(model_file), model_file))
    layers.append(({key: value for key, value in overrides if value is not None}, "option"))
    for figures, source in layers:
        for key, value in figures.items():
            model[key] = value
            sources[key] = source
    check_model(model)
    return model, sources


def phases(wakes, hibernate_s, model):
    """Time, charge (mAh at the supply) and energy (J) of each phase over the given wakes."""
    volts = model["supply_v"]
    awake_ms = sum(wake.awake_ms for wake in wakes)
    uvs_ms = sum(wake.uvs_ms for wake in wakes)
    lamp_ms = sum(wake.lamp_ms for wake in wakes)
    reads = sum(wake.sd_reads for wake in wakes)
    writes = sum(wake.sd_writes for wake in wakes)
    card_j = (reads * model["sd_read_mj"] + writes * model["sd_write_mj"]) / 1000
    charges = {  # mAh
        "board awake": model["awake_ma"] * awake_ms / 3.6e6,
        "spectrometer": model["spec_ma"] * uvs_ms / 3.6e6,
        "lamp": model["lamp_ma"] * lamp_ms / 3.6e6,
        "card": card_j / volts / 3.6,
        "hibernating": model["hibernate_ua"] / 1000 * hibernate_s / 3600,
    }
    times = {
        "board awake": awake_ms / 1000,
        "spectrometer": uvs_ms / 1000,
        "lamp": lamp_ms / 1000,
        "card": None,
        "hibernating": hibernate_s,
    }
    table = {
        name: {"time_s": times[name], "charge_mah": charge, "energy_j": charge * 3.6 * volts}
        for name, charge in charges.items()
    }
    table["card"].update(sd_reads=reads, sd_writes=writes)
    return table


def awake_energy_j(wake, model):
    """What one wake costs while it is powered: board, spectrometer, lamp and card."""
    return sum(phase["energy_j"] for phase in phases([wake], 0.0, model).values())


def by_kind(wakes, model):
    kinds = {}
    for kind in WAKE_KINDS:
        chosen = [wake for wake in wakes if wake.kind == kind]
        if chosen:
            kinds[kind] = {
                "count": len(chosen),
                "mean_awake_s": statistics.fmean(wake.awake_ms for wake in chosen) / 1000,
                "mean_energy_j": statistics.fmean(awake_energy_j(wake, model) for wake in chosen),
            }
    return kinds


def estimate(wakes, model, sample_kinds=("rtc",), name="stats"):
    """Every figure of the report, as a dict (what --json prints).

    The last wake only closes the span: the periods counted are all the others, and the span runs
    from the first one's start to the last one's.
    """
    counted, last = wakes[:-1], wakes[-1]
    span_s = last.start - wakes[0].start
    if span_s <= 0:
        raise StatsError(f"{name}: every wake starts at {utc_text(last.start)}: the stats span no time")
    awake_s = sum(wake.awake_ms for wake in counted) / 1000
    hibernate_s = max(0.0, span_s - awake_s)
    table = phases(counted, hibernate_s, model)
    total_mah = sum(phase["charge_mah"] for phase in table.values())
    total_j = sum(phase["energy_j"] for phase in table.values())
    if total_j <= 0:
        raise StatsError("the current model draws nothing: every current and energy is 0")
    mean_w = total_j / span_s
    battery_wh = model["battery_ah"] * model["battery_v"] * model["usable"]
    life_days = battery_wh / mean_w / 24
    samples = sum(1 for wake in counted if wake.kind in sample_kinds)
    samples_a_day = samples / (span_s / 86400)
    awake_j = total_j - table["hibernating"]["energy_j"]
    return {
        "stats": {
            "file": name,
            "first_start": utc_text(wakes[0].start),
            "last_start": utc_text(last.start),
            "span_s": span_s,
            "span_days": span_s / 86400,
            "wakes": len(counted),
            "wakes_by_kind": by_kind(counted, model),
            "left_out": {"line": last.line, "wake": last.kind, "start": utc_text(last.start),
                         "awake_ms": last.awake_ms},
            "awake_s": awake_s,
            "hibernating_s": hibernate_s,
            "tx_bytes": sum(wake.tx_bytes for wake in counted),
        },
        "model": dict(model),
        "battery_wh": battery_wh,
        "phases": table,
        "total": {"charge_mah": total_mah, "energy_j": total_j},
        "mean_ma": total_mah / (span_s / 3600),
        "mean_mw": mean_w * 1000,
        "mean_battery_ma": mean_w / model["battery_v"] * 1000,
        "energy_per_wake_j": {"awake": awake_j / len(counted), "with_hibernation": total_j / len(counted)},
        "life_days": life_days,
        "sample_wakes": list(sample_kinds),
        "samples_in_span": samples,
        "samples_a_day": samples_a_day,
        "samples": life_days * samples_a_day,
    }


def g(value, digits=4):
    """A figure to `digits` significant digits (whole numbers from there up), no exponent above 1e-4."""
    if value == 0:
        return "0"
    if abs(value) < 1e-4:
        return f"{value:.{digits - 1}e}"
    places = max(0, digits - 1 - math.floor(math.log10(abs(value))))
    text = f"{value:.{places}f}"
    return text.rstrip("0").rstrip(".") if "." in text else text


def stats_lines(figures):
    stats = figures["stats"]
    kinds = stats["wakes_by_kind"]
    left = stats["left_out"]
    return [
        f"Stats: {stats['file']}",
        f"  span: {stats['first_start']} to {stats['last_start']}, {g(stats['span_s'] / 3600)} h "
        f"= {g(stats['span_days'])} days",
        f"  {stats['wakes']} wakes: " + ", ".join(f"{kind['count']} {name}" for name, kind in kinds.items()),
        f"  left out: the last period (line {left['line']}, {left['wake']} at {left['start']}, "
        f"{left['awake_ms']:g} ms awake):",
        "    no next wake ends the hibernation after it, and the run that wrote the file may have",
        "    stopped in the middle of it; the span ends where it starts",
        f"  awake {g(stats['awake_s'])} s, hibernating {g(stats['hibernating_s'])} s "
        "(from the end of each period to the start of the next)",
    ]


def setting_line(key, figures, sources):
    setting = MODEL[key]
    value = f"{figures['model'][key]:g} {setting.unit}"
    return f"  {option_name(key):15} {value:10} {setting.meaning} [{sources[key]}]"


def model_lines(figures, sources):
    lines = ["Current model (assumptions, to be replaced by measured currents):"]
    lines += [setting_line(key, figures, sources) for key in MODEL if key not in BATTERY]
    tx = figures["stats"]["tx_bytes"]
    lines += [
        f"  console: {tx:g} bytes sent, not charged apart: the board is awake while it sends them,",
        "    and the line driver draws the same whether the line is idle or busy",
        "  not in the stats, so counted only as far as --awake-ma holds them: the instruments on",
        "    ports 3 and 4 and the pumps",
    ]
    return lines


def battery_lines(figures, sources):
    lines = ["Battery:"]
    lines += [setting_line(key, figures, sources) for key in BATTERY]
    lines.append(f"  usable energy: {g(figures['battery_wh'])} Wh")
    return lines


def phase_lines(figures):
    total = figures["total"]
    lines = [f"  {'phase':14} {'on for s, sectors':>24} {'charge mAh':>11} {'energy J':>10} {'share':>7}"]
    for name, phase in figures["phases"].items():
        if phase["time_s"] is None:
            on_for = f"{phase['sd_reads']:g} reads, {phase['sd_writes']:g} writes"
        else:
            on_for = g(phase["time_s"])
        share = phase["energy_j"] / total["energy_j"] * 100
        lines.append(f"  {name:14} {on_for:>24} {g(phase['charge_mah']):>11} {g(phase['energy_j']):>10} "
                     f"{share:6.2f}%")
    lines.append(f"  {'total':14} {'':>24} {g(total['charge_mah']):>11} {g(total['energy_j']):>10}")
    return lines


def kind_lines(figures):
    lines = [f"  {'wake':9} {'count':>6} {'mean awake s':>13} {'mean energy J':>14}"]
    for name, kind in figures["stats"]["wakes_by_kind"].items():
        awake, energy = g(kind["mean_awake_s"]), g(kind["mean_energy_j"])
        lines.append(f"  {name:9} {kind['count']:6} {awake:>13} {energy:>14}")
    return lines


def result_lines(figures):
    model = figures["model"]
    per_wake = figures["energy_per_wake_j"]
    kinds = "/".join(figures["sample_wakes"])
    days = figures["life_days"]
    return [
        f"Mean over the span: {g(figures['mean_ma'])} mA at {model['supply_v']:g} V, "
        f"{g(figures['mean_mw'])} mW ({g(figures['mean_battery_ma'])} mA from the battery)",
        f"Energy per wake: {g(per_wake['awake'])} J awake, {g(per_wake['with_hibernation'])} J "
        "with the hibernation after it",
        f"Battery life: {days:.1f} days ({days / 365.25:.2f} years): {g(figures['battery_wh'])} Wh usable "
        f"over {g(figures['mean_mw'])} mW, converter losses not counted",
        f"Samples: {round(figures['samples']):,} in that time ({kinds} wakes: {figures['samples_in_span']} "
        f"in the span, {g(figures['samples_a_day'])} a day)",
    ]


def format_report(figures, sources=None):
    """The report as text; sources says where each model figure came from (default, a file, option)."""
    sources = sources or dict.fromkeys(MODEL, "default")
    sections = [
        stats_lines(figures),
        model_lines(figures, sources),
        battery_lines(figures, sources),
        ["Charge and energy over the span, at the supply:"] + phase_lines(figures),
        ["Wakes by kind (energy while powered):"] + kind_lines(figures),
        result_lines(figures),
    ]
    return "\n\n".join("\n".join(section) for section in sections) + "\n"


def add_arguments(parser):
    """The endurance command's options, on an argparse parser or subparser."""
    parser.add_argument("--stats", required=True, metavar="FILE", help="hxc3-sim --stats file")
    parser.add_argument("--model", metavar="FILE",
                        help="model file: `key = value` lines with the option names (awake-ma = 45)")
    for key, setting in MODEL.items():
        unit = f" {setting.unit}" if setting.unit else ""
        parser.add_argument(option_name(key), dest=key, type=float, metavar="X",
                            help=f"{setting.meaning} (default {setting.default:g}{unit})")
    parser.add_argument("--sample-wakes", default="rtc", metavar="KINDS",
                        help="wake kinds that take a sample, comma-separated (default rtc)")
    parser.add_argument("--json", action="store_true", help="print the figures as JSON")


def sample_kinds(text):
    kinds = tuple(kind.strip() for kind in text.split(",") if kind.strip())
    unknown = [kind for kind in kinds if kind not in WAKE_KINDS]
    if unknown or not kinds:
        raise StatsError(f"--sample-wakes {text!r}: give some of {', '.join(WAKE_KINDS)}")
    return kinds


def run(args):
    """Prints the report (or JSON) for parsed arguments; 0, or 2 with a one-line error on stderr."""
    try:
        overrides = [(key, getattr(args, key, None)) for key in MODEL]
        model, sources = build_model(overrides, getattr(args, "model", None))
        kinds = sample_kinds(args.sample_wakes)
        figures = estimate(read_stats(args.stats), model, kinds, args.stats)
    except StatsError as error:
        print(f"{PROG}: {error}", file=sys.stderr)
        return 2
    if args.json:
        print(json.dumps(dict(figures, sources=sources), indent=2))
    else:
        sys.stdout.write(format_report(figures, sources))
    return 0


def main(argv=None):
    parser = argparse.ArgumentParser(prog=PROG, description=__doc__.splitlines()[0])
    add_arguments(parser)
    return run(parser.parse_args(argv))


if __name__ == "__main__":
    sys.exit(main())
