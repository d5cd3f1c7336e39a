"""Sounds made by formula at 16 kHz: steady noises, engines, water, tones, tunes, rooms."""
import numpy as np
from scipy.signal import butter, fftconvolve, lfilter, sosfilt

RATE = 16000
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
        length = rng.integers(16, 400)
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


def engine(rng, n):
    """Firing pulses of a motor, speed and load wandering."""
    knots = max(2, int(n / RATE * rng.uniform(0.3, 2)))
    speed = np.exp(np.interp(np.linspace(0, knots - 1, n), np.arange(knots),
                             np.log(rng.uniform(15, 120)) + rng.normal(0, 0.25, knots)))
    phase = np.cumsum(speed) / RATE
    x = 0.1 * coloured(rng, n, 1.0)
    for harmonic in range(1, 40):
        x += rng.lognormal(0, 0.6) / harmonic ** rng.uniform(0.5, 1.2) * np.sin(
            2 * np.pi * harmonic * phase + rng.uniform(0, 6.3)) * (speed * harmonic < 7500)
    return x / rms(x)


def water(rng, n):
    """A stream or rain: many bubbles, each a short rising tone, over a rush."""
    x = np.zeros(n)
    low = np.exp(rng.uniform(np.log(200), np.log(1500)))
    for at in rng.integers(0, n, rng.poisson(10 ** rng.uniform(0.8, 2.3) * n / RATE)):
        t = np.arange(int(rng.uniform(0.005, 0.08) * RATE)) / RATE
        tone = low * rng.lognormal(0.5, 0.6) * (1 + rng.uniform(0, 8) * t)
        drop = np.sin(2 * np.pi * np.cumsum(np.minimum(tone, 7000)) / RATE) \
            * np.exp(-t * rng.uniform(30, 200)) * rng.lognormal(0, 0.8)
        x[at:at + len(t)] += drop[:n - at]
    return x / rms(x) + rng.uniform(0.02, 1.0) * coloured(rng, n, rng.uniform(0, 1.5))


def wind(rng, n):
    """Gusts: low noise whose level and whistle change."""
    x = swell(rng, coloured(rng, n, rng.uniform(1.5, 2.5)), 8.0)
    low = rng.uniform(150, 900)
    return x + swell(rng, sosfilt(butter(2, [low, low * 1.5], "band", fs=RATE, output="sos"),
                                  rng.standard_normal(n)), 6.0) * rng.uniform(0, 1.5)


def ticking(rng, n):
    """A clock, a metronome, a machine's stroke: one short sound at an even pace."""
    x, kinds = np.zeros(n), []
    for _ in range(rng.integers(1, 4)):
        length = int(rng.uniform(0.005, 0.15) * RATE)
        t = np.arange(length) / RATE
        noise = rng.standard_normal(length) * rng.uniform(0, 1)
        tone = sum(np.sin(2 * np.pi * f * t) for f in rng.uniform(150, 5000, 3))
        kinds.append((noise + tone) * np.exp(-t * rng.uniform(30, 300)))
    period = rng.uniform(0.08, 1.2)
    for number, at in enumerate(np.arange(0, n / RATE, period)):
        stroke = kinds[number % len(kinds)]
        first = int((at + rng.normal(0, 0.003)) * RATE)
        if 0 <= first < n:
            x[first:first + len(stroke)] += stroke[:n - first]
    return x / rms(x) + rng.uniform(0.001, 0.1) * rng.standard_normal(n)


MACHINES = {"fan": fan, "hum": hum, "car": car, "crackle": crackle, "engine": engine,
            "water": water, "wind": wind, "ticking": ticking}


