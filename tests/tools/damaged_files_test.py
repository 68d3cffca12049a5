#!/usr/bin/env python3
"""Damaged input files given to `krfilter run`: each is refused in one line
naming the file, an earlier output stays as it was, no temporary is left, and
the tool never dies of a signal.

usage: damaged_files_test.py PATH_TO_KRFILTER DATA_DIR [unittest arguments]

The damaged files are made here from small sound ones (written with zlib and
struct, and a DICOM file the tool itself derives) and from the real DICOM
radiographs in DATA_DIR: truncated, with wrong or huge sizes in their
headers, empty, and with bits flipped at random."""

import os
import random
import struct
import sys
import tempfile
import time
import unittest
from unittest import mock

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import cli_test  # noqa: E402  (the sound PNG and TIFF writers)
from cli_test import gradient, krfilter, png_chunk  # noqa: E402

DATA = None
DAMAGE = {"png": "corrupt or truncated PNG", "tif": "corrupt or truncated TIFF"}
CORPUS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "fuzz", "corpus", "fuzz_dicom_reader")


def png_with_size(base, width, height):
    """The IHDR rewritten with another size (and a valid CRC), the image data kept."""
    ihdr_data = struct.pack(">II", width, height) + base[24:29]
    return base[:8] + png_chunk(b"IHDR", ihdr_data) + base[33:]


def tiff_with_tag(base, tag, value):
    """Every SHORT entry of `tag` in the first directory set to `value`."""
    data = bytearray(base)
    ifd = struct.unpack_from("<I", data, 4)[0]
    for i in range(struct.unpack_from("<H", data, ifd)[0]):
        at = ifd + 2 + 12 * i
        entry_tag, kind = struct.unpack_from("<HH", data, at)
        if entry_tag == tag:
            if kind == 3:
                struct.pack_into("<H", data, at + 8, value & 0xFFFF)
            else:
                struct.pack_into("<I", data, at + 8, value)
    return bytes(data)


def dicom_with_short(base, group, element, value):
    """The explicit-VR US element (group, element) set to `value`."""
    needle = struct.pack("<HH", group, element) + b"US" + struct.pack("<H", 2)
    at = base.index(needle)
    return base[:at + 8] + struct.pack("<H", value) + base[at + 10:]


