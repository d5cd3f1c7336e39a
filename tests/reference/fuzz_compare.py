#!/usr/bin/python3
"""Plays random scenarios on the library and on the reference and reports where they differ.

    python3 tests/reference/fuzz_compare.py [--count 20] [--seed 1] [--work build/fuzz]

The library's sources are compiled here, with the Address and Undefined Behaviour Sanitizers. Both
sides use the same FFT library, so that everything down to the bits of the posteriors is compared.
"""
import argparse
import ctypes
import ctypes.util
import glob
import multiprocessing
import os
import random
import subprocess
import sys

import numpy as np

from scenario import Trace

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
GOLDEN = os.path.join(ROOT, "tests", "golden")


def kiss_fft():
    library = ctypes.CDLL(ctypes.util.find_library("kissfft-float"))
    library.kiss_fftr_alloc.restype = ctypes.c_void_p
    library.kiss_fftr.argtypes = [ctypes.c_void_p] * 3
    plans = {}

    def transform(frame, n):
        if n not in plans:
            plans[n] = library.kiss_fftr_alloc(n, 0, None, None)
        padded = np.zeros(n, np.float32)
        padded[:len(frame)] = frame
        out = np.zeros(n // 2 + 1, np.complex64)
        library.kiss_fftr(plans[n], padded.ctypes.data, out.ctypes.data)
        return out[:n // 2]

    return transform


def scenario(seed):
    r = random.Random(seed)
    wide = r.random() < 0.25
    model, bleep = ("synth16k.bin", "bleep16k.txt") if wide else ("synth8k.bin", "bleep8k.txt")
    rate = 16000 if wide or r.random() < 0.35 else 8000
    ops = ["exact", "source %d %d" % (rate, r.randrange(1000))]
    for _ in range(r.randint(2, 6)):
        ops.append("silence %d %d" % (r.choice((100, 300, 800, 1500, 2500)), r.choice((0, 20, 60, 300))))
        ops.append("speech %d %d %d %d" % (r.choice((100, 190, 220, 300, 600, 2000)),
                                           r.choice((1500, 6000, 15000)), r.choice((50, 200)),
                                           r.randrange(2)))

    def tune():
        number, value = r.choice((
            (1, r.choice((15, 60, 110, 200))), (2, r.choice((40, 100, 300, 1900, 5000))),
            (3, r.choice((5, 20, 40, 90, 150))), (4, r.choice((5, 25, 60))),
            (5, r.choice((10, 60, 150, 400))), (6, r.choice((0, 5, 20, 40))),
            (7, r.choice((0, 5, 20, 40, 100))), (10, r.choice((0, 20, 90))), (12, r.randrange(2)),
            (14, r.choice((50, 130, 300))), (23, r.choice((0.1, 0.2, 0.4, 0.6, 0.9, 1))),
            (24, r.choice((0.1, 0.2, 0.4, 0.9, 1))), (25, r.randrange(2)), (25, 1),
            (3, 22.9), (15, 1), (8, -1), (1, 2.5)))
        return "set %d %s" % (number, value)

    def start():
        if rate == 16000 and not (wide and r.random() < 0.3):
            yield "set 13 16000"
        if r.random() < 0.3:
            yield "set 9 %d" % r.choice((100, 9000, 16000, 30000))
        if r.random() < 0.2:
            yield "set 26 0"
        for _ in range(r.randint(0, 6)):
            yield tune()
        yield "init %s%s" % (model, " " + bleep if r.random() < 0.8 else "")

    ops += start()
    for _ in range(r.randint(6, 14)):
        kind = r.random()
        if kind < 0.6:
            shift = rate // 100
            chunk = r.choice((shift, shift, shift, r.randint(1, 60), shift // 2 + 1, 2 * shift, 997,
                              r.randint(shift, 8 * shift), r.randint(10, 40) * shift))
            total = min(r.choice((20, 100, 250)) * shift, chunk * 400)
            ops.append("run %d %d%s" % (chunk, total, r.choice(("", " 40000", " 400", " 161", " 1"))))
        elif kind < 0.7:
            ops += ["end", "detect"] + r.choice(([], ["callback 9999"], ["detect", "reset"], ["reset"]))
        elif kind < 0.8:
            ops += [r.choice((["send %d" % r.choice((0, 1, 399, 5000, 21000, 80001)), "detect", "detect"],
                              ["reset"], ["stop"], ["send 700", "send 33", "detect"],
                              ["set 11 %d" % r.randrange(2)], ["rewind"]))][0]
        else:
            ops += [r.choice((tune(), tune(), "states", "callback %d" % r.choice((0, 333, 50000)),
                              "issil %d %d" % (r.randint(-1, 300), r.randint(-1, 500)),
                              "convert %d %d" % (r.randint(-500, 90000), r.randint(-10, 900)),
                              "pause %d" % r.randint(0, 3000), "sendnull %d" % r.randint(-2, 2),
                              "frame %d %d %d" % (r.choice((80, 200, 400)), r.randint(-1, 9), r.randrange(2)),
                              "get %d" % r.randint(0, 28)))]
        if r.random() < 0.04:
            ops += [r.choice(("new", "exit", "reset"))] + list(start())
    ops += ["set 11 1", "end", "detect", "callback 100000", "states", "scores"]
    return ["> " + op for op in ops]


def compile_library(work):
    program = os.path.join(work, "library_trace")
    sources = [s for s in glob.glob(os.path.join(ROOT, "dnnvad", "**", "*.cpp"), recursive=True)
               if "ne10" not in s] + [os.path.join(ROOT, "tests", "reference", "library_trace.cpp")]
    flags = ("-std=c++17 -O1 -g -ffp-contract=off -fsanitize=address,undefined "
             "-fno-sanitize-recover=undefined").split()
    kiss = subprocess.run(["pkg-config", "--cflags", "--libs", "kissfft-float"], check=True,
                          capture_output=True, text=True).stdout.split()
    subprocess.run(["g++", *flags, "-I", ROOT, *sources, "-o", program, *kiss], check=True)
    return program


def compare(job):
    program, work, seed = job
    script, output = (os.path.join(work, "%d.%s" % (seed, e)) for e in ("txt", "out"))
    lines = scenario(seed)
    with open(script, "w") as file:
        file.write("\n".join(lines) + "\n")
    run = subprocess.run([program, script, output], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    with open(output) as file:
        library = file.read().splitlines()
    operation = ""
    reference = Trace(work, kiss_fft()).play(lines)
    for i, expected in enumerate(reference):
        if expected.startswith("> "):
            operation = expected
        actual = library[i] if i < len(library) else "(nothing)"
        if actual != expected:
            return seed, "%s\n  reference %s\n  library   %s\n%s" % (
                operation, expected, actual, run.stderr.decode()[:2000])
    return seed, run.stderr.decode()[:2000] if run.returncode else ""


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--count", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--program", help="library_trace, already compiled")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "fuzz"))
    options = parser.parse_args()
    os.makedirs(options.work, exist_ok=True)
    for name in os.listdir(GOLDEN):
        link = os.path.join(options.work, name)
        if name.startswith(("synth", "bleep")) and not os.path.exists(link):
            os.symlink(os.path.join(GOLDEN, name), link)
    program = options.program or compile_library(options.work)
    jobs = [(program, options.work, seed) for seed in range(options.seed, options.seed + options.count)]
    different = 0
    with multiprocessing.Pool() as pool:
        for seed, difference in pool.imap(compare, jobs):
            if difference:
                different += 1
                print("scenario %d differs at %s" % (seed, difference))
    print("%d scenarios compared, %d differ" % (options.count, different))
    return 1 if different else 0


if __name__ == "__main__":
    sys.exit(main())
