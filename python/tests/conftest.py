"""Shared helpers: the command-line tool as the reference, real radiographs, the built filters.

Environment: KRFILTER_LIBRARY (the library under test), KRFILTER_TOOL (the
`krfilter` program of the same build), KRFILTER_DATA_DIR (the real images);
each defaults to its place in a source tree built into build/.
"""

import os
import subprocess
import sys

import numpy as np
import pytest
from hypothesis import settings
from PIL import Image

HERE = os.path.dirname(os.path.abspath(__file__))
SOURCE = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.dirname(HERE))
os.environ.setdefault("KRFILTER_LIBRARY", os.path.join(SOURCE, "build"))

import krfilter  # noqa: E402  (after the path set-up above)

# No example database in the source tree: every run draws afresh.
settings.register_profile("krfilter", database=None)
settings.load_profile("krfilter")

TOOL = os.environ.get("KRFILTER_TOOL", os.path.join(SOURCE, "build", "krfilter"))
DATA = os.environ.get("KRFILTER_DATA_DIR", os.path.join(os.path.dirname(SOURCE), "shared", "data"))
BUILT = [name for name in krfilter.filters() if krfilter.info(name).built]


def read_png(path):
    with Image.open(path) as image:
        pixels = np.array(image)
    return pixels if pixels.ndim == 3 else pixels.astype(np.uint16)


def write_png16(path, samples):
    Image.fromarray(np.ascontiguousarray(samples, dtype=np.uint16), "I;16").save(path)


def value_text(value):
    # repr of a Python float round-trips exactly, so the tool parses the same double.
    return str(int(value)) if isinstance(value, (int, np.integer)) else repr(float(value))


class Tool:
    """The `krfilter` program: the reference every Python result is compared with."""

    def __init__(self, folder):
        if not os.access(TOOL, os.X_OK):
            raise RuntimeError("the krfilter tool is not at %s; build it or set KRFILTER_TOOL" % TOOL)
        self.folder = folder
        self.count = 0

    def run(self, name, samples, white, values=None):
        """Runs the tool on `samples`; returns (code or None, result array or None)."""
        self.count += 1
        source, target = (os.path.join(self.folder, "%s-%d.png" % (kind, self.count)) for kind in ("in", "tool"))
        write_png16(source, samples)
        args = [TOOL, "run", name, source, target, "--white", str(white)]
        args += ["#%d=%s" % (k + 1, value_text(v)) for k, v in sorted((values or {}).items())]
        done = subprocess.run(args, capture_output=True, text=True, timeout=120)
        if done.returncode == 0:
            return None, read_png(target)
        marker = " failed with code "
        if marker not in done.stderr:
            raise AssertionError("tool failed: %s\n%s" % (" ".join(args), done.stderr))
        return int(done.stderr.split(marker)[1].split(":")[0]), None


def python_result(name, samples, white, values=None):
    """(code or None, result) from krfilter.apply, in the shape Tool.run returns."""
    try:
        return None, krfilter.apply(samples, name, white=white, **{"#%d" % (k + 1): v for k, v in (values or {}).items()})
    except krfilter.FilterError as error:
        return error.code, None


@pytest.fixture(scope="session")
def tool(tmp_path_factory):
    return Tool(str(tmp_path_factory.mktemp("tool")))


@pytest.fixture(scope="session")
def leg():
    """A real 10-bit radiograph (white level 1023)."""
    return read_png(os.path.join(DATA, "cr-leg-10bit.png"))
