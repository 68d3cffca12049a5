"""Grey radiographs in and out of PNG, TIFF and DICOM files, for batch runs.

The white level is read as the command-line tool reads it: a PNG's sBIT, a
TIFF's MaxSampleValue, a DICOM's BitsStored, or else the largest value of the
bit depth. Results are written with the input's bit depth (8-bit files clamp
at 255) and their white level recorded the same way; RGB results are 8-bit.
DICOM samples are taken as stored: no rescale, and MONOCHROME1 images keep
their inverted sense, as the tool sees the same pixels in a PNG.
Every file is written under a temporary name in its folder and renamed into
place, so a failure never leaves a partial file or replaces an existing one.
"""

import copy
import os
import struct
import uuid
from dataclasses import dataclass
from typing import Any, Optional

import numpy as np

FORMATS = {".png": "png", ".tif": "tiff", ".tiff": "tiff", ".dcm": "dicom", ".dicom": "dicom"}
_SUFFIX = {"png": ".png", "tiff": ".tif", "dicom": ".dcm"}


class ImageFileError(ValueError):
    """A file that is not an image this module reads, or cannot be written."""


@dataclass
class GreyFile:
    samples: np.ndarray        # 2-D uint16
    white: int
    bit_depth: int             # 8 or 16: the sample size in the file
    format: str                # "png", "tiff" or "dicom"
    dataset: Optional[Any] = None  # the DICOM data set, kept for writing a result like it


def format_of(path):
    """The format a file name's extension stands for, or None."""
    return FORMATS.get(os.path.splitext(path)[1].lower())


def suffix_for(format_name):
    return _SUFFIX[format_name]


def _sniff(path):
    with open(path, "rb") as f:
        head = f.read(132)
    if head.startswith(b"\x89PNG\r\n\x1a\n"):
        return "png"
    if head[:4] in (b"II*\x00", b"MM\x00*"):
        return "tiff"
    if head[128:132] == b"DICM":
        return "dicom"
    raise ImageFileError("not a PNG, TIFF or DICOM file")


def _png_header(path):
    """Bit depth, colour type and sBIT grey bits (or None) from the chunks before the pixel data."""
    depth = colour = sbit = None
    with open(path, "rb") as f:
        f.read(8)
        while True:
            head = f.read(8)
            if len(head) < 8:
                raise ImageFileError("truncated PNG")
            length, kind = struct.unpack(">I4s", head)
            if kind == b"IDAT" or kind == b"IEND":
                break
            data = f.read(length)
            f.read(4)
            if kind == b"IHDR" and len(data) >= 10:
                depth, colour = data[8], data[9]
            elif kind == b"sBIT" and len(data) >= 1:
                sbit = data[0]
    if depth is None:
        raise ImageFileError("PNG without a header")
    return depth, colour, sbit


def _read_png(path):
    from PIL import Image
    depth, colour, sbit = _png_header(path)
    if colour != 0:
        raise ImageFileError("not a greyscale image (PNG colour type %d)" % colour)
    if depth not in (8, 16):
        raise ImageFileError("greyscale with %d bits per sample (only 8 and 16 are supported)" % depth)
    with Image.open(path) as image:
        samples = np.array(image)
    white = (1 << depth) - 1
    if sbit is not None and 1 <= sbit <= depth:
        white = (1 << sbit) - 1
    return GreyFile(samples.astype(np.uint16), white, depth, "png")


def _read_tiff(path):
    import tifffile
    with tifffile.TiffFile(path) as tif:
        page = tif.pages[0]
        if page.samplesperpixel != 1 or page.photometric not in (tifffile.PHOTOMETRIC.MINISBLACK,):
            raise ImageFileError("not a greyscale TIFF (photometric %s, %d samples per pixel)"
                                 % (page.photometric, page.samplesperpixel))
        samples = page.asarray()
        tag = page.tags.get(281)  # MaxSampleValue
        max_sample = int(tag.value) if tag is not None and np.ndim(tag.value) == 0 else None
    if samples.dtype not in (np.uint8, np.uint16) or samples.ndim != 2:
        raise ImageFileError("TIFF samples are %s of shape %s, not 8- or 16-bit unsigned grey"
                             % (samples.dtype, samples.shape))
    depth = samples.dtype.itemsize * 8
    white = (1 << depth) - 1
    if max_sample is not None and 1 <= max_sample <= white:
        white = max_sample
    return GreyFile(samples.astype(np.uint16), white, depth, "tiff")


