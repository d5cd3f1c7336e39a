#!/usr/bin/python3
"""Writes the small synthetic models that the golden traces are made with.

    python3 tests/reference/make_synthetic_model.py tests/golden

The networks are designed by hand: six hidden units look for one pitch each of scenario.py's "speech",
so that the six speech classes peak one after the other, and small random weights everywhere else
make every parameter count. The bleep template knows the pitches of "speech" set 1.
"""
import os
import struct
import sys

import numpy as np

from scenario import PITCHES


class Random:
    """Weights that are multiples of 1/4096, the same everywhere."""

    def __init__(self, seed):
        self.seed = seed

    def block(self, rows, columns, size):
        values = []
        for _ in range(rows * columns):
            self.seed = (self.seed * 1664525 + 1013904223) & 0xFFFFFFFF
            values.append(((self.seed >> 16) - 32768) / 32768.0)
        return np.round(np.array(values).reshape(rows, columns) * size * 4096) / 4096


CONTRAST, BIAS = 1.5, 3.0


def nearest_channels(low, high, channels):
    """The channels of the pitch that each class looks for, in either set."""
    mel = lambda hz: 1127 * np.log(1 + np.array(hz) / 700)
    position = (mel(PITCHES) - mel(low)) / (mel(high) - mel(low)) * (channels + 1) - 1
    return np.rint(position).astype(int).T


def network(channels, context, hidden, low, high, seed):
    random = Random(seed)
    inputs = channels * context
    first = random.block(hidden[0], inputs, 0.03)
    first_bias = random.block(1, hidden[0], 0.25)[0]
    weights = first.reshape(hidden[0], context, channels)
    for unit, channel in enumerate(nearest_channels(low, high, channels)):
        weights[unit, context - 3:] -= CONTRAST / channels
        weights[unit, context - 3:, channel] += CONTRAST / len(channel)
    first_bias[:6] -= BIAS
    weights[6, context - 1] += 2.0 / channels
    layers = [(first, first_bias)]
    if len(hidden) == 2:
        middle = random.block(hidden[1], hidden[0], 0.1)
        bias = random.block(1, hidden[1], 0.1)[0]
        for unit in range(7):
            middle[unit, unit] += 8.0
            bias[unit] -= 4.0
        layers.append((middle, bias))
    last = random.block(9, hidden[-1], 0.1)
    last_bias = random.block(1, 9, 0.1)[0]
    for unit in range(6):
        last[3 + unit, unit] += 7.0
    last[:3, 6] -= 2.0
    last_bias[:3] += 3.0
    return layers + [(last, last_bias)]


def write_model(path, feat_dim, rate, low, high, means, rev_vars, layers):
    sizes = [layers[0][0].shape[1]] + [len(bias) for _, bias in layers]
    block = np.concatenate([np.concatenate([w.reshape(-1), b]) for w, b in layers]).astype("<f4")
    with open(path, "wb") as file:
        file.write(b"synthetic test network\nhand-designed\nheader follows\n")
        file.write(struct.pack("<5i", feat_dim, rate, low, high, 0) + b"\n%d\n" % len(block))
        for name, values in ((b"meanvec", means), (b"revvarvec", rev_vars)):
            file.write(name + b" %d\n" % len(values))
            file.writelines(b"%.6f\n" % v for v in values)
        file.write(struct.pack("<i%di" % len(sizes), len(sizes), *sizes) + block.tobytes())


def write_bleep(path, bins, hz_per_bin):
    """Ones near the pitches of set 1; columns there speak for the bleep, those of set 0 against."""
    weights = np.zeros(bins - 4)
    weights[0] = -1.0
    rows = np.zeros((15, bins), int)
    for frame in range(15):
        centre = PITCHES[1][frame // 3 % 6] / hz_per_bin
        for b in range(bins):
            rows[frame, b] = abs(b - centre) < 2
    for which, sign in ((0, -0.125), (1, 0.125)):
        for pitch in PITCHES[which]:
            weights[1 + int(pitch / hz_per_bin + 0.5) - 4] += sign
    with open(path, "w") as file:
        file.writelines(" ".join(map(str, row)) + "\n" for row in rows)
        file.writelines("%.6f\n" % w for w in weights)


def main(folder):
    level = lambda n, rise: [round(14.5 + rise * i / n, 6) for i in range(n)]
    scale = lambda n: [round(0.3 + 0.02 * np.cos(0.7 * i), 6) for i in range(n)]
    write_model(os.path.join(folder, "synth8k.bin"), 26, 8000, 40, 3800, level(26, 4), scale(26),
                network(26, 11, (25, 14), 40, 3800, 7))
    write_model(os.path.join(folder, "synth16k.bin"), 40, 16000, 60, 7600, level(40, 4), scale(40),
                network(40, 5, (18,), 60, 7600, 11))
    write_bleep(os.path.join(folder, "bleep8k.txt"), 128, 31.25)
    write_bleep(os.path.join(folder, "bleep16k.txt"), 256, 31.25)


if __name__ == "__main__":
    main(sys.argv[1])
