"""The library's catalogue `filterlist` as Python objects, and which filters
this build runs."""

import ctypes
import os
import re
import sys
import threading
from dataclasses import dataclass
from typing import Optional, Tuple

import numpy as np

from . import _library

INT, FLOAT, DOUBLE = 1, 2, 3
_TYPE_NAMES = {INT: "int", FLOAT: "float", DOUBLE: "double"}


def keyword_for(name):
    """The Python keyword of a catalogue parameter name: surrounding blanks
    dropped, letters lower-cased, every run of other characters made one
    underscore. "Intensity " -> intensity, "Up Border" -> up_border,
    "PercentoForzaFiltro" -> percentoforzafiltro, "k_devstd" -> k_devstd."""
    return re.sub(r"[^0-9a-z]+", "_", name.strip().lower()).strip("_")


@dataclass(frozen=True)
class Parameter:
    index: int        # 0-based position in the parameter array
    name: str         # as the catalogue spells it
    keyword: str      # see keyword_for
    type: str         # "int", "float" or "double"
    minimum: float    # the catalogue's range and default are hints for dialogs:
    maximum: float    # neither the library nor apply() enforces the range
    default: float


@dataclass(frozen=True)
class Filter:
    name: str
    parameters: Tuple[Parameter, ...]
    built: Optional[bool]  # whether this build of the library runs it (None: not asked)

    def parameter_names(self):
        """One line naming every parameter with its keyword and position, for messages."""
        if not self.parameters:
            return "%s takes no parameters" % self.name
        return "valid parameters of %s: %s" % (self.name, ", ".join(
            "%s (%r, #%d)" % (p.keyword, p.name, p.index + 1) for p in self.parameters))


_lock = threading.Lock()
_records = None   # name -> (catalogue record, parameter tuple), in catalogue order
_built = {}       # name -> bool, probed on first need


def _read_catalogue():
    global _records
    with _lock:
        if _records is None:
            lib = _library.library()
            table = ctypes.cast(ctypes.addressof(_library.FILTERLIST.in_dll(lib, "filterlist")),
                                ctypes.POINTER(_library.FILTERLIST))
            records = {}
            k = 0
            while table[k].name != b"#":
                entry = table[k]
                params = []
                while entry.params and entry.params[len(params)].name != b"#":
                    p = entry.params[len(params)]
                    name = p.name.decode("latin-1")
                    params.append(Parameter(len(params), name, keyword_for(name), _TYPE_NAMES.get(p.type, "?"),
                                            p.min, p.max, p.default))
                records[entry.name.decode("latin-1")] = tuple(params)
                k += 1
            _records = records
        return _records


class _QuietStdout:
    """Sends file descriptor 1 to /dev/null for the probe: "rain" prints a
    summary line there, which a user listing the catalogue did not ask for."""

    def __enter__(self):
        sys.stdout.flush()
        self.saved = os.dup(1)
        null = os.open(os.devnull, os.O_WRONLY)
        os.dup2(null, 1)
        os.close(null)

    def __exit__(self, *exc):
        os.dup2(self.saved, 1)
        os.close(self.saved)


def _probe(name):
    """Whether the library runs the filter. The library has no query for it, so
    the filter is tried once with its catalogue defaults on a 16 x 16 image,
    exactly as the command-line tool decides: only an unknown name gives -3
    with the defaults. A filter writes only the buffers it is given."""
    from . import _apply  # the parameter packing lives there
    side = np.arange(16)
    image = ((side[:, None] * 251 + side * 17) % 4096).astype(np.uint16)
    output = np.zeros_like(image)
    block = _apply.ParameterBlock(_read_catalogue()[name], {})
    with _QuietStdout():
        code = _apply.call_filter_processing(image, output, 4095, name, block)
    return code != -3


def is_built(name):
    with _lock:
        known = _built.get(name)
    if known is None:
        known = _probe(name)
        with _lock:
            _built[name] = known
    return known


def filters():
    """The names of every catalogued filter, in catalogue order."""
    return list(_read_catalogue())


def info(name):
    """The catalogue record of one filter (a Filter), with whether this build runs it."""
    return Filter(name, entry(name).parameters, is_built(name))


def entry(name):
    """The catalogue record without asking the library whether it runs the
    filter (that costs a trial run); ValueError for a name not catalogued."""
    records = _read_catalogue()
    if not isinstance(name, str) or name not in records:
        raise ValueError(unknown_filter_message(name))
    return Filter(name, records[name], None)


def unknown_filter_message(name):
    records = _read_catalogue()
    similar = [n for n in records if isinstance(name, str) and n.lower() == name.strip().lower()]
    hint = " (did you mean %s?)" % " or ".join(repr(n) for n in similar) if similar else ""
    return "unknown filter %r%s; krfilter.filters() lists the %d catalogued names" % (name, hint, len(records))
