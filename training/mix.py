"""Scenes of speech, noise, music and synthetic sounds with a mark per frame.

A scene is SCENE seconds long. The set is written as one file of 16-bit samples, scene after
scene, a file of marks (one byte per 10 ms, 1 where someone speaks) and a list that says what
each scene holds.
"""
import json
import os

import numpy as np
from scipy.signal import resample_poly

import synth
from decode import load_clips
from label import SHIFT, label, runs

RATE = 8000
SCENE = 30  # seconds
MARGIN = 10  # frames kept around the speech of a clip
SPEEDS = ((1, 1), (1, 1), (10, 9), (10, 11), (20, 19), (20, 21))  # (up, down)
NOISE_SPEEDS = ((1, 1), (1, 1), (3, 2), (4, 3), (6, 5), (8, 9), (5, 6), (3, 4), (2, 3))
REVERBERANT = {"fillets-ng-data-cs": 25.0}  # packages whose clips carry their own room


class Sources:
    """The clips of one split, by kind, drawn so that no single package dominates."""

    def __init__(self, work, held_out):
        self.varied = not held_out  # measure on sounds as they were recorded
        records, self.samples = load_clips(work)
        records = [r for r in records if r["held_out"] == held_out]
        self.voices, self.noise, self.music = {}, {}, []
        for record in records:
            if record["kind"] == "speech":
                self.voices.setdefault(record["voice"], []).append(record)
            elif record["kind"] == "noise":
                self.noise.setdefault(record["package"], []).append(record)
            else:
                self.music.append(record)
        self.voice_names = sorted(self.voices)
        seconds = np.array([sum(r["length"] for r in self.voices[v]) for v in self.voice_names])
        self.voice_weights = np.sqrt(seconds) / np.sqrt(seconds).sum()
        self.noise_names = sorted(self.noise)
        counts = np.array([len(self.noise[p]) for p in self.noise_names], float)
        self.noise_weights = np.sqrt(counts) / np.sqrt(counts).sum()

    def load(self, record):
        start = record["start"]
        return self.samples[start:start + record["length"]].astype(np.float32)

    def vary(self, rng, clip):
        """Another sound from the same recording: faster, slower, backwards. Not for speech."""
        if not self.varied:
            return clip
        up, down = NOISE_SPEEDS[rng.integers(len(NOISE_SPEEDS))]
        if up != down:
            clip = resample_poly(clip, up, down).astype(np.float32)
        return clip[::-1].copy() if rng.random() < 0.3 else clip

    def voice(self, rng):
        return self.voices[rng.choice(self.voice_names, p=self.voice_weights)]

    def noise_clip(self, rng):
        clips = self.noise[rng.choice(self.noise_names, p=self.noise_weights)]
        return clips[rng.integers(len(clips))]


