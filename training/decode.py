"""Turn every usable recording of the packages into 16 kHz mono 16-bit samples.

The result is one file of samples, clips.s16, and one list, clips.json, with a record per
recording: package, name, kind, voice, held_out, start and length (samples).
"""
import io
import json
import multiprocessing
import os
import re
import struct
import subprocess
import tempfile
import zipfile

import numpy as np
import soundfile
from scipy.signal import resample_poly

from corpora import PACKAGES, classify

RATE = 16000
LONGEST = 150  # seconds; longer recordings (music) are cut to their middle
AUDIO = re.compile(r"\.(g722|gsm|ogg|wav|flac|mp3|opus)$", re.I)
TELEPHONE = {".g722": ("g722", 16000), ".gsm": ("gsm", 8000)}  # headerless: ffmpeg format, rate
ARCHIVE = re.compile(r"\.(pk3|wz|zip)$", re.I)


def talkie_entries(data):
    """(name, bytes) of the files inside the adventure game's single data file.

    Big-endian: "QTBL", a six-byte version, two flags, the compression (1: MP3), a 16-bit entry
    count; then per entry a 12-byte name, a byte, and 32-bit offset and size.
    """
    count = struct.unpack(">H", data[13:15])[0]
    for index in range(count):
        name, _, offset, size = struct.unpack_from(">12sBII", data, 15 + 21 * index)
        yield name.split(b"\0")[0].decode("latin1"), data[offset:offset + size]


def recordings(package, root):
    """(path inside the package, callable that returns the bytes), sorted by path."""
    found = []
    for folder, _, files in os.walk(root):
        for name in files:
            path = os.path.join(folder, name)
            inside = "/" + os.path.relpath(path, root)
            if AUDIO.search(name):
                found.append((inside, lambda p=path: open(p, "rb").read()))
            elif ARCHIVE.search(name):
                archive = zipfile.ZipFile(path)
                found += [(inside + "/" + member, lambda a=archive, m=member: a.read(m))
                          for member in archive.namelist() if AUDIO.search(member)]
            elif name == "queen.1c":
                with open(path, "rb") as file:
                    found += [(inside + "/" + entry, lambda d=data: d)
                              for entry, data in talkie_entries(file.read())]
    return sorted(found)


def to_rate(samples, rate):
    """Mono 16-bit samples at RATE of float samples in -1..1, mono or [frames, channels]."""
    if samples.ndim > 1:
        samples = samples.mean(axis=1)
    if rate != RATE:
        common = np.gcd(RATE, rate)
        samples = resample_poly(samples, RATE // common, rate // common)
    return np.clip(np.round(samples * 32768), -32768, 32767).astype(np.int16)


def decode_telephone(blobs, kind):
    """Samples at RATE of headerless telephone recordings, many per ffmpeg run."""
    coding, rate = TELEPHONE[kind]
    out = []
    for start in range(0, len(blobs), 100):
        with tempfile.TemporaryDirectory() as folder:
            command = ["ffmpeg", "-loglevel", "error", "-nostdin"]
            outputs = []
            for number, blob in enumerate(blobs[start:start + 100]):
                name = os.path.join(folder, f"{number}{kind}")
                with open(name, "wb") as file:
                    file.write(blob)
                command += ["-f", coding, "-i", name]
                outputs += ["-map", f"{number}:a", "-f", "s16le", name + ".s16"]
            subprocess.run(command + outputs, check=True)
            out += [to_rate(np.fromfile(os.path.join(folder, f"{number}{kind}.s16"), "<i2")
                            / 32768.0, rate) for number in range(len(blobs[start:start + 100]))]
    return out


def decode_file(blob, longest=LONGEST):
    """Samples at RATE of a recording in any format that libsndfile reads: its middle `longest` s."""
    with soundfile.SoundFile(io.BytesIO(blob)) as file:
        most = longest * file.samplerate
        if file.frames > most:
            file.seek((file.frames - most) // 2)
        return to_rate(file.read(most, dtype="float32"), file.samplerate)


def decode_package(package, root):
    """[(record, samples)] of one package."""
    if not os.path.isdir(root):
        raise FileNotFoundError(f"{package} is not fetched")
    chosen = []
    for path, load in recordings(package, root):
        decision = classify(package, path)
        if decision:
            kind, voice, held_out = decision
            chosen.append(({"package": package, "name": path, "kind": kind, "voice": voice,
                            "held_out": held_out}, load))
    decoded = []
    for kind in TELEPHONE:
        some = [(record, load) for record, load in chosen if record["name"].endswith(kind)]
        samples = decode_telephone([load() for _, load in some], kind)
        decoded += [(record, x) for (record, _), x in zip(some, samples)]
    for record, load in chosen:
        if os.path.splitext(record["name"])[1] in TELEPHONE:
            continue
        try:
            decoded.append((record, decode_file(load())))
        except soundfile.LibsndfileError as error:
            print(f"  skipped {record['name']}: {error}")
    return [(record, samples) for record, samples in decoded if len(samples) >= RATE // 20]


def decode(work):
    """Write work/clips.s16 and work/clips.json unless they are there."""
    listing = os.path.join(work, "clips.json")
    if os.path.exists(listing):
        return
    records, position, seen = [], 0, set()
    jobs = [(package, os.path.join(work, "packages", package)) for package in PACKAGES]
    with open(os.path.join(work, "clips.s16"), "wb") as out, multiprocessing.Pool() as pool:
        for number, decoded in enumerate(pool.imap(decode_job, jobs), 1):
            before = position
            for record, samples in decoded:
                content = hash(samples.tobytes())
                if content in seen:  # packages share recordings, some under several names
                    continue
                seen.add(content)
                records.append(dict(record, start=position, length=len(samples)))
                samples.tofile(out)
                position += len(samples)
            print(f"decode {number}/{len(jobs)} {jobs[number - 1][0]}: "
                  f"{(position - before) / RATE / 60:.1f} min", flush=True)
    with open(listing + ".partial", "w") as file:
        json.dump(records, file, indent=0, ensure_ascii=False)
    os.rename(listing + ".partial", listing)


def decode_job(job):
    return decode_package(*job)


def load_clips(work):
    """(records, samples): the list and all samples, which are too scattered in use for a map."""
    with open(os.path.join(work, "clips.json")) as file:
        records = json.load(file)
    return records, np.fromfile(os.path.join(work, "clips.s16"), np.int16)
