"""What the tests of `krfilter serve` share: starting and stopping the server,
requests, the tool's own result for comparison. Uploads are made with the
command-line test's PNG writer (no imaging module is at hand)."""
import http.client
import json
import os
import re
import signal
import subprocess
import threading
import urllib.error
import urllib.request


class Server:
    """`krfilter serve --port 0 ...` on the loopback address, stopped on exit."""

    def __init__(self, binary, *arguments):
        self.process = subprocess.Popen([binary, "serve", "--port", "0", *arguments], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline().strip()
        if not line.startswith("serving on http://127.0.0.1:"):
            self.process.kill()
            raise RuntimeError(f"unexpected first line {line!r}; stderr: {self.process.stderr.read()}")
        self.url = line[len("serving on "):]
        self.port = int(self.url.rstrip("/").rsplit(":", 1)[1])
        # The scratch folder's line comes before the address: read it now, so it is never still in the pipe.
        self.stderr_lines = [self.process.stderr.readline()]
        # Filters may print (the noise filter writes a summary line); drain
        # both pipes so the server never blocks on a full one.
        self._drains = [threading.Thread(target=self._drain, args=(self.process.stdout, []), daemon=True),
                        threading.Thread(target=self._drain, args=(self.process.stderr, self.stderr_lines),
                                         daemon=True)]
        for drain in self._drains:
            drain.start()

    @staticmethod
    def _drain(pipe, lines):
        for line in pipe:
            lines.append(line)

    def scratch_folder(self):
        for line in self.stderr_lines:
            if "temporary files in " in line:
                return line.split("temporary files in ", 1)[1].split(";", 1)[0]
        return None

    def stop(self, sig=signal.SIGTERM):
        if self.process.poll() is None:
            self.process.send_signal(sig)
        code = self.process.wait(timeout=60)
        self._close()
        return code

    def _close(self):
        for drain in self._drains:
            drain.join(timeout=5)
        self.process.stdout.close()
        self.process.stderr.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self.process.poll() is None:
            # SIGTERM first, so the server removes its temporary folder.
            self.process.terminate()
            try:
                self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
            self._close()

    # ---- requests --------------------------------------------------------

    def request(self, method, path, body=None, headers=None):
        """(status, headers dict, body bytes); never raises for a status."""
        data = body if body is None or isinstance(body, bytes) else json.dumps(body).encode()
        req = urllib.request.Request(self.url.rstrip("/") + path, data=data, method=method, headers=headers or {})
        if data is not None and not isinstance(body, bytes):
            req.add_header("Content-Type", "application/json")
        try:
            with urllib.request.urlopen(req, timeout=300) as response:
                return response.status, dict(response.headers), response.read()
        except urllib.error.HTTPError as error:
            return error.code, dict(error.headers), error.read()

    def json(self, method, path, body=None):
        status, _, data = self.request(method, path, body)
        return status, json.loads(data) if data else None

    def catalogue(self):
        status, answer = self.json("GET", "/api/catalogue")
        assert status == 200, status
        return answer

    def upload(self, data, name="upload.png"):
        return self.json("POST", "/api/images?name=" + urllib.request.quote(name), data)

    def run(self, image, filter_index, values=(), **extra):
        return self.json("POST", "/api/run", {"image": image, "filter": filter_index, "values": list(values), **extra})

    def file(self, image_id):
        status, _, data = self.request("GET", f"/api/images/{image_id}/file.png")
        assert status == 200, status
        return data

    def declared_upload(self, length, sent=b""):
        """An upload that declares `length` bytes and sends only `sent`."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        connection.putrequest("POST", "/api/images?name=big.png")
        connection.putheader("Content-Length", str(length))
        connection.endheaders()
        try:
            connection.send(sent)
        except OSError:
            pass  # the server may answer and close before reading anything
        response = connection.getresponse()
        body = response.read()
        connection.close()
        return response.status, json.loads(body) if body else None


def index_of(catalogue, name):
    return next(f["index"] for f in catalogue["filters"] if f["name"] == name)


def tool_result(binary, folder, filter_name, input_png, assignments, name="tool.png"):
    """The PNG file `krfilter run` writes for the same input and parameters. The
    server encodes its results with the same writer, so equal samples give
    equal bytes."""
    source = os.path.join(folder, "input-" + name)
    with open(source, "wb") as f:
        f.write(input_png)
    target = os.path.join(folder, name)
    completed = subprocess.run([binary, "run", filter_name, source, target, *assignments], capture_output=True,
                               text=True)
    assert completed.returncode == 0, completed.stderr
    with open(target, "rb") as f:
        return f.read()


def tool_catalogue(binary):
    """{name: built} as `krfilter list` reports them, in catalogue order."""
    lines = subprocess.run([binary, "list"], capture_output=True, text=True, check=True).stdout.splitlines()
    return {line.split()[1]: line.split()[2] == "yes" for line in lines[1:-1]}


def info_fields(binary, name):
    """[(index, name, type, min, max, default)] of `krfilter info NAME`, index from 0."""
    info = subprocess.run([binary, "info", name], capture_output=True, text=True, check=True).stdout
    return [(int(n) - 1, *rest) for n, *rest in re.findall(r'^ +(\d+) +"(.*)" +(\w+) +(\S+) +(\S+) +(\S+)$', info, re.M)]
