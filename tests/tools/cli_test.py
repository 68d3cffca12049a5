#!/usr/bin/env python3
"""Drives the krfilter command-line tool as a user would.

usage: cli_test.py PATH_TO_KRFILTER [unittest arguments]

Inputs are written here with zlib and struct, independently of the libpng and
libtiff code under test, and outputs are read back as uncompressed TIFF. A PNG
output is read back by the tool itself: its PNG reader is checked on the PNG
inputs written here."""

import os
import random
import re
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib
from pathlib import Path

KRFILTER = None
SENTINEL = b"an output from an earlier run"


def krfilter(*args, **options):
    return subprocess.run([KRFILTER, *args], capture_output=True, text=True, timeout=600, **options)


# {name: the rest of its row} from `krfilter list`, in its order. The names and their order are pinned by the
# library's catalogue test, and the Python package's tests hold this listing to that catalogue.
def listed():
    return {line.split()[1]: line.split()[2:] for line in krfilter("list").stdout.splitlines()[1:-1]}


def pack(order, rows, bits):
    return b"".join(struct.pack("%s%d%s" % (order, len(row), "H" if bits == 16 else "B"), *row) for row in rows)


def png_chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))


def png_bytes(rows, depth=16, sbit=None, colour_type=0):
    """Grey (RGB triplets for colour type 2), every row unfiltered, one IDAT."""
    raw = b"".join(b"\0" + pack(">", [row], depth) for row in rows)
    width = len(rows[0]) // (3 if colour_type == 2 else 1)
    header = png_chunk(b"IHDR", struct.pack(">IIBBBBB", width, len(rows), depth, colour_type, 0, 0, 0))
    return (b"\x89PNG\r\n\x1a\n" + header + (png_chunk(b"sBIT", bytes([sbit])) if sbit else b"")
            + png_chunk(b"IDAT", zlib.compress(raw)) + png_chunk(b"IEND", b""))


def write_png(path, rows, depth=16, sbit=None):
    Path(path).write_bytes(png_bytes(rows, depth, sbit))


def write_tiff(path, rows, bits=16, max_sample=None):
    """Grey, little-endian, uncompressed, one strip; every tag a SHORT."""
    pixels = pack("<", rows, bits)
    tags = [(256, len(rows[0])), (257, len(rows)), (258, bits), (259, 1), (262, 1), (273, 0), (277, 1),
            (278, len(rows)), (279, len(pixels))] + ([(281, max_sample)] if max_sample else [])
    pixel_offset = 8 + 2 + 12 * len(tags) + 4
    ifd = b"".join(struct.pack("<HHIHH", tag, 3, 1, pixel_offset if tag == 273 else value, 0) for tag, value in tags)
    Path(path).write_bytes(b"II*\0" + struct.pack("<IH", 8, len(tags)) + ifd + b"\0" * 4 + pixels)


