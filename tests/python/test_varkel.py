import errno
import os
import socket
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import varkel
from conftest import MISSING

ROOT = os.path.join(os.path.dirname(__file__), "..", "..")
MESSAGES = {-1: "Address not found", -2: "Read message error", -3: "Command failed", -4: "Invalid dac field",
            -5: "Dac value out of range", -106: "The controller refused the command"}


def test_typical_use(det):
    assert det.check_chips() == [MISSING]
    det.exposure, det.period, det.exposures = 0.05, 0.1, 3
    assert (det.exposure, det.period, det.exposures) == (0.05, 0.1, 3)
    # A module alone: the others keep their value.
    det.module(3).exposure = 0.025
    assert [det.module(m).exposure for m in (1, 2, 3, 4)] == [0.05, 0.05, 0.025, 0.05]
    det.exposure = 0.05
    # OMR fields: the detector writes every chip, a chip view one chip.
    det.gain, det.polarity = 2, "holes"
    det.chip(4, 36).gain = "low"
    assert (det.gain, det.module(4).chip(35).gain, det.dacs[4, 36].gain, det.chip(3, 2).polarity) == (2, 2, 1, 1)
    chip = det.dacs[1, 7]
    chip["gnd"] = 140
    assert chip["GND"] == 140 and 0 < chip.voltage("GND") < 1.5
    points = det.scan("GND", module=2)
    assert len(points) == 35 and (2, 29) not in points
    assert all(120 <= code <= 150 and abs(volts - 0.65) < 0.02 for code, volts in points.values())
    t = det.temperatures()
    assert t["average"].shape == (4,) and t["boards"].shape == (4, 3, 16) and t["chips"].shape == (4, 36)
    assert np.isnan(t["chips"][1, 28]) and np.isfinite(t["chips"][1, 27]) and 20 < t["average"][0] < 60
    det.readout_mode = "default"
    seen = []
    det.acquire(progress=seen.append)
    assert seen[-1] == 1.0 and seen == sorted(seen)

    face, raw = det.frame(), det.frame(placed=False)
    assert face.shape == (3156, 3156) and raw.shape == (4, 3, 12, 256, 256)
    assert not raw.flags.writeable and face.dtype == raw.dtype == np.int32
    # Module 1, board 0, chip 0 is the top-left chip of the face, 4-pixel gaps after it.
    assert np.array_equal(face[:256, :256], raw[0, 0, 0]) and (face[:, 256:260] == -1).all()
    assert not raw[1, 0, 4].any() and raw[1, 0, 5].any()  # the missing chip stays dark
    # The beam stop, a little off the middle of the face, against the rest.
    assert np.median(face[1515:1535, 1610:1630]) < 5 < 50 < np.median(raw)
    det.close()
    assert raw.sum() > 0  # the view outlives the detector
    with pytest.raises(ValueError):
        det.exposure


def test_errors(det, workdir):
    def set_(target, name, value):
        return lambda: setattr(target, name, value)

    cases = [
        (set_(det, "exposure", -1.0), -3),
        (set_(det, "period", 0.01), -3),  # shorter than the exposure
        (set_(det.chip(1, 1), "gain", 7), -3),
        (set_(det, "exposures", 2.5), -3),
        (lambda: det.dacs[1, 1].__setitem__("GND", 256), -3),
        (lambda: det.dacs[1, 1].__setitem__(40, 1), -4),
        (lambda: det.scan("Preamp"), -5),
        (lambda: det.dacs[2, 29]["GND"], -106),  # the missing chip answers an error text
        (lambda: det.load_dac_files(os.path.join(workdir, "none.ini")), -1),
    ]
    det.exposure, det.period = 0.05, 0.1
    for call, code in cases:
        with pytest.raises(varkel.Error) as e:
            call()
        assert (e.value.code, str(e.value)) == (code, MESSAGES[code]), call
    assert (det.exposure, det.period) == (0.05, 0.1)  # nothing refused was applied
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))  # bound, never listening: refused
        with pytest.raises(varkel.Error) as e:
            det.connect_backend(*s.getsockname())
    assert e.value.code == errno.ECONNREFUSED and isinstance(e.value, RuntimeError)
    for call, kind in [
        (lambda: det.module(5), IndexError),
        (lambda: det.chip(1, 37), IndexError),
        (lambda: det.dacs[1, 1]["NoSuchDac"], KeyError),
        (set_(det, "polarity", "up"), ValueError),
        (set_(det, "gain", None), TypeError),
        (lambda: varkel.Detector("octo"), ValueError),
        (lambda: varkel.save_png(os.path.join(workdir, "x", "y.png"), np.zeros((2, 2))), OSError),
    ]:
        with pytest.raises(kind):
            call()


def test_calls_release_the_gil_and_take_turns(det):
    det.period, det.exposure, det.exposures = 0.1, 0.05, 6
    gap, reads, stop = [0.0], [], threading.Event()

    def count():  # the longest this thread waits for the GIL
        last = time.monotonic()
        while not stop.is_set():
            now = time.monotonic()
            gap[0], last = max(gap[0], now - last), now

    def read():  # the same channels, from another thread, during the acquisition
        try:
            while not stop.is_set():
                reads.append(det.module(2).exposure)
        except varkel.Error as e:
            reads.append(e)

    threads = [threading.Thread(target=f) for f in (count, read)]
    for t in threads:
        t.start()
    start = time.monotonic()
    try:
        det.acquire()
    finally:
        took = time.monotonic() - start
        stop.set()
        for t in threads:
            t.join()
    assert took > 0.3 and gap[0] < took / 3
    assert len(reads) > 10 and set(reads) == {0.05}


def test_acquire_example_writes_a_png_and_keeps_the_library_quiet(workdir):
    png, log = os.path.join(workdir, "frame.png"), os.path.join(workdir, "library.log")
    run = subprocess.run([sys.executable, os.path.join(ROOT, "examples", "python", "acquire.py"), "--exposures", "2",
                          "--png", png, "--log", log], capture_output=True, text=True, timeout=60)
    assert run.returncode == 0, run.stderr
    assert "2 exposure(s) of 0.05 s" in run.stdout and "detModel" not in run.stdout + run.stderr
    assert "detModel" in open(log).read()
    with open(png, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"
