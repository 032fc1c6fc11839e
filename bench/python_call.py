#!/usr/bin/env python3
"""One read-back through the Python package next to the C call it wraps.

Both paths read the exposure time from module 1 of the same in-process simulated
detector, on the same connection, in alternating blocks: `det.exposure` from a
Python loop, and select_module + US_AcquireTime_RBV from a C loop. Prints the
medians over the blocks of the time per call, wall and the calling thread's CPU, and
their ratio.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_call.py [--blocks 31] [--calls 500]
"""
import argparse
import statistics
import time

import varkel


def timed(block, calls):
    wall, cpu = time.perf_counter(), time.thread_time()
    block(calls)
    return (time.perf_counter() - wall) / calls, (time.thread_time() - cpu) / calls


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--blocks", type=int, default=31)
    p.add_argument("--calls", type=int, default=500)
    p.add_argument("--latency-us", type=int, default=0, help="added to every controller reply")
    a = p.parse_args()

    with varkel.Simulator("quad", latency_us=a.latency_us) as sim, varkel.Detector("quad") as det:
        det.connect(sim)
        det.exposure = 0.05

        def python(calls):
            for _ in range(calls):
                det.exposure

        paths = {"python": python, "c": det._read_back_in_c}
        for block in paths.values():  # warm up
            block(a.calls)
        times = {name: [] for name in paths}
        for _ in range(a.blocks):
            for name, block in paths.items():
                times[name].append(timed(block, a.calls))

    median = {name: [statistics.median(t[i] for t in ts) * 1e6 for i in (0, 1)] for name, ts in times.items()}
    print(f"read-back of the exposure time, {a.blocks} alternating blocks of {a.calls} calls, medians per call:")
    for name, (wall, cpu) in median.items():
        print(f"  {name:<7} {wall:8.2f} us wall {cpu:8.2f} us CPU")
    print(f"  python / c: {median['python'][0] / median['c'][0]:.3f} wall, "
          f"{median['python'][1] / median['c'][1]:.3f} CPU")


if __name__ == "__main__":
    main()
