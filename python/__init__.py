"""Python access to a varkel detector, and the simulated detector to try it on.

    import varkel
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
Connecting runs the presence check: chips that do not answer are switched off,
commands over every chip pass them by, and one aimed at such a chip raises.

The properties are the library's settings by name (settings.h), "-" written
"_": ``det.trigger``, ``det.read_counter``, ``det.counter_depth`` ...; they take
numbers in the setting's range or its value names (``det.polarity = "holes"``;
each property's help lists them), and read back numbers, or value names for the
named ones. ``det.frame()`` is the sample frame as a numpy array,
``det.acquire(...)`` runs the library's acquisition with a progress callback;
Ctrl-C stops the modules.

Errors: a value out of range raises ValueError before anything is sent; a
failed call raises ``varkel.Error`` with ``.code`` and a message naming the
module, chip, command and what happened; a command the controller refused
raises ``varkel.ControllerError`` (``.module``, ``.chip``, ``.command``,
``.reply``); a controller that does not answer within the Detector's
``timeout`` raises ``varkel.TimeoutError`` (also a builtin TimeoutError).

Every call that talks to the detector releases the GIL, and one Detector serves
one call at a time, whichever thread makes it. The library's own diagnostic
prints go nowhere unless ``redirect_library_output(path)`` or the environment
variable VARKEL_LIBRARY_OUTPUT (a file, or "-" for the process's own output)
asks for them.
"""

import os

try:
    import numpy  # noqa: F401  frames and temperatures are numpy arrays
except ImportError as e:
    raise ImportError("the varkel package needs numpy: run it with Debian's /usr/bin/python3 "
                      "(apt-get install python3-numpy)") from e

from . import _varkel
from ._varkel import (DAC_NAMES, SCAN_AIMS, Chip, Chips, ControllerError, Detector, Error, Module, Simulator,
                      TimeoutError, save_png)

__all__ = ["Chip", "Chips", "ControllerError", "DAC_NAMES", "Detector", "Error", "Module", "SCAN_AIMS", "Simulator",
           "TimeoutError", "redirect_library_output", "save_png"]


def redirect_library_output(path):
    """Sends what the library prints (its diagnostic lines) to the file `path`
    (os.devnull drops it), or with None to the process's own stdout and stderr.
    Python's own output is left as it is."""
    _varkel._redirect_library_output(None if path is None else os.fspath(path))


_asked = os.environ.get("VARKEL_LIBRARY_OUTPUT")
redirect_library_output(None if _asked == "-" else _asked or os.devnull)
