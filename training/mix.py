"""Scenes of speech, noise, music and synthetic sounds with a mark per frame.

A scene is SCENE seconds long. The set is written as one file of 16-bit samples at 16 kHz and one
at 8 kHz, scene after scene, a file of marks (one byte per 10 ms, 1 where someone speaks) and a list
that says what each scene holds.
"""
import functools
import json
import multiprocessing
import os
import time

import numpy as np
from scipy.signal import resample_poly

import synth
from decode import load_clips
from label import label, runs
from progress import progress

RATE = 16000
SHIFT = RATE // 100
SCENE = 30  # seconds
FRAMES = 100 * SCENE
MARGIN = 10  # frames kept around the speech of a clip
# (up, down), which moves pitch and formants as well: other voices from the same recordings
SPEEDS = ((1, 1), (1, 1), (1, 1), (10, 9), (10, 11), (20, 19), (20, 21), (8, 7), (7, 8), (5, 6))
NOISE_SPEEDS = ((1, 1), (1, 1), (3, 2), (4, 3), (6, 5), (8, 9), (5, 6), (3, 4), (2, 3))
OWN, OWN_SHARE = "own", 0.4  # what a user's own voices and noises are called, and their share
REVERBERANT = {"fillets-ng-data-cs": 25.0}  # packages whose clips carry their own room


class Pool:
    """Clips in groups, drawn so that no group dominates: in proportion to the root of its size."""

    def __init__(self, groups, size):
        names = sorted(groups)
        self.groups = [groups[name] for name in names]
        share = np.sqrt([sum(map(size, clips)) for clips in self.groups])
        share /= max(share.sum(), 1e-9)
        own = np.array([name.startswith(OWN) for name in names], bool)
        if own.any() and not own.all():
            share[own] *= OWN_SHARE / share[own].sum()
            share[~own] *= (1 - OWN_SHARE) / share[~own].sum()
        self.share = share

    def group(self, rng):
        return self.groups[rng.choice(len(self.groups), p=self.share)]

    def clip(self, rng):
        clips = self.group(rng)
        return clips[rng.integers(len(clips))]


class Sources:
    """The clips of one split, from one or more work folders."""

    def __init__(self, works, held_out):
        self.varied = not held_out  # measure on sounds as they were recorded
        kinds = {kind: {} for kind in ("speech", "effects", "machines", "music", "crowd")}
        for work in works:
            records, samples = load_clips(work)
            for record in records:
                if record["held_out"] != held_out:
                    continue
                kind = record["kind"]
                if kind == "noise":
                    kind = record["voice"] or "effects"
                name = record["voice"] if kind == "speech" else record["package"]
                kinds[kind].setdefault(name, []).append(dict(record, samples=samples))
        self.voices = Pool(kinds["speech"], lambda clip: clip["length"])
        self.noise = {kind: Pool(kinds[kind], lambda clip: 1) for kind in kinds if kind != "speech"}

    @staticmethod
    def load(record):
        start = record["start"]
        return record["samples"][start:start + record["length"]].astype(np.float32)

    def vary(self, rng, clip):
        """Another sound from the same recording: faster, slower, backwards. Not for speech."""
        if not self.varied:
            return clip
        up, down = NOISE_SPEEDS[rng.integers(len(NOISE_SPEEDS))]
        if up != down:
            clip = resample_poly(clip, up, down).astype(np.float32)
        return clip[::-1].copy() if rng.random() < 0.3 else clip


