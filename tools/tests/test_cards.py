"""The tools on a card the simulated board wrote: four deployments in one file under four presets
(tessel with an SBE37, glider stamping epoch milliseconds, corrib with the pico-pH meter, brisa),
with the CTD and the meter silent for a while and the power cut in the middle of a line's append.
Every sample the card holds must come out once, at the time the board took it, with the values the
bath gave, in the CSV, the NetCDF file and the list; the picture must show it."""

import csv
import datetime
import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import netCDF4

from hxc3data import cli

from . import support

BATH = {"ph": 7.9, "temp": 12.0, "sal": 33.5}
SCENARIO = (f"port4 = sbe37\nport3 = picoph\nbath.sal = {BATH['sal']}\nbath.ph = {BATH['ph']}\n"
            f"bath.temp = {BATH['temp']}\nadc.noise_uv = 20\n")

SCRIPT = ('timeout 20\nexpect "\\r\\n>"\n'
          + support.deploy("tessel", "tessel with a CTD")
          + 'expect "#0000003\\t"\nset port4 sbe37-silent\nexpect "#0000005\\t"\nset port4 sbe37\n'
          + 'expect "#0000008\\t"\n' + support.STOP
          + support.deploy("glider", "glider, cut short")
          + 'expect "#0000004\\t"\nset card.cut_after_writes 3\ntimeout 20\nexpect "\\r\\n>"\n'
          + support.deploy("corrib", "corrib with the meter")
          + 'expect "#0000002\\t"\nset port3 picoph-silent\nexpect "#0000004\\t"\nset port3 picoph\n'
          + 'expect "#0000006\\t"\n' + support.STOP
          + 'set port3 brisa\n' + support.deploy("brisa", "brisa")
          + 'expect "#0000003\\t"\n' + support.STOP + "exit\n")

NOTES = ["tessel with a CTD", "glider, cut short", "corrib with the meter", "brisa"]
# What the bath makes each deployment log. The glider has no CTD: its external pH uses the default
# salinity (35 where the bath has 33.5), which reads 0.02 high; the Brisa instrument logs no pH.
EXPECTED = [
    {"ph_int": BATH["ph"], "ph_ext": BATH["ph"], "temperature": BATH["temp"]},
    {"ph_int": BATH["ph"], "ph_ext": BATH["ph"] + 0.02, "temperature": BATH["temp"]},
    {"ph_int": BATH["ph"], "ph_ext": BATH["ph"] + 0.02, "temperature": BATH["temp"]},
    {"brisa_temperature": BATH["temp"], "vbat_main": 12.0},
]
SILENT = {0: {4, 5}, 2: {3, 4}}  # deployment index -> samples taken while its instrument was silent


def console_samples(console):
    """Per deployment, the sample lines the console showed: (number, line) pairs."""
    chunks = console.split("Starting deployment...")[1:]
    return [[(int(m.group(1)), m.group(0)) for m in re.finditer(r"#(\d{7})\t[^\r\n]*", c)] for c in chunks]


def utc(text):
    return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=datetime.timezone.utc)