def _read_dicom(path):
    import pydicom
    dataset = pydicom.dcmread(path)
    if int(dataset.get("SamplesPerPixel", 1)) != 1 or int(dataset.get("NumberOfFrames", 1) or 1) != 1:
        raise ImageFileError("not a single-frame greyscale DICOM image")
    if int(dataset.get("PixelRepresentation", 0)) != 0:
        raise ImageFileError("DICOM samples are signed")
    try:
        samples = dataset.pixel_array
    except Exception as error:  # the decoders raise many kinds; all mean "cannot decode"
        raise ImageFileError("DICOM pixel data cannot be decoded here (%s)" % error) from error
    depth = int(dataset.BitsAllocated)
    if depth not in (8, 16) or samples.ndim != 2:
        raise ImageFileError("DICOM with %d bits allocated of shape %s" % (depth, samples.shape))
    bits = int(dataset.get("BitsStored", depth))
    white = (1 << min(max(bits, 1), depth)) - 1
    return GreyFile(samples.astype(np.uint16), white, depth, "dicom", dataset)


def read_grey(path):
    """Reads an 8- or 16-bit greyscale PNG, TIFF or DICOM file, recognised by its
    content. Raises ImageFileError (or OSError) saying what is wrong."""
    kind = _sniff(path)
    try:
        return {"png": _read_png, "tiff": _read_tiff, "dicom": _read_dicom}[kind](path)
    except (ImageFileError, OSError):
        raise
    except Exception as error:  # a damaged file surfaces as whatever its decoder raises
        raise ImageFileError("damaged %s file (%s: %s)" % (kind.upper(), type(error).__name__, error)) from error


def _significant_bits(white, depth):
    return min(max(white, 1).bit_length(), depth)


def _write_png(path, pixels, white, depth):
    from PIL import Image, PngImagePlugin
    if pixels.ndim == 3:
        Image.fromarray(pixels, "RGB").save(path, format="PNG")
        return
    info = PngImagePlugin.PngInfo()
    info.add(b"sBIT", bytes([_significant_bits(white, depth)]))
    if depth == 8:
        image = Image.fromarray(np.minimum(pixels, 255).astype(np.uint8), "L")
    else:
        image = Image.fromarray(pixels.astype(np.uint16), "I;16")
    image.save(path, format="PNG", pnginfo=info)


def _write_tiff(path, pixels, white, depth):
    import tifffile
    if pixels.ndim == 3:
        tifffile.imwrite(path, pixels, photometric="rgb")
        return
    data = np.minimum(pixels, 255).astype(np.uint8) if depth == 8 else pixels
    tifffile.imwrite(path, data, photometric="minisblack", extratags=[(281, "H", 1, min(white, (1 << depth) - 1))])


def _write_dicom(path, pixels, white, depth, dataset):
    """A copy of the input's data set with the result as uncompressed pixel data."""
    import pydicom
    from pydicom.uid import ExplicitVRLittleEndian, generate_uid
    if dataset is None:
        raise ImageFileError("a DICOM result needs a DICOM input to take its header from")
    result = copy.deepcopy(dataset)
    result.file_meta.TransferSyntaxUID = ExplicitVRLittleEndian
    result.SOPInstanceUID = generate_uid()
    result.file_meta.MediaStorageSOPInstanceUID = result.SOPInstanceUID
    if pixels.ndim == 3:
        result.SamplesPerPixel, result.PhotometricInterpretation, result.PlanarConfiguration = 3, "RGB", 0
        result.BitsAllocated, result.BitsStored, result.HighBit = 8, 8, 7
        data = np.ascontiguousarray(pixels, dtype=np.uint8)
    else:
        data = np.minimum(pixels, 255).astype(np.uint8) if depth == 8 else pixels.astype("<u2")
        result.BitsAllocated = depth
        result.BitsStored = _significant_bits(white, depth)
        result.HighBit = result.BitsStored - 1
    result.PixelRepresentation = 0
    result.PixelData = data.tobytes()
    result["PixelData"].VR = "OB" if data.itemsize == 1 else "OW"
    result.is_little_endian, result.is_implicit_VR = True, False
    pydicom.dcmwrite(path, result, write_like_original=False)


def write_result(path, pixels, white, like):
    """Writes a filter result (2-D uint16 grey or (h, w, 3) uint8 RGB) in the
    format of path's extension, with the bit depth of `like` (the GreyFile it
    came from), atomically."""
    kind = format_of(path)
    if kind is None:
        raise ImageFileError("no image format for the extension of %s (.png, .tif, .tiff, .dcm)" % path)
    folder = os.path.dirname(os.path.abspath(path))
    # Created with the ordinary permissions (what the umask leaves of 0666),
    # unlike a mkstemp file, which only its owner could read.
    temporary = os.path.join(folder, ".%s.%s.part" % (os.path.basename(path), uuid.uuid4().hex))
    os.close(os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o666))
    try:
        if kind == "png":
            _write_png(temporary, pixels, white, like.bit_depth)
        elif kind == "tiff":
            _write_tiff(temporary, pixels, white, like.bit_depth)
        else:
            _write_dicom(temporary, pixels, white, like.bit_depth, like.dataset)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise
