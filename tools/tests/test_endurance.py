"""Battery life from --stats files: the arithmetic on files with hand-worked figures, the model file
and options, refused input, and a short deployment on the simulator."""

import argparse
import contextlib
import csv
import io
import json
import os
import unittest

from hxc3data import endurance
from tests.support import BoardTest

HEADER = "start_utc,wake,awake_ms,sd_reads,sd_writes,tx_bytes,stack_bytes,uvs_ms,lamp_ms"

# A half-hourly pH deployment's first hour, the wake at 01:00 closing the span.
PH_HOUR = [
    HEADER,
    "2026-01-01T00:00:00Z,power,10000,10,20,300,,0,0",
    "2026-01-01T00:30:00Z,rtc,8000,4,2,276,,0,0",
    "2026-01-01T01:00:00Z,rtc,5000,0,0,82,,0,0",
]

# Round figures to work by hand: 10 V, 50 mA awake, 100 uA hibernating, 1 Ah at 10 V half usable.
HAND_MODEL = dict(endurance.build_model()[0], supply_v=10.0, awake_ma=50.0, hibernate_ua=100.0,
                  sd_read_mj=0.1, sd_write_mj=0.5, battery_ah=1.0, battery_v=10.0, usable=0.5)


def write(directory, name, lines):
    path = os.path.join(directory, name)
    with open(path, "w", encoding="utf-8") as out:
        out.write("".join(line + "\n" for line in lines))
    return path


def command(*argv):
    """Runs the command; returns its status, stdout and stderr."""
    parser = argparse.ArgumentParser()
    endurance.add_arguments(parser)
    args = parser.parse_args(argv)
    out, err = io.StringIO(), io.StringIO()
    with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
        status = endurance.run(args)
    return status, out.getvalue(), err.getvalue()


class Arithmetic(unittest.TestCase):
    def test_ph_deployment_by_hand(self):
        figures = endurance.estimate(endurance.parse_stats(PH_HOUR, "ph.csv"), HAND_MODEL)
        phases = figures["phases"]
        stats = figures["stats"]
        # Awake 10 + 8 s at 0.5 W; hibernating the other 3582 s of the hour at 1 mW.
        self.assertEqual((stats["span_s"], stats["wakes"]), (3600, 2))
        self.assertAlmostEqual(stats["hibernating_s"], 3582.0)
        self.assertAlmostEqual(phases["board awake"]["charge_mah"], 0.25)  # 9 J
        self.assertAlmostEqual(phases["hibernating"]["energy_j"], 3.582)
        # 14 reads at 0.1 mJ and 22 writes at 0.5 mJ.
        self.assertAlmostEqual(phases["card"]["energy_j"], 0.0124)
        self.assertAlmostEqual(figures["total"]["energy_j"], 12.5944)
        self.assertAlmostEqual(figures["mean_ma"], 0.349844, places=6)
        # 5 Wh = 18000 J at 3.49844 mW; one rtc sample an hour.
        self.assertAlmostEqual(figures["life_days"], 59.5502, places=3)
        self.assertAlmostEqual(figures["samples"], 59.5502 * 24, places=1)
        self.assertAlmostEqual(figures["energy_per_wake_j"]["awake"], 4.5062)
        self.assertAlmostEqual(stats["wakes_by_kind"]["rtc"]["mean_energy_j"], 4.0014)

    def test_spectrometer_and_lamp_at_the_default_currents(self):
        lines = [HEADER, "2026-01-01T00:00:00Z,pin,6000,0,0,0,,4000,1500",
                 "2026-01-01T00:10:00Z,pin,1000,0,0,0,,0,0"]
        figures = endurance.estimate(endurance.parse_stats(lines, "no3.csv"), endurance.build_model()[0])
        phases = figures["phases"]
        # 60 mA for 4 s and 500 mA for 1.5 s, at 12 V.
        self.assertAlmostEqual(phases["spectrometer"]["energy_j"], 2.88)
        self.assertAlmostEqual(phases["lamp"]["energy_j"], 9.0)
        # A float's pin wakes are no samples unless asked for.
        self.assertEqual(figures["samples"], 0)
        asked = endurance.estimate(endurance.parse_stats(lines, "no3.csv"), endurance.build_model()[0],
                                   ("pin",))
        self.assertAlmostEqual(asked["samples_a_day"], 144.0)

    def test_files_read_by_their_header(self):
        expected = endurance.estimate(endurance.parse_stats(PH_HOUR, "a"), HAND_MODEL)
        cases = {
            "older file without the supplies' columns": [
                "start_utc,wake,awake_ms,sd_reads,sd_writes,tx_bytes,stack_bytes",
                "2026-01-01T00:00:00Z,power,10000,10,20,300,",
                "2026-01-01T00:30:00Z,rtc,8000,4,2,276,",
                "2026-01-01T01:00:00Z,rtc,5000,0,0,82,"],
            "columns in another order, CR LF, a blank line": [
                "wake,sd_writes,sd_reads,awake_ms,start_utc\r",
                "power,20,10,10000,2026-01-01T00:00:00Z\r", "\r",
                "rtc,2,4,8000,2026-01-01T00:30:00Z\r",
                "rtc,0,0,5000,2026-01-01T01:00:00Z\r"],
            "two files joined, each with its header": PH_HOUR[:3] + PH_HOUR[:1] + PH_HOUR[3:],
        }
        for name, lines in cases.items():
            with self.subTest(name):
                figures = endurance.estimate(endurance.parse_stats(lines, "b"), HAND_MODEL)
                self.assertAlmostEqual(figures["total"]["energy_j"], expected["total"]["energy_j"])
                self.assertAlmostEqual(figures["life_days"], expected["life_days"])

    def test_whole_second_starts_may_overlap_by_under_a_second(self):
        # The wake at :00 lasts 1.6 s, the next starts "at :01": both fractions were cut off.
        lines = [HEADER, "2026-01-01T00:00:00Z,rtc,1600,0,0,0,,0,0",
                 "2026-01-01T00:00:01Z,pin,900,0,0,0,,0,0",
                 "2026-01-01T00:01:00Z,rtc,1000,0,0,0,,0,0"]
        figures = endurance.estimate(endurance.parse_stats(lines, "c"), HAND_MODEL)
        self.assertAlmostEqual(figures["stats"]["hibernating_s"], 60 - 2.5)


