"""Reading data files the way they come back from sea: time stamps in both forms, values the board
prints oddly, lines cut short or glued together, headers repeated, columns the reader does not
know, and the two logs beside the data file."""

import contextlib
import io
import os
import random
import unittest

from hxc3data import cli, datafile, logs, source, table

from . import support

HEADER = " SampNum\t     MM/DD/YYYY HH:MM:SS\t  Vtherm\t TC_Dfet\tpHintEst\tpHextEst\t"
META = ("\r\n\r\n//++************** Deployment Settings ***************\r\n"
        "// Sampling period (s)\t900\r\n// Deploy note:   \tbench\r\n"
        "//--**************************************************\r\n\r\n\r\n")


def line(n, time, ph_ext="   8.000"):
    return f"#{n:07d}\t{time}\t1.330970\t  15.000\t   8.000\t{ph_ext}\r\n"


def read(text):
    deployments, orphans = datafile.read_text(text, "T.TXT")
    for n, d in enumerate(deployments, 1):
        d.number = n
    return deployments, orphans


class TimeStamps(unittest.TestCase):
    def test_epoch_milliseconds_as_the_board_computes_them(self):
        # The board prints RTC seconds x 1000 - 2208963602000 in unsigned 64-bit arithmetic: before
        # 2040 it wraps; from 2040 on it is small; either way the reader gets the RTC time back.
        column = datafile.cols.BOARD_COLUMNS[2]
        for seconds in (1767225600, 1772323513, 2208963602, 2300000000, 4294967295):
            printed = (seconds * 1000 - datafile.EPOCH_MS_OFFSET) % (1 << 64)
            self.assertEqual(datafile.parse_time(column, f"{printed:13d}").timestamp(), seconds)
        self.assertIsNone(datafile.parse_time(column, "12a4"))

    def test_dates_are_utc_whatever_the_time_zone_line_says(self):
        (d,), _ = read(META.replace("900", "900\r\n// Time zone:       \tLocal") + HEADER + "\r\n"
                       + line(0, "01/01/2026 00:00:02"))
        self.assertEqual(table.iso(d.samples[0].time), "2026-01-01T00:00:02Z")


class OddLines(unittest.TestCase):
    def test_values_the_board_prints_oddly(self):
        text = META + HEADER + "\r\n" + line(0, "01/01/2026 00:00:02", "     nan") + line(
            1, "01/01/2026 00:15:00", "    -inf") + line(2, "01/01/2026 00:30:00", "  -0.000")
        (d,), _ = read(text)
        cells = [table.cell(s.values["ph_ext"]) for s in d.samples]
        self.assertEqual(cells, ["", "", "0.000"])
        self.assertEqual([s.values["ph_ext"].finite for s in d.samples], [False, False, True])

    def test_lines_that_cannot_be_used_whole_are_set_aside_with_the_reason(self):
        text = (line(9, "12/31/2025 23:45:00")  # before any header
                + META + HEADER + "\r\n"
                + line(0, "01/01/2026 00:00:02")
                + line(1, "01/01/2026 00:15:00")[:30] + line(2, "01/01/2026 00:30:00")  # cut, glued
                + line(3, "01/01/2026 00:45:00").replace("  15.000", "  1x.000")
                + line(4, "01/01/2026 01:00:00").replace("#0000004", "#00000x4")
                + line(5, "01/01/2026 01:15:00")[:40])  # cut short at the end of the file
        (d,), orphans = read(text)
        self.assertEqual([s.number for s in d.samples], [0, 2])
        self.assertEqual(len(orphans), 1)
        reasons = " | ".join(d.problems)
        for part in ("cut short, the next sample glued to it", "TC_Dfet '1x.000' is not a number",
                     "sample number '#00000x4' is not one", "4 fields where the header names 6"):
            self.assertIn(part, reasons)

    def test_a_header_written_again_starts_a_new_table_with_the_same_settings(self):
        text = (META + HEADER + "\r\n" + line(0, "01/01/2026 00:00:02")
                + " SampNum\t     MM/DD/YYYY HH:MM:SS\tpHextEst\t\r\n" + "#0000001\t01/01/2026 00:15:00\t   8.010\r\n")
        first, second = read(text)[0]
        self.assertEqual([c.key for c in second.columns], ["sample", "time", "ph_ext"])
        self.assertEqual(second.meta("Deploy note"), "bench")
        self.assertEqual(second.samples[0].values["ph_ext"].number, 8.01)

    def test_columns_are_found_by_name(self):
        # Columns a newer board might add are kept, as text, under their own names.
        text = META + " SampNum\tNewThing\t TC_Dfet\t\r\n#0000000\tabc\t  15.000\r\n"
        (d,), _ = read(text)
        self.assertEqual([c.key for c in d.columns], ["x_sampnum", "x_newthing", "x_tc_dfet"])
        self.assertEqual(d.samples[0].values["x_newthing"].text, "abc")
        # The Brisa group repeats board names; alone, the same names are the board's own columns.
        brisa_names = ["SampNum", "MM/DD/YYYY HH:MM:SS", "VbiasPos", "TC_cont", "Humidity", "Vtherm", "VthrmStd",
                       "TC_Dfet", "Vrse", "Vrse_std", "Vk", "Vk_std", "Ik", "Ib"]
        columns, groups = datafile.find_columns(brisa_names)
        self.assertEqual((columns[0].key, groups), ("sample", []))
        columns, groups = datafile.find_columns(["VbatMain"] + brisa_names + ["Pump"])
        self.assertEqual(groups, ["brisa", "pump"])
        self.assertEqual(columns[1].key, "brisa_sample")


