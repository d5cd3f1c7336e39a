"""Puts the sample recordings together from the packages that the training pipeline unpacks.

    python3 samples/make_samples.py build/training/packages

Every utterance is a recording of its own; between them lie pauses that are filled with what the
same microphone, or the same place, sounds like when nobody speaks.
"""
import glob
import os
import subprocess
import sys

import numpy as np
import soundfile
from scipy.signal import resample_poly

HERE = os.path.dirname(os.path.abspath(__file__))


def find(packages, package, pattern):
    paths = glob.glob(os.path.join(glob.escape(packages), package, "**", pattern), recursive=True)
    if len(paths) != 1:
        sys.exit(f"{pattern}: {len(paths)} files in {package}")
    return paths[0]


def read(path, rate):
    """Mono samples at `rate`, full scale 1."""
    if path.endswith(".g722"):
        raw = subprocess.run(["ffmpeg", "-loglevel", "error", "-f", "g722", "-i", path,
                              "-f", "s16le", "-"], check=True, capture_output=True).stdout
        x, original = np.frombuffer(raw, "<i2") / 32768.0, 16000
    else:
        x, original = soundfile.read(path)
    if x.ndim > 1:
        x = x.mean(axis=1)
    common = np.gcd(rate, original)
    return resample_poly(x, rate // common, original // common) if rate != original else x


def crossfade(pieces, overlap):
    """Join pieces end to end, each `overlap` samples into the one before, at constant power."""
    ramp = np.sin(np.linspace(0, np.pi / 2, overlap))
    out = pieces[0].copy()
    for piece in pieces[1:]:
        piece = piece.copy()
        out[-overlap:] *= ramp[::-1]
        piece[:overlap] *= ramp
        out[-overlap:] += piece[:overlap]
        out = np.concatenate([out, piece[overlap:]])
    return out


def quiet_pieces(x, rate):
    """The stretches of at least 0.1 s in which a recording stays near its own noise floor.

    Judged above the rumble; breaths and the tails of words are louder than that.
    """
    block = rate // 100
    high = np.diff(x, prepend=x[0])
    level = np.sqrt(np.mean(high[:len(x) // block * block].reshape(-1, block) ** 2, axis=1))
    quiet = np.concatenate([[0], level < 1.8 * np.percentile(level, 5), [0]]).astype(int)
    edges = np.flatnonzero(np.diff(quiet)).reshape(-1, 2)
    return [x[start * block:end * block] for start, end in edges if end - start >= 10]


def road_signs(packages):
    """A Danish volunteer at a computer; hiss, fan and rumble are those of the recording."""
    rate, package = 8000, "tuxpaint-stamps-default"
    clips = [read(find(packages, package, name), rate)
             for name in ("stoplight_02_yellow_desc_da.ogg", "yield_desc_da.ogg",
                          "stoplight_03_green_desc_da.ogg")]
    room = []
    for path in sorted(glob.glob(os.path.join(glob.escape(packages), package, "**", "roadsigns",
                                              "*_desc_da.ogg"), recursive=True)):
        room += quiet_pieces(read(path, rate), rate)
    # Noise played backwards is noise that has not been heard before.
    tone = crossfade(room + [piece[::-1] for piece in room] + room[::-2], rate // 50)
    out, at = [], 0
    for clip, pause in zip(clips, (1.2, 1.5, 1.6)):
        out += [tone[at:at + int(pause * rate)], clip]
        at += int(pause * rate)
    out.append(tone[at:at + int(1.5 * rate)])
    soundfile.write(os.path.join(HERE, "roadsigns-8k.wav"), crossfade(out, rate // 50), rate,
                    subtype="PCM_16")


def stream(packages):
    """A French announcer beside a running stream, 15 dB below her."""
    rate = 16000
    clips = [read(find(packages, "asterisk-core-sounds-fr-g722", name), rate)
             for name in ("vm-tempgreeting2.g722", "queue-periodic-announce.g722")]
    water = crossfade([read(find(packages, "minetest-data", f"env_sounds_water.{n}.ogg"), rate)
                       for n in (1, 2, 3, 4)], rate // 2)
    out = [np.zeros(int(1.5 * rate))]
    for clip in clips:
        out += [clip, np.zeros(int(1.6 * rate))]
    voice = np.concatenate(out)
    if len(water) < len(voice):
        sys.exit("the stream is too short")
    water = water[2 * rate:]  # the recording fades in
    level = np.sqrt(np.mean(np.concatenate(clips) ** 2))
    water = water[:len(voice)]
    water = water / np.sqrt(np.mean(water ** 2)) * level * 10 ** (-15 / 20)
    mixture = voice + water
    soundfile.write(os.path.join(HERE, "stream-16k.wav"), 0.5 * mixture / np.abs(mixture).max(),
                    rate, subtype="PCM_16")


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    road_signs(sys.argv[1])
    stream(sys.argv[1])
