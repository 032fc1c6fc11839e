#!/usr/bin/env python3
"""A DAC scan of every chip of one module of the simulated detector, printed as a
table: the code whose voltage lies nearest the DAC's aim, chosen by the library
and written to the chip, and the voltage it reads."""
import argparse

import varkel


def main():
    p = argparse.ArgumentParser(description=__doc__)
    p.add_argument("--model", default="quad", choices=["kinlet", "lite", "trio", "quad"])
    p.add_argument("--module", type=int, default=1)
    p.add_argument("--dac", default="GND", choices=sorted(varkel.SCAN_AIMS))
    p.add_argument("--step", type=int, default=4)
    a = p.parse_args()

    with varkel.Simulator(a.model, missing_chips=[(a.module, 29)]) as sim, varkel.Detector(a.model) as det:
        det.connect(sim)  # switches off the chips that do not answer
        points = det.scan(a.dac, 0, 255, a.step, module=a.module)
        print(f"{a.dac} of module {a.module}, codes 0-255 in steps of {a.step}, aim {varkel.SCAN_AIMS[a.dac]} V")
        print(f"{'chip':>5} {'board':>6} {'index':>6} {'code':>5} {'volts':>7}")
        for (_, chip), (code, volts) in sorted(points.items()):
            print(f"{chip:>5} {2 - (chip - 1) // 12:>6} {(chip - 1) % 12:>6} {code:>5} {volts:>7.3f}")
        off = [c for m, c in det.disabled_chips if m == a.module]
        print(f"{len(points)} chip(s) scanned; switched off, not scanned: {off or 'none'}")


if __name__ == "__main__":
    main()
