"""The catalogue, parameter mapping, input rules, errors and threads."""

import pickle
import subprocess
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import krfilter
from krfilter._apply import _grey_input
from conftest import TOOL


def test_catalogue_and_built_flags_agree_with_the_tool():
    listing = subprocess.run([TOOL, "list"], capture_output=True, text=True, check=True).stdout.splitlines()
    rows = [line.split()[:3] for line in listing[1:] if line.split()[2:3] in (["yes"], ["no"])]
    assert [r[1] for r in rows] == krfilter.filters()
    assert [r[2] == "yes" for r in rows] == [krfilter.info(n).built for n in krfilter.filters()]


def test_keywords_follow_one_rule():
    assert [p.keyword for p in krfilter.info("unsharp").parameters] == ["intensity", "radius"]
    assert [p.keyword for p in krfilter.info("ShannonStretching").parameters][2:] == [
        "up_border", "down_border", "left_border", "right_border"]
    assert krfilter.keyword_for("PercentoForzaFiltro") == "percentoforzafiltro"
    assert krfilter.keyword_for("k_devstd") == "k_devstd"
    for name in krfilter.filters():
        for parameter in krfilter.info(name).parameters:
            assert parameter.keyword.isidentifier(), (name, parameter)


@pytest.fixture(scope="module")
def image(leg):
    return leg[600:664, 500:580].copy()


def test_the_ways_of_setting_a_parameter_agree(image):
    explicit = krfilter.apply(image, "unsharp", 2.0, 3, white=1023)
    assert not np.array_equal(explicit, krfilter.apply(image, "unsharp", white=1023))
    for kwargs in ({"intensity": 2.0, "radius": 3}, {"Intensity ": 2.0, "Radius": 3}, {"Intensity": 2, "#2": 3}):
        assert np.array_equal(krfilter.apply(image, "unsharp", white=1023, **kwargs), explicit), kwargs
    assert np.array_equal(krfilter.apply(image, "unsharp", 2.0, radius=3, white=1023), explicit)
    # Not given: the catalogue default (Radius 1).
    assert np.array_equal(krfilter.apply(image, "unsharp", intensity=2.0, white=1023),
                          krfilter.apply(image, "unsharp", 2.0, 1, white=1023))
    # A name two parameters share: a sequence sets both in order, one value the first one still free.
    both = krfilter.apply(image, "sigma", 0.15, 0.05, white=1023)
    assert np.array_equal(krfilter.apply(image, "sigma", sigma=(0.15, 0.05), white=1023), both)
    assert np.array_equal(krfilter.apply(image, "sigma", 0.15, sigma=0.05, white=1023), both)
    assert np.array_equal(krfilter.apply(image, "sigma", sigma=0.15, **{"#2": 0.05}, white=1023), both)


def test_integer_types_are_converted_by_their_values(image):
    small = (image >> 2).astype(np.uint8)
    assert np.array_equal(krfilter.apply(small, "reverse"), 255 - small)  # 8-bit types: white 255
    assert np.array_equal(krfilter.apply(image.astype(np.int64), "gamma", 0.5, white=1023),
                          krfilter.apply(image, "gamma", 0.5, white=1023))
    assert np.array_equal(krfilter.apply(image.astype(">u2"), "reverse"), 65535 - image)  # uint16: white 65535
    for view in (image, image[5:20, 3:40], image[::-1]):
        assert np.shares_memory(_grey_input(view)[0], view)  # rows contiguous: wrapped, not copied
    columns = np.asfortranarray(image)
    assert np.array_equal(krfilter.apply(columns, "median2D", 5), krfilter.apply(image, "median2D", 5))


def test_colour_results_go_into_out(image):
    # Their samples against the tool's are test_against_tool's.
    rgb = krfilter.apply(image, "colorize", white=1023)
    out = np.zeros_like(rgb)
    assert krfilter.apply(image, "colorize", white=1023, out=out) is out and np.array_equal(out, rgb)


