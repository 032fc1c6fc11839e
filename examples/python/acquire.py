#!/usr/bin/env python3
"""A complete acquisition on the simulated detector, in this process: connect,
switch off the chips that do not answer, set the readout mode, the bias and the
exposures, acquire with a progress bar, and save the frame as a PNG."""
import argparse
import sys

import varkel


def main():
    p = argparse.ArgumentParser(description=__doc__)
    p.add_argument("--model", default="quad", choices=["trio", "quad"])
    p.add_argument("--exposure", type=float, default=0.05, help="seconds")
    p.add_argument("--period", type=float, default=0.1, help="seconds")
    p.add_argument("--exposures", type=int, default=10)
    p.add_argument("--png", default="varkel-python.png")
    p.add_argument("--log", help="a file for the library's own output (default: none)")
    a = p.parse_args()

    if a.log:
        varkel.redirect_library_output(a.log)
    tty = sys.stdout.isatty()

    def progress(fraction):
        if tty:
            filled = int(fraction * 30)
            print(f"\r  acquiring [{'#' * filled}{'.' * (30 - filled)}] {fraction:4.0%}", end="", flush=True)

    with varkel.Simulator(a.model, missing_chips=[(1, 29)]) as sim, varkel.Detector(a.model) as det:
        det.connect(sim)
        print(f"{det.model}: {det.modules} module(s), data server at {sim.data_server[0]}:{sim.data_server[1]}")
        print(f"  chips switched off: {det.disabled_chips}")
        det.readout_mode = "default"
        det.bias = 15.5
        det.gain = "high"
        print(f"  bias {det.bias} V, gain {det.gain}")
        done = det.acquire(exposure=a.exposure, period=a.period, exposures=a.exposures, progress=progress)
        print(f"{chr(13) if tty else ''}  {done['exposures_done']} exposure(s) of {det.exposure} s every {det.period} s "
              f"in {done['elapsed']:.2f} s, {done['frames']} frames")
        image = det.frame()
        varkel.save_png(a.png, image, bin=4)
        seen = image[image >= 0]
        print(f"  frame {image.shape[1]} x {image.shape[0]}, mean {seen.mean():.1f}, max {seen.max()} -> {a.png}")
        averages = ", ".join(f"{t:.1f}" for t in det.temperatures()["average"])
        print(f"  chip temperatures by module: {averages}")


if __name__ == "__main__":
    main()
