"""Python access to a varkel detector, and the simulated detector to try it on.

    import varkel
    varkel.redirect_library_output("/dev/null")  # the library's own trace
    with varkel.Simulator("quad") as sim, varkel.Detector("quad") as det:
        det.connect(sim)
        det.exposure = 0.05
        det.acquire(exposures=1)
        image = det.frame()

Addressing: a property of the Detector writes every module (and, for the OMR
fields, every chip) and reads module 1 (its first working chip);
``det.module(n)`` addresses module n alone and ``det.chip(module, chip)``, also
``det.dacs[module, chip]``, one chip by its number 1..36 (1-12 on board 2,
13-24 on board 1, 25-36 on board 0), with its DACs by name: ``chip["GND"]``.

The properties are the library's settings by name (settings.h), "-" written
"_": ``det.trigger``, ``det.read_counter``, ``det.counter_depth`` ...; they take
numbers or the settings' value names (``det.polarity = "holes"``; each
property's help lists them), and read back numbers through the library's
read-backs. ``det.frame()`` is the sample frame as a numpy array,
``det.acquire(...)`` runs an acquisition with a progress callback.

Every non-zero result of the library raises ``varkel.Error`` with ``.code``;
every call that talks to the detector releases the GIL, and one Detector serves
one call at a time, whichever thread makes it.
"""

import os
import sys

from ._varkel import DAC_NAMES, Chip, Detector, Error, Module, Simulator, save_png
from . import _varkel

__all__ = ["Chip", "DAC_NAMES", "Detector", "Error", "Module", "Simulator", "redirect_library_output", "save_png"]


def redirect_library_output(path):
    """Sends what the library prints (descriptors 1 and 2) to the file `path`;
    "/dev/null" drops it. Python's sys.stdout and sys.stderr, when they write to
    those descriptors, are moved to the terminal's copies and keep printing there.
    """
    for stream in (sys.stdout, sys.stderr):
        stream.flush()
    copies = _varkel._redirect_library_output(os.fspath(path))
    for name, fd, copy in (("stdout", 1, copies[0]), ("stderr", 2, copies[1])):
        stream = getattr(sys, name)
        try:
            on_fd = stream.fileno() == fd
        except (AttributeError, OSError, ValueError):
            on_fd = False
        if on_fd:
            setattr(sys, name, open(os.dup(copy), "w", buffering=1, encoding=stream.encoding,
                                    errors=stream.errors))
