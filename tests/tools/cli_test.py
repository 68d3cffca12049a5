#!/usr/bin/env python3
"""Drives the krfilter command-line tool as a user would.

usage: cli_test.py PATH_TO_KRFILTER [unittest arguments, e.g. CliBasics]

CliBasics needs only what every build has (the catalogue, "IsoDensity");
CliFilterRuns needs the "reverse" and "gamma" filters."""

import math
import os
import re
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from image_files import gradient, read_png, read_tiff, write_png, write_tiff  # noqa: E402

KRFILTER = None

CATALOGUE = [
    "gamma", "gammalog", "gammaporion", "sigma", "equalize", "mean2D", "despeckle", "median2D",
    "pseudo-median2D", "SMF", "ADF", "bilateral_filter", "unsharp", "emboss", "reverse", "colorize", "linear",
    "gammalin", "SpineCompensation", "SpineCompensation2", "SpineCompensation3", "IsoDensity", "LL-UL",
    "ShannonStretching", "ECE", "ECE2", "rain", "flip", "advancedsmoothing", "advancedsmoothing2",
    "ContrastCorrection", "testRUM", "RUM", "supereq", "supereq_pre", "gaussian",
]
SENTINEL = b"an output from an earlier run"


def krfilter(*args):
    return subprocess.run([KRFILTER, *args], capture_output=True, text=True, timeout=600)


class Workspace(unittest.TestCase):
    def setUp(self):
        self._folder = tempfile.TemporaryDirectory()
        self.folder = self._folder.name

    def tearDown(self):
        self._folder.cleanup()

    def path(self, name):
        return os.path.join(self.folder, name)

    def existing_output(self, name="out.png"):
        path = self.path(name)
        with open(path, "wb") as f:
            f.write(SENTINEL)
        return path

    def assert_refused(self, result, status, *fragments):
        self.assertEqual(result.returncode, status, result.stderr)
        self.assertEqual(len(result.stderr.strip().splitlines()), 1, result.stderr)
        for fragment in fragments:
            self.assertIn(fragment, result.stderr)

    def assert_untouched(self, output, before):
        """`output` holds the sentinel and the folder holds exactly `before`."""
        with open(output, "rb") as f:
            self.assertEqual(f.read(), SENTINEL)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted(before))


