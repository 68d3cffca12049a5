"""Running one filter on a numpy array."""

import ctypes
import math
import numbers

import numpy as np

from . import _catalogue, _library

_INT32 = (-2 ** 31, 2 ** 31 - 1)
_FLT_MAX = float(np.finfo(np.float32).max)
_SIDE_LIMIT = 2 ** 31 - 1  # the library takes heights and widths as int


class FilterError(RuntimeError):
    """The library returned a non-zero code. `code` is that code, `meaning` says it in words."""

    def __init__(self, filter_name, code, meaning):
        super().__init__("%s failed with code %d: %s" % (filter_name, code, meaning))
        self.filter = filter_name
        self.code = code
        self.meaning = meaning

    def __reduce__(self):
        # Rebuilt from its three fields when it travels between processes (Dask workers).
        return FilterError, (self.filter, self.code, self.meaning)


_MEANINGS = {
    -1: "no filter name was given",
    -2: "the filter reads parameters and none were passed",
    -4: "ContrastCorrection refused a tile size or bin count below 1; the output was not written",
    1: "no pixel work done (IsoDensity only prepares a colour buffer and always reports 1)",
    1121100: "the defective line is not a row of the image; the input was copied",
    1121110: "no rows to compare the defective line with; the input was copied",
    1122100: "the landmark template does not fit inside the image; the input was copied",
    1007100: "out of memory: a work buffer could not be allocated",
    1007200: "out of memory: the row array of a work image could not be allocated",
    1007160: "out of memory: a row of a 4-byte work plane could not be allocated",
    1007210: "out of memory: the row array of a 4-byte work plane could not be allocated",
    1115100: "refused by SMF: 2 percent or more of the samples would be replaced",
    1115110: "out of memory: SMF could not allocate its scratch images",
    1117100: "out of memory: spine compensation could not allocate its border finder",
    1117101: "out of memory: spine compensation could not allocate its work memory",
    363500: "internal error: a filter object received parameters of the wrong kind",
    -5: "an image operation refused its kernel (size below 3 or even, or sigma not above 0)",
    -6: "an image operation refused the image size",
    -8: "an image operation received a null buffer",
    -9: "out of memory: an image operation could not obtain scratch memory",
    -12: "an image operation met an unsupported sample type",
    -47: "an image operation met an unsupported channel count",
    -225: "an image operation met an unsupported border kind",
}


def describe_code(code, filter_name=None):
    """A result code of the library in words. -3 means an unknown name, or, from
    a filter this build runs, a refused parameter set (an inverted window)."""
    if code == 0:
        return "success"
    if code == -3:
        if filter_name is not None and filter_name in _catalogue.filters() and _catalogue.is_built(filter_name):
            return "the filter refused its parameters (a window whose lower level lies above its upper level)"
        return "this build of the library does not run the filter"
    if code in _MEANINGS:
        return _MEANINGS[code]
    return "the filter refused its arguments" if code < 0 else "the filter failed"


class ParameterBlock:
    """One value per catalogue parameter behind stable pointers: the array the
    library takes. Every value sits in its own zeroed 8-byte slot, so a filter
    that reads an int-declared parameter as a double (the bilateral filter's
    "LuminanceSigma") sees the same bits as from the command-line tool."""

    def __init__(self, parameters, values):
        count = max(len(parameters), 1)  # never a null array: some filters read without checking
        self.slots = (ctypes.c_uint64 * count)()
        self.pointers = (ctypes.c_void_p * count)()
        base = ctypes.addressof(self.slots)
        for p in parameters:
            value = values.get(p.index, p.default)
            kind = {"int": ctypes.c_int, "float": ctypes.c_float}.get(p.type, ctypes.c_double)
            # Catalogue defaults are doubles; an int parameter takes the truncated value.
            kind.from_buffer(self.slots, 8 * p.index).value = int(value) if kind is ctypes.c_int else value
            self.pointers[p.index] = base + 8 * p.index

    @property
    def address(self):
        return ctypes.addressof(self.pointers)


def _row_pointers(array):
    """Addresses of the rows of a 2-D uint16 array whose rows are contiguous
    (any row stride, negative included)."""
    start = np.int64(array.ctypes.data)
    return (start + np.arange(array.shape[0], dtype=np.int64) * np.int64(array.strides[0])).astype(np.uint64)


def call_filter_processing(source, target, white, name, block):
    in_rows, out_rows = _row_pointers(source), _row_pointers(target)
    height, width = source.shape
    return _library.library().FilterProcessing(in_rows.ctypes.data, width, height, 16, white, out_rows.ctypes.data,
                                               name.encode("latin-1"), block.address)


