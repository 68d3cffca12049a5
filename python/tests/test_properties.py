"""Random shapes, layouts, white levels and extreme parameters: no crash, no write
outside the result, the input never changed, the same result twice."""

import numpy as np
from hypothesis import given, settings
from hypothesis import strategies as st

import krfilter
from conftest import BUILT

GUARD = 3
INT32_MIN, INT32_MAX = -2 ** 31, 2 ** 31 - 1
DOUBLES = [-1e9, -1.0, -0.5, 0.0, 1e-300, 0.1, 0.5, 1.0, 1.5, 2.0, 7.0, 1e9]


def extreme_values(parameter):
    if parameter.type == "int":
        # Iteration counts run as often as asked: keep them finite in time.
        huge = 2000 if parameter.name == "numIter" else INT32_MAX
        return st.sampled_from([INT32_MIN, -7, -1, 0, 1, 2, 3, 4, 6, 8, 10, 65535, huge])
    if parameter.type == "float":
        return st.sampled_from(DOUBLES) | st.floats(-3.3999999521443642e38, 3.3999999521443642e38, width=32)
    return st.sampled_from(DOUBLES) | st.floats(allow_nan=False, allow_infinity=False)


def guarded(height, width, fill, seed, dtype=np.uint16, depth=()):
    """A (height, width) view with contiguous rows inside a larger array whose
    margins (GUARD rows above and below, GUARD columns either side) hold `fill`."""
    outer = np.full((height + 2 * GUARD, width + 2 * GUARD) + depth, fill, dtype)
    view = outer[GUARD:GUARD + height, GUARD:GUARD + width]
    if seed is not None:
        view[...] = np.random.default_rng(seed).integers(0, 65536, size=view.shape, dtype=np.uint32)
    return outer, view


@st.composite
def runs(draw):
    name = draw(st.sampled_from(BUILT))
    shape = draw(st.tuples(st.integers(1, 20), st.integers(1, 20)))
    white = draw(st.sampled_from([0, 1, 255, 1023, 4095, 65535]) | st.integers(0, 65535))
    values = {"#%d" % (p.index + 1): draw(extreme_values(p)) for p in krfilter.info(name).parameters
              if draw(st.booleans())}
    return name, shape, white, values, draw(st.integers(0, 2 ** 32 - 1)), draw(st.booleans())


@settings(max_examples=800, deadline=None)
@given(runs())
def test_stays_inside_its_arrays_and_leaves_the_input_alone(run):
    name, (height, width), white, values, seed, flipped = run
    outer_in, image = guarded(height, width, 0xA5A5, seed)
    if flipped:
        image = image[::-1]  # negative row stride: still wrapped, not copied
    image.setflags(write=False)  # a read-only input is fine, even for filters that work in place
    before = outer_in.copy()
    colour = name == "colorize"
    outer_out, out = guarded(height, width, 0x5A if colour else 0x5A5A, None, np.uint8 if colour else np.uint16,
                             (3,) if colour else ())
    try:
        result = krfilter.apply(image, name, white=white, out=out, **values)
        code = 0
    except krfilter.FilterError as error:
        result, code = None, error.code
    assert np.array_equal(outer_in, before), "the input or its margins changed"
    margins = outer_out.copy()
    margins[GUARD:GUARD + height, GUARD:GUARD + width] = outer_out[0, 0]
    assert (margins == outer_out[0, 0]).all(), "a write landed outside the output"
    try:
        again = krfilter.apply(image, name, white=white, **values)
        assert code == 0 and np.array_equal(again, result)
    except krfilter.FilterError as error:
        assert error.code == code
