#!/usr/bin/env python3
"""Drives `krfilter batch` and the tool's DICOM files as a user would.

usage: batch_test.py PATH_TO_KRFILTER DATA_DIR [unittest arguments]

Every batch output is compared with what `krfilter run` makes of the same
file; the folder a batch writes into never holds a temporary or a partial
file, whatever happened to the run."""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

import cli_test
from cli_test import gradient, krfilter, write_png, write_tiff

DATA = None


class Batch(unittest.TestCase):
    def setUp(self):
        self._folder = tempfile.TemporaryDirectory()
        self.inputs = os.path.join(self._folder.name, "in")
        self.outputs = os.path.join(self._folder.name, "out")
        self.singles = os.path.join(self._folder.name, "single")
        for folder in (self.inputs, self.singles):
            os.mkdir(folder)

    def tearDown(self):
        self._folder.cleanup()

    def make_inputs(self):
        for i in range(3):
            write_png(os.path.join(self.inputs, "p%02d.png" % i), gradient(20 + i, 30, 4095), sbit=12)
        write_tiff(os.path.join(self.inputs, "t.tif"), gradient(16, 17, 1023), max_sample=1023)
        shutil.copy(os.path.join(DATA, "RG3_J2KR.dcm"), os.path.join(self.inputs, "leg"))  # DICOM without extension
        Path(self.inputs, "broken.png").write_bytes(b"\x89PNG\r\n\x1a\n broken")
        Path(self.inputs, "notes.txt").write_text("not an image, left alone\n")
        os.mkdir(os.path.join(self.inputs, "subfolder"))
        os.symlink("loop", os.path.join(self.inputs, "loop"))

    def batch(self, *args):
        return krfilter("batch", "median2D", self.inputs, self.outputs, "oddnum=3", *args)

    def assert_outputs_match_single_runs(self, names, size="oddnum=3"):
        for name in names:
            single = os.path.join(self.singles, name + (".dcm" if name == "leg" else ""))
            result = krfilter("run", "median2D", os.path.join(self.inputs, name), single, size)
            self.assertEqual(result.returncode, 0, result.stderr)
            # Both outputs read back through the tool as uncompressed TIFF.
            for source, target in ((single, single + ".tif"), (os.path.join(self.outputs, name), "batch.tif")):
                back = krfilter("run", "median2D", source, os.path.join(self.singles, os.path.basename(target)), "oddnum=1")
                self.assertEqual(back.returncode, 0, back.stderr)
            self.assertEqual(Path(single + ".tif").read_bytes(), Path(self.singles, "batch.tif").read_bytes(), name)

    def test_every_image_is_filtered_and_failures_are_reported(self):
        self.make_inputs()
        result = self.batch("--jobs", "2")
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        good = ["leg", "p00.png", "p01.png", "p02.png", "t.tif"]
        self.assertEqual(sorted(os.listdir(self.outputs)), good)
        self.assertIn("batch median2D: 5 done, 0 skipped (already complete), 2 failed", result.stdout)
        self.assertRegex(result.stdout, r"failed: broken\.png: corrupt or truncated PNG")
        self.assertRegex(result.stdout, r"failed: loop: .*(symbolic links|Too many levels)")
        self.assert_outputs_match_single_runs(good)

        rerun = self.batch()
        self.assertIn("0 done, 5 skipped (already complete), 2 failed", rerun.stdout)
        forced = self.batch("--force", "-j", "1")
        self.assertIn("5 done, 0 skipped (already complete), 2 failed", forced.stdout)

    def test_interrupt_finishes_the_files_under_way_and_leaves_nothing_partial(self):
        for i in range(40):
            write_png(os.path.join(self.inputs, "p%02d.png" % i), gradient(300, 300, 4095), sbit=12)
        run = subprocess.Popen([cli_test.KRFILTER, "batch", "median2D", self.inputs, self.outputs, "oddnum=31",
                                "--jobs", "1"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        first = run.stdout.readline()  # not a terminal: one line per file
        self.assertTrue(first.startswith("done"), first)
        os.remove(os.path.join(self.inputs, "p39.png"))  # vanishes before its turn
        run.send_signal(signal.SIGINT)
        out, _ = run.communicate(timeout=120)
        self.assertEqual(run.returncode, 130)
        self.assertIn("not started (interrupted)", out)
        written = sorted(os.listdir(self.outputs))
        self.assertTrue(written and all(name.endswith(".png") and not name.startswith(".") for name in written), written)
        self.assert_outputs_match_single_runs(written[-1:], "oddnum=31")
        # The rest, on a rerun: what was written is kept, the vanished file fails alone.
        rest = krfilter("batch", "median2D", self.inputs, self.outputs, "oddnum=31")
        self.assertIn("%d skipped" % len(written), rest.stdout)
        self.assertEqual(len(os.listdir(self.outputs)), 39)

    def test_folders_that_cannot_be_used_are_refused(self):
        write_png(os.path.join(self.inputs, "a.png"), gradient(4, 4, 255), depth=8)
        blocker = os.path.join(self._folder.name, "a-file")
        open(blocker, "w").close()
        for args, status, words in [
            (["median2D", self.inputs, blocker], 1, "cannot create the folder"),
            (["median2D", blocker, self.outputs], 1, "is not a folder"),
            (["median2D", self.inputs, self.inputs], 2, "must differ"),
            (["median2D", self.inputs, self.outputs, "oddnum=x"], 2, "not a whole number"),
            (["Median2D", self.inputs, self.outputs], 2, 'did you mean "median2D"'),
            (["median2D", self.inputs], 2, "batch needs NAME INPUT_DIR OUTPUT_DIR"),
        ]:
            with self.subTest(args=args):
                result = krfilter("batch", *args)
                self.assertEqual(result.returncode, status, result.stderr)
                self.assertIn(words, result.stderr)
        self.assertFalse(os.path.exists(self.outputs))


class DicomThroughTheTool(unittest.TestCase):
    def test_dicom_in_and_out_with_its_sense_reported(self):
        with tempfile.TemporaryDirectory() as folder:
            out = os.path.join(folder, "leg-median.dcm")
            result = krfilter("run", "median2D", os.path.join(DATA, "RG3_J2KR.dcm"), out, "oddnum=3")
            self.assertEqual(result.returncode, 0, result.stderr)
            dry = krfilter("run", "gamma", out, os.path.join(folder, "x.png"), "--dry-run").stdout
            self.assertIn("1760 x 1760, 16-bit, white 1023 (from DICOM BitsStored), MONOCHROME1", dry)
            colour = krfilter("run", "colorize", out, os.path.join(folder, "rgb.dcm"))
            self.assertIn("cannot be written as DICOM", colour.stderr)
            self.assertEqual(os.listdir(folder), ["leg-median.dcm"])

    def test_demo_on_a_real_radiograph(self):
        with tempfile.TemporaryDirectory() as folder:
            result = krfilter("demo", folder, "--input", os.path.join(DATA, "cr-leg-10bit.png"), "--white", "1023")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertIn("cr-leg-10bit.png 1760 x 1760, white 1023", result.stdout)
            self.assertIn("cr-leg-10bit.png, 1760 &times; 1760 samples, 16-bit, white level 1023",
                          Path(folder, "index.html").read_text(encoding="utf-8"))


if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    cli_test.KRFILTER = os.path.abspath(sys.argv[1])
    DATA = os.path.abspath(sys.argv[2])
    if not os.path.exists(os.path.join(DATA, "RG3_J2KR.dcm")):
        sys.exit("batch_test: the real radiographs are needed in %s" % DATA)
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:], verbosity=2)
