"""The hxc3-data command: list, csv, netcdf, plot, qc and endurance.

CARD is a card image (FAT12/16/32, with or without a partition table), a simulator board directory,
or a file copied off a card (the data file, Error.txt or APFLOG.TXT).
"""

import argparse
import os
import sys

from . import endurance, qc, source, table

PROG = "hxc3-data"


def _card_argument(p):
    p.add_argument("card", metavar="CARD", help="card image, board directory or copied data file")


def _deployment_argument(p):
    p.add_argument("--deployment", "-d", type=int, metavar="N", help="only deployment N (as list numbers them)")


def cmd_list(args):
    card = source.open_card(args.card)
    if not card.deployments and not card.errors and not card.float_log:
        print(f"{card.name}: no data file, error log or float log")
    for d in card.deployments:
        print(f"deployment {d.number}: {d.source}, header at line {d.header_line}")
        print(f"  start    {table.iso(d.start) or '-'}")
        print(f"  end      {table.iso(d.end) or '-'}")
        period = f", period {d.period} s" if d.period else ""
        print(f"  samples  {len(d.samples)}{period}")
        print(f"  columns  {', '.join(c.key for c in d.columns) or '-'}")
        serials = ", ".join(f"{k} {v}" for k, v in d.serial_numbers().items())
        print(f"  serials  {serials or '-'}")
        print(f"  note     {d.meta('Deploy note') or '-'}")
        if d.problems:
            print(f"  set aside {len(d.problems)} line(s): {d.problems[0]}" + (" ..." if len(d.problems) > 1 else ""))
    if card.errors:
        print(f"error log: {len(card.errors)} entr{'y' if len(card.errors) == 1 else 'ies'}, {table.iso(card.errors[0].time)} to "
              f"{table.iso(card.errors[-1].time)}")
    for kind, t in card.float_log.items():
        print(f"float log: {len(t.rows)} {kind} line(s)")
    for p in card.problems:
        print(f"warning: {p}")
    return 0


def cmd_csv(args):
    card = source.open_card(args.card)
    os.makedirs(args.out, exist_ok=True)
    for d in source.select(card, args.deployment):
        path = table.write(d, args.out)
        print(f"{path}: {len(d.samples)} samples" + (f", {len(d.problems)} line(s) set aside" if d.problems else ""))
    if args.deployment is None:
        if card.errors:
            path = os.path.join(args.out, "error_log.csv")
            table.write_error_log(card.errors, path)
            print(f"{path}: {len(card.errors)} entries")
        for kind, t in card.float_log.items():
            path = os.path.join(args.out, f"float_log_{kind.lower()}.csv")
            table.write_float_table(t, path)
            print(f"{path}: {len(t.rows)} lines")
    return 0


def cmd_netcdf(args):
    from . import netcdf  # netCDF4 is only needed here

    card = source.open_card(args.card)
    os.makedirs(args.out, exist_ok=True)
    status = 0
    for d in source.select(card, args.deployment):
        if d.column("time") is None:
            print(f"deployment {d.number}: no time column logged, no time series to write", file=sys.stderr)
            status = 1
            continue
        path = os.path.join(args.out, table.stem(d) + ".nc")
        left_out = netcdf.write(d, path, card.name, args.lat, args.lon)
        note = f", {left_out} repeated line(s) left out" if left_out else ""
        print(f"{path}: {len(d.samples) - left_out} samples{note}")
    return status


def cmd_plot(args):
    from . import plot  # matplotlib is only needed here

    card = source.open_card(args.card)
    chosen = source.select(card, args.deployment)
    title = args.title or f"{card.name}: " + (f"deployment {chosen[0].number}" if len(chosen) == 1
                                               else f"{len(chosen)} deployments")
    try:
        plot.draw(chosen, args.output, title)
    except ValueError as e:
        raise source.SourceError(f"{card.name}: {e}") from e
    print(args.output)
    return 0