def _call_with_rgb(source, white, name, block, rgb_out):
    """Runs a filter whose result is the input image's RGB buffer, copies that
    into rgb_out and releases the buffer with the image."""
    lib = _library.library()
    in_rows = _row_pointers(source)
    height, width = source.shape
    image = _library.CKRImage(in_rows.ctypes.data, None, height, width, white, 1, 0)
    # The output image is not written by such a filter; it borrows the same rows.
    other = _library.CKRImage(in_rows.ctypes.data, None, height, width, white, 1, 0)
    try:
        code = lib.DoFilter(ctypes.byref(image), ctypes.byref(other), name.encode("latin-1"), block.address)
        if code == 0 and not image.rgb:
            raise MemoryError("krfilter: %s left no RGB buffer (its allocation failed)" % name)
        if code == 0:
            buffer = (ctypes.c_ubyte * (height * width * 3)).from_address(image.rgb)
            rgb_out[...] = np.frombuffer(buffer, dtype=np.uint8).reshape(height, width, 3)
        return code
    finally:
        lib._ZN8CKRImageD1Ev(ctypes.byref(image))
        lib._ZN8CKRImageD1Ev(ctypes.byref(other))


def _grey_input(image):
    """The image as a 2-D native uint16 array whose rows are contiguous, and the
    white level its type implies. uint16 arrays with contiguous rows are used
    as they are; other layouts are copied once; other integer types are
    converted when every value fits 0 ... 65535."""
    array = np.asarray(image)
    if array.dtype.kind not in "ui":
        raise TypeError("krfilter: the image must hold integer samples (uint16 preferred), not %s" % array.dtype)
    if array.ndim != 2:
        raise ValueError("krfilter: the image must be 2-D (rows, columns), not %d-D of shape %s"
                         % (array.ndim, array.shape))
    if array.size == 0:
        raise ValueError("krfilter: the image is empty (shape %s)" % (array.shape,))
    if max(array.shape) > _SIDE_LIMIT:
        raise ValueError("krfilter: the image is larger than %d samples on a side" % _SIDE_LIMIT)
    white = 255 if array.dtype.itemsize == 1 else 65535
    if array.dtype != np.dtype(np.uint16):
        low, high = int(array.min()), int(array.max())
        if low < 0 or high > 65535:
            raise ValueError("krfilter: %s samples from %d to %d do not fit 16 bits unsigned; scale or clip them first"
                             % (array.dtype, low, high))
        array = array.astype(np.uint16)
    elif array.strides[1] != array.itemsize:
        array = np.ascontiguousarray(array)
    return array, white


def _check_out(out, shape, dtype, image):
    if not isinstance(out, np.ndarray) or out.shape != shape or out.dtype != dtype:
        raise ValueError("krfilter: out must be a numpy array of shape %s and type %s" % (shape, np.dtype(dtype)))
    if not out.flags.writeable:
        raise ValueError("krfilter: out is read-only")
    inner = out.strides[1:] if out.ndim == 3 else ()
    if out.ndim == 3 and inner != (3, 1) or out.ndim == 2 and out.strides[1] != 2:
        raise ValueError("krfilter: out needs contiguous rows")
    if shape[0] > 1 and abs(out.strides[0]) < out.strides[1] * shape[1]:
        raise ValueError("krfilter: the rows of out overlap")
    if np.may_share_memory(out, image):
        raise ValueError("krfilter: out shares memory with the image; the filters read and write separate buffers")


def _convert(parameter, value, entry):
    what = "value %r for %s (%r, %s)" % (value, parameter.keyword, parameter.name, parameter.type)
    if isinstance(value, (bool, np.bool_)):
        value = int(value)
    if not isinstance(value, numbers.Real):
        raise ValueError("krfilter: %s is not a number; %s" % (what, entry.parameter_names()))
    if parameter.type == "int":
        if not isinstance(value, numbers.Integral):
            number = float(value)
            if not math.isfinite(number) or not number.is_integer():
                raise ValueError("krfilter: %s is not a whole number" % what)
            value = number
        value = int(value)
        if not _INT32[0] <= value <= _INT32[1]:
            raise ValueError("krfilter: %s is out of range for a 32-bit int" % what)
        return value
    number = float(value)
    if not math.isfinite(number):
        raise ValueError("krfilter: %s is not a finite number" % what)
    if parameter.type == "float" and abs(number) > _FLT_MAX:
        raise ValueError("krfilter: %s is out of range for a float" % what)
    return number