def read_tiff(path):
    """(tags, rows) of an uncompressed little-endian grey TIFF in strips."""
    data = Path(path).read_bytes()
    (ifd,) = struct.unpack_from("<I", data, 4)
    tags = {}
    for at in range(ifd + 2, ifd + 2 + 12 * struct.unpack_from("<H", data, ifd)[0], 12):
        tag, kind, count, value = struct.unpack_from("<HHII", data, at)
        code = {3: "H", 4: "I"}.get(kind)
        if code:
            inline = count * struct.calcsize(code) <= 4
            tags[tag] = struct.unpack_from("<%d%s" % (count, code), data, at + 8 if inline else value)
    assert data[:4] == b"II*\0" and tags.get(259, (1,)) == (1,), "not little-endian uncompressed TIFF"
    pixels = b"".join(data[o:o + n] for o, n in zip(tags[273], tags[279]))
    width, bits = tags[256][0], tags[258][0]
    samples = struct.unpack("<%d%s" % (len(pixels) * 8 // bits, "H" if bits == 16 else "B"), pixels)
    return tags, [list(samples[i:i + width]) for i in range(0, len(samples), width)]


def png_header(path):
    """Width, height, bit depth and colour type."""
    return struct.unpack(">IIBB", Path(path).read_bytes()[16:26])


def gradient(height, width, white):
    """Deterministic samples spread over 0 ... white."""
    return [[(r * 37 + c * 101) % (white + 1) for c in range(width)] for r in range(height)]


def limit_file_size():
    """Makes writes beyond 4 KiB fail with EFBIG instead of killing the tool."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (4096, 4096))


class Cli(unittest.TestCase):
    def setUp(self):
        self._folder = tempfile.TemporaryDirectory()
        self.folder = self._folder.name

    def tearDown(self):
        self._folder.cleanup()

    def path(self, name):
        return os.path.join(self.folder, name)

    def existing_output(self, name="out.png"):
        Path(self.path(name)).write_bytes(SENTINEL)
        return self.path(name)

    def run_ok(self, *args):
        result = krfilter("run", *args)
        self.assertEqual(result.returncode, 0, result.stderr)
        return result.stdout

    def dry_run(self, source, *options, name="gamma"):
        return self.run_ok(name, source, self.path("unused.png"), "--dry-run", *options)

    def assert_refused(self, result, status, *fragments, one_line=True):
        """One line, unless the usage follows: none of libpng's or libtiff's own printing."""
        self.assertEqual(result.returncode, status, result.stderr)
        self.assertTrue(not one_line or result.stderr.count("\n") == 1, result.stderr)
        for fragment in fragments:
            self.assertIn(fragment, result.stderr)

    def assert_untouched(self, output, before):
        """`output` still holds the sentinel and the folder holds exactly `before`: no temporaries."""
        self.assertEqual(Path(output).read_bytes(), SENTINEL)
        self.assertEqual(sorted(os.listdir(self.folder)), sorted(before))

    def test_list_and_info_show_the_catalogue(self):
        listing, rows = krfilter("list").stdout, listed()
        self.assertEqual(len(rows), 36)
        self.assertEqual(rows["IsoDensity"], ["yes", "GrayLevel,", "Red,", "Green,", "Blue"])
        self.assertIn('"Intensity "', listing)  # the blank in the name stays visible
        built = sum(row[0] == "yes" for row in rows.values())
        self.assertIn("36 filters in the catalogue, %d run by this build." % built, listing)
        for name, pattern in [
            ("gamma", r'1\s+"Gamma"\s+double\s+0\.2\s+2\s+1\n'),
            ("ShannonStretching", r'2\s+"high_th"\s+double\s+0\.2\s+2\s+0\.95\n'),
            ("ShannonStretching", r'3\s+"Up Border"\s+int\s+0\s+65535\s+100\n'),
            ("sigma", r'"Sigma"[^\n]*\n[^\n]*"Sigma".*Several parameters share a name'),
        ]:
            self.assertRegex(krfilter("info", name).stdout, re.compile(pattern, re.S))

    def test_parameters_by_name_position_and_blanks(self):
        write_png(self.path("in.png"), gradient(4, 4, 4095), sbit=12)
        for name, assignments, expected in [
            ("gamma", [], "Gamma=1$"),
            ("sigma", ["Sigma=0.1", "Sigma=0.2"], "Sigma=0.1, Sigma=0.2$"),
            ("sigma", ["#2=0.3", "Sigma=0.1"], "Sigma=0.1, Sigma=0.3$"),
            ("unsharp", ["Intensity=2.5", "#2=+3"], '"Intensity "=2.5, Radius=3$'),
            ("ShannonStretching", ["Up Border=5", " Right Border =-7"], "Up Border=5, Down Border=100, .*=-7$"),
            ("ContrastCorrection", ["ClipLimit=25e-2"], "ClipLimit=0.25, NBins=1024"),
        ]:
            with self.subTest(filter=name, assignments=assignments):
                self.assertRegex(self.dry_run(self.path("in.png"), *assignments, name=name), re.compile(expected, re.M))

    def test_wrong_command_lines_are_refused_with_what_is_valid(self):
        write_png(self.path("in.png"), gradient(4, 4, 4095), sbit=12)
        output = self.existing_output()
        for args, fragments in [
            (["gamma", "Gama=0.5"], ['unknown parameter "Gama"', '"Gamma" (#1)']),
            (["gamma", "Gamma"], ["expected NAME=VALUE", '"Gamma" (#1)']),
            (["gamma", "Gamma=0.5x"], ["is not a number"]),
            (["gamma", "Gamma="], ["missing value"]),
            (["gamma", "Gamma=nan"], ["not a finite number"]),
            (["gamma", "Gamma=1e999"], ["out of range"]),
            (["gamma", "Gamma=0.5", "Gamma=0.6"], ["given twice"]),
            (["gamma", "#1=0.5", "Gamma=0.6"], ["given twice"]),
            (["median2D", "oddnum=5.0"], ["not a whole number"]),
            (["median2D", "oddnum=2147483648"], ["out of range for an int"]),
            (["ContrastCorrection", "ClipLimit=1e39"], ["out of range for a float"]),
            (["sigma", "Sigma=1", "Sigma=2", "Sigma=3"], ["more than 2 times", '"Sigma" (#2)']),
            (["sigma", "#3=1"], ["no parameter #3", '"Sigma" (#2)']),
            (["sigma", "#0=1"], ["no parameter #0"]),
            (["equalize", "x=1"], ["equalize takes no parameters"]),
            (["Gamma"], ['no filter named "Gamma"', 'did you mean "gamma"']),
            (["gamma", "--white", "0"], ["--white takes"]),
            (["gamma", "--white=4k"], ["--white takes"]),
        ]:
            with self.subTest(args=args):
                self.assert_refused(krfilter("run", args[0], self.path("in.png"), output, *args[1:]), 2, *fragments)
        for args, fragment in [
            (["run", "gamma", self.path("in.png")], "run needs NAME INPUT OUTPUT"),
            (["run", "gamma", self.path("in.png"), self.path("out.jpg")], "cannot tell the format"),
            (["demo", "a", "b"], "demo takes one folder"),
            (["run", "gamma", self.path("in.png"), output, "--fast"], "unknown option --fast"),
            (["frobnicate"], 'unknown command "frobnicate"'),
        ]:
            with self.subTest(args=args):
                self.assert_refused(krfilter(*args), 2, fragment, one_line=False)
        self.assert_untouched(output, ["in.png", "out.png"])

    def test_failures_leave_an_existing_output_untouched(self):
        write_png(self.path("good.png"), gradient(40, 30, 4095), sbit=12)
        self.run_ok("colorize", self.path("good.png"), self.path("rgb.png"))
        self.run_ok("colorize", self.path("good.png"), self.path("rgb.tif"))
        noise = random.Random(7)  # too many bytes for the file size limit below, even compressed
        write_png(self.path("noise.png"), [[noise.randrange(4096) for _ in range(64)] for _ in range(64)], sbit=12)
        Path(self.path("text.png")).write_bytes(b"not an image\n")
        output = self.existing_output()
        self.existing_output("out.tif")
        before = os.listdir(self.folder)
        for name, fragment in [
            ("missing.png", "No such file"),
            ("text.png", "not a PNG, TIFF or DICOM file"),
            ("rgb.png", "not a greyscale image (PNG colour type RGB)"),
            ("rgb.tif", "not a greyscale image (TIFF with 3 samples per pixel)"),
        ]:
            with self.subTest(input=name):
                self.assert_refused(krfilter("run", "reverse", self.path(name), output), 1, self.path(name) + ": ",
                                    fragment)
        result = krfilter("run", "IsoDensity", self.path("good.png"), output)
        self.assert_refused(result, 1, "IsoDensity failed with code 1", "no pixel work", "was not written")
        self.assert_untouched(output, before)
        # Writing stops at the file size limit: the encoder's error must not cost the earlier output.
        for name in ["out.png", "out.tif"]:
            with self.subTest(output=name):
                result = krfilter("run", "reverse", self.path("noise.png"), self.path(name), preexec_fn=limit_file_size)
                self.assert_refused(result, 1, self.path(name) + ": ")
                self.assert_untouched(self.path(name), before)

    def test_reverse_round_trips_every_format_depth_and_white(self):
        # input, its bit depth, the white it records (sBIT bits or MaxSampleValue), --white, white used, output;
        # the white used comes from --white, else from sBIT or MaxSampleValue, else from the bit depth
        cases = [
            ("in.png", 16, 12, [], 4095, "out.tif"),
            ("in.png", 8, None, [], 255, "out.tif"),
            ("in.png", 16, 12, ["--white=2000"], 2000, "out.tif"),
            ("in.tif", 16, 1023, [], 1023, "out.png"),
            ("in.tif", 8, 200, [], 200, "out.TIFF"),
            ("in.png", 16, 16, [], 65535, "out.png"),
            ("in.tif", 16, 1000, [], 1000, "out.png"),  # sBIT can only say 10 bits: read back as 1023
            ("in.tif", 8, 100, [], 100, "out.png"),
        ]
        self.existing_output("out.tif")  # success replaces an earlier output
        for name, bits, recorded, options, white, output in cases:
            with self.subTest(input=name, bits=bits, options=options, output=output):
                rows = gradient(9, 13, white)
                if name.endswith(".png"):
                    write_png(self.path(name), rows, depth=bits, sbit=recorded)
                else:
                    write_tiff(self.path(name), rows, bits=bits, max_sample=recorded)
                self.run_ok("reverse", self.path(name), self.path(output), *options)
                if output.endswith(".png"):
                    self.assertIn("%d-bit, white %d (from PNG sBIT)" % (bits, (1 << white.bit_length()) - 1),
                                  self.dry_run(self.path(output)))
                    self.run_ok("reverse", self.path(output), self.path("back.tif"), "--white", str(white))
                    self.assertEqual(read_tiff(self.path("back.tif"))[1], rows)
                else:
                    tags, result = read_tiff(self.path(output))
                    self.assertEqual((tags[258][0], tags[281][0]), (bits, white))
                    self.assertEqual(result, [[white - v for v in row] for row in rows])
        self.assertEqual(sorted(os.listdir(self.folder)), ["back.tif", "in.png", "in.tif", "out.TIFF", "out.png",
                                                           "out.tif"])

    def test_demo_writes_pictures_sheet_and_page(self):
        folder = self.path("demo")
        result = krfilter("demo", folder, "--size", "96")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("96 x 96, 16-bit, white 4095 (from PNG sBIT)", self.dry_run(os.path.join(folder, "input.png")))
        self.assertEqual(png_header(os.path.join(folder, "input-display.png"))[2], 8)
        self.assertEqual(png_header(os.path.join(folder, "contact-sheet.png"))[3], 2)  # RGB
        page = Path(folder, "index.html").read_text(encoding="utf-8")
        self.assertIn("1: no pixel work done", page)
        outcomes = dict(re.findall(r"^  (\S+) +(.+)$", result.stdout, re.M))
        self.assertEqual(list(outcomes), list(listed()))
        for name, outcome in outcomes.items():
            self.assertIn(name, page)
            picture = os.path.join(folder, name + ".png")
            self.assertEqual(os.path.exists(picture), outcome == "0", name)
            if outcome == "0":
                self.assertIn('src="%s' % name, page)
                self.assertEqual(png_header(picture)[:2], (96, 96))


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    KRFILTER = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
