"""Sounds made by formula: stationary noises, hum, tones, room responses."""
import numpy as np
from scipy.signal import butter, fftconvolve, lfilter, sosfilt

RATE = 8000
DTMF_LOW, DTMF_HIGH = (697, 770, 852, 941), (1209, 1336, 1477, 1633)


def rms(x):
    return float(np.sqrt(np.mean(np.square(x, dtype=np.float64)) + 1e-12))


def coloured(rng, n, slope):
    """Gaussian noise whose power falls with frequency^slope (0 white, 1 pink, 2 brown)."""
    spectrum = rng.standard_normal(n // 2 + 1) + 1j * rng.standard_normal(n // 2 + 1)
    frequency = np.maximum(np.fft.rfftfreq(n, 1 / RATE), 20.0)
    x = np.fft.irfft(spectrum * frequency ** (-slope / 2), n)
    return x / rms(x)


def fan(rng, n):
    """Broadband rush with a few blade or motor lines, slowly beating."""
    x = coloured(rng, n, rng.uniform(0.3, 2.0))
    t = np.arange(n) / RATE
    base = rng.uniform(40, 400)
    for harmonic in range(1, rng.integers(2, 7)):
        drift = 1 + 0.003 * np.sin(2 * np.pi * rng.uniform(0.05, 0.5) * t)
        x = x + rng.uniform(0.05, 0.7) / harmonic ** 0.5 * np.sin(
            2 * np.pi * base * harmonic * t * drift + rng.uniform(0, 6.3))
    return x / rms(x)


def hum(rng, n):
    """Mains hum: 50 or 60 Hz and harmonics."""
    t = np.arange(n) / RATE
    base = rng.choice([50.0, 60.0])
    x = 0.02 * rng.standard_normal(n)
    for harmonic in range(1, rng.integers(4, 30)):
        x += rng.uniform(0, 1) / harmonic ** rng.uniform(0.3, 1.2) * np.sin(
            2 * np.pi * base * harmonic * t + rng.uniform(0, 6.3))
    return x / rms(x)


def car(rng, n):
    """Road and engine rumble with slow swells."""
    x = coloured(rng, n, 2.0) + 0.15 * coloured(rng, n, 0.7)
    return swell(rng, x / rms(x), 4.0)


def crackle(rng, n):
    """Keyboard-like clicks or rain-like drops over a faint bed."""
    x = np.zeros(n)
    rate = 10 ** rng.uniform(0.3, 2.3)
    for at in rng.integers(0, n, rng.poisson(rate * n / RATE)):
        length = rng.integers(8, 200)
        burst = rng.standard_normal(length) * np.exp(-np.arange(length) / (length / 4))
        x[at:at + length] += (burst * rng.lognormal(0, 0.7))[:n - at]
    x = sosfilt(butter(2, rng.uniform(200, 1500), "high", fs=RATE, output="sos"), x)
    return x / rms(x) + 0.02 * rng.standard_normal(n)


def swell(rng, x, depth):
    """Slow random changes of level, `depth` dB rms."""
    knots = max(2, len(x) // RATE)
    gain = np.interp(np.linspace(0, knots - 1, len(x)), np.arange(knots),
                     rng.normal(0, depth, knots))
    return x * 10 ** (gain / 20)


def stationary(rng, n):
    """One of the steady noises at rms 1."""
    kind = rng.choice(["white", "pink", "brown", "fan", "hum", "car", "band", "crackle"])
    if kind == "band":
        low = rng.uniform(60, 2000)
        x = sosfilt(butter(2, [low, min(3900, low * rng.uniform(1.2, 8))], "band", fs=RATE,
                           output="sos"), rng.standard_normal(n))
    elif kind in ("fan", "hum", "car", "crackle"):
        x = {"fan": fan, "hum": hum, "car": car, "crackle": crackle}[kind](rng, n)
    else:
        x = coloured(rng, n, {"white": 0.0, "pink": 1.0, "brown": 2.0}[kind]
                     + rng.uniform(-0.3, 0.3))
    if rng.random() < 0.5:
        x = swell(rng, x, rng.uniform(1, 4))
    return x / rms(x)


def shaped(x, attack=0.004):
    """Fade both ends over `attack` seconds."""
    n = min(len(x) // 2, int(attack * RATE))
    ramp = np.linspace(0, 1, n, endpoint=False)
    x = x.copy()
    x[:n] *= ramp
    x[len(x) - n:] *= ramp[::-1]
    return x


def tone_burst(rng):
    """A beep, a telephone key, a ring, a sweep or a chime, peak about 1."""
    kind = rng.choice(["beep", "dtmf", "ring", "sweep", "chime", "pulse"])
    n = int(rng.uniform(0.04, 0.7) * RATE)
    t = np.arange(n) / RATE
    if kind == "dtmf":
        x = 0.5 * np.sin(2 * np.pi * rng.choice(DTMF_LOW) * t) \
            + 0.5 * np.sin(2 * np.pi * rng.choice(DTMF_HIGH) * t)
    elif kind == "ring":
        t = np.arange(int(rng.uniform(0.4, 2.0) * RATE)) / RATE
        x = np.sin(2 * np.pi * rng.uniform(300, 500) * t) \
            * (1 + rng.uniform(0, 1) * np.sign(np.sin(2 * np.pi * rng.uniform(15, 30) * t))) / 2
    elif kind == "sweep":
        low, high = np.exp(rng.uniform(np.log(150), np.log(3700), 2))
        x = np.sin(2 * np.pi * np.cumsum(np.linspace(low, high, n)) / RATE)
    elif kind == "chime":
        t = np.arange(int(rng.uniform(0.3, 1.5) * RATE)) / RATE
        base = np.exp(rng.uniform(np.log(200), np.log(2000)))
        x = sum(rng.uniform(0.1, 0.6) * np.sin(2 * np.pi * min(base * k, 3900) * t)
                * np.exp(-t * rng.uniform(2, 15)) for k in (1, 2, 2.76, 4.1))
    elif kind == "pulse":
        base = np.exp(rng.uniform(np.log(100), np.log(800)))
        x = np.sign(np.sin(2 * np.pi * base * t)) * 0.6
    else:
        x = np.sin(2 * np.pi * np.exp(rng.uniform(np.log(200), np.log(3800))) * t)
        if rng.random() < 0.3:
            x = (x + np.sin(2 * np.pi * np.exp(rng.uniform(np.log(200), np.log(3800))) * t)) / 2
    return shaped(x)


def tones(rng, n):
    """A track of tone bursts: repeated, varied or dialled."""
    x = np.zeros(n)
    at = int(rng.uniform(0, 1.0) * RATE)
    burst = tone_burst(rng)
    vary, gap = rng.random() < 0.6, rng.uniform(0.04, 1.5)
    while at + len(burst) < n:
        x[at:at + len(burst)] += burst
        at += len(burst) + int(gap * RATE * rng.uniform(0.7, 1.3))
        if vary:
            burst = tone_burst(rng)
        if rng.random() < 0.08:
            at += int(rng.uniform(1, 5) * RATE)
    return x


def room(rng, x):
    """Light reverberation: a decaying noise tail behind the direct sound."""
    decay = rng.uniform(0.08, 0.6)
    n = int(decay * RATE)
    tail = rng.standard_normal(n) * 10 ** (-3 * np.arange(n) / n)
    tail[:int(rng.uniform(0.002, 0.02) * RATE)] = 0
    tail *= 10 ** (-rng.uniform(2, 15) / 20) / np.sqrt(np.sum(tail ** 2) + 1e-12)
    tail[0] = 1.0
    return fftconvolve(x, tail)[:len(x)]


def channel(rng, x):
    """Random band limits and tilt, as microphones and telephones have."""
    if rng.random() < 0.4:
        x = sosfilt(butter(rng.integers(1, 4), rng.uniform(60, 400), "high", fs=RATE,
                           output="sos"), x)
    if rng.random() < 0.4:
        x = sosfilt(butter(rng.integers(2, 6), rng.uniform(2000, 3800), "low", fs=RATE,
                           output="sos"), x)
    if rng.random() < 0.4:
        x = lfilter([1.0, rng.uniform(-0.6, 0.6)], [1.0], x)
    return x


def like(rng, power, n):
    """Gaussian noise with a given power spectrum (256-point transform, 129 values)."""
    response = np.fft.fftshift(np.fft.irfft(np.sqrt(power))) * np.hanning(256)
    return lfilter(response, [1.0], rng.standard_normal(n + 256))[256:]
