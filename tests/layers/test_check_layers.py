"""The layer check on small made-up trees: it must pass a tree that keeps its layers and name every
include that breaks them, and it must pass the firmware as it stands."""

import os
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "scripts"))

import check_layers  # noqa: E402


def make_tree(root, files):
    for rel, text in files.items():
        path = os.path.join(root, rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(text)


class LayerCheck(unittest.TestCase):
    LAYERS = ["low", "mid", "top"]

    def problems(self, files, layers=None):
        with tempfile.TemporaryDirectory() as d:
            root = os.path.realpath(d)
            make_tree(root, files)
            return check_layers.check(root, layers or self.LAYERS)

    def test_includes_downward_same_folder_and_platform_pass(self):
        files = {
            "low/a.h": "#pragma once\n#include <cstdint>\n",
            "low/a.cpp": '#include "low/a.h"\n#include "driverlib/uart.h"\n',
            "mid/b.cpp": '#include "low/a.h"\n#include "mid/c.h"\n#include "c.h"\n',
            "mid/c.h": "#pragma once\n",
            "top/main.cpp": '#include "mid/c.h"\n#include "low/a.h"\n',
        }
        self.assertEqual(self.problems(files), [])

    def test_upward_include_is_named_with_its_file(self):
        files = {
            "low/a.cpp": '#include "top/t.h"\n',
            "top/t.h": "#pragma once\n",
        }
        problems = self.problems(files)
        self.assertTrue(any(p.startswith("low/a.cpp:") and '"top/t.h"' in p for p in problems), problems)

    def test_relative_include_resolves_to_its_folder(self):
        files = {"low/a.cpp": '#include "../top/t.h"\n', "top/t.h": "#pragma once\n"}
        self.assertTrue(any("low/a.cpp" in p for p in self.problems(files)))

    def test_circle_is_found_even_when_the_order_allows_each_step(self):
        # An order that puts both folders in one place cannot rank them; the circle still shows.
        files = {
            "low/a.cpp": '#include "mid/b.h"\n',
            "mid/b.h": '#pragma once\n#include "low/c.h"\n',
            "low/c.h": "#pragma once\n",
        }
        problems = self.problems(files)
        self.assertTrue(any("circle" in p and "low" in p and "mid" in p for p in problems), problems)

    def test_unknown_folder_and_simulator_include_are_refused(self):
        files = {
            "extra/x.cpp": "int x;\n",
            "low/s.cpp": '#include "platform/sim/board/sim.h"\n',
        }
        problems = self.problems(files)
        self.assertTrue(any("extra/x.cpp" in p and "not in the layer list" in p for p in problems), problems)
        self.assertTrue(any("low/s.cpp" in p and "simulator" in p for p in problems), problems)

    def test_the_firmware_keeps_its_layers(self):
        root = os.path.realpath(os.path.join(HERE, "..", "..", "firmware"))
        self.assertEqual(check_layers.check(root), [])


if __name__ == "__main__":
    unittest.main()
