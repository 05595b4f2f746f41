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


class BoardTest(unittest.TestCase):
    """A test case with a fresh scratch directory and the simulator at hand."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="hxc3-tools-")
        self.addCleanup(shutil.rmtree, self.dir, True)

    def sim(self, board, *args, check=True):
        """Runs hxc3-sim on a board directory; returns its console output."""
        sim = simulator()
        if sim is None:
            self.fail("no hxc3-sim: build it (make host) or set HXC3_SIM")
        cmd = [sim, "--board", board]
        if image():
            cmd += ["--image", image()]
        cmd += list(args)
        run = subprocess.run(cmd, capture_output=True, text=True, errors="replace", timeout=600)
        if check and run.returncode != 0:
            self.fail(f"{' '.join(cmd)} exited {run.returncode}:\n{run.stdout[-2000:]}{run.stderr[-2000:]}")
        return run.stdout
