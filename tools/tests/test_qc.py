"""Quality flags on a deployment the simulated board logged with a CTD: clean, nothing is flagged;
with faults written into its lines, each fault is flagged by its own rule and nothing else is."""

import os
import shutil
import tempfile
import unittest

from hxc3data import datafile, qc

from . import support

SCENARIO = "port4 = sbe37\nbath.sal = 34.0\nbath.ph = 8.05\nbath.temp = 9.5\nadc.noise_uv = 40\n"


def replace_field(line, old, new):
    assert old in line, (old, line)
    return line.replace(old, new, 1)


class Flags(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="hxc3-tools-qc-")
        board = support.Board(os.path.join(cls.dir, "b"), scenario=SCENARIO)
        board.run('timeout 20\nexpect "\\r\\n>"\n' + support.deploy("tessel", "qc") + 'timeout 1500\nexpect "#0000019\\t"\nwait 5\nexit\n')
        cls.text = board.card_file("NONAME.TXT").decode("ascii")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, True)

    def check(self, text):
        (d,), _ = datafile.read_text(text, "NONAME.TXT")
        return {f.sample.number: f for f in qc.check(d)}, d

    def test_clean_data_is_all_good(self):
        flags, d = self.check(self.text)
        self.assertEqual(len(flags), 20)
        self.assertEqual({n: f.rule_text() for n, f in flags.items() if f.rule_text()}, {})
        self.assertEqual(set(f.flag for f in flags.values()), {qc.GOOD})
        self.assertEqual(sorted(flags[3].flags), ["ph_ext", "ph_int", "salinity", "temperature", "vrse", "vrsi"])

    def test_each_fault_is_flagged_by_its_rule(self):
        lines = self.text.split("\r\n")
        at = {int(l[1:8]): i for i, l in enumerate(lines) if l.startswith("#")}
        ph = "   8.050\t"

        def edit(n, old, new):
            lines[at[n]] = replace_field(lines[at[n]], old, new)

        edit(1, "\t34.00\t", "\t0.00\t")  # salinity not positive
        ph_ext_at_5 = lines[at[5]].rfind(ph)
        lines[at[5]] = lines[at[5]][:ph_ext_at_5] + "     nan\t" + lines[at[5]][ph_ext_at_5 + len(ph):]
        edit(8, ph, "   8.300\t")  # pHint stands out from its neighbours and from pHext
        edit(11, "   9.500\t", "  45.000\t")  # temperature out of range
        lines[at[14]] += "\r\n" + lines[at[14]]  # the same line twice
        lines[at[17]] = lines[at[18]] = None  # two samples lost: a gap before 19
        flags, _ = self.check("\r\n".join(l for l in lines if l is not None))

        def rules(n):
            return flags[n].rule_text()

        self.assertEqual(rules(1), "jump:salinity;salinity_not_positive:ph_ext;salinity_not_positive:salinity")
        self.assertEqual(flags[1].flag, qc.BAD)
        self.assertEqual((rules(5), flags[5].flags["ph_ext"]), ("non_finite:ph_ext", qc.BAD))
        self.assertEqual(rules(8), "jump:ph_int;ph_difference:ph_ext;ph_difference:ph_int")
        self.assertEqual(flags[8].flag, qc.PROBABLY_BAD)
        self.assertEqual((rules(11), flags[11].flag), ("jump:temperature;range:temperature", qc.BAD))
        self.assertIn("gap:ph_ext", rules(19))
        self.assertEqual(flags[19].flag, qc.PROBABLY_BAD)
        # The copy of sample 14 is the one flagged; the first stays good.
        all_flags = qc.check(datafile.read_text("\r\n".join(l for l in lines if l is not None), "N")[0][0])
        copies = [f for f in all_flags if f.sample.number == 14]
        self.assertEqual([f.flag for f in copies], [qc.GOOD, qc.BAD])
        self.assertIn("duplicate:ph_int", copies[1].rule_text())
        flagged = {n for n, f in flags.items() if f.flag != qc.GOOD}
        self.assertEqual(flagged, {1, 5, 8, 11, 14, 19})
        per_flag, per_rule = qc.summary(all_flags)
        self.assertEqual((per_flag[qc.BAD], per_flag[qc.PROBABLY_BAD]), (4, 2))
        self.assertEqual(per_rule["jump"], 3)

    def test_threshold_of_the_ph_difference_is_a_setting(self):
        text = self.text.replace("   8.050\t", "   8.080\t", 1)  # sample 0's pHint, 0.03 above pHext
        (d,), _ = datafile.read_text(text, "N")
        self.assertEqual(qc.check(d)[0].flag, qc.GOOD)
        self.assertIn("ph_difference:ph_int", qc.check(d, qc.Settings(ph_difference=0.02))[0].rule_text())