class CliBasics(Workspace):
    def test_list_shows_the_catalogue_and_what_runs(self):
        result = krfilter("list")
        self.assertEqual(result.returncode, 0, result.stderr)
        rows = {line.split()[1]: line.split() for line in result.stdout.splitlines()[1:-1]}
        self.assertEqual(list(rows), CATALOGUE)
        self.assertEqual(rows["IsoDensity"][2], "yes")
        self.assertEqual(rows["IsoDensity"][3:], ["GrayLevel,", "Red,", "Green,", "Blue"])
        self.assertIn('"Intensity "', result.stdout)
        built = sum(1 for row in rows.values() if row[2] == "yes")
        self.assertIn("36 filters in the catalogue, %d run by this build." % built, result.stdout)

    def test_info_gives_types_ranges_defaults(self):
        result = krfilter("info", "gamma")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout, r'1\s+"Gamma"\s+double\s+0\.2\s+2\s+1\n')
        shannon = krfilter("info", "ShannonStretching").stdout
        self.assertRegex(shannon, r'2\s+"high_th"\s+double\s+0\.2\s+2\s+0\.95\n')
        self.assertRegex(shannon, r'3\s+"Up Border"\s+int\s+0\s+65535\s+100\n')
        sigma = krfilter("info", "sigma").stdout
        self.assertEqual(sigma.count('"Sigma"'), 2)
        self.assertIn("#N=VALUE", sigma)
        self.assertIn("Several parameters share a name", sigma)
        self.assertIn('"Intensity "', krfilter("info", "unsharp").stdout)
        self.assert_refused(krfilter("info", "Gamma"), 2, 'no filter named "Gamma"', 'did you mean "gamma"')

    def test_dry_run_reports_the_white_level_and_its_source(self):
        rows16, rows8 = gradient(5, 7, 4095), gradient(5, 7, 255)
        write_png(self.path("sbit.png"), rows16, depth=16, sbit=12)
        write_png(self.path("plain.png"), rows16, depth=16)
        write_png(self.path("eight.png"), rows8, depth=8)
        write_tiff(self.path("max.tif"), gradient(5, 7, 1023), bits=16, max_sample=1023)
        write_tiff(self.path("eight.tif"), rows8, bits=8)
        cases = [
            ("sbit.png", [], "7 x 5, 16-bit, white 4095 (from PNG sBIT)"),
            ("plain.png", [], "7 x 5, 16-bit, white 65535 (from bit depth)"),
            ("eight.png", [], "7 x 5, 8-bit, white 255 (from bit depth)"),
            ("max.tif", [], "7 x 5, 16-bit, white 1023 (from TIFF MaxSampleValue)"),
            ("eight.tif", [], "7 x 5, 8-bit, white 255 (from bit depth)"),
            ("sbit.png", ["--white", "2000"], "white 2000 (from --white)"),
            ("max.tif", ["--white=900"], "white 900 (from --white)"),
        ]
        for name, options, expected in cases:
            with self.subTest(name=name, options=options):
                result = krfilter("run", "gamma", self.path(name), self.path("out.png"), "--dry-run", *options)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn(expected, result.stdout)
        self.assertFalse(os.path.exists(self.path("out.png")))

    def test_parameters_by_name_position_and_blanks(self):
        write_png(self.path("in.png"), gradient(4, 4, 4095), sbit=12)
        cases = [
            ("gamma", [], "Gamma=1"),
            ("sigma", ["Sigma=0.1", "Sigma=0.2"], "Sigma=0.1, Sigma=0.2"),
            ("sigma", ["#2=0.3", "Sigma=0.1"], "Sigma=0.1, Sigma=0.3"),
            ("unsharp", ["Intensity=2"], '"Intensity "=2, Radius=1'),
            ("unsharp", ["Intensity =2.5", "#2=+3"], '"Intensity "=2.5, Radius=3'),
            ("ShannonStretching", ["Up Border=5", " Right Border =-7"], "Up Border=5, Down Border=100"),
            ("ContrastCorrection", ["ClipLimit=0.25"], "NBins=1024, Distribution=1"),
            ("RUM", ["intensity=1e1"], "intensity=10"),
        ]
        for name, assignments, expected in cases:
            with self.subTest(filter=name, assignments=assignments):
                result = krfilter("run", name, self.path("in.png"), self.path("out.png"), "--dry-run", *assignments)
                self.assertEqual(result.returncode, 0, result.stderr)
                self.assertIn(expected, result.stdout)
        right = krfilter("run", "ShannonStretching", self.path("in.png"), self.path("o.png"), "--dry-run",
                         "Right Border=-7")
        self.assertIn("Right Border=-7", right.stdout)

    def test_wrong_parameters_are_refused_with_the_valid_names(self):
        cases = [
            ("gamma", ["Gama=0.5"], ['unknown parameter "Gama"', '"Gamma" (#1)']),
            ("gamma", ["Gamma=0.5x"], ["is not a number"]),
            ("gamma", ["Gamma= 0.5"], ["is not a number"]),
            ("gamma", ["Gamma="], ["missing value"]),
            ("gamma", ["Gamma"], ["expected NAME=VALUE", '"Gamma" (#1)']),
            ("gamma", ["Gamma=nan"], ["not a finite number"]),
            ("gamma", ["Gamma=1e999"], ["out of range"]),
            ("gamma", ["Gamma=0.5", "Gamma=0.6"], ["given twice"]),
            ("gamma", ["#1=0.5", "Gamma=0.6"], ["given twice"]),
            ("median2D", ["oddnum=5.0"], ["not a whole number"]),
            ("median2D", ["oddnum=0x10"], ["not a whole number"]),
            ("median2D", ["oddnum=2147483648"], ["out of range for an int"]),
            ("ContrastCorrection", ["ClipLimit=1e39"], ["out of range for a float"]),
            ("sigma", ["Sigma=1", "Sigma=2", "Sigma=3"], ["more than 2 times", '"Sigma" (#2)']),
            ("sigma", ["#3=1"], ["no parameter #3"]),
            ("sigma", ["#0=1"], ["no parameter #0"]),
            ("equalize", ["x=1"], ["equalize takes no parameters"]),
        ]
        write_png(self.path("in.png"), gradient(4, 4, 4095), sbit=12)
        output = self.existing_output()
        for name, assignments, fragments in cases:
            with self.subTest(filter=name, assignments=assignments):
                result = krfilter("run", name, self.path("in.png"), output, *assignments)
                self.assert_refused(result, 2, *fragments)
                self.assert_untouched(output, ["in.png", "out.png"])

    def test_wrong_command_lines_are_refused(self):
        write_png(self.path("in.png"), gradient(4, 4, 4095))
        source = self.path("in.png")
        cases = [
            (["run", "gamma", source], "run needs NAME INPUT OUTPUT"),
            (["run", "gamma", source, self.path("out.jpg")], "cannot tell the format"),
            (["run", "gamma", source, self.path("out.png"), "--white", "0"], "--white takes"),
            (["run", "gamma", source, self.path("out.png"), "--white", "70000"], "--white takes"),
            (["run", "gamma", source, self.path("out.png"), "--white=4k"], "--white takes"),
            (["run", "Gamma", source, self.path("out.png")], 'did you mean "gamma"'),
            (["run", "gamma", source, self.path("out.png"), "--fast"], "unknown option --fast"),
            (["demo", "a", "b"], "demo takes one folder"),
            (["frobnicate"], 'unknown command "frobnicate"'),
        ]
        for args, fragment in cases:
            with self.subTest(args=args):
                result = krfilter(*args)
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertIn(fragment, result.stderr)
        self.assertEqual(os.listdir(self.folder), ["in.png"])

    def test_unusable_inputs_are_refused_and_nothing_is_written(self):
        rows = gradient(40, 30, 4095)
        write_png(self.path("good.png"), rows, sbit=12)
        with open(self.path("good.png"), "rb") as f:
            png = f.read()
        write_tiff(self.path("good.tif"), rows)
        with open(self.path("good.tif"), "rb") as f:
            tiff = f.read()
        broken = {
            "empty.png": b"",
            "text.png": b"this is not an image\n",
            "cut-in-signature.png": png[:5],
            "cut-in-header.png": png[:20],
            "cut-in-pixels.png": png[:len(png) // 2],
            "no-end-chunk.png": png[:-12],
            "bad-crc.png": png[:30] + bytes([png[30] ^ 0xFF]) + png[31:],
            "cut-in-header.tif": tiff[:60],
            "cut-in-pixels.tif": tiff[:len(tiff) - 700],
        }
        for name, data in broken.items():
            with open(self.path(name), "wb") as f:
                f.write(data)
        write_png(self.path("rgb.png"), [[10, 20, 30] * 4] * 3, depth=8, colour=2)
        write_png(self.path("palette.png"), [[1, 2, 3, 4]] * 3, depth=8, colour=3)
        write_png(self.path("alpha.png"), [[100, 255] * 4] * 3, depth=8, colour=4)
        write_tiff(self.path("rgb.tif"), [[1, 2, 3] * 4] * 3, bits=8, samples_per_pixel=3)
        expected = {
            "missing.png": "No such file",
            "empty.png": "empty file",
            "text.png": "not a PNG or TIFF file",
            "cut-in-signature.png": "truncated PNG",
            "cut-in-header.png": "corrupt or truncated PNG",
            "cut-in-pixels.png": "corrupt or truncated PNG",
            "no-end-chunk.png": "corrupt or truncated PNG",
            "bad-crc.png": "corrupt or truncated PNG",
            "cut-in-header.tif": "TIFF",
            "cut-in-pixels.tif": "corrupt or truncated TIFF",
            "rgb.png": "not a greyscale image (PNG colour type RGB)",
            "palette.png": "not a greyscale image (PNG colour type palette)",
            "alpha.png": "not a greyscale image (PNG colour type grey with alpha)",
            "rgb.tif": "not a greyscale image (TIFF with 3 samples per pixel)",
        }
        output = self.existing_output()
        before = os.listdir(self.folder)
        for name, fragment in expected.items():
            with self.subTest(input=name):
                result = krfilter("run", "IsoDensity", self.path(name), output)
                self.assert_refused(result, 1, self.path(name) + ": ", fragment)
                self.assert_untouched(output, before)

    def test_a_failing_filter_is_reported_in_words_and_writes_nothing(self):
        write_png(self.path("in.png"), gradient(8, 8, 4095), sbit=12)
        result = krfilter("run", "IsoDensity", self.path("in.png"), self.path("fresh.tif"))
        self.assert_refused(result, 1, "IsoDensity failed with code 1", "no pixel work", "was not written")
        self.assertFalse(os.path.exists(self.path("fresh.tif")))
        output = self.existing_output()
        result = krfilter("run", "IsoDensity", self.path("in.png"), output, "Red=255")
        self.assert_refused(result, 1, "code 1")
        self.assert_untouched(output, ["in.png", "out.png"])

    def test_a_filter_missing_from_this_build_is_named_as_such(self):
        listing = krfilter("list").stdout.splitlines()[1:-1]
        missing = [line.split()[1] for line in listing if line.split()[2] == "no"]
        if not missing:
            self.skipTest("every catalogued filter is built")
        write_png(self.path("in.png"), gradient(8, 8, 4095))
        result = krfilter("run", missing[0], self.path("in.png"), self.path("out.png"))
        self.assert_refused(result, 1, "code -3", "this build of the library does not run the filter")
        self.assertFalse(os.path.exists(self.path("out.png")))

    def test_demo_writes_pictures_sheet_and_page(self):
        folder = self.path("demo")
        result = krfilter("demo", folder, "--size", "96")
        self.assertEqual(result.returncode, 0, result.stderr)
        info, rows = read_png(os.path.join(folder, "input.png"))
        self.assertEqual((info["width"], info["height"], info["depth"], info["sbit"]), (96, 96, 16, 12))
        self.assertLessEqual(max(max(row) for row in rows), 4095)
        self.assertGreater(len({v for row in rows for v in row}), 500)
        self.assertEqual(read_png(os.path.join(folder, "input-display.png"))[0]["depth"], 8)
        sheet, _ = read_png(os.path.join(folder, "contact-sheet.png"))
        self.assertEqual(sheet["colour"], 2)
        with open(os.path.join(folder, "index.html"), encoding="utf-8") as f:
            page = f.read()
        for name in CATALOGUE:
            self.assertIn(name, page)
        self.assertIn("1: no pixel work done", page)
        outcomes = dict(re.findall(r"^  (\S+) +(.+)$", result.stdout, re.M))
        self.assertEqual(list(outcomes), CATALOGUE)
        self.assertTrue(outcomes["IsoDensity"].startswith("1: "))
        for name, outcome in outcomes.items():
            picture = os.path.join(folder, name + ".png")
            self.assertEqual(os.path.exists(picture), outcome == "0", name)
            if outcome == "0":
                self.assertIn('src="%s' % name, page)
                picture_info, _ = read_png(picture)
                self.assertEqual((picture_info["width"], picture_info["height"]), (96, 96))


class CliFilterRuns(Workspace):
    """Round trips through "reverse" (white - sample) and "gamma"."""

    def run_ok(self, *args):
        result = krfilter("run", *args)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result

    def test_reverse_round_trips_every_format_and_depth(self):
        cases = [
            # input file, writer, bits, white recorded in the input, output file
            ("in16.png", 16, 12, 4095, "out16.png"),
            ("in8.png", 8, None, 255, "out8.png"),
            ("in16.tif", 16, 1023, 1023, "out16.tif"),
            ("in8.tif", 8, 200, 200, "out8.tiff"),
            ("cross.tif", 16, 1023, 1023, "cross.png"),
        ]
        for name, bits, recorded, white, output in cases:
            with self.subTest(input=name, output=output):
                rows = gradient(9, 13, white)
                if name.endswith(".png"):
                    write_png(self.path(name), rows, depth=bits, sbit=recorded)
                else:
                    write_tiff(self.path(name), rows, bits=bits, max_sample=recorded)
                self.run_ok("reverse", self.path(name), self.path(output))
                if output.endswith(".png"):
                    info, result = read_png(self.path(output))
                    self.assertEqual((info["depth"], info["sbit"]), (bits, white.bit_length()))
                else:
                    tags, result = read_tiff(self.path(output))
                    self.assertEqual((tags[258][0], tags[281][0]), (bits, white))
                self.assertEqual(result, [[white - v for v in row] for row in rows])

    def test_white_override_reaches_the_filter_and_the_file(self):
        rows = gradient(6, 6, 4095)
        write_png(self.path("in.png"), rows, sbit=12)
        self.run_ok("reverse", self.path("in.png"), self.path("out.png"), "--white", "2000")
        info, result = read_png(self.path("out.png"))
        self.assertEqual(info["sbit"], 11)
        self.assertEqual(result, [[(2000 - v) & 0xFFFF for v in row] for row in rows])

    def test_gamma_values_reach_the_filter(self):
        white = 4095
        rows = gradient(8, 16, white + 1000)  # some samples above white
        write_png(self.path("in.png"), rows, sbit=12)
        self.run_ok("gamma", self.path("in.png"), self.path("half.png"), "Gamma=0.5")
        scale = math.pow(white, 0.5)
        expected = [[int(math.pow(min(v, white), 0.5) * scale + 0.5) for v in row] for row in rows]
        self.assertEqual(read_png(self.path("half.png"))[1], expected)
        self.run_ok("gamma", self.path("in.png"), self.path("default.png"))
        self.assertEqual(read_png(self.path("default.png"))[1], [[min(v, white) for v in row] for row in rows])

    def test_success_replaces_an_existing_output_completely(self):
        rows = gradient(5, 5, 255)
        write_png(self.path("in.png"), rows, depth=8)
        output = self.existing_output()
        self.run_ok("reverse", self.path("in.png"), output)
        self.assertEqual(read_png(output)[1], [[255 - v for v in row] for row in rows])
        self.assertEqual(sorted(os.listdir(self.folder)), ["in.png", "out.png"])


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    KRFILTER = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
