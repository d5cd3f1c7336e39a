"""The same answer everywhere: bundled models over hours of audio, one build against the others.

    python3 tests/answers.py HOURS SAMPLES-8K SAMPLES-16K BUILD ...

SAMPLES are raw 16-bit PCM (build/training/heldout8.s16 and heldout.s16 of `make quality`), of which
HOURS in minutes spread evenly are taken for each rate; BUILD are folders of presets, the first one the
reference. An hour takes an emulated processor some ten minutes for each rate. Says how many frames have another state or status,
how far the score of those is from the threshold, and whether utterances and audio differ.
"""
import concurrent.futures
import os
import subprocess
import sys

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
EMULATORS = {"armhf": ["qemu-arm", "-cpu", "cortex-a7", "-L", "/"],
             "arm64": ["qemu-aarch64", "-L", "/"]}
THRESHOLD = 0.2
FRAME = np.dtype([("state", "u1"), ("status", "u1"), ("score", "<f4")])
UTTERANCE = np.dtype([("mark", "u1"), ("frames", "<i4", 4), ("digest", "<u8")])


def spread_minutes(path, rate, hours):
    """Minutes of the recording, evenly spread, that make up so many hours, as bytes."""
    minutes = np.memmap(path, np.int16, "r")
    minutes = minutes[:len(minutes) // (60000 * rate) * 60000 * rate].reshape(-1, 60000 * rate)
    count = min(len(minutes), round(60 * hours))
    return minutes[np.arange(count) * len(minutes) // count].tobytes()


def answers(build, rate, samples):
    """(frames [n] of FRAME, utterances [m] of UTTERANCE)."""
    emulator = EMULATORS.get(os.path.basename(build).split("-")[0], [])
    data = subprocess.run([*emulator, os.path.join(build, "tests", "answers"),
                           os.path.join(ROOT, "models", f"vad{rate}k.bin")],
                          input=samples, stdout=subprocess.PIPE, check=True).stdout
    frames, utterances, at = [], [], 0
    while at < len(data):
        if data[at] == 255:
            utterances.append(data[at:at + UTTERANCE.itemsize])
            at += UTTERANCE.itemsize
        else:
            frames.append(data[at:at + FRAME.itemsize])
            at += FRAME.itemsize
    return (np.frombuffer(b"".join(frames), FRAME),
            np.frombuffer(b"".join(utterances), UTTERANCE))


def main():
    if len(sys.argv) < 6:
        sys.exit(__doc__)
    builds, different = sys.argv[4:], 0
    pool = concurrent.futures.ThreadPoolExecutor(os.cpu_count())
    for rate, path in zip((8, 16), sys.argv[2:4]):
        samples = spread_minutes(path, rate, float(sys.argv[1]))
        (frames, utterances), *rest = pool.map(lambda build: answers(build, rate, samples), builds)
        print(f"{rate} kHz, {builds[0]}: {len(frames)} frames, {len(utterances)} ends of utterances",
              flush=True)
        for build, (others, ends) in zip(builds[1:], rest):
            if len(others) != len(frames) or len(ends) != len(utterances):
                print(f"{rate} kHz, {build}: {len(others)} frames, {len(ends)} ends")
                different += 1
                continue
            wrong = (others["state"] != frames["state"]) | (others["status"] != frames["status"])
            distance = np.abs(frames["score"][wrong] - THRESHOLD).min(initial=np.inf)
            score = np.abs(others["score"] - frames["score"]).max(initial=0)
            print(f"{rate} kHz, {build}: {wrong.sum()} frames differ"
                  + (f" (nearest score {distance:.1e} from the threshold)" if wrong.any() else "")
                  + f", {(ends != utterances).sum()} utterances or their audio, scores by at most "
                  f"{score:.1e}", flush=True)
            different += wrong.any() or (ends != utterances).any()
    sys.exit(1 if different else 0)


if __name__ == "__main__":
    main()