class SimulatedCard(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="hxc3-tools-cards-")
        cls.board = support.Board(os.path.join(cls.dir, "board"), scenario=SCENARIO)
        cls.board.run(SCRIPT)
        cls.console = console_samples(cls.board.console)
        cls.out = os.path.join(cls.dir, "out")
        cls.status = cli.main(["csv", cls.board.card, "-o", cls.out])
        cls.status_nc = cli.main(["netcdf", cls.board.card, "-o", cls.out, "--lat", "36.8", "--lon", "-121.9"])

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, True)

    def rows(self, n):
        with open(os.path.join(self.out, f"noname_{n}.csv")) as f:
            return list(csv.DictReader(f))

    def test_every_sample_once_at_its_time_with_the_baths_values(self):
        self.assertEqual((self.status, self.status_nc), (0, 0))
        self.assertEqual(len(self.console), 4)
        for i, shown in enumerate(self.console):
            rows = self.rows(i + 1)
            numbers = [int(r["sample"]) for r in rows]
            expected = [n for n, _ in shown]
            if i == 1 and numbers != expected:
                # The line whose append the power cut may be missing, and only that one.
                expected = expected[:-1]
            self.assertEqual(numbers, expected, f"deployment {i + 1}")
            self.assertEqual(numbers, list(range(len(numbers))))
            for r, (_, line) in zip(rows, shown):
                for key, value in EXPECTED[i].items():
                    self.assertAlmostEqual(float(r[key]), value, delta=0.01, msg=f"{key} in {line}")
                self.assertEqual(r["qc_flag"], "1", line)
                date = re.search(r"\t(\d\d/\d\d/\d{4} \d\d:\d\d:\d\d)\t", line)
                if date:  # the console's own date text: the CSV's ISO time must say the same
                    t = datetime.datetime.strptime(date.group(1), "%m/%d/%Y %H:%M:%S")
                    self.assertEqual(r["time"], t.strftime("%Y-%m-%dT%H:%M:%SZ"))

    def test_epoch_milliseconds_come_back_as_the_wake_times(self):
        # The glider's stamps are in the board's offset millisecond form; every sample after the
        # first was taken by an RTC wake, whose time the simulator records on its own.
        rows = self.rows(2)
        wakes = set(self.board.wakes("rtc"))
        self.assertGreater(len(rows), 3)
        for r in rows[1:]:
            self.assertIn(r["time"], wakes)
        with open(os.path.join(self.out, "noname_2.json")) as f:
            meta = json.load(f)["metadata"]
        deployed = datetime.datetime.strptime(meta["Deploy time"], "%Y/%m/%d %H:%M:%S")
        first = utc(rows[0]["time"]).replace(tzinfo=None)
        self.assertTrue(0 <= (first - deployed).total_seconds() < 5)

    def test_silent_instruments_leave_empty_cells_and_missing_flags(self):
        for i, silent in SILENT.items():
            key = "salinity" if i == 0 else "corrib_ph_milli"
            for r in self.rows(i + 1):
                if int(r["sample"]) in silent:
                    self.assertEqual(r[key], "", r)
                else:
                    self.assertNotEqual(r[key], "", r)
        rows = self.rows(1)
        self.assertEqual({r["salinity"] for r in rows if r["salinity"]}, {"33.50"})
        # The board's error log says when each went silent (the first sample it missed).
        with open(os.path.join(self.out, "error_log.csv")) as f:
            errors = list(csv.DictReader(f))
        self.assertEqual([e["message"].split(":")[0].split(" with")[0] for e in errors],
                         ["CTD not responding", "Port 3 pico-pH"])
        self.assertEqual(errors[0]["time"][:16], self.rows(1)[4]["time"][:16])
        self.assertEqual([r["qc_rules"] for r in rows if int(r["sample"]) in SILENT[0]], ["missing:salinity"] * 2)
        # The Brisa instrument repeats the board's column names: its group is told from the board's.
        self.assertIn("brisa_temperature", self.rows(4)[0])
        self.assertEqual(self.rows(4)[0]["vbat_main"], "12.00")

    def test_sidecar_and_list_describe_each_deployment(self):
        for n, note in enumerate(NOTES, 1):
            with open(os.path.join(self.out, f"noname_{n}.json")) as f:
                side = json.load(f)
            self.assertEqual(side["metadata"]["Deploy note"], note)
            self.assertEqual(side["time_zone"], "UTC")
            self.assertEqual(side["samples"], len(self.rows(n)))
            units = {c["name"]: c["units"] for c in side["columns"]}
            self.assertEqual(units["temperature" if n < 4 else "brisa_temperature"], "degree_Celsius")
        listing = subprocess.run([os.path.join(support.TOOLS, "hxc3-data"), "list", self.board.path],
                                 capture_output=True, text=True, check=True).stdout
        for n, note in enumerate(NOTES, 1):
            self.assertIn(f"deployment {n}: NONAME.TXT", listing)
            self.assertIn(f"  note     {note}\n", listing)
        self.assertIn("  samples  9, period 60 s\n", listing)
        self.assertIn("  samples  4, period 60 s\n", listing)

    def test_netcdf_is_a_cf_time_series_with_every_sample(self):
        for n in range(1, 4):
            rows = self.rows(n)
            with netCDF4.Dataset(os.path.join(self.out, f"noname_{n}.nc")) as nc:
                self.assertEqual(nc.Conventions, "CF-1.8")
                self.assertEqual(nc.featureType, "timeSeries")
                self.assertEqual(nc.getncattr("deploy_note"), NOTES[n - 1])
                self.assertEqual(nc.variables["station"].cf_role, "timeseries_id")
                time = nc.variables["time"]
                self.assertEqual((time.standard_name, time.axis, time.calendar), ("time", "T", "standard"))
                times = netCDF4.num2date(time[:], time.units, only_use_cftime_datetimes=False)
                self.assertEqual([t.strftime("%Y-%m-%dT%H:%M:%SZ") for t in times], [r["time"] for r in rows])
                self.assertEqual(list(nc.variables["sample"][:]), [int(r["sample"]) for r in rows])
                ph = nc.variables["ph_ext"]
                self.assertEqual(ph.standard_name, "sea_water_ph_reported_on_total_scale")
                self.assertEqual(ph.ancillary_variables, "ph_ext_qc")
                self.assertEqual(list(ph[:]), [float(r["ph_ext"]) for r in rows])
                temp = nc.variables["temperature"]
                self.assertEqual((temp.standard_name, temp.units), ("sea_water_temperature", "degree_Celsius"))
                self.assertEqual(nc.variables["lat"][()], 36.8)
                self.assertIsInstance(nc.getncattr("k0ext"), float)
        with netCDF4.Dataset(os.path.join(self.out, "noname_1.nc")) as nc:
            sal = nc.variables["salinity"]
            self.assertEqual((sal.standard_name, sal.units), ("sea_water_practical_salinity", "1"))
            self.assertEqual([bool(m) for m in sal[:].mask], [n in SILENT[0] for n in range(9)])
            self.assertEqual(list(nc.variables["salinity_qc"][:]), [9 if n in SILENT[0] else 1 for n in range(9)])

    def test_xarray_and_ncdump_read_the_netcdf(self):
        import xarray

        path = os.path.join(self.out, "noname_3.nc")
        with xarray.open_dataset(path) as ds:
            self.assertEqual(str(ds["time"].values[0])[:19], self.rows(3)[0]["time"][:19])
            self.assertEqual(ds["ph_int"].attrs["units"], "1")
        dump = subprocess.run(["ncdump", "-h", path], capture_output=True, text=True, check=True).stdout
        self.assertIn(':featureType = "timeSeries"', dump)

    def test_plot_draws_every_panel(self):
        out = os.path.join(self.dir, "deploy.png")
        self.assertEqual(cli.main(["plot", self.board.card, "-o", out]), 0)
        with open(out, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")
        from hxc3data import plot, source

        deployments = source.open_card(self.board.card).deployments
        self.assertEqual(plot.draw(deployments, os.path.join(self.dir, "d.svg"), "t"), 3)
