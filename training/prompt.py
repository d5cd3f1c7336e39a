"""The device's prompt "dai-dai": two sung notes, made by formula.

    python3 training/prompt.py

writes samples/prompt-16k.wav and samples/prompt-8k.wav. A note is a row of harmonics whose
strengths follow a voice's source and the moving resonances of a diphthong, so that a network that
knows voices takes it for speech, and whose pitch has a slight vibrato. The second note is about a
fourth above the first.
"""
import functools
import os

import numpy as np
import soundfile
from scipy.signal import resample_poly

RATE = 16000
HIGHEST = 7400  # Hz, no harmonic above
SLOPE = 1.0  # strength of harmonic k before the resonances: k^-SLOPE
# Resonances, in Hz, as the mouth goes from d to a, stays there, goes to i and stays.
RESONANCES = ((250, 750, 750, 300, 300), (1750, 1250, 1250, 2200, 2200),
              (2600, 2600, 2600, 2900, 2900), (3500, 3500, 3500, 3600, 3600),
              (4500,) * 5, (5700,) * 5)
BANDWIDTHS = (80, 110, 160, 250, 400, 500)  # of the resonances, Hz
# Notes: begin and length in seconds, pitch in Hz at begin and end, and where the mouth is when, as
# shares of the length. The long i of the second note is what the template holds on to.
NOTES = ((0.0, 0.19, 196.0, 202.0, (0.0, 0.2, 0.5, 0.9, 1.0)),
         (0.22, 0.27, 262.0, 256.0, (0.0, 0.08, 0.12, 0.3, 1.0)))
VIBRATO, VIBRATO_DEPTH = 5.5, 0.012  # Hz, share of the pitch
ATTACK, RELEASE = 0.012, 0.05  # seconds
PEAK = 0.7  # of full scale
SAMPLES = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "samples")


def note(length, first, last, times):
    """Samples of one note at RATE, rms 1; the arguments are as in NOTES."""
    t = np.arange(int(length * RATE)) / RATE
    pitch = np.linspace(first, last, len(t)) * (
        1 + VIBRATO_DEPTH * np.sin(2 * np.pi * VIBRATO * t))
    phase = 2 * np.pi * np.cumsum(pitch) / RATE
    centres = [np.interp(t / length, times, path) for path in RESONANCES]
    x = np.zeros(len(t))
    for k in range(1, int(HIGHEST / max(first, last)) + 1):
        f = k * pitch
        gain = float(k) ** -SLOPE
        for centre, width in zip(centres, BANDWIDTHS):
            # A resonance's response relative to its response at 0 Hz.
            gain = gain * centre ** 2 / np.hypot(centre ** 2 - f ** 2, width * f)
        x += gain * np.sin(k * phase)
    x *= np.minimum(1, np.minimum((t + 1 / RATE) / ATTACK, (t[-1] - t) / RELEASE))
    return x / np.sqrt(np.mean(x ** 2))


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
