"""A second, plain reading of the detection path, written apart from the library.

It is slow and short on purpose: every step is written in the order and the precision in which
it has to be taken, single precision through numpy.float32 and fused steps through the C
library's fmaf. Only the FFT differs: it is taken in double precision and rounded, so features
agree with the library to the tolerance between FFT libraries and everything after a given
feature vector agrees to the bit.

This file holds the components; session.py puts them together.
"""
import ctypes
import ctypes.util
import struct

import numpy as np

F = np.float32
INT_MAX, INT_MIN = 2**31 - 1, -2**31

_libm = ctypes.CDLL(ctypes.util.find_library("m") or "libm.so.6")


def _libm_float(name, argument_count=1):
    function = getattr(_libm, name)
    function.restype = ctypes.c_float
    function.argtypes = [ctypes.c_float] * argument_count
    return lambda *a: F(function(*a))


expf, logf, cosf = _libm_float("expf"), _libm_float("logf"), _libm_float("cosf")
fmaf = _libm_float("fmaf", 3)


def each(function, values):
    return np.array([function(v) for v in values], F)


def cdiv(a, b):
    """Integer division that truncates toward zero, as C does it."""
    q = abs(a) // abs(b)
    return q if (a < 0) == (b < 0) else -q


def to_int(value):
    """Truncation toward zero that saturates at the 32-bit limits; not-a-number gives 0."""
    value = float(value)
    if value != value:
        return 0
    return int(max(INT_MIN, min(INT_MAX, value)))


# ---------------------------------------------------------------- features

