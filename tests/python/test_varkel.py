import _thread
import errno
import os
import re
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
REFUSED, BUSY, CHIP_OFF = -106, -108, -109


def set_(target, name, value):
    return lambda: setattr(target, name, value)


def test_typical_use(det):
    assert det.disabled_chips == det.check_chips() == [MISSING]  # switched off when connecting
    det.exposure, det.period, det.exposures = 0.05, 0.1, 3
    assert (det.exposure, det.period, det.exposures) == (0.05, 0.1, 3)
    # A module alone: the others keep their value.
    det.module(3).exposure = 0.025
    assert [det.module(m).exposure for m in (1, 2, 3, 4)] == [0.05, 0.05, 0.025, 0.05]
    det.exposure = 0.05
    # OMR fields: the detector writes every chip, a chip view one chip; named values read back as names.
    det.gain, det.polarity, det.discard_data = 2, "holes", True
    det.chip(4, 36).gain = "low"
    assert (det.gain, det.module(4).chip(35).gain, det.dacs[4, 36].gain, det.chip(3, 2).polarity) == (
        "high", "high", "low", "holes")
    assert det.discard_data is True
    det.discard_data = "off"
    chip = det.dacs[1, 7]
    chip["gnd"] = 140
    assert chip["GND"] == 140 and 0 < chip.voltage("GND") < 1.5
    points = det.scan("GND", module=2)
    assert len(points) == 35 and (2, 29) not in points and abs(points[2, 1][1] - 0.65) < 0.02
    t = det.temperatures()
    assert t["average"].shape == (4,) and t["boards"].shape == (4, 3, 16) and t["chips"].shape == (4, 36)
    assert np.isnan(t["chips"][1, 28]) and np.isfinite(t["chips"][1, 27]) and 20 < t["average"][0] < 60
    det.readout_mode = "default"
    seen = []
    assert det.acquire(progress=seen.append)["exposures_done"] == 3
    assert seen[-1] == 1.0 and seen == sorted(seen)
    det.stop()  # its success is not 0

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
    off = "module 2 chip 29 is switched off"
    cases = [  # checked before anything is sent
        (set_(det, "exposure", 5000), ValueError, "5000 is not a value of exposure: 0..4294.967295"),
        (set_(det, "exposure", -1.0), ValueError, "-1.0 is not a value of exposure"),
        (set_(det.chip(1, 1), "gain", 7), ValueError, "7 is not a value of gain: super-high low high super-low"),
        (set_(det, "exposures", 2.5), ValueError, "2.5 is not a value of exposures"),
        (lambda: det.dacs[1, 1].__setitem__("GND", 300), ValueError, "300 is not a value of dac.GND: 0..255"),
        (set_(det, "polarity", "up"), ValueError, "up is not a value of polarity: electrons holes"),
        (set_(det, "gain", None), TypeError, "gain takes a number or a value name"),
        (lambda: det.scan("THRESHOLD0"), ValueError,
         "no aim for DAC THRESHOLD0; scans go toward the aims of GND (aim 0.65 V), FBK (aim 0.9 V), CAS (aim 0.85 V)"),
        (lambda: det.scan("GND", step=1), ValueError,
         "codes 0 to 255 in steps of 1: codes are 0 to 255 and a scan takes 1 to 69 steps"),
        (lambda: det.dacs[1, 1].__setitem__(40, 1), KeyError, "no DAC numbered 40: 1..31"),
        (lambda: det.dacs[1, 1]["NoSuchDac"], KeyError, "no DAC named NoSuchDac"),
        (lambda: det.module(5), IndexError, "no module 5"),
        (lambda: varkel.Detector("kinlet").chip(1, 24), IndexError, "no chip number 24 on this model"),
        (lambda: varkel.Detector("octo"), ValueError, "unknown model octo"),
        (lambda: varkel.save_png(os.path.join(workdir, "x", "y.png"), np.zeros((2, 2))), OSError, "y.png"),
        # refused by the library or aimed at a chip switched off
        (set_(det, "period", 0.01), varkel.Error, "put period 0.01: exposure 0.05 s does not fit period 0.01 s"),
        (lambda: det.dacs[2, 29]["GND"], varkel.Error, off),
        (set_(det.chip(2, 29), "gain", "low"), varkel.Error, off),
        (lambda: det.scan("GND", module=2, chip=29), varkel.Error, off),
        (lambda: det.load_dac_files(os.path.join(workdir, "none.ini")), varkel.Error, "none.ini"),
    ]
    det.exposure, det.period = 0.05, 0.1
    for call, kind, text in cases:
        with pytest.raises(kind, match=re.escape(text)):
            call()
    assert (det.exposure, det.period) == (0.05, 0.1)  # nothing refused was applied
    with pytest.raises(varkel.Error) as e:
        det.chip(*MISSING).gain
    assert (e.value.code, str(e.value)) == (CHIP_OFF, off)
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))  # bound, never listening: refused
        with pytest.raises(varkel.Error) as e:
            det.connect_backend(*s.getsockname())
    assert e.value.code == errno.ECONNREFUSED and isinstance(e.value, RuntimeError)