def cmd_qc(args):
    card = source.open_card(args.card)
    settings = qc.Settings(ph_difference=args.ph_difference)
    rows = []
    print(f"{'dep':>3} {'samples':>7} {'good':>6} {'flag3':>6} {'flag4':>6} {'miss9':>6}  rules (samples)")
    for d in source.select(card, args.deployment):
        flags = qc.check(d, settings)
        per_flag, per_rule = qc.summary(flags)
        rules = ", ".join(f"{r} {n}" for r, n in sorted(per_rule.items())) or "-"
        print(f"{d.number:>3} {len(flags):>7} {per_flag[qc.GOOD]:>6} {per_flag[qc.PROBABLY_BAD]:>6} "
              f"{per_flag[qc.BAD]:>6} {per_flag[qc.MISSING]:>6}  {rules}")
        rows += [(d, f) for f in flags]
    if args.output:
        _write_flags(rows, args.output)
        print(f"flags of {len(rows)} samples in {args.output}")
    return 0


def _write_flags(rows, path):
    import csv

    variables = [k for k in qc.VARIABLES if any(k in f.flags for _, f in rows)]
    with open(path, "w", newline="") as out:
        w = csv.writer(out, lineterminator="\n")
        w.writerow(["deployment", "sample", "time", "qc_flag"] + [f"{k}_qc" for k in variables] + ["qc_rules"])
        for d, f in rows:
            s = f.sample
            w.writerow([d.number, "" if s.number is None else s.number, table.iso(s.time), f.flag]
                       + [f.flags.get(k, "") for k in variables] + [f.rule_text()])


def parser():
    p = argparse.ArgumentParser(prog=PROG, description="Read what an HXC3 board logged.")
    sub = p.add_subparsers(dest="command", required=True, metavar="COMMAND")

    c = sub.add_parser("list", help="the deployments on a card or in a data file")
    _card_argument(c)
    c.set_defaults(run=cmd_list)

    c = sub.add_parser("csv", help="one tidy CSV (and a JSON sidecar) per deployment")
    _card_argument(c)
    _deployment_argument(c)
    c.add_argument("--out", "-o", default=".", metavar="DIR", help="directory to write to (default: here)")
    c.set_defaults(run=cmd_csv)

    c = sub.add_parser("netcdf", help="one CF-1.8 NetCDF file per deployment")
    _card_argument(c)
    _deployment_argument(c)
    c.add_argument("--out", "-o", default=".", metavar="DIR", help="directory to write to (default: here)")
    c.add_argument("--lat", type=float, help="the mooring's latitude, degrees north")
    c.add_argument("--lon", type=float, help="the mooring's longitude, degrees east")
    c.set_defaults(run=cmd_netcdf)

    c = sub.add_parser("plot", help="pH, temperature and reference voltages against time")
    _card_argument(c)
    _deployment_argument(c)
    c.add_argument("--output", "-o", required=True, metavar="FILE", help="picture to write (.png, .pdf, .svg)")
    c.add_argument("--title", help="title of the picture")
    c.set_defaults(run=cmd_plot)

    c = sub.add_parser("qc", help="quality flags per sample and a summary")
    _card_argument(c)
    _deployment_argument(c)
    c.add_argument("--output", "-o", metavar="FILE", help="write every sample's flags and rules to this CSV")
    c.add_argument("--ph-difference", type=float, default=qc.Settings.ph_difference, metavar="PH",
                   help=f"largest |pHint - pHext| taken as agreement (default {qc.Settings.ph_difference})")
    c.set_defaults(run=cmd_qc)

    c = sub.add_parser("endurance", help="battery life from the simulator's --stats figures")
    endurance.add_arguments(c)
    c.set_defaults(run=endurance.run)
    return p


def main(argv=None):
    args = parser().parse_args(argv)
    try:
        return args.run(args)
    except source.SourceError as e:
        print(f"{PROG}: {e}", file=sys.stderr)
        return 2
    except OSError as e:
        print(f"{PROG}: {e}", file=sys.stderr)
        return 2
