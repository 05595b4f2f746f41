#!/usr/bin/python3
"""Makes the README's example picture: a week on a simulated mooring at 15-minute samples, with a
daily cycle of temperature and pH, the external reference drifting away over the last days, the CTD
silent for half a day and a bubble on the sensor for one sample, then hxc3-data plot on the card.

Usage: make_example.py --sim build/host/hxc3-sim [--out tools/example/deploy.png] [--keep DIR]
"""

import argparse
import math
import os
import shutil
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
DAYS, PERIOD, STEP = 7, 900, 3600


def script():
    lines = ['timeout 20', 'expect "\\r\\n>"', 'send "config tessel\\r"', 'expect "\\r\\n>"',
             f'send "setper {PERIOD}\\r"', 'expect "\\r\\n>"', 'send "m\\r"', 'expect "Enter Selection: "',
             'send "4\\r"', 'expect "or Enter to keep it: "', 'send "example mooring, 15 min\\r"',
             'expect "Starting deployment..."']
    for hour in range(DAYS * 24):
        day = hour / 24
        lines.append(f"set bath.temp {11.5 + 1.2 * math.sin(2 * math.pi * (day - 0.3)):.3f}")
        lines.append(f"set bath.ph {7.95 + 0.04 * math.sin(2 * math.pi * (day - 0.55)) - 0.004 * day:.4f}")
        if day > 3.5:  # the external reference's offset creeps away from its calibration
            lines.append(f"set sensor.k0ext {-1.3 + 0.0015 * (day - 3.5):.5f}")
        if hour == 60:
            lines.append("set port4 sbe37-silent")
        if hour == 72:
            lines.append("set port4 sbe37")
        if hour == 100:  # a bubble on the sensor for one sample
            lines += ["wait 1800", "set bath.ph 8.15", f"wait {PERIOD}"]
            lines.append(f"set bath.ph {7.95 + 0.04 * math.sin(2 * math.pi * (day - 0.55)) - 0.004 * day:.4f}")
            lines.append(f"wait {STEP - 1800 - PERIOD}")
            continue
        lines.append(f"wait {STEP}")
    lines.append("exit")
    return "\n".join(l for l in lines if l) + "\n"


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--sim", required=True)
    p.add_argument("--out", default=os.path.join(HERE, "deploy.png"))
    p.add_argument("--keep")
    args = p.parse_args()
    work = args.keep or tempfile.mkdtemp(prefix="hxc3-example-")
    board = os.path.join(work, "board")
    shutil.rmtree(board, True)
    subprocess.run([args.sim, "--board", board, "--fast", "--quiet", "--run-for", "1",
                    "--time", "2026-06-01 00:00:00"], check=True)
    with open(os.path.join(board, "scenario.ini"), "a") as f:
        f.write("port4 = sbe37\nbath.sal = 33.9\nadc.noise_uv = 30\n")
    with open(os.path.join(work, "week.sim"), "w") as f:
        f.write(script())
    stats = os.path.join(work, "stats.csv")
    subprocess.run([args.sim, "--board", board, "--quiet", "--script", os.path.join(work, "week.sim"), "--stats", stats],
                   check=True)
    tool = os.path.join(os.path.dirname(HERE), "hxc3-data")
    subprocess.run([tool, "plot", board, "-o", args.out, "--title", "Simulated mooring, one week at 15 minutes"],
                   check=True)
    subprocess.run([tool, "qc", board], check=True)
    subprocess.run([tool, "endurance", "--stats", stats], check=True)
    if not args.keep:
        shutil.rmtree(work, True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
