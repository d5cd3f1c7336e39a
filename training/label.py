"""Speech and non-speech in a clean recording, from its energy.

Frames are 10 ms apart and 25 ms long, as in the library. Levels are taken at 8 kHz, frame f
covering samples 80 f to 80 f + 199 there. The marks are made on the clean clip, before anything is
mixed to it.
"""
import numpy as np
from scipy.signal import resample_poly

SHIFT, LENGTH = 80, 200
# A short high-pass at about 2 kHz.
FRICATIVE_BAND = np.array([-0.08, -0.12, 0.60, -0.60, 0.12, 0.08])


def frame_count(samples):
    return 0 if samples < LENGTH else (samples - LENGTH) // SHIFT + 1


def energies(samples, band=(1.0, -0.97)):
    """Level of every frame in dB after a short filter; 0 dB is one quantisation step."""
    filtered = np.convolve(samples.astype(np.float32), band)[:len(samples)]
    sums = np.concatenate([[0.0], np.cumsum(filtered.astype(np.float64) ** 2)])
    starts = SHIFT * np.arange(frame_count(len(samples)))
    # The middle 160 samples: the Hamming window hides the rest.
    return 10 * np.log10((sums[starts + 180] - sums[starts + 20]) / 160 + 0.1)


def runs(marks):
    """[start, end) of every stretch of true marks."""
    edges = np.flatnonzero(np.diff(np.concatenate([[0], marks.astype(np.int8), [0]])))
    return edges.reshape(-1, 2)


def close_gaps(marks, longest):
    """Fill inner gaps of at most `longest` frames."""
    marks = marks.copy()
    for start, end in runs(~marks):
        if start > 0 and end < len(marks) and end - start <= longest:
            marks[start:end] = True
    return marks


def drop_blips(marks, longest):
    """Remove stretches of at most `longest` frames."""
    marks = marks.copy()
    for start, end in runs(marks):
        if end - start <= longest:
            marks[start:end] = False
    return marks


def threshold(levels, depth):
    """Between the noise floor and the loud frames, at most `depth` dB below these."""
    loud = np.percentile(levels, 95)
    floor = min(np.percentile(levels, 5), loud - 30)
    return max(loud - depth, floor + 9)


def label(wide, depth=32.0):
    """Boolean mark per frame of a clean 16 kHz recording; `depth` less for a reverberant one."""
    samples = resample_poly(np.asarray(wide, np.float32), 1, 2)
    if frame_count(len(samples)) == 0:
        return np.zeros(0, bool)
    levels = energies(samples, (1.0, -0.5))
    high = energies(samples, FRICATIVE_BAND)
    if np.percentile(levels, 95) < 20:
        return np.zeros(len(levels), bool)
    marks = (levels > threshold(levels, depth)) | (
        (high > threshold(high, depth - 8)) & (levels > threshold(levels, depth + 8)))
    return close_gaps(drop_blips(close_gaps(drop_blips(marks, 1), 4), 4), 10)
