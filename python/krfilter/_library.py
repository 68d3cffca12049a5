"""Finding and loading the shared library, and its record layouts in ctypes."""

import ctypes
import ctypes.util
import os
import threading

LIBRARY_ENV = "KRFILTER_LIBRARY"
_FILE_NAME = "libkrfilter.so"


class FILTERPARAM(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("type", ctypes.c_int), ("reserved", ctypes.c_uint),
                ("size", ctypes.c_int), ("min", ctypes.c_double), ("max", ctypes.c_double),
                ("default", ctypes.c_double)]


class FILTERLIST(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * 56), ("params", ctypes.POINTER(FILTERPARAM)),
                ("reserved", ctypes.c_uint)]


class CKRImage(ctypes.Structure):
    """The exported image class's seven data members, for the one call that needs
    a whole image object: "colorize" leaves its result in the input image's RGB
    buffer, which an image built inside FilterProcessing would free on return."""
    _fields_ = [("rows", ctypes.c_void_p), ("rgb", ctypes.c_void_p), ("height", ctypes.c_int),
                ("width", ctypes.c_int), ("white", ctypes.c_ushort), ("ownership", ctypes.c_int),
                ("reserved", ctypes.c_uint)]


_lock = threading.Lock()
_loaded = None  # (CDLL, path it came from)


def _candidates():
    """Places to look, in the order a user expects: the environment variable
    (a file or a build folder), then what the dynamic loader finds on its own
    (LD_LIBRARY_PATH, rpath, the loader cache), then the standard install
    folders, then the build folder of the source tree this package sits in."""
    given = os.environ.get(LIBRARY_ENV, "").strip()
    if given:
        # An explicit choice is the only one tried: falling back to another
        # copy would hide a typo and test the wrong build.
        given = os.path.abspath(os.path.expanduser(given))
        return [os.path.join(given, _FILE_NAME) if os.path.isdir(given) else given], True
    found = [_FILE_NAME]
    by_name = ctypes.util.find_library("krfilter")
    if by_name:
        found.append(by_name)
    found += [os.path.join(folder, _FILE_NAME) for folder in ("/usr/local/lib", "/usr/lib", "/usr/lib64")]
    source_tree = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    found.append(os.path.join(source_tree, "build", _FILE_NAME))
    return found, False


def _declare(lib):
    lib.FilterProcessing.restype = ctypes.c_int
    lib.FilterProcessing.argtypes = [ctypes.c_void_p, ctypes.c_ulong, ctypes.c_ulong, ctypes.c_ubyte,
                                     ctypes.c_ushort, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
    lib.DoFilter.restype = ctypes.c_int
    lib.DoFilter.argtypes = [ctypes.POINTER(CKRImage), ctypes.POINTER(CKRImage), ctypes.c_char_p, ctypes.c_void_p]
    # The destructor frees the RGB buffer an image acquired during a call; it
    # is exported with the class (Itanium C++ name of CKRImage::~CKRImage).
    lib._ZN8CKRImageD1Ev.restype = None
    lib._ZN8CKRImageD1Ev.argtypes = [ctypes.POINTER(CKRImage)]


def library():
    """The loaded library (a ctypes.CDLL). Raises OSError saying where it looked."""
    global _loaded
    with _lock:
        if _loaded is None:
            places, explicit = _candidates()
            problems = []
            for place in places:
                try:
                    lib = ctypes.CDLL(place)
                    _declare(lib)
                except (OSError, AttributeError) as error:
                    problems.append("%s (%s)" % (place, error))
                    continue
                _loaded = (lib, getattr(lib, "_name", place))
                break
            else:
                hint = "" if explicit else "; set %s to the path of %s or its build folder" % (LIBRARY_ENV, _FILE_NAME)
                raise OSError("krfilter: cannot load the library: tried " + ", ".join(problems) + hint)
        return _loaded[0]


def library_path():
    """The file name the library was loaded from, as given to the loader."""
    library()
    return _loaded[1]
