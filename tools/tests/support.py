"""What the tools' tests share: the simulator to make cards with, and temporary board directories."""

import os
import shutil
import subprocess
import tempfile
import unittest

TOOLS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(TOOLS)


def simulator():
    """The hxc3-sim the tests run (HXC3_SIM, else the host build's), or None."""
    sim = os.environ.get("HXC3_SIM") or os.path.join(ROOT, "build", "host", "hxc3-sim")
    return sim if os.access(sim, os.X_OK) else None


def image():
    """The target image to run on the emulated chip instead (HXC3_IMAGE), or None."""
    return os.environ.get("HXC3_IMAGE") or None


def run_sim(board, *args):
    """Runs hxc3-sim on a board directory; returns its console output. A failed run fails the test."""
    sim = simulator()
    if sim is None:
        raise AssertionError("no hxc3-sim: build it (make host) or set HXC3_SIM")
    cmd = [sim, "--board", board]
    if image():
        cmd += ["--image", image()]
    cmd += list(args)
    run = subprocess.run(cmd, capture_output=True, text=True, errors="replace", timeout=600)
    if run.returncode != 0:
        raise AssertionError(f"{' '.join(cmd)} exited {run.returncode}:\n{run.stdout[-2000:]}{run.stderr[-2000:]}")
    return run.stdout


class BoardTest(unittest.TestCase):
    """A test case with a fresh scratch directory and the simulator at hand."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="hxc3-tools-")
        self.addCleanup(shutil.rmtree, self.dir, True)

    def sim(self, board, *args):
        """Runs hxc3-sim on a board directory; returns its console output."""
        return run_sim(board, *args)


class Board:
    """A simulated board made for a test: its directory, and what each script run printed."""

    def __init__(self, path, time="2026-03-01 00:00:00", scenario=""):
        self.path = path
        run_sim(path, "--fast", "--quiet", "--run-for", "1", "--time", time)
        with open(os.path.join(path, "scenario.ini"), "a") as f:
            f.write(scenario)
        self.console = ""

    def run(self, script):
        """Plays a script (its text); the console output is kept, the wakes go to stats.csv."""
        name = os.path.join(self.path, "script.sim")
        with open(name, "w") as f:
            f.write(script)
        self.console += run_sim(self.path, "--script", name, "--stats", self.stats_path)

    @property
    def stats_path(self):
        return os.path.join(self.path, "stats.csv")

    @property
    def card(self):
        return os.path.join(self.path, "sdcard.img")

    def card_file(self, name):
        """A file of the card as mtools reads it (so the tests do not depend on our own reader)."""
        env = dict(os.environ, MTOOLS_SKIP_CHECK="1")
        return subprocess.run(["mtype", "-i", self.card, "::" + name], capture_output=True, env=env,
                              check=True).stdout

    def wakes(self, kind="rtc"):
        """Start times (as text, "YYYY-MM-DDTHH:MM:SSZ") of the periods that began with `kind`."""
        with open(self.stats_path) as f:
            rows = [line.strip().split(",") for line in f if not line.startswith("start_utc")]
        return [r[0] for r in rows if len(r) > 1 and r[1] == kind]


def deploy(preset, note, period=60):
    """Script lines that choose a preset and start a deployment from the main menu."""
    return f'''timeout 20
send "config {preset}\\r"
expect "\\r\\n>"
send "setper {period}\\r"
expect "\\r\\n>"
send "m\\r"
expect "Enter Selection: "
send "4\\r"
expect "or Enter to keep it: "
send "{note}\\r"
expect "Starting deployment..."
timeout 600
'''


STOP = '''wait 5
pin
wait 1
send "stop\\r"
timeout 10
expect "\\r\\n>"
'''