def _assign(entry, positional, keywords):
    """Parameter index -> checked value from positional values (catalogue order),
    keywords (see keyword_for; the catalogue name itself also matches) and
    "#N" keys (1-based). A name several parameters share takes a sequence, set
    in order, or one value for the first of them not yet set."""
    params = entry.parameters
    if len(positional) > len(params):
        raise ValueError("krfilter: %d positional values given; %s" % (len(positional), entry.parameter_names()))
    values = {k: _convert(params[k], v, entry) for k, v in enumerate(positional)}
    for key, value in keywords.items():
        if key.startswith("#"):
            number = key[1:]
            if not number.isdigit() or not 1 <= int(number) <= len(params):
                raise ValueError("krfilter: no parameter %s; %s" % (key, entry.parameter_names()))
            targets, items = [int(number) - 1], [value]
        else:
            targets = [p.index for p in params if key in (p.keyword, p.name, p.name.strip())]
            if not targets:
                raise ValueError("krfilter: unknown parameter %r; %s" % (key, entry.parameter_names()))
            if len(targets) > 1 and isinstance(value, (list, tuple, np.ndarray)):
                items = list(value)
                if len(items) > len(targets):
                    raise ValueError("krfilter: %d values for %r, which names %d parameters"
                                     % (len(items), key, len(targets)))
                targets = targets[:len(items)]
            else:
                free = [k for k in targets if k not in values]
                targets, items = free[:1] or targets[:1], [value]
        for index, item in zip(targets, items):
            if index in values:
                raise ValueError("krfilter: parameter #%d (%r) is given twice" % (index + 1, params[index].name))
            values[index] = _convert(params[index], item, entry)
    return values


def apply(image, name, *values, white=None, out=None, **params):
    """Runs the catalogued filter `name` on a 2-D image and returns the result.

    image   2-D numpy array (or array-like) of integer samples. uint16 arrays
            whose rows are contiguous (C order, or row slices and crops of one)
            are passed to the library without a copy; other layouts are copied
            once. Other integer types are converted to uint16 when every value
            lies in 0 ... 65535 (else ValueError); floats and booleans are
            refused (TypeError). The image is never written.
    name    exact, case-sensitive filter name (krfilter.filters()).
    values  parameter values in catalogue order.
    white   white level 0 ... 65535; default 255 for 8-bit integer types, else 65535.
    out     optional array for the result (same shape, uint16, contiguous rows,
            writable, not overlapping the image); for "colorize" (h, w, 3) uint8.
    params  parameters by keyword: the catalogue name lower-cased, blanks
            trimmed, other characters turned into "_" ("Up Border" -> up_border,
            "Intensity " -> intensity); "#N" keys (1-based) through a mapping.
            Parameters not given keep their catalogue defaults. The catalogue
            ranges are hints: values outside them are passed on.

    Returns a uint16 array of the image's shape. It starts as a copy of the
    input, so samples a filter leaves unwritten (the borders of several
    neighbourhood filters) hold the input's values. "colorize" returns an
    (h, w, 3) uint8 RGB array; "rain", which corrects its input in place in
    the library, returns the corrected copy. A non-zero result code raises
    FilterError (out then holds an unfinished result). Bad arguments raise
    ValueError or TypeError before anything is run or written.
    """
    entry = _catalogue.entry(name)
    source, default_white = _grey_input(image)
    if white is None:
        white = default_white
    if isinstance(white, (bool, np.bool_)) or not isinstance(white, numbers.Integral) or not 0 <= int(white) <= 65535:
        raise ValueError("krfilter: white must be a whole number from 0 to 65535, not %r" % (white,))
    white = int(white)
    block = ParameterBlock(entry.parameters, _assign(entry, values, params))

    if name == "colorize":
        shape, dtype = source.shape + (3,), np.uint8
    else:
        shape, dtype = source.shape, np.uint16
    if out is None:
        out = np.empty(shape, dtype)
    else:
        _check_out(out, shape, dtype, image)

    if name == "colorize":
        code = _call_with_rgb(source, white, name, block, out)
    elif name == "rain":
        # Corrects its input image in place: it works on the result buffer.
        out[...] = source
        code = call_filter_processing(out, out, white, name, block)
    else:
        out[...] = source
        code = call_filter_processing(source, out, white, name, block)
    if code != 0:
        raise FilterError(name, code, describe_code(code, name))
    return out
