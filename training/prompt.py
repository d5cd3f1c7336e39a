"""The device's prompt "di-di": two sung notes, made by formula.

    python3 training/prompt.py

writes samples/prompt-16k.wav and samples/prompt-8k.wav. A note is a row of harmonics whose
strengths follow a voice's source and the resonances of the vowel, so that a network that knows
voices takes it for speech, and whose pitch has a slight vibrato. The second note is about a fourth
above the first.
"""
import functools
import os

import numpy as np
import soundfile
from scipy.signal import resample_poly

RATE = 16000
HIGHEST = 7400  # Hz, no harmonic above
SLOPE = 1.0  # strength of harmonic k before the resonances: k^-SLOPE
# Resonances of the vowel: Hz at the begin of a note, Hz from GLIDE seconds on, bandwidth in Hz.
RESONANCES = ((300, 400, 70), (1750, 2050, 110), (2600, 2700, 160), (3500, 3600, 250),
              (4500, 4500, 400), (5700, 5700, 500))
GLIDE = 0.05
# Notes: begin and length in seconds, pitch in Hz at begin and end, level in dB.
NOTES = ((0.0, 0.17, 196.0, 202.0, 0.0), (0.20, 0.19, 262.0, 256.0, 0.0))
VIBRATO, VIBRATO_DEPTH = 5.5, 0.012  # Hz, share of the pitch
ATTACK, RELEASE = 0.012, 0.05  # seconds
PEAK = 0.7  # of full scale
SAMPLES = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "samples")


def note(length, first, last, level):
    """Samples of one note at RATE."""
    t = np.arange(int(length * RATE)) / RATE
    pitch = np.linspace(first, last, len(t)) * (
        1 + VIBRATO_DEPTH * np.sin(2 * np.pi * VIBRATO * t))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    moved = np.minimum(t / GLIDE, 1)
    x = np.zeros(len(t))
    for k in range(1, int(HIGHEST / max(first, last)) + 1):
        gain = np.full(len(t), float(k) ** -SLOPE)
        for begin, end, width in RESONANCES:
            centre = begin + (end - begin) * moved
            # A resonance's response relative to its response at 0 Hz.
            f = k * pitch
            gain *= centre ** 2 / np.sqrt((centre ** 2 - f ** 2) ** 2 + (width * f) ** 2)
        x += gain * np.sin(k * phase)
    x *= np.minimum(1, np.minimum((t + 1 / RATE) / ATTACK, (t[-1] - t) / RELEASE))
    return x / np.sqrt(np.mean(x ** 2)) * 10 ** (level / 20)


@functools.cache
def prompt():
    """The prompt at RATE, peak 1."""
    x = np.zeros(int(RATE * max(begin + length for begin, length, *_ in NOTES)) + 1)
    for begin, *rest in NOTES:
        sound = note(*rest)
        first = int(begin * RATE)
        x[first:first + len(sound)] += sound
    return x / np.abs(x).max()


def write(folder=SAMPLES):
    for rate in (16000, 8000):
        x = resample_poly(prompt(), rate // 8000, RATE // 8000)
        soundfile.write(os.path.join(folder, f"prompt-{rate // 1000}k.wav"), PEAK * x, rate,
                        subtype="PCM_16")


if __name__ == "__main__":
    write()