class Logs(unittest.TestCase):
    def test_error_log_entries_with_their_times(self):
        text = ("\r\n2026/01/01 00:00:53 Nitrate T1 failed: LampFail\r\n"
                "\r\n2026/01/02 10:00:00 CTD not responding\r\nsecond line\r\n")
        entries = logs.read_error_log(text)
        self.assertEqual([(table.iso(e.time), e.message) for e in entries],
                         [("2026-01-01T00:00:53Z", "Nitrate T1 failed: LampFail"),
                          ("2026-01-02T10:00:00Z", "CTD not responding second line")])

    def test_float_log_lines_go_under_their_own_header(self):
        text = ("Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],pHint,pHext\n"
                "Prefix,Type,Date Time,SampleNum,CTD Depth[dbar],NO3[umol/kg],Fit RMS\n"
                "0xFFFF,NO3,01/01/26 00:00:10,1,500.00,25.060,1.199e-04\n"
                "0x1234,pH,01/01/26 00:01:10,2,10.00,8.012,8.020\n"
                "0x1234,pH,01/01/26 00:02:10,3,10.00\n")
        tables = logs.read_float_log(text)
        self.assertEqual(tables["NO3"].rows[0][1][5], "25.060")
        self.assertEqual(table.iso(tables["pH"].rows[0][0]), "2026-01-01T00:01:10Z")
        self.assertEqual(len(tables["pH"].problems), 1)


class Sources(support.BoardTest):
    def test_copied_files_read_as_the_card_does(self):
        board = support.Board(os.path.join(self.dir, "b"))
        board.run('timeout 20\nexpect "\\r\\n>"\n' + support.deploy("wirewalker", "copy me")
                  + 'expect "#0000002\\t"\nwait 5\nexit\n')
        copy = os.path.join(self.dir, "NONAME.TXT")
        with open(copy, "wb") as f:
            f.write(board.card_file("NONAME.TXT"))
        from_card, from_copy = source.open_card(board.card), source.open_card(copy)
        self.assertEqual([len(d.samples) for d in from_card.deployments], [3])
        self.assertEqual(
            [[s.values for s in d.samples] for d in from_card.deployments],
            [[s.values for s in d.samples] for d in from_copy.deployments])

    def test_damaged_files_never_stop_the_tools(self):
        # Bytes changed, cut out and repeated at random in a real file: every output is still made.
        from hxc3data import netcdf, qc

        board = support.Board(os.path.join(self.dir, "b"), scenario="port4 = sbe37\n")
        board.run('timeout 20\nexpect "\\r\\n>"\n' + support.deploy("tessel", "a") + 'expect "#0000003\\t"\n'
                  + support.STOP + support.deploy("glider", "b") + 'expect "#0000002\\t"\nwait 5\nexit\n')
        text = board.card_file("NONAME.TXT").decode("ascii")
        rnd = random.Random(7)
        for _ in range(60):
            t = list(text)
            for _ in range(rnd.randint(1, 20)):
                k, op = rnd.randrange(len(t)), rnd.random()
                if op < 0.4:
                    t[k] = rnd.choice("\t\n\r#/01-. nai")
                elif op < 0.7:
                    del t[k:k + rnd.randint(1, 200)]
                else:
                    t[k:k] = t[rnd.randrange(len(t)):][:rnd.randint(1, 300)]
            deployments, _ = read("".join(t))
            for d in deployments:
                table.write(d, self.dir)
                qc.summary(qc.check(d))
                if d.column("time") is not None:
                    netcdf.write(d, os.path.join(self.dir, "x.nc"), "fuzz")

    def test_bad_arguments_get_a_message_not_a_traceback(self):
        garbage = os.path.join(self.dir, "garbage.bin")
        with open(garbage, "wb") as f:
            f.write(bytes(range(256)) * 40)
        text = os.path.join(self.dir, "t.txt")
        with open(text, "w") as f:
            f.write(META + " SampNum\t\r\n#0000000\r\n")
        cases = [(["list", os.path.join(self.dir, "none")], 2, "no such file"),
                 (["csv", text, "-d", "3", "-o", self.dir], 2, "no deployment 3 (it has 1)"),
                 (["plot", text, "-o", os.path.join(self.dir, "x.png")], 2, "none of pH"),
                 (["list", garbage], 0, "no data file")]
        for argv, status, message in cases:
            out, err = io.StringIO(), io.StringIO()
            with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
                self.assertEqual(cli.main(argv), status, argv)
            self.assertIn(message, out.getvalue() + err.getvalue(), argv)