class ModelAndOptions(BoardTest):
    def test_report_states_every_assumption(self):
        status, out, err = command("--stats", write(self.dir, "ph.csv", PH_HOUR))
        self.assertEqual((status, err), (0, ""))
        for key in endurance.MODEL:
            self.assertIn(endurance.option_name(key), out)
        for text in ("span: 2026-01-01T00:00:00Z to 2026-01-01T01:00:00Z", "2 wakes: 1 power, 1 rtc",
                     "left out: the last period (line 4", "console: 576 bytes", "Battery life:"):
            self.assertIn(text, out)

    def test_options_override_the_model_file_which_overrides_the_defaults(self):
        stats = write(self.dir, "ph.csv", PH_HOUR)
        model = write(self.dir, "plan.model", ["# mooring 3, measured on the bench", "awake-ma = 40",
                                               "hibernate_ua = 20   # board 7", "battery-v = 10", ""])
        figures = json.loads(command("--stats", stats, "--model", model, "--awake-ma", "50", "--json")[1])
        self.assertEqual(figures["sources"], dict(endurance.build_model()[1], awake_ma="option",
                                                  hibernate_ua=model, battery_v=model))
        self.assertAlmostEqual(figures["phases"]["board awake"]["energy_j"], 18 * 0.050 * 12)
        self.assertAlmostEqual(figures["phases"]["hibernating"]["energy_j"], 3582 * 20e-6 * 12)
        self.assertAlmostEqual(figures["battery_wh"], 17 * 10 * 0.7)
        _, text, _ = command("--stats", stats, "--model", model, "--awake-ma", "50")
        self.assertRegex(text, r"--hibernate-ua +20 uA .*\[" + model)