def active_rms(x):
    """Level of the louder part of a signal: the rms of the 100 ms blocks within 20 dB of the top."""
    blocks = x[:len(x) // 1600 * 1600].reshape(-1, 1600) if len(x) >= 1600 else x[None, :]
    power = np.mean(blocks.astype(np.float64) ** 2, axis=1)
    loud = power[power >= power.max() * 0.01]
    return float(np.sqrt(loud.mean() + 1e-9))


def quiet_spectrum(clip, marks):
    """Power spectrum of what a recording holds between its words, None when there is nothing."""
    quiet = [clip[SHIFT * f:SHIFT * f + 512] for f in np.flatnonzero(~marks)
             if SHIFT * f + 512 <= len(clip)]
    if len(quiet) < 5:
        return None
    power = np.abs(np.fft.rfft(np.array(quiet) * np.hanning(512), axis=1)) ** 2
    return np.median(power, axis=0) / np.sum(np.hanning(512) ** 2)


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
    voice, tone = sources.voices.group(rng), None
    level = 1000.0
    at = int(draw_gap(rng) * RATE) // SHIFT * SHIFT
    while True:
        if rng.random() < 0.08:
            voice = sources.voices.group(rng)
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
            if at + 800 >= n:
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


def clip_bed(kind, rng, sources, n):
    """A track of noise recordings: a long one looped, or short ones scattered."""
    bed = np.zeros(n, np.float32)
    choices = []
    for _ in range(rng.integers(1, 4)):
        clip = sources.vary(rng, sources.load(sources.noise[kind].clip(rng)))
        if len(clip) > n:
            start = rng.integers(len(clip) - n)
            clip = clip[start:start + n]
        choices.append(clip)
    dense = rng.random() < 0.6
    at = 0
    while at < n:
        clip = choices[rng.integers(len(choices))]
        clip = synth.shaped(clip / max(active_rms(clip), 1.0), 0.01)
        end = min(n, at + len(clip))
        bed[at:end] += clip[:end - at] * 10 ** (rng.normal(0, 3) / 20)
        overlap = min(len(clip) // 4, RATE // 4)
        at = end - overlap if dense else end + int(rng.exponential(1.0) * RATE)
        if end == n:
            break
    return bed


def music_bed(rng, sources, n):
    if sources.varied and rng.random() < 0.2:
        return synth.tune(rng, n)
    clip = sources.load(sources.noise["music"].clip(rng))
    longest = 2 * n  # before the speed is changed
    if len(clip) > longest:
        start = rng.integers(len(clip) - longest)
        clip = clip[start:start + longest]
    return np.resize(sources.vary(rng, clip), n)


def babble(rng, sources, n):
    """Many voices at once, a crowd: nobody in particular speaks."""
    bed = np.zeros(n, np.float32)
    if sources.noise["crowd"].groups and rng.random() < 0.15:
        clip = sources.load(sources.noise["crowd"].clip(rng))
        return np.resize(sources.vary(rng, clip), n)
    for _ in range(rng.integers(7, 14) if not sources.varied else rng.integers(6, 25)):
        at, voice = -int(rng.uniform(0, 2) * RATE), sources.voices.group(rng)
        level = rng.lognormal(0, 0.3)
        while at < n:
            clip = sources.load(voice[rng.integers(len(voice))])
            clip = clip / max(active_rms(clip), 1.0) * level * rng.uniform(0.7, 1.0)
            begin, end = max(at, 0), min(n, at + len(clip))
            if end > begin:
                bed[begin:end] += clip[begin - at:end - at]
            at += len(clip) + int(rng.exponential(0.2) * RATE)
    return synth.room(rng, bed)


BEDS = {
    "steady": lambda rng, sources, n: synth.stationary(rng, n),
    "effects": functools.partial(clip_bed, "effects"),
    "machines": functools.partial(clip_bed, "machines"),
    "music": music_bed,
    "tones": lambda rng, sources, n: synth.tones(rng, n)[0],
    "crowd": babble,
}


def background(rng, sources, n, kind):
    bed = BEDS[kind](rng, sources, n)
    bed = synth.channel(rng, bed)
    if kind in ("effects", "machines", "music") and rng.random() < 0.3:
        bed = synth.room(rng, bed)
    return bed / max(active_rms(bed), 1e-3)


def to_int16(x, peak_db, clipping=0.0, alias=False):
    """Samples at both rates, scaled to a peak level in dB full scale.

    clipping: dB above full scale that is cut off. alias: the 8 kHz version keeps every second sample
    and what lies above 4 kHz folds down, as in a session that gets 16 kHz audio.
    """
    gain = 32767.0 * 10 ** ((peak_db + clipping) / 20) / max(np.abs(x).max(), 1e-6)
    limit = 32767.0 * 10 ** (peak_db / 20)
    narrow = x[::2] if alias else resample_poly(x, 1, 2)
    return [np.round(np.clip(y * gain, -limit, limit)).astype(np.int16) for y in (x, narrow)]


def draw_peak(rng):
    return rng.uniform(-60, 0) if rng.random() < 0.4 else rng.uniform(-28, 0)


def training_scene(rng, sources):
    """(samples at both rates, marks, description) with everything random."""
    n = SCENE * RATE
    about = {}
    if rng.random() < 0.6:
        track, marks = speech_track(rng, sources, n)
        if rng.random() < 0.35:
            track = synth.room(rng, track)
        mixture = synth.channel(rng, track)
        kinds = [rng.choice(["steady", "effects", "machines", "music", "crowd", "none"],
                            p=[0.32, 0.26, 0.10, 0.19, 0.04, 0.09])]
        about["snr"] = snr = rng.uniform(-5, 20) if rng.random() < 0.6 else rng.uniform(10, 45)
        speech = active_rms(mixture)
        if kinds[0] != "none":
            mixture = mixture + background(rng, sources, n, kinds[0]) * speech * 10 ** (-snr / 20)
        if rng.random() < 0.15:
            kinds.append("tones")
            mixture = mixture + BEDS["tones"](rng, sources, n) * speech * 10 ** (
                rng.uniform(-10, 12) / 20)
        if rng.random() < 0.5:
            kinds.append("steady")
            mixture = mixture + synth.stationary(rng, n) * speech * 10 ** (
                -rng.uniform(max(snr, 10), 55) / 20)
    else:
        marks = np.zeros(FRAMES, bool)
        kinds = [rng.choice(list(BEDS), p=[0.12, 0.28, 0.12, 0.27, 0.16, 0.05])]
        mixture = background(rng, sources, n, kinds[0])
        if rng.random() < 0.5:
            kinds.append(rng.choice(["steady", "effects", "machines"]))
            mixture = mixture + background(rng, sources, n, kinds[1]) * 10 ** (
                rng.uniform(-40, 0) / 20)
    about["kinds"] = list(map(str, kinds))
    clipping = rng.uniform(1, 12) if rng.random() < 0.06 else 0.0
    return to_int16(mixture, draw_peak(rng), clipping, rng.random() < 0.1), marks, about


PLAN = ("clean", 20, 10, 5, 0, -5, "quiet", "effects", "machines", "music", "crowd", "tones",
        "steady", "music")


def held_out_scene(rng, sources, number):
    """Scenes on a grid: clean, five signal-to-noise ratios, and sounds without speech."""
    n = SCENE * RATE
    what = PLAN[number % len(PLAN)]
    about = {"group": str(what)}
    if what in BEDS:
        if what == "tones":
            mixture, places = synth.tones(rng, n)
            mixture = mixture + synth.coloured(rng, n, 1.0) * 10 ** (-rng.uniform(15, 40) / 20)
            about["tones"] = [(first // SHIFT, -(-end // SHIFT), kind)
                              for first, end, kind in places]
        else:
            mixture = background(rng, sources, n, what)
        return to_int16(mixture, rng.uniform(-30, -3)), np.zeros(FRAMES, bool), about
    track, marks = speech_track(rng, sources, n, augment=False)
    speech = active_rms(track)
    mixture = track + synth.coloured(rng, n, 1.0) * speech * 10 ** (-rng.uniform(35, 45) / 20)
    if isinstance(what, int):
        # No crowd: where one is as loud as the speaker, the marks of one voice mean little.
        kind = ("steady", "effects", "music", "machines")[number // len(PLAN) % 4]
        mixture = mixture + background(rng, sources, n, kind) * speech * 10 ** (-what / 20)
    return to_int16(mixture, -60.0 if what == "quiet" else rng.uniform(-25, -3)), marks, about


class Job:
    """Makes scene after scene of a set in a process of its own."""

    sources = None

    @classmethod
    def begin(cls, works, held_out, seed):
        cls.sources, cls.seed = Sources(works, held_out), seed

    @classmethod
    def scene(cls, number):
        rng = np.random.default_rng([cls.seed, number])
        if cls.sources.varied:
            return training_scene(rng, cls.sources)
        return held_out_scene(rng, cls.sources, number)


def mix(work, name, scenes, seed, works=()):
    """Write work/NAME.s16 (16 kHz), NAME8.s16 (8 kHz), .marks and .json; done once.

    The clips come from the folders `works`, from work itself by default. A name that begins with
    "heldout" is made of the held-out ones.
    """
    listing = os.path.join(work, name + ".json")
    if os.path.exists(listing):
        return
    Job.begin(works or [work], name.startswith("heldout"), seed)  # inherited by the processes
    abouts, begun = [], time.time()
    with open(os.path.join(work, name + ".s16"), "wb") as wide, \
            open(os.path.join(work, name + "8.s16"), "wb") as narrow, \
            open(os.path.join(work, name + ".marks"), "wb") as truth, \
            multiprocessing.Pool() as pool:
        for samples, marks, about in pool.imap(Job.scene, range(scenes), 4):
            samples[0].tofile(wide)
            samples[1].tofile(narrow)
            marks.astype(np.uint8).tofile(truth)
            abouts.append(about)
            progress(f"mix {name}", len(abouts), scenes, begun)
    Job.sources = None
    with open(listing + ".partial", "w") as file:
        json.dump(abouts, file)
    os.replace(listing + ".partial", listing)