def active_rms(x):
    """Level of the louder part of a signal: the rms of the 100 ms blocks within 20 dB of the top."""
    blocks = x[:len(x) // 800 * 800].reshape(-1, 800) if len(x) >= 800 else x[None, :]
    power = np.mean(blocks.astype(np.float64) ** 2, axis=1)
    loud = power[power >= power.max() * 0.01]
    return float(np.sqrt(loud.mean() + 1e-9))


def quiet_spectrum(clip, marks):
    """Power spectrum of what a recording holds between its words, None when there is nothing."""
    quiet = [clip[SHIFT * f:SHIFT * f + 256] for f in np.flatnonzero(~marks)
             if SHIFT * f + 256 <= len(clip)]
    if len(quiet) < 5:
        return None
    power = np.abs(np.fft.rfft(np.array(quiet) * np.hanning(256), axis=1)) ** 2
    return np.median(power, axis=0) / np.sum(np.hanning(256) ** 2)


def draw_gap(rng):
    """Seconds between two clips."""
    pick = rng.random()
    if pick < 0.55:
        return rng.uniform(0.05, 0.8)
    return rng.uniform(0.8, 2.5) if pick < 0.88 else rng.uniform(2.5, 7.0)


def speech_track(rng, sources, n, augment=True):
    """(samples at an active level of about 1000, marks): clips of a voice or two with pauses."""
    track, marks = np.zeros(n, np.float32), np.zeros(n // SHIFT, bool)
    covered = np.zeros(n, bool)
    voice, tone = sources.voice(rng), None
    level = 1000.0
    at = int(draw_gap(rng) * RATE) // SHIFT * SHIFT
    while True:
        if rng.random() < 0.08:
            voice = sources.voice(rng)
            level = 1000.0 * 10 ** (rng.normal(0, 2) / 20)
        record = voice[rng.integers(len(voice))]
        clip = sources.load(record)
        if augment:
            up, down = SPEEDS[rng.integers(len(SPEEDS))]
            if up != down:
                clip = resample_poly(clip, up, down).astype(np.float32)
        spoken = label(clip, REVERBERANT.get(record["package"], 32.0))
        if not spoken.any():
            at += SHIFT
            if at + 400 >= n:
                break
            continue
        gain = level * 10 ** (rng.normal(0, 1.5) / 20) / synth.rms(
            clip[:len(spoken) * SHIFT].reshape(-1, SHIFT)[spoken])
        power = quiet_spectrum(clip, spoken)
        if power is not None:
            tone = power * gain ** 2
        where = np.flatnonzero(spoken)
        first, last = max(0, where[0] - MARGIN), min(len(spoken), where[-1] + 1 + MARGIN)
        piece = synth.shaped(clip[first * SHIFT:last * SHIFT] * gain, 0.015)
        if at + len(piece) > n:
            break
        track[at:at + len(piece)] += piece
        covered[at:at + len(piece)] = True
        marks[at // SHIFT:at // SHIFT + last - first] |= spoken[first:last]
        at += len(piece) + int(draw_gap(rng) * RATE) // SHIFT * SHIFT
    if tone is not None and rng.random() < 0.75:
        bed = synth.like(rng, tone, n)
        for start, end in runs(~covered):
            track[start:end] += bed[start:end]
    return track, marks


def clip_bed(rng, sources, n):
    """A track of noise recordings: a long one looped, or short ones scattered."""
    bed = np.zeros(n, np.float32)
    choices = [sources.vary(rng, sources.load(sources.noise_clip(rng)))
               for _ in range(rng.integers(1, 4))]
    dense = rng.random() < 0.6
    at = 0
    while at < n:
        clip = choices[rng.integers(len(choices))]
        clip = synth.shaped(clip[:n] / max(active_rms(clip), 1.0), 0.01)
        end = min(n, at + len(clip))
        bed[at:end] += clip[:end - at] * 10 ** (rng.normal(0, 3) / 20)
        overlap = min(len(clip) // 4, RATE // 4)
        at = end - overlap if dense else end + int(rng.exponential(1.0) * RATE)
        if end == n:
            break
    return bed


def music_bed(rng, sources, n):
    clip = sources.load(sources.music[rng.integers(len(sources.music))])
    longest = 2 * n  # before the speed is changed
    if len(clip) > longest:
        start = rng.integers(len(clip) - longest)
        clip = clip[start:start + longest]
    return np.resize(sources.vary(rng, clip), n)


def babble(rng, sources, n):
    """Many voices at once, a crowd: nobody in particular speaks."""
    bed = np.zeros(n, np.float32)
    for _ in range(rng.integers(7, 14)):
        at, voice = -int(rng.uniform(0, 2) * RATE), sources.voice(rng)
        while at < n:
            clip = sources.load(voice[rng.integers(len(voice))])
            clip = clip / max(active_rms(clip), 1.0) * rng.uniform(0.5, 1.0)
            begin, end = max(at, 0), min(n, at + len(clip))
            if end > begin:
                bed[begin:end] += clip[begin - at:end - at]
            at += len(clip) + int(rng.exponential(0.2) * RATE)
    return synth.room(rng, bed)


BEDS = {
    "stationary": lambda rng, sources, n: synth.stationary(rng, n),
    "noise": clip_bed,
    "music": music_bed,
    "tones": lambda rng, sources, n: synth.tones(rng, n),
    "babble": babble,
}


def background(rng, sources, n, kind):
    bed = BEDS[kind](rng, sources, n)
    bed = synth.channel(rng, bed)
    if kind in ("noise", "music") and rng.random() < 0.3:
        bed = synth.room(rng, bed)
    return bed / max(active_rms(bed), 1e-3)


def to_int16(rng, x, peak_db, clipping=0.0):
    """Scale to a peak level in dB full scale (clipping: dB above full scale that is cut off)."""
    gain = 32767.0 * 10 ** ((peak_db + clipping) / 20) / max(np.abs(x).max(), 1e-6)
    limit = 32767.0 * 10 ** (peak_db / 20)
    return np.round(np.clip(x * gain, -limit, limit)).astype(np.int16)


def draw_peak(rng):
    return rng.uniform(-60, 0) if rng.random() < 0.4 else rng.uniform(-28, 0)


def training_scene(rng, sources):
    """(samples, marks, description) with everything random."""
    n = SCENE * RATE
    about = {}
    if rng.random() < 0.62:
        track, marks = speech_track(rng, sources, n)
        if rng.random() < 0.35:
            track = synth.room(rng, track)
        mixture = synth.channel(rng, track)
        kinds = [rng.choice(["stationary", "noise", "music", "babble", "none"],
                            p=[0.34, 0.34, 0.17, 0.05, 0.10])]
        about["snr"] = snr = rng.uniform(-5, 30) if rng.random() < 0.85 else rng.uniform(25, 45)
        speech = active_rms(mixture)
        if kinds[0] != "none":
            mixture = mixture + background(rng, sources, n, kinds[0]) * speech * 10 ** (-snr / 20)
        if rng.random() < 0.15:
            kinds.append("tones")
            mixture = mixture + synth.tones(rng, n) * speech * 10 ** (rng.uniform(-10, 12) / 20)
        if rng.random() < 0.5:
            kinds.append("stationary")
            mixture = mixture + synth.stationary(rng, n) * speech * 10 ** (
                -rng.uniform(max(snr, 10), 55) / 20)
    else:
        marks = np.zeros(n // SHIFT, bool)
        kinds = [rng.choice(list(BEDS), p=[0.2, 0.36, 0.27, 0.11, 0.06])]
        mixture = background(rng, sources, n, kinds[0])
        if rng.random() < 0.5:
            kinds.append(rng.choice(["stationary", "noise"]))
            mixture = mixture + background(rng, sources, n, kinds[1]) * 10 ** (
                rng.uniform(-40, 0) / 20)
    about["kinds"] = list(map(str, kinds))
    clipping = rng.uniform(1, 12) if rng.random() < 0.06 else 0.0
    return to_int16(rng, mixture, draw_peak(rng), clipping), marks, about


def held_out_scene(rng, sources, number):
    """Scenes on a grid: clean, five signal-to-noise ratios, and speech-free sounds."""
    n = SCENE * RATE
    plan = ("clean", 20, 10, 5, 0, -5, "quiet", "noise", "music", "tones", "stationary", "babble")
    what = plan[number % len(plan)]
    if what in BEDS:
        mixture = background(rng, sources, n, what)
        if what == "tones":
            mixture += synth.coloured(rng, n, 1.0) * 10 ** (-rng.uniform(15, 40) / 20)
        return to_int16(rng, mixture, rng.uniform(-30, -3)), np.zeros(n // SHIFT, bool), \
            {"group": what}
    track, marks = speech_track(rng, sources, n, augment=False)
    speech = active_rms(track)
    mixture = track + synth.coloured(rng, n, 1.0) * speech * 10 ** (-rng.uniform(35, 45) / 20)
    if isinstance(what, int):
        kind = ("stationary", "noise", "music")[number // len(plan) % 3]
        mixture = mixture + background(rng, sources, n, kind) * speech * 10 ** (-what / 20)
    peak = -60.0 if what == "quiet" else rng.uniform(-25, -3)
    return to_int16(rng, mixture, peak), marks, {"group": str(what)}


def mix(work, name, scenes, seed):
    """Write work/NAME.s16, .marks and .json with `scenes` scenes; done once."""
    listing = os.path.join(work, name + ".json")
    if os.path.exists(listing):
        return
    held_out = name == "heldout"
    sources = Sources(work, held_out)
    abouts = []
    with open(os.path.join(work, name + ".s16"), "wb") as audio, \
            open(os.path.join(work, name + ".marks"), "wb") as truth:
        for number in range(scenes):
            rng = np.random.default_rng([seed, number])
            samples, marks, about = held_out_scene(rng, sources, number) if held_out \
                else training_scene(rng, sources)
            samples.tofile(audio)
            marks.astype(np.uint8).tofile(truth)
            abouts.append(about)
            if number % 100 == 99 or number == scenes - 1:
                print(f"mix {name} {number + 1}/{scenes}", flush=True)
    with open(listing, "w") as file:
        json.dump(abouts, file)
