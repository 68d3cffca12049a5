"""Every filter this build runs gives, through Python, exactly what the command-line tool gives."""

import math

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import krfilter
from conftest import BUILT, python_result


def assert_same(expected, actual):
    assert expected[0] == actual[0], "codes differ: tool %s, Python %s" % (expected[0], actual[0])
    if expected[0] is None:
        assert actual[1].shape == expected[1].shape
        assert actual[1].dtype == (np.uint8 if actual[1].ndim == 3 else np.uint16)
        mismatch = np.argwhere(actual[1] != expected[1])
        assert mismatch.size == 0, "%d samples differ, first at %s" % (len(mismatch), mismatch[0])


@pytest.mark.parametrize("name", BUILT)
def test_defaults_on_a_real_radiograph(name, tool, leg):
    crop = leg[700:796, 600:680]  # a crop across the bone edge, 96 x 80
    assert_same(tool.run(name, crop, 1023), python_result(name, crop, 1023))


def parameter_values(parameter):
    """Values around a parameter's catalogue range, small enough for tiny images to run fast."""
    if parameter.type == "int":
        low = math.floor(parameter.minimum)
        return st.one_of(st.just(int(parameter.default)), st.integers(low - 2, low + 12))
    span = parameter.maximum - parameter.minimum
    return st.one_of(st.just(parameter.default),
                     st.floats(parameter.minimum - span / 4, parameter.maximum + span / 4, allow_nan=False))


@st.composite
def cases(draw, name):
    height, width = draw(st.integers(1, 24)), draw(st.integers(1, 24))
    white = draw(st.sampled_from([1, 255, 1023, 4095, 65535]) | st.integers(1, 65535))
    samples = draw(st.integers(0, 2 ** 32 - 1)).to_bytes(4, "little")
    noise = np.random.default_rng(int.from_bytes(samples, "little"))
    image = noise.integers(0, white + 1, size=(height, width), dtype=np.uint32)
    image[noise.random((height, width)) < 0.05] = draw(st.integers(0, 65535))  # some above white
    values = {p.index: draw(parameter_values(p)) for p in krfilter.info(name).parameters}
    return image.astype(np.uint16), white, values


@pytest.mark.parametrize("name", BUILT)
def test_random_parameters_and_sizes(name, tool):
    @settings(max_examples=10, deadline=None, suppress_health_check=[HealthCheck.too_slow])
    @given(cases(name))
    def check(case):
        image, white, values = case
        assert_same(tool.run(name, image, white, values), python_result(name, image, white, values))

    check()
