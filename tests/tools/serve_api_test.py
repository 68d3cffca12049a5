#!/usr/bin/env python3
"""The JSON interface of `krfilter serve`, driven over HTTP without a browser.

usage: serve_api_test.py PATH_TO_KRFILTER [unittest arguments]

Results are checked against `krfilter run` on the same input with the same
parameters, so the page and the command line cannot drift apart."""

import json
import os
import signal
import sys
import tempfile
import threading
import time
import unittest

from cli_test import gradient, png_bytes
from serve_support import Server, index_of, info_fields, tool_catalogue, tool_result

KRFILTER = None


class ServeApi(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server(KRFILTER)
        cls.catalogue = cls.server.catalogue()
        cls.phantom = cls.catalogue["phantom"]["id"]
        cls.folder = tempfile.TemporaryDirectory()

    @classmethod
    def tearDownClass(cls):
        code = cls.server.stop()
        cls.folder.cleanup()
        if code != 0:
            raise AssertionError(f"the server ended with status {code} on SIGTERM")

    def test_catalogue_is_the_library_s(self):
        filters = self.catalogue["filters"]
        self.assertEqual([(f["name"], f["built"]) for f in filters], list(tool_catalogue(KRFILTER).items()))
        self.assertEqual([f["index"] for f in filters], list(range(36)))
        # The family table covers the whole catalogue.
        self.assertEqual({f["family"] for f in filters},
                         {"Tone curves, histograms and display", "Neighbourhood filters", "Multi-scale enhancement",
                          "Regional corrections"})
        # Every dialog field as `krfilter info` states it ("Intensity " keeps its blank, "Sigma" comes twice).
        for f in filters:
            self.assertEqual(info_fields(KRFILTER, f["name"]),
                             [(p["index"], p["name"], p["type"], p["min"], p["max"], p["default"]) for p in f["params"]],
                             f["name"])

    def test_runs_by_index_match_the_tool(self):
        phantom_png = self.server.file(self.phantom)
        cases = [("sigma", ["0.15", "0.05"], ["#1=0.15", "#2=0.05"]),  # two parameters of one name
                 ("unsharp", ["2", 3], ["Intensity =2", "Radius=3"])]   # a name ending in a blank; a JSON number
        for name, values, assignments in cases:
            with self.subTest(filter=name):
                status, answer = self.server.run(self.phantom, index_of(self.catalogue, name), values)
                self.assertEqual((status, answer["code"], answer["code_text"]), (200, 0, "success"))
                self.assertGreater(answer["changed_samples"], 0)
                served = self.server.file(answer["result"]["id"])
                self.assertTrue(served == tool_result(KRFILTER, self.folder.name, name, phantom_png, assignments),
                                "differs from krfilter run")

    def test_bad_and_unknown_things_are_400_and_404_with_a_message(self):
        median, image = index_of(self.catalogue, "median2D"), f"/api/images/{self.phantom}"
        good_png = png_bytes([[4 * r + c for c in range(4)] for r in range(3)])

        def run(**body):
            return "POST", "/api/run", {"image": self.phantom, **body}

        def upload(data):
            return "POST", "/api/images?name=bad.png", data

        cases = [
            (("POST", "/api/run", b"{not json"), 400, "not JSON"),
            (run(), 400, "expected"),
            (run(filter=median, values=["5x"]), 400, "not a whole number"),
            (run(filter=median, values=["5", "7"]), 400, "takes 1 values at most"),
            (run(filter=median, values=[True]), 400, "neither text nor a number"),
            (run(filter=median, values=[5.0]), 400, "not a whole number"),
            (run(filter=median, white=0), 400, "white takes"),
            (upload(b""), 400, "empty"),
            (upload(b"this is not an image at all"), 400, ""),
            (upload(good_png[:60]), 400, ""),                                               # truncated
            (upload(png_bytes([[1, 2, 3] * 2] * 2, 8, colour_type=2)), 400, ""),          # colour
            (("POST", "/api/images?name=bad-%FF.png", b"\xff\xfe not an image"), 400, ""),  # a name not in UTF-8
            (("GET", image + "/preview.png?window=0", None), 400, ""),
            (("GET", image + "/preview.png?level=12x", None), 400, ""),
            (("GET", image + "/difference.png", None), 400, ""),
            (run(filter=36), 404, ""), (run(filter=-1), 404, ""),
            (("POST", "/api/run", {"image": "0123abcd", "filter": 0}), 404, ""),
            (("GET", "/nothing", None), 404, ""),
            (("GET", "/api/images/0123abcd/preview.png", None), 404, ""),
            (("GET", "/api/images/0123abcd/file.png", None), 404, ""),
            (("GET", image + "/difference.png?against=0123abcd", None), 404, ""),
            (("GET", "/api/images/NOTHEX", None), 404, ""),
        ]
        for request, status, message in cases:
            with self.subTest(request=request[:2]):
                answer = self.server.request(*request)
                self.assertEqual(answer[0], status)
                self.assertIn(message, json.loads(answer[2])["error"])
        status, answer = self.server.upload(good_png, "good.png")
        self.assertEqual((status, answer["width"], answer["height"], answer["highest"]), (200, 4, 3, 11))
        self.assertEqual(self.server.request("GET", f"/api/images/{answer['id']}/difference.png"
                                                    f"?against={self.phantom}")[0], 400)  # sizes differ

    def test_limits_are_413(self):
        status, answer = self.server.declared_upload(256 * 1024 * 1024 + 1, b"\x89PNG")
        self.assertEqual(status, 413)
        self.assertIn("256 MiB", answer["error"])
        for width, height in [(16385, 1), (1, 16385)]:
            with self.subTest(size=(width, height)):
                status, answer = self.server.upload(png_bytes([[7] * width] * height, 8))
                self.assertEqual(status, 413)
                self.assertIn("16384", answer["error"])
        status, answer = self.server.upload(png_bytes([[7] * 16384], 8))
        self.assertEqual((status, answer["width"]), (200, 16384))

    def test_non_zero_codes_leave_the_server_serving(self):
        status, answer = self.server.run(self.phantom, index_of(self.catalogue, "IsoDensity"))  # always answers 1
        self.assertEqual((status, answer["code"]), (200, 1))
        self.assertNotIn("result", answer)
        self.assertIn("no pixel work", answer["code_text"])
        status, answer = self.server.run(self.phantom, index_of(self.catalogue, "median2D"), ["3"])
        self.assertEqual((status, answer["code"]), (200, 0))

    def test_concurrent_runs_give_the_sequential_results(self):
        jobs = [("median2D", ["3"]), ("median2D", ["7"]), ("gamma", ["0.6"]), ("unsharp", ["2", "3"]),
                ("mean2D", ["5"]), ("despeckle", ["5", "200"])]
        references = {}
        for name, values in jobs:
            status, answer = self.server.run(self.phantom, index_of(self.catalogue, name), values)
            self.assertEqual((status, answer["code"]), (200, 0))
            references[(name, tuple(values))] = self.server.file(answer["result"]["id"])
        outcomes = []

        def run(name, values):
            status, answer = self.server.run(self.phantom, index_of(self.catalogue, name), values)
            data = self.server.file(answer["result"]["id"]) if status == 200 and answer["code"] == 0 else None
            outcomes.append((name, tuple(values), status, data))

        # As many at once as the server runs or queues: none may be refused.
        status = self.server.json("GET", "/api/status")[1]
        capacity = status["slots"] + status["waiting_places"]
        threads = [threading.Thread(target=run, args=jobs[k % len(jobs)]) for k in range(capacity)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(outcomes), capacity)
        for name, values, status, data in outcomes:
            with self.subTest(filter=name, values=values):
                self.assertEqual(status, 200)
                self.assertTrue(data == references[(name, values)], "differs from the run made alone")

    def test_only_the_most_recent_images_are_kept(self):
        ids = []
        for k in range(17):
            status, answer = self.server.upload(png_bytes([[k] * 3] * 2), f"small-{k}.png")
            self.assertEqual(status, 200)
            ids.append(answer["id"])
        self.assertEqual(self.server.request("GET", f"/api/images/{ids[0]}")[0], 404)
        self.assertEqual(self.server.request("GET", f"/api/images/{ids[-1]}")[0], 200)
        self.assertEqual(self.server.request("GET", f"/api/images/{self.phantom}")[0], 200)
        self.assertLessEqual(self.server.json("GET", "/api/status")[1]["images"], 17)


class ServeLifecycle(unittest.TestCase):
    def test_full_queue_is_503_and_clears(self):
        with Server(KRFILTER, "--max-runs", "1", "--max-waiting", "0") as server:
            catalogue = server.catalogue()
            phantom, median = catalogue["phantom"]["id"], index_of(catalogue, "median2D")
            slow = threading.Thread(target=server.run, args=(phantom, median, ["401"]))
            slow.start()
            deadline = time.monotonic() + 30
            while server.json("GET", "/api/status")[1]["running"] == 0 and time.monotonic() < deadline:
                time.sleep(0.005)
            status, answer = server.run(phantom, median, ["3"])
            self.assertEqual(status, 503)
            self.assertIn("busy", answer["error"])
            self.assertEqual(server.request("GET", "/api/catalogue")[0], 200)  # light requests still served
            slow.join()
            self.assertEqual(server.run(phantom, median, ["3"])[0], 200)
            self.assertEqual(server.stop(), 0)

    def test_signals_stop_the_server_and_remove_its_files(self):
        for sig in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(signal=sig), Server(KRFILTER) as server:
                status, _ = server.upload(png_bytes(gradient(8, 8, 4095)))
                self.assertEqual(status, 200)
                folder = server.scratch_folder()
                self.assertTrue(folder and os.path.isdir(folder), server.stderr_lines)
                self.assertEqual(os.listdir(folder), [])  # uploads do not outlive their request
                self.assertEqual(server.stop(sig), 0)
                self.assertFalse(os.path.exists(folder))


if __name__ == "__main__":
    KRFILTER = os.path.abspath(sys.argv[1])
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:], verbosity=2)