def test_refusals_and_silence_name_module_chip_and_command(controllers):
    def answer(method, command):
        if method in ("HS_AcquireTime_Command", "HS_Set_OMR"):
            return "error", "interlock: refused"
        return "result", "1000000" if command == "HS_AcquirePeriod_Command 0 0" else "1"  # a period of 1 s

    def silent_period(method, command):  # module 4's
        return None if command == "HS_AcquirePeriod_Command 0 0" else answer(method, command)

    with varkel.Detector("quad", timeout=0.5) as det:
        det.connect(controllers(answer, 3) + controllers(silent_period), attach=True)
        cases = [
            (set_(det.module(2), "exposure", 0.5), varkel.ControllerError, 2, None, "HS_AcquireTime_Command 1 500000",
             "module 2: exposure: the controller refused HS_AcquireTime_Command 1 500000: interlock: refused"),
            (set_(det.chip(3, 5), "gain", "high"), varkel.ControllerError, 3, 5, "HS_Set_OMR 17 2",
             "module 3 chip 5: gain: the controller refused HS_Set_OMR 17 2: interlock: refused"),
            (lambda: det.module(4).period, varkel.TimeoutError, 4, None, "HS_AcquirePeriod_Command 0 0",
             "module 4: period: did not answer HS_AcquirePeriod_Command 0 0 within 0.5 s"),
        ]
        for call, kind, module, chip, command, text in cases:
            start = time.monotonic()
            with pytest.raises(kind) as e:
                call()
            assert (e.value.module, e.value.chip, e.value.command, str(e.value)) == (module, chip, command, text)
            assert time.monotonic() - start < 2
        assert isinstance(e.value, TimeoutError) and isinstance(e.value, varkel.Error) and e.value.reply is None
        # Ctrl-C during a call that waits: seen when the call returns, within its time-out.
        threading.Timer(0.1, _thread.interrupt_main).start()
        with pytest.raises(KeyboardInterrupt):
            det.module(4).period
    # A port that accepts and never answers: the connect ends within its bounds.
    start = time.monotonic()
    with varkel.Detector("trio", timeout=0.2) as det, pytest.raises(varkel.TimeoutError, match="did not answer"):
        det.connect(controllers(lambda method, command: None))
    assert time.monotonic() - start < 5


def test_ctrl_c_stops_the_acquisition_and_changes_meanwhile_are_refused(det):
    det.exposure, det.period = 0.05, 0.1
    refused = []

    def changes_then_interrupt():  # from another thread, while the acquisition hands the detector over
        started.wait(10)
        for change in (set_(det, "exposure", 0.02), set_(det.module(2), "bias", 20), lambda: det.acquire()):
            try:
                change()
            except varkel.Error as e:
                refused.append((e.code, str(e)))
        _thread.interrupt_main()

    started, worker = threading.Event(), threading.Thread(target=changes_then_interrupt)
    worker.start()
    with pytest.raises(KeyboardInterrupt):
        det.acquire(exposures=40, progress=lambda fraction: started.set())
    worker.join()
    assert refused == [(BUSY, "exposure cannot change while an acquisition runs"),
                       (BUSY, "module 2: bias cannot change while an acquisition runs"),
                       (BUSY, "acquire: an acquisition runs already")] and det.exposure == 0.05
    assert det.acquire(exposures=2)["exposures_done"] == 2  # the next call works


def test_slow_calls_release_the_gil_and_take_turns():
    gap, reads, stop = [0.0], [], threading.Event()

    def count():  # the longest this thread waits for the GIL
        last = time.monotonic()
        while not stop.is_set():
            now = time.monotonic()
            gap[0], last = max(gap[0], now - last), now

    with varkel.Simulator("trio", latency_us=5000) as sim, varkel.Detector("trio") as det:
        det.connect(sim)
        det.exposure = 0.05

        def read():  # the same channel, from another thread
            while not stop.is_set():
                reads.append(det.exposure)

        threads = [threading.Thread(target=f) for f in (count, read)]
        for t in threads:
            t.start()
        start = time.monotonic()
        try:
            mine = [det.exposure for _ in range(30)]
        finally:
            took = time.monotonic() - start
            stop.set()
            for t in threads:
                t.join()
    assert took > 0.15 and gap[0] < took / 3
    assert len(reads) > 5 and set(reads) == set(mine) == {0.05}


def test_acquire_example_writes_a_png_and_keeps_the_library_quiet(workdir):
    env_on = {"VARKEL_LIBRARY_OUTPUT": "-"}
    png, log = os.path.join(workdir, "frame.png"), os.path.join(workdir, "library.log")
    # A trio: the simulator of this process's fixture is a quad.
    example = [os.path.join(ROOT, "examples", "python", "acquire.py"), "--model", "trio", "--exposures", "2"]
    run = subprocess.run([sys.executable, *example, "--png", png, "--log", log], capture_output=True, text=True,
                         timeout=60)
    assert run.returncode == 0, run.stderr
    assert "2 exposure(s) of 0.05 s" in run.stdout and "gain high" in run.stdout
    assert "detModel" not in run.stdout + run.stderr and "detModel" in open(log).read()
    with open(png, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"
    # Quiet by default; the environment asks for the library's output.
    shown = [subprocess.run([sys.executable, "-c", "import varkel; varkel.Detector('quad')"], capture_output=True,
                            text=True, timeout=60, env=dict(os.environ, **extra)).stdout for extra in ({}, env_on)]
    assert shown[0] == "" and shown[1].startswith("detModel: 3\n")
