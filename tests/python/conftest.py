import json
import socket
import tempfile
import threading

import pytest

import varkel

MISSING = (2, 29)  # module 2, board 0, chip index 4


@pytest.fixture(scope="module")
def sim():
    with varkel.Simulator("quad", missing_chips=[MISSING]) as s:
        yield s


@pytest.fixture
def det(sim):
    with varkel.Detector("quad") as d:
        d.connect(sim)
        yield d


@pytest.fixture
def workdir():
    # Inside the test's TMPDIR, and removed: nothing may be left there.
    with tempfile.TemporaryDirectory() as d:
        yield d


class Controller:
    """A loopback JSON-RPC controller: answer(method, command) gives ("result", text),
    ("error", message) or None (no reply, ever) for each request."""

    def __init__(self, answer):
        self.server = socket.create_server(("127.0.0.1", 0))
        self.address, self.answer = self.server.getsockname(), answer
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                conn, _ = self.server.accept()
            except OSError:
                return  # closed
            threading.Thread(target=self._serve, args=(conn,), daemon=True).start()

    def _serve(self, conn):
        text = ""
        with conn:  # the library sends a request once the one before is answered or given up
            while data := conn.recv(4096):
                text += data.decode()
                try:
                    request, text = json.loads(text), ""
                except ValueError:
                    continue  # the rest of the request is on its way
                reply = self.answer(request["method"], " ".join([request["method"], *request["params"][0]]))
                if reply is not None:
                    member = reply[1] if reply[0] == "result" else {"code": -32000, "message": reply[1]}
                    conn.sendall(json.dumps({"jsonrpc": "2.0", "id": request["id"], reply[0]: member}).encode())


@pytest.fixture
def controllers():
    made = []

    def make(answer, count=1):
        made.extend(Controller(answer) for _ in range(count))
        return [c.address for c in made[-count:]]

    yield make
    for c in made:
        c.server.close()