def tune(rng, n):
    """Notes and chords of made-up instruments in a scale, perhaps with a beat."""
    x = np.zeros(n)
    scale = 110 * 2 ** (rng.integers(0, 12) / 12) * 2 ** (
        np.concatenate([np.array([0, 2, 3 + rng.integers(2), 5, 7, 9, 10]) + 12 * k
                        for k in range(4)]) / 12)
    beat = rng.uniform(0.12, 0.6)
    for _ in range(rng.integers(1, 4)):
        strength = rng.lognormal(0, 0.5, 24) / np.arange(1, 25) ** rng.uniform(0.3, 2.0)
        strength[1::2] *= rng.choice([1.0, 0.1])  # hollow like a clarinet
        decay, attack = rng.choice([0.3, 2.0, 8.0]), rng.uniform(0.003, 0.08)
        depth, slide = rng.choice([0.0, 0.01, 0.02]), rng.uniform(4, 7)
        place = rng.integers(0, len(scale))
        at = 0.0
        while at < n / RATE:
            place = int(np.clip(place + rng.integers(-3, 4), 0, len(scale) - 1))
            lasts = beat * rng.choice([1, 1, 2, 3])
            t = np.arange(int(lasts * rng.uniform(0.6, 1.2) * RATE)) / RATE
            for pitch in [scale[place]] if rng.random() < 0.7 else \
                    scale[[place, (place + 2) % 28, (place + 4) % 28]]:
                phase = 2 * np.pi * np.cumsum(
                    pitch * (1 + depth * np.sin(2 * np.pi * slide * t))) / RATE
                wave = sum(s * np.sin((k + 1) * phase) for k, s in enumerate(strength)
                           if pitch * (k + 1) < 7800)
                note = shaped(wave * np.exp(-t * decay), attack)
                first = int(at * RATE)
                x[first:first + len(note)] += note[:max(0, n - first)]
            at += lasts if rng.random() < 0.85 else 2 * lasts
    x /= rms(x)
    if rng.random() < 0.5:
        x += ticking(rng, n) * rng.uniform(0.2, 1.0)
    return x


def stationary(rng, n):
    """One of the steady noises at rms 1."""
    kind = rng.choice(["white", "pink", "brown", "band", *MACHINES])
    if kind == "band":
        low = np.exp(rng.uniform(np.log(60), np.log(4000)))
        x = sosfilt(butter(2, [low, min(7800, low * rng.uniform(1.2, 8))], "band", fs=RATE,
                           output="sos"), rng.standard_normal(n))
    elif kind in MACHINES:
        x = MACHINES[kind](rng, n)
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
    """(samples, kind): a beep, a telephone key, a ring, a sweep or a chime, peak about 1."""
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
        low, high = np.exp(rng.uniform(np.log(150), np.log(6000), 2))
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
        if rng.random() < 0.2:
            t = np.arange(int(rng.uniform(0.5, 2.5) * RATE)) / RATE
        x = np.sin(2 * np.pi * np.exp(rng.uniform(np.log(200), np.log(3800))) * t)
        if rng.random() < 0.3:
            x = (x + np.sin(2 * np.pi * np.exp(rng.uniform(np.log(200), np.log(3800))) * t)) / 2
    return shaped(x), kind


def tones(rng, n):
    """(samples, [(first sample, end, kind)]): tone bursts, repeated, varied or dialled."""
    x, places = np.zeros(n), []
    at = int(rng.uniform(0, 1.0) * RATE)
    burst, kind = tone_burst(rng)
    vary, gap = rng.random() < 0.6, rng.uniform(0.04, 1.5)
    while at + len(burst) < n:
        x[at:at + len(burst)] += burst
        places.append((at, at + len(burst), str(kind)))
        at += len(burst) + int(gap * RATE * rng.uniform(0.7, 1.3))
        if vary:
            burst, kind = tone_burst(rng)
        if rng.random() < 0.08:
            at += int(rng.uniform(1, 5) * RATE)
    return x, places


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
    if rng.random() < 0.5:
        x = sosfilt(butter(rng.integers(2, 7), np.exp(rng.uniform(np.log(2000), np.log(7800))),
                           "low", fs=RATE, output="sos"), x)
    if rng.random() < 0.4:
        x = lfilter([1.0, rng.uniform(-0.6, 0.6)], [1.0], x)
    return x


def like(rng, power, n):
    """Gaussian noise with a given power spectrum (512-point transform, 257 values)."""
    response = np.fft.fftshift(np.fft.irfft(np.sqrt(power))) * np.hanning(512)
    return fftconvolve(rng.standard_normal(n + 512), response)[512:512 + n]