def fft_double(frame, n):
    """The first n/2 bins of the unscaled real transform, rounded to single precision."""
    return np.fft.rfft(frame.astype(np.float64), n)[:n // 2].astype(np.complex64)


class FilterBank:
    def __init__(self, wide, low, high, channels):
        self.rate, self.frame = (16000, 400) if wide else (8000, 200)
        self.n = 512 if wide else 256
        self.channels = channels
        half = self.n // 2
        rate, n = F(self.rate), F(self.n)
        fres = F(float(self.rate) / (float(self.n) * 700.0))
        mel = lambda hz: F(1127.0 * np.log(float(F(hz)) / 700.0 + 1.0))
        low_mel, self.first = F(0), 2
        if low >= 0:
            low_mel = mel(low)
            self.first = to_int(float(F(1) / rate * F(low) * n) + 2.5)
            if self.first <= 1:
                self.first = 2
        if high >= 0:
            high_mel = mel(high)
            self.last = min(half, to_int(float(F(1) / rate * F(high) * n) + 0.5))
        else:
            high_mel, self.last = F(1127) * logf(F(1) + fres * F(half)), half
        centre = [low_mel] + [fmaf(high_mel - low_mel, F(c) / F(channels + 1), low_mel)
                              for c in range(1, channels + 2)]
        # Each bin k feeds channel c with weight w and channel c + 1 with 1 - w; the shares are
        # listed in the order in which they are added.
        self.bins, self.target, self.share_of_low = [], [], []
        chan = 1
        self.weight = np.zeros(half + 1, F)
        for k in range(self.first, self.last + 1):
            melk = F(1127) * logf(F(1) + F(k - 1) * fres)
            while chan <= channels + 1 and centre[chan] < melk:
                chan += 1
            c = chan - 1
            if c > channels:
                continue
            self.weight[k] = (centre[c + 1] - melk) / (centre[c + 1] - centre[c])
            if c > 0:
                self._feed(k, c, True)
            if c < channels:
                self._feed(k, c + 1, False)
        self.bins = np.array(self.bins)
        self.target = np.array(self.target) - 1
        self.share_of_low = np.array(self.share_of_low)
        step = F(6.283185307179586 / (self.frame - 1))
        self.window = np.array([F(0.54 - 0.46 * float(cosf(F(i) * step)))
                                for i in range(self.frame)], F)

    def _feed(self, k, channel, low_share):
        self.bins.append(k)
        self.target.append(channel)
        self.share_of_low.append(low_share)

    def channels_of(self, spectrum):
        energy = np.zeros(self.n // 2 + 1, F)
        energy[1:] = spectrum.real * spectrum.real + spectrum.imag * spectrum.imag
        low = self.weight * energy
        shares = np.where(self.share_of_low, low[self.bins], (energy - low)[self.bins])
        total = np.zeros(self.channels, F)
        np.add.at(total, self.target, shares)
        return each(logf, np.maximum(total, F(1.1920929e-7)))


class FeatureChain:
    """Filter-bank stage, normalisation and the stack of past frames."""

    def __init__(self, wide, low, high, channels, mean, rev_var, stacked, fft=fft_double):
        self.bank = FilterBank(wide, low, high, channels)
        self.narrow, self.fft = not wide, fft
        self.mean, self.rev_var = mean[:channels], rev_var[:channels]
        self.context = stacked // channels
        self.failed = stacked % channels != 0
        self.spectrum_db = np.zeros(self.bank.n // 2, F)
        self.stack = np.zeros((self.context, channels), F)
        self.reset()

    def reset(self):
        self.stack[:] = 0
        self.seen = 0

    def translate(self, samples):
        s = samples.astype(F)
        if self.narrow:
            lanes = s.reshape(-1, 4).cumsum(axis=0, dtype=F)[-1]
            s = s - (lanes[0] + lanes[1] + lanes[2] + lanes[3]) * (F(1) / F(len(s)))
            before = s
            s = s.copy()
            s[1:] = before[1:] - F(0.97) * before[:-1]
            s[0] = (F(1) - F(0.97)) * before[0]
        spectrum = self.fft(s * self.bank.window, self.bank.n)
        re, im = spectrum.real, spectrum.imag
        magnitude = np.sqrt(re * re + im * im)
        self.spectrum_db = (10.0 * np.log10(magnitude.astype(np.float64) + 1e-10)).astype(F)
        feature = (self.bank.channels_of(spectrum) - self.mean) * self.rev_var
        if self.seen == 0:
            self.stack[:] = feature
        else:
            self.stack[:-1] = self.stack[1:].copy()
            self.stack[-1] = feature
        self.seen += 1

    def read(self):
        return self.stack.reshape(-1).copy()


# ---------------------------------------------------------------- network

class BadModel(Exception):
    pass


class Network:
    def __init__(self, path):
        self.feat_dim = self.rate = self.low = self.high = 0
        self.loaded = False
        try:
            with open(path, "rb") as file:
                self._load(file)
            self.loaded = True
        except (OSError, BadModel, struct.error):
            pass

    def _load(self, file):
        def line():
            text = file.readline()
            if not text:
                raise BadModel("end of file")
            return text

        def vector(name):
            token, dim = line().split()[:2]
            if token != name or int(dim) != self.feat_dim:
                raise BadModel(name)
            return np.array([float(line().split()[0]) for _ in range(self.feat_dim)]).astype(F)

        for _ in range(3):
            line()
        self.feat_dim, self.rate, self.low, self.high, _ = struct.unpack("<5i", file.read(20))
        line()
        count = int(line())
        self.mean, self.rev_var = vector(b"meanvec"), vector(b"revvarvec")
        layers, = struct.unpack("<i", file.read(4))
        self.sizes = struct.unpack("<%di" % layers, file.read(4 * layers))
        block = np.frombuffer(file.read(4 * count), "<f4")
        if len(block) < count:
            raise BadModel("parameters")
        need = sum(o * (i + 1) for i, o in zip(self.sizes, self.sizes[1:]))
        block = np.concatenate([block, np.zeros(max(0, need - count), F)]).astype(F)
        self.layers, at = [], 0
        for i, o in zip(self.sizes, self.sizes[1:]):
            weights = block[at:at + o * i].reshape(o, i)
            self.layers.append((weights, block[at + o * i:at + o * i + o]))
            at += o * (i + 1)

    def forward(self, x):
        for k, (weights, biases) in enumerate(self.layers):
            y = matrix_vector(weights, x) + biases
            x = softmax(y) if k == len(self.layers) - 1 else fast_sigmoid(y)
        return x


def matrix_vector(a, x):
    quads = len(x) & ~3
    lanes = np.zeros((len(a), 4), F)
    for k in range(0, quads, 4):
        lanes += a[:, k:k + 4] * x[k:k + 4]
    tails = np.zeros(len(a), F)
    for k in range(quads, len(x)):
        tails = np.array([fmaf(v, x[k], t) for v, t in zip(a[:, k], tails)], F)
    return ((lanes[:, 0] + lanes[:, 1]) + (lanes[:, 2] + lanes[:, 3])) + tails


def fast_sigmoid(y):
    out = np.empty(len(y), F)
    for i, v in enumerate(y):
        if -700 < v < 700:
            high = int(float(-v) * 1512775.3951951857) + 1072632447
            e, = struct.unpack("<d", struct.pack("<ii", 0, high))
        else:
            e = float(expf(-v))
        out[i] = 1.0 / (e + 1.0)
    return out


def softmax(y):
    top = y[0]
    for v in y[1:]:
        if v > top:
            top = v
    out, total = np.empty(len(y), F), F(0)
    for i, v in enumerate(y):
        out[i] = expf(v - top)
        total += out[i]
    return out * (F(1) / total)


# ---------------------------------------------------------------- smoother

SPEECH2SPEECH, SPEECH2SIL, SIL2SIL, SIL2SPEECH, NOTBEGIN, INVALID = range(6)


class Smoother:
    def __init__(self, start, end, window=20):
        self.start, self.end = F(start), F(end)
        self.history = np.zeros((9, 3), F)
        self.smoothed = np.zeros((9, window), F)
        self.sums = np.zeros(9, F)
        self.maxima = np.zeros(9, F)
        self.margins = []  # distance of every score from the threshold it was compared with
        self.score = F(0)
        self.reset()

    def reset(self):
        self.avg_pos = self.max_pos = self.filled = 0
        self.in_speech = False
        self.history[:] = 0
        self.smoothed[:] = 0
        self.sums[:] = 0

    def step(self, post, frame):
        if len(post) != 9:
            return INVALID
        n = 3
        if self.filled != 3:
            n = self.filled = self.avg_pos + 1
        self.sums = (self.sums - self.history[:, self.avg_pos]) + post
        self.history[:, self.avg_pos] = post
        self.smoothed[:, self.max_pos] = self.sums / F(n)
        best = self.smoothed[:, 0]
        for k in range(1, self.smoothed.shape[1]):
            column = self.smoothed[:, k]
            best = np.where(column > best, column, best)
        self.maxima = best
        self.avg_pos = (self.avg_pos + 1) % 3
        total = F(1)
        for k in range(3, 9):
            # A maximum that rounding has pushed below zero counts as "never seen".
            total += logf(F(0) if best[k] < 0 else best[k])
        self.score = score = expf(total / F(6))
        self.max_pos = (self.max_pos + 1) % self.smoothed.shape[1]
        if self.in_speech:
            threshold, stays = self.end, self.end < score
            code = SPEECH2SPEECH if stays else SPEECH2SIL
        elif frame >= 0:
            threshold, stays = self.start, self.start > score
            code = SIL2SIL if stays else SIL2SPEECH
        else:
            threshold, stays = 0.3, not float(score) >= 0.3
            code = SIL2SIL if stays else SIL2SPEECH
        if not stays:
            self.in_speech = not self.in_speech
        self.margins.append(abs(float(score) - float(threshold)))
        return code


# ---------------------------------------------------------------- auxiliary detectors

class EnergyVad:
    """States only: the session never reads the detector's audio, so its rings are left out."""

    def __init__(self):
        self.reset()

    def reset(self):
        self.frames = self.noise = self.loud = self.quiet = 0
        self.in_speech, self.state = False, SIL2SIL

    def step(self, samples):
        mean = sum(abs(int(v)) for v in samples) // len(samples)
        if self.frames < 10:
            self.noise += mean
            self.frames += 1
            if self.frames == 10:
                self.noise = int(float(self.noise) / self.frames) + 1
            return self.state
        self.frames += 1
        if not self.in_speech:
            self.state = SIL2SIL
            self.loud = 0 if float(mean) < self.noise * 1.2 else self.loud + 1
            if self.loud == 1:
                self.loud, self.in_speech, self.state = 0, True, SIL2SPEECH
        else:
            self.state = SPEECH2SPEECH
            self.quiet = 0 if float(mean) >= self.noise * 1.15 else self.quiet + 1
            if self.quiet == 20:
                self.quiet, self.in_speech, self.state = 0, False, SPEECH2SIL
        return self.state


class Bleep:
    LOW, ROWS = 5, 15

    def __init__(self, path, bins):
        self.bins, self.loaded, self.score = bins, False, None
        self.recent = np.zeros((3, bins), F)
        self.rows = np.zeros((120, bins), F)
        if not path:
            return
        try:
            with open(path) as file:
                words = file.read().split()
        except OSError:
            return
        cells = self.ROWS * bins
        weights = words[cells:cells + bins - self.LOW + 1]
        if len(weights) == bins - self.LOW + 1:
            pattern = np.array([int(w) for w in words[:cells]]).astype(np.uint8)
            self.pattern = pattern.reshape(self.ROWS, bins)
            self.weights = np.array([float(w) for w in weights]).astype(F)
            self.loaded = True

    def save(self, frame, spectrum):
        if frame >= 119:
            return
        self.recent[frame % 3] = spectrum
        a, b, c = self.recent
        self.rows[frame % 120] = (a if frame == 0 else (a + b) * F(0.5) if frame == 1
                                  else (a + b + c) / F(3))

    def decide(self, frames):
        cells = self.rows.reshape(-1)[:frames * self.bins + 1]
        top, bottom = max(F(-1000), cells.max()), min(F(1000), cells.min())
        spread, margin = top - bottom, F(-15)
        if spread < F(60):
            margin = spread * margin / F(60)
        binary = np.zeros(120 * self.bins + 1, np.uint8)
        binary[:len(cells)] = (cells - top) - margin > 0
        binary = binary[:-1].reshape(120, self.bins)
        best = best_count = 0
        for t in range(frames - self.ROWS):
            count = np.count_nonzero(binary[t:t + self.ROWS] & self.pattern)
            if count > best_count:
                best, best_count = t, count
        columns = binary[best:best + self.ROWS, self.LOW - 1:self.bins - 1]
        total = F(0)
        for value, weight in zip(columns.sum(axis=0), self.weights[1:]):
            total = fmaf(F(value), weight, total)
        total += self.weights[0]
        self.score = F(1) / (expf(-total) + F(1))
        return self.score
