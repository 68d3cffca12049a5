"""Peer of the wavelet shrinkage benchmark: four levels of the symlet-8
decomposition with periodic extension, soft thresholding of the detail bands
and reconstruction, on the raster the benchmark wrote. Runs one pass per
"run" line on standard input and answers "done", so that the benchmark times
only the work, not the interpreter's start."""
import sys

import numpy as np
import pywt


def main():
    path, height, width, white = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), float(sys.argv[4])
    raster = np.fromfile(path, dtype=np.uint16).reshape(height, width)
    thresholds = [4.0, 2.0, 0.5, 0.2]  # coarsest first, as wavedec2 lists the levels
    for line in sys.stdin:
        if line.strip() != "run":
            break
        image = raster.astype(np.float32) * np.float32(255.0 / white)
        coeffs = pywt.wavedec2(image, "sym8", mode="periodization", level=4)
        shrunk = [coeffs[0]] + [tuple(pywt.threshold(band, t, mode="soft") for band in level)
                                for level, t in zip(coeffs[1:], thresholds)]
        result = pywt.waverec2(shrunk, "sym8", mode="periodization") * np.float32(white / 255.0)
        np.clip(np.rint(result), 0, 65535).astype(np.uint16)
        sys.stdout.write("done\n")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
