"""Minimal PNG and TIFF reading and writing for the tests, independent of the
libpng and libtiff code under test. Samples are lists of rows of ints; an RGB
row holds red, green, blue for each pixel in turn."""

import struct
import zlib

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"
CHANNELS = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}


def _chunk(kind, data):
    return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)


def write_png(path, rows, depth=16, colour=0, sbit=None):
    channels = CHANNELS[colour]
    height, width = len(rows), len(rows[0]) // channels
    raw = bytearray()
    for row in rows:
        raw.append(0)  # filter type none
        if depth == 16:
            raw += struct.pack(">%dH" % len(row), *row)
        else:
            raw += bytes(row)
    data = PNG_SIGNATURE + _chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, depth, colour, 0, 0, 0))
    if sbit is not None:
        data += _chunk(b"sBIT", bytes([sbit] * (channels if colour != 3 else 3)))
    if colour == 3:
        data += _chunk(b"PLTE", bytes(range(256)) * 3)
    data += _chunk(b"IDAT", zlib.compress(bytes(raw))) + _chunk(b"IEND", b"")
    with open(path, "wb") as f:
        f.write(data)


def _paeth(a, b, c):
    p = a + b - c
    pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
    if pa <= pb and pa <= pc:
        return a
    return b if pb <= pc else c


def read_png(path):
    """Returns (header dict, rows) of a non-interlaced PNG."""
    with open(path, "rb") as f:
        data = f.read()
    assert data[:8] == PNG_SIGNATURE, "not a PNG"
    pos, idat, info = 8, b"", {"sbit": None}
    while pos < len(data):
        (length,) = struct.unpack(">I", data[pos:pos + 4])
        kind, body = data[pos + 4:pos + 8], data[pos + 8:pos + 8 + length]
        if kind == b"IHDR":
            w, h, depth, colour, _, _, interlace = struct.unpack(">IIBBBBB", body)
            info.update(width=w, height=h, depth=depth, colour=colour)
            assert interlace == 0
        elif kind == b"sBIT":
            info["sbit"] = body[0]
        elif kind == b"IDAT":
            idat += body
        pos += 12 + length
    channels = CHANNELS[info["colour"]]
    bpp = max(1, channels * info["depth"] // 8)
    stride = info["width"] * channels * info["depth"] // 8
    raw = zlib.decompress(idat)
    rows, previous = [], bytearray(stride)
    for r in range(info["height"]):
        kind = raw[r * (stride + 1)]
        line = bytearray(raw[r * (stride + 1) + 1:(r + 1) * (stride + 1)])
        for i in range(stride):
            left = line[i - bpp] if i >= bpp else 0
            up = previous[i]
            up_left = previous[i - bpp] if i >= bpp else 0
            if kind == 1:
                line[i] = (line[i] + left) & 0xFF
            elif kind == 2:
                line[i] = (line[i] + up) & 0xFF
            elif kind == 3:
                line[i] = (line[i] + (left + up) // 2) & 0xFF
            elif kind == 4:
                line[i] = (line[i] + _paeth(left, up, up_left)) & 0xFF
        previous = line
        if info["depth"] == 16:
            rows.append(list(struct.unpack(">%dH" % (stride // 2), bytes(line))))
        else:
            rows.append(list(line))
    return info, rows


def write_tiff(path, rows, bits=16, samples_per_pixel=1, max_sample=None):
    """Little-endian, uncompressed, one strip."""
    height, width = len(rows), len(rows[0]) // samples_per_pixel
    pixels = b"".join(struct.pack("<%d%s" % (len(row), "H" if bits == 16 else "B"), *row) for row in rows)
    entries = [
        (256, 4, [width]), (257, 4, [height]), (258, 3, [bits] * samples_per_pixel), (259, 3, [1]),
        (262, 3, [1 if samples_per_pixel == 1 else 2]), (273, 4, [0]), (277, 3, [samples_per_pixel]),
        (278, 4, [height]), (279, 4, [len(pixels)]), (284, 3, [1]),
    ]
    if max_sample is not None:
        entries.append((281, 3, [max_sample]))
    entries.sort()
    fields = [(tag, kind, len(values), struct.pack("<%d%s" % (len(values), "H" if kind == 3 else "I"), *values))
              for tag, kind, values in entries]
    ifd_size = 2 + 12 * len(fields) + 4
    extra_size = sum(len(packed) for _, _, _, packed in fields if len(packed) > 4)
    pixel_offset = 8 + ifd_size + extra_size
    ifd, extra = struct.pack("<H", len(fields)), b""
    for tag, kind, count, packed in fields:
        if tag == 273:
            packed = struct.pack("<I", pixel_offset)
        if len(packed) > 4:
            ifd += struct.pack("<HHII", tag, kind, count, 8 + ifd_size + len(extra))
            extra += packed
        else:
            ifd += struct.pack("<HHI", tag, kind, count) + packed.ljust(4, b"\0")
    with open(path, "wb") as f:
        f.write(b"II*\0" + struct.pack("<I", 8) + ifd + struct.pack("<I", 0) + extra + pixels)


def read_tiff(path):
    """Returns (tags dict, rows) of an uncompressed strip TIFF."""
    with open(path, "rb") as f:
        data = f.read()
    order = "<" if data[:2] == b"II" else ">"
    (offset,) = struct.unpack(order + "I", data[4:8])
    (count,) = struct.unpack(order + "H", data[offset:offset + 2])
    sizes = {1: 1, 3: 2, 4: 4}
    codes = {1: "B", 3: "H", 4: "I"}
    tags = {}
    for i in range(count):
        entry = data[offset + 2 + 12 * i:offset + 14 + 12 * i]
        tag, kind, n = struct.unpack(order + "HHI", entry[:8])
        size = sizes.get(kind, 0) * n
        body = entry[8:8 + size] if size <= 4 else data[struct.unpack(order + "I", entry[8:12])[0]:][:size]
        tags[tag] = list(struct.unpack(order + "%d%s" % (n, codes[kind]), body)) if kind in codes else None
    assert tags.get(259, [1]) == [1], "compressed TIFF"
    pixels = b"".join(data[o:o + n] for o, n in zip(tags[273], tags[279]))
    width, height, bits = tags[256][0], tags[257][0], tags[258][0]
    spp = tags.get(277, [1])[0]
    per_row = width * spp
    code = "H" if bits == 16 else "B"
    step = per_row * bits // 8
    rows = [list(struct.unpack(order + "%d%s" % (per_row, code), pixels[r * step:(r + 1) * step])) for r in range(height)]
    return tags, rows


def gradient(height, width, white, offset=0):
    """Deterministic samples spread over 0 ... white."""
    return [[(r * 37 + c * 101 + offset) % (white + 1) for c in range(width)] for r in range(height)]