class RefusedInput(BoardTest):
    def refused(self, lines, *options):
        status, out, err = command("--stats", write(self.dir, "s.csv", lines), *options)
        self.assertEqual((status, out), (2, ""))
        self.assertEqual(err.count("\n"), 1, err)
        self.assertNotIn("Traceback", err)
        return err

    def test_stats_files_refused_with_file_and_line(self):
        def after(row, keep=2):
            return PH_HOUR[:keep] + [row]

        half = "2026-01-01T00:30:00Z"
        cases = {
            "empty": ([], "s.csv: empty"),
            "header only": ([HEADER], "s.csv: no wakes"),
            "a single wake": (PH_HOUR[:2], "s.csv: only one wake (line 2)"),
            "no header": (PH_HOUR[1:], "s.csv:1: no header"),
            "missing column": ([HEADER.replace("awake_ms,", "")] + PH_HOUR[1:], "s.csv:1: the header has no"),
            "not a number": (after(f"{half},rtc,8x,4,2,276,,0,0"), "s.csv:3: awake_ms '8x'"),
            "negative": (after(f"{half},rtc,8000,4,2,276,,-1,0"), "s.csv:3: uvs_ms '-1'"),
            "unknown wake": (after(f"{half},alarm,8000,4,2,276,,0,0"), "s.csv:3: wake 'alarm'"),
            "short line": (after(f"{half},rtc,8000"), "s.csv:3: 3 fields where"),
            "bad time": (after("2026-01-01 00:30:00,rtc,8000,4,2,276,,0,0"), "s.csv:3: start_utc"),
            "time going backwards": (after("2026-01-01T00:29:59Z,rtc,5000,0,0,82,,0,0", keep=3),
                                     "s.csv:4: start 2026-01-01T00:29:59Z is before that of the wake on"),
            "awake past the next start": (after("2026-01-01T00:00:08Z,rtc,5,0,0,0,,0,0"), "s.csv:2: awake 1"),
            "no time between wakes": ([HEADER, "2026-01-01T00:00:00Z,rtc,0,0,0,0,,0,0"] * 2, "span no time"),
        }
        for name, (lines, message) in cases.items():
            with self.subTest(name):
                self.assertIn(message, self.refused(lines))

    def test_model_and_options_refused(self):
        model = os.path.join(self.dir, "m.model")
        cases = {
            "unknown key": (["awake-ma = 40", "sleep-ua = 3"], (), "m.model:2: unknown key 'sleep_ua'"),
            "not a number": (["lamp-ma = lots"], (), "m.model:1: lamp_ma = 'lots'"),
            "no equals": (["lamp-ma 500"], (), "m.model:1: 'lamp-ma 500' is not"),
            "usable as a percentage": (["usable = 70"], (), "--usable 70"),
            "negative current": ([], ("--awake-ma", "-5"), "--awake-ma -5"),
            "unknown sample wake": ([], ("--sample-wakes", "rtc,timer"), "--sample-wakes"),
        }
        for name, (lines, options, message) in cases.items():
            with self.subTest(name):
                write(self.dir, "m.model", lines)
                self.assertIn(message, self.refused(PH_HOUR, "--model", model, *options))

    def test_unreadable_files(self):
        binary = write(self.dir, "bin.csv", [])
        with open(binary, "wb") as out:
            out.write(b"\xff\xfe\x00start")
        gone = os.path.join(self.dir, "gone")
        missing = f"{gone}: No such file or directory"
        cases = ((("--stats", gone), missing), (("--stats", binary), f"{binary}: not a text file"),
                 (("--stats", binary, "--model", gone), missing))
        for options, message in cases:
            with self.subTest(options):
                self.assertEqual(command(*options)[::2], (2, f"{endurance.PROG}: {message}\n"))


DEPLOY_HOUR = r'''timeout 20
expect "\r\n>"
send "setper 60\r"
expect "\r\n>"
send "m\r"
expect "Enter Selection: "
send "4\r"
expect "or Enter to keep it: "
send "an hour of minutes\r"
expect "Starting deployment..."
timeout 4000
wait 3600
exit
'''


class SimulatedDeployment(BoardTest):
    def test_an_hour_of_one_minute_samples(self):
        board = os.path.join(self.dir, "board")
        stats = os.path.join(self.dir, "stats.csv")
        script = os.path.join(self.dir, "deploy.sim")
        with open(script, "w", encoding="utf-8") as out:
            out.write(DEPLOY_HOUR)
        self.sim(board, "--fast", "--quiet", "--run-for", "1", "--time", "2026-01-01 00:00:00")
        self.sim(board, "--script", script, "--quiet", "--stats", stats)
        status, out, err = command("--stats", stats, "--json")
        self.assertEqual((status, err), (0, ""))
        figures = json.loads(out)
        with open(stats, encoding="utf-8") as rows:
            kinds = [row["wake"] for row in csv.DictReader(rows)]
        counted = figures["stats"]["wakes_by_kind"]
        # Every wake but the one that closes the span, a sample a minute after the session's.
        self.assertEqual(sum(kind["count"] for kind in counted.values()), len(kinds) - 1)
        self.assertEqual(counted["rtc"]["count"], kinds[:-1].count("rtc"))
        self.assertIn(counted["rtc"]["count"], range(58, 62))
        span = figures["stats"]["span_s"]
        self.assertAlmostEqual(span, 3600, delta=120)
        hibernating = figures["stats"]["hibernating_s"]
        self.assertAlmostEqual(hibernating, span - figures["stats"]["awake_s"], places=6)
        self.assertGreater(hibernating, 0.9 * span)
        self.assertLess(endurance.MODEL["hibernate_ua"].default / 1000, figures["mean_ma"])


if __name__ == "__main__":
    unittest.main()