@pytest.mark.parametrize("call, error, words", [
    (lambda a: krfilter.apply(a[0], "gamma"), ValueError, "2-D"),
    (lambda a: krfilter.apply(a[:0], "gamma"), ValueError, "empty"),
    (lambda a: krfilter.apply(a.astype(float), "gamma"), TypeError, "integer samples"),
    (lambda a: krfilter.apply(a > 5, "gamma"), TypeError, "integer samples"),
    (lambda a: krfilter.apply(a.astype(np.int32) - 70000, "gamma"), ValueError, "do not fit 16 bits"),
    (lambda a: krfilter.apply(a.astype(np.uint32) << 16, "gamma"), ValueError, "16 bits"),
    (lambda a: krfilter.apply(a, "gamma", white=65536), ValueError, "0 to 65535"),
    (lambda a: krfilter.apply(a, "gamma", white=1.5), ValueError, "0 to 65535"),
    (lambda a: krfilter.apply(a, "Gamma"), ValueError, "did you mean 'gamma'"),
    (lambda a: krfilter.apply(a, None), ValueError, "unknown filter"),
    (lambda a: krfilter.apply(a, "unsharp", intensiti=2), ValueError, "intensity ('Intensity ', #1)"),
    (lambda a: krfilter.apply(a, "unsharp", 1, 2, 3), ValueError, "3 positional"),
    (lambda a: krfilter.apply(a, "unsharp", 2, intensity=2), ValueError, "given twice"),
    (lambda a: krfilter.apply(a, "unsharp", **{"#3": 1}), ValueError, "no parameter #3"),
    (lambda a: krfilter.apply(a, "sigma", sigma=(1, 2, 3)), ValueError, "3 values"),
    (lambda a: krfilter.apply(a, "unsharp", radius=float("nan")), ValueError, "whole number"),
    (lambda a: krfilter.apply(a, "unsharp", radius=2 ** 31), ValueError, "32-bit"),
    (lambda a: krfilter.apply(a, "unsharp", radius="3"), ValueError, "not a number"),
    (lambda a: krfilter.apply(a, "unsharp", intensity=float("inf")), ValueError, "finite"),
    (lambda a: krfilter.apply(a, "gamma", out=np.zeros((3, 3), np.uint16)), ValueError, "shape"),
    (lambda a: krfilter.apply(a, "gamma", out=a), ValueError, "shares memory"),
    (lambda a: krfilter.apply(a, "gamma", out=np.zeros(a.shape[::-1], np.uint16).T), ValueError, "contiguous rows"),
])
def test_bad_arguments_are_refused_before_anything_runs(image, call, error, words):
    source = image.copy()
    with pytest.raises(error) as raised:
        call(source)
    assert words in str(raised.value)
    assert np.array_equal(source, image)


def test_out_is_left_alone_when_the_arguments_are_refused(image):
    out = np.full(image.shape, 7, np.uint16)
    with pytest.raises(ValueError):
        krfilter.apply(image, "gamma", out=out, gamma=float("nan"))
    assert (out == 7).all()


def test_non_zero_codes_raise_filter_error(image):
    with pytest.raises(krfilter.FilterError) as raised:
        krfilter.apply(image, "IsoDensity")
    assert raised.value.code == 1 and "IsoDensity" in raised.value.meaning
    assert pickle.loads(pickle.dumps(raised.value)).code == 1  # it must reach a Dask client intact
    with pytest.raises(krfilter.FilterError) as raised:
        krfilter.apply(image, "LL-UL", lowl=0.9, hil=0.1)
    assert raised.value.code == -3 and "refused its parameters" in str(raised.value)


def test_threads_give_the_serial_results(leg):
    tiles = [leg[r:r + 200, c:c + 200] for r in range(400, 1200, 200) for c in range(400, 1000, 300)]
    serial = [krfilter.apply(t, "median2D", 7) for t in tiles]
    with ThreadPoolExecutor(4) as pool:
        parallel = list(pool.map(lambda t: krfilter.apply(t, "median2D", 7), tiles))
    assert all(np.array_equal(a, b) for a, b in zip(serial, parallel))


def test_the_interpreter_runs_on_while_a_filter_runs(leg):
    """The library call releases the interpreter lock: a Python loop keeps
    running during it. With the lock held the loop would stall for the whole
    call, leaving one gap as long as the call between its time stamps."""
    big = np.tile(leg, (2, 1))
    marks = {}

    def work():
        marks["start"] = time.perf_counter()
        krfilter.apply(big, "median2D", 31)
        marks["end"] = time.perf_counter()

    worker = threading.Thread(target=work)
    worker.start()
    seen = []
    while worker.is_alive():
        seen.append(time.perf_counter())
    worker.join()
    duration = marks["end"] - marks["start"]
    stamps = [marks["start"]] + [t for t in seen if marks["start"] < t < marks["end"]] + [marks["end"]]
    assert duration > 0.2
    assert max(b - a for a, b in zip(stamps, stamps[1:])) < 0.5 * duration