class DamagedFiles(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        root = cls.folder.name
        cls.png_path = os.path.join(root, "sound.png")
        cls.tiff_path = os.path.join(root, "sound.tif")
        cls.dicom_path = os.path.join(root, "sound.dcm")
        cli_test.write_png(cls.png_path, gradient(9, 7, 4095), 16, sbit=12)
        cli_test.write_tiff(cls.tiff_path, gradient(9, 7, 4095), 16, max_sample=4095)
        made = krfilter("run", "reverse", cls.png_path, cls.dicom_path)
        assert made.returncode == 0, made.stderr
        cls.sound = {}
        for kind, path in (("png", cls.png_path), ("tif", cls.tiff_path), ("dcm", cls.dicom_path)):
            with open(path, "rb") as f:
                cls.sound[kind] = f.read()

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    @staticmethod
    def real_dicoms():
        """(name, bytes) of the real DICOM radiographs."""
        for name in sorted(n for n in os.listdir(DATA) if n.endswith(".dcm")):
            with open(os.path.join(DATA, name), "rb") as f:
                yield name, f.read()

    def attempt(self, name, content):
        """Runs the tool on `content` over an earlier output; returns (refused, result)."""
        case = tempfile.mkdtemp(dir=self.folder.name)
        source, target = os.path.join(case, name), os.path.join(case, "out", "result.png")
        os.mkdir(os.path.dirname(target))
        with open(source, "wb") as f:
            f.write(content)
        with open(target, "wb") as f:
            f.write(cli_test.SENTINEL)
        result = krfilter("run", "reverse", source, target)
        self.assertGreaterEqual(result.returncode, 0, "%s: killed by signal %d" % (name, -result.returncode))
        self.assertIn(result.returncode, (0, 1), "%s: %s" % (name, result.stderr))
        self.assertEqual(os.listdir(os.path.dirname(target)), ["result.png"], name)
        with open(target, "rb") as f:
            self.assertEqual(f.read() == cli_test.SENTINEL, result.returncode == 1, name)
        if result.returncode == 1:
            lines = result.stderr.strip().splitlines()
            self.assertEqual(len(lines), 1, "%s: %r" % (name, result.stderr))
            self.assertIn(name, lines[0])
            # A negative count printed as unsigned tells the reader nothing.
            self.assertNotRegex(lines[0], r"\d{16}", name)
        return result.returncode == 1, result

    def expect_refused(self, name, content, words=""):
        refused, result = self.attempt(name, content)
        self.assertTrue(refused, "%s was accepted: %s" % (name, result.stdout + result.stderr))
        self.assertIn(words, result.stderr)

    def test_empty_and_truncated_files_are_refused(self):
        sources = dict(self.sound, **{"real-" + name: data for name, data in self.real_dicoms()})
        for kind, data in sources.items():
            # Cuts inside the signature, the header and the samples; the real compressed
            # radiographs also right after their magic and just short of their end.
            # A TIFF cut just before its samples has a whole directory pointing past the end.
            before_samples = cli_test.read_tiff(self.tiff_path)[0][273][0] - 4
            lengths = (132, 600, len(data) // 2, len(data) - 4000) if kind.startswith("real-") else (
                0, 4, 8, 20, 60, len(data) // 2, len(data) - 20) + ((before_samples,) if kind == "tif" else ())
            for length in lengths:
                words = ("empty file" if length == 0 else "before strip 0" if kind == "tif" and length == before_samples
                         else DAMAGE.get(kind, "") if length >= len(data) // 2 else "")
                with self.subTest(kind=kind, length=length):
                    self.expect_refused("cut-%d.%s" % (length, kind.rsplit(".", 1)[-1]), data[:length], words)

    def test_wrong_and_huge_sizes_in_headers_are_refused(self):
        png, tiff, dicom = self.sound["png"], self.sound["tif"], self.sound["dcm"]
        cases = {
            "png-taller.png": png_with_size(png, 7, 10), "png-wider.png": png_with_size(png, 8, 9),
            "png-zero-width.png": png_with_size(png, 0, 9), "png-zero-height.png": png_with_size(png, 7, 0),
            "png-bad-crc.png": png[:30] + bytes([png[30] ^ 0xFF]) + png[31:],
            "tif-taller.tif": tiff_with_tag(tiff_with_tag(tiff, 257, 10), 278, 10),
            "tif-wider.tif": tiff_with_tag(tiff, 256, 8), "tif-zero-width.tif": tiff_with_tag(tiff, 256, 0),
            "dcm-taller.dcm": dicom_with_short(dicom, 0x0028, 0x0010, 10),
            "dcm-wider.dcm": dicom_with_short(dicom, 0x0028, 0x0011, 8),
            "dcm-zero-rows.dcm": dicom_with_short(dicom, 0x0028, 0x0010, 0),
            "png-huge.png": png_with_size(png, 0x7FFFFFFF, 0x7FFFFFFF),
            "png-wide.png": png_with_size(png, 1000000, 1000000),
            "tif-huge.tif": tiff_with_tag(tiff_with_tag(tiff, 256, 65535), 257, 65535),
            "dcm-huge.dcm": dicom_with_short(dicom_with_short(dicom, 0x0028, 0x0010, 65535), 0x0028, 0x0011, 65535),
        }
        for name, content in cases.items():
            with self.subTest(name=name):
                self.expect_refused(name, content, DAMAGE["png"] if name == "png-bad-crc.png" else "")

    def test_forged_compressed_dicom_is_refused_at_once(self):
        # A 1 KB lossless JPEG with a bad Huffman table, which once kept the
        # decoder busy for minutes, and a real radiograph whose JPEG 2000
        # frame claims 60000 columns: both must be refused in seconds.
        with open(os.path.join(CORPUS, "lossless-jpeg-bad-huffman-table.dcm"), "rb") as f:
            cases = {"bad-huffman.dcm": f.read()}
        with open(os.path.join(DATA, "RG3_J2KR.dcm"), "rb") as f:
            real = bytearray(f.read())
        siz = real.index(b"\xff\x4f\xff\x51") + 8
        struct.pack_into(">I", real, siz, 60000)
        cases["j2k-wide-frame.dcm"] = bytes(real)
        # The toolkit writes the lossless JPEG to a temporary file for an
        # outside decoder, which may not run: nothing of it may stay behind.
        temporary = tempfile.mkdtemp(dir=self.folder.name)
        for name, content in cases.items():
            with self.subTest(name=name), mock.patch.dict(os.environ, TMPDIR=temporary):
                started = time.monotonic()
                self.expect_refused(name, content)
                self.assertLess(time.monotonic() - started, 5, name)
                self.assertEqual(os.listdir(temporary), [], name)

    def test_flipped_bits_never_crash_the_tool(self):
        # A flip may leave a readable image (a changed sample) or damage the
        # file; either way the tool answers, and a refusal writes nothing.
        generator = random.Random(5)
        sources = dict(self.sound, **{"real-" + name: data for name, data in self.real_dicoms()})
        for kind, data in sources.items():
            extension = kind.rsplit(".", 1)[-1]
            # The real radiographs take a second each to decode: fewer attempts.
            for attempt in range(4 if kind.startswith("real-") else 12):
                damaged = bytearray(data)
                # Mostly in the first kilobyte, where the headers are.
                for _ in range(generator.randint(1, 4)):
                    at = generator.randrange(min(len(data), 1024) if attempt % 3 else len(data))
                    damaged[at] ^= 1 << generator.randrange(8)
                with self.subTest(kind=kind, attempt=attempt):
                    self.attempt("flip-%d.%s" % (attempt, extension), bytes(damaged))

if __name__ == "__main__":
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    cli_test.KRFILTER, DATA = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:], verbosity=2)
