"""Batch runs on a two-worker local Dask cluster and from the command line,
compared file by file with the command-line tool."""

import json
import os
import shutil
import subprocess
import sys

import numpy as np
import pydicom
import pytest
import tifffile
from PIL import Image, PngImagePlugin

import krfilter.dask
from conftest import DATA, HERE, TOOL, read_png, write_png16
from krfilter import imageio

PARAMS = {"intensity": 2.0, "radius": 2}
TOOL_PARAMS = ["Intensity=2", "Radius=2"]


@pytest.fixture(scope="module")
def folder(tmp_path_factory, leg):
    """Inputs of every kind, a damaged file among them, and the tool's result for each."""
    root = tmp_path_factory.mktemp("batch")
    inputs, reference = root / "in", root / "reference"
    inputs.mkdir()
    reference.mkdir()
    crop = leg[650:730, 560:660]
    info = PngImagePlugin.PngInfo()
    info.add(b"sBIT", bytes([10]))
    Image.fromarray(crop, "I;16").save(inputs / "leg10.png", pnginfo=info)
    Image.fromarray((crop >> 2).astype(np.uint8), "L").save(inputs / "small8.png")
    tifffile.imwrite(inputs / "leg12.tif", crop * 4, photometric="minisblack", extratags=[(281, "H", 1, 4095)])
    shutil.copy(os.path.join(DATA, "RG3_J2KR.dcm"), inputs / "leg-j2k.dcm")
    (inputs / "broken.tif").write_bytes((inputs / "leg12.tif").read_bytes()[:300])

    def tool(source, target, *extra):
        subprocess.run([TOOL, "run", "unsharp", str(source), str(reference / target), *TOOL_PARAMS, *extra],
                       check=True, capture_output=True)

    tool(inputs / "leg10.png", "leg10.png")
    tool(inputs / "small8.png", "small8.png")
    tool(inputs / "leg12.tif", "leg12.tif")
    write_png16(str(root / "plain.png"), crop[:40] * 4)
    tool(root / "plain.png", "plain.png", "--white", "4095")
    # An uncompressed DICOM input of the same samples: reversed twice by the tool.
    for source, target in ((root / "plain.png", root / "reversed.dcm"), (root / "reversed.dcm", inputs / "plain.dcm")):
        subprocess.run([TOOL, "run", "reverse", str(source), str(target), "--white", "4095"], check=True,
                       capture_output=True)
    tool(os.path.join(DATA, "cr-leg-10bit.png"), "leg-j2k.png", "--white", "1023")
    return inputs, reference


def assert_matches_tool(output, reference):
    for name in ("leg10.png", "small8.png"):
        with Image.open(output / name) as ours, Image.open(reference / name) as theirs:
            assert ours.mode == theirs.mode or {ours.mode, theirs.mode} <= {"I", "I;16"}
            assert np.array_equal(np.array(ours), np.array(theirs)), name
        assert imageio._png_header(str(output / name)) == imageio._png_header(str(reference / name))
    assert np.array_equal(tifffile.imread(output / "leg12.tif"), tifffile.imread(reference / "leg12.tif"))
    for dicom, png in (("plain.dcm", "plain.png"), ("leg-j2k.dcm", "leg-j2k.png")):
        assert np.array_equal(pydicom.dcmread(output / dicom).pixel_array, read_png(reference / png)), dicom


def read_manifest(path):
    with open(path) as f:
        return [json.loads(line) for line in f]


def test_two_worker_cluster_matches_the_tool_records_failures_and_resumes(folder, tmp_path):
    from distributed import Client, LocalCluster
    inputs, reference = folder
    output = tmp_path / "out"
    # Threads in this process, but talking TCP over loopback as with a real scheduler address.
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=False, protocol="tcp://", host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster) as client:
        records = krfilter.dask.map_files("unsharp", inputs, output, client=client, **PARAMS)
        assert len(client.scheduler_info()["workers"]) == 2
        assert_matches_tool(output, reference)
        failed = [r for r in records if r["status"] != "ok"]
        assert [os.path.basename(r["input"]) for r in failed] == ["broken.tif"] and failed[0]["error"]
        assert not (output / "broken.tif").exists()
        logged = read_manifest(output / krfilter.dask.MANIFEST_NAME)
        assert sorted(r["input"] for r in logged) == sorted(r["input"] for r in records)
        assert all(r["seconds"] >= 0 and r["filter"] == "unsharp" for r in logged)

        # A rerun redoes only what is not done: the damaged file, and a result that went missing.
        stamps = {p.name: p.stat().st_mtime_ns for p in output.iterdir()}
        (output / "leg12.tif").unlink()
        again = krfilter.dask.map_files("unsharp", inputs, output, client=client, **PARAMS)
        redone = sorted(os.path.basename(r["input"]) for r in again if r["status"] != "skipped")
        assert redone == ["broken.tif", "leg12.tif"]
        assert len(read_manifest(output / krfilter.dask.MANIFEST_NAME)) == len(logged) + 2
        assert all(p.stat().st_mtime_ns == stamps[p.name] for p in output.iterdir()
                   if p.name not in ("leg12.tif", krfilter.dask.MANIFEST_NAME))
        assert_matches_tool(output, reference)
    assert not [p for p in output.iterdir() if p.name.endswith(".part")]


def test_command_line(folder, tmp_path):
    inputs, reference = folder
    environment = dict(os.environ, PYTHONPATH=os.path.dirname(HERE))
    command = [sys.executable, "-m", "krfilter.batch", "unsharp", str(inputs), "-o", str(tmp_path)]
    done = subprocess.run(command + TOOL_PARAMS, capture_output=True, text=True, env=environment, timeout=300)
    assert done.returncode == 1, done.stderr
    assert "broken.tif" in done.stderr and "5 done, 0 skipped, 1 failed" in done.stdout
    assert_matches_tool(tmp_path, reference)
    wrong = subprocess.run(command + ["Radious=2"], capture_output=True, text=True, env=environment, timeout=300)
    assert wrong.returncode == 2 and "valid parameters of unsharp" in wrong.stderr
