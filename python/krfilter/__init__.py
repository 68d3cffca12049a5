"""krfilter for Python: the filter library's catalogue and filters on numpy arrays.

    import krfilter
    krfilter.filters()                       # catalogued names
    krfilter.info("unsharp")                 # parameters, keywords, types, ranges, defaults, built
    result = krfilter.apply(image, "unsharp", intensity=2.0, radius=3, white=4095)

The library is loaded on first use from $KRFILTER_LIBRARY (the path of
libkrfilter.so or its build folder), else wherever the dynamic loader and the
standard install folders have it. Calls release the interpreter lock, so
threads run filters in parallel.
"""

from ._apply import FilterError, apply, describe_code
from ._catalogue import Filter, Parameter, filters, info, keyword_for
from ._library import library_path

__all__ = ["FilterError", "Filter", "Parameter", "apply", "describe_code", "filters", "info", "keyword_for",
           "library_path"]
