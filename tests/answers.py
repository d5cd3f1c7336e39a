"""The same answer everywhere: bundled models over hours of audio, one build against the others.

    python3 tests/answers.py SAMPLES-8K SAMPLES-16K BUILD ...

SAMPLES are raw 16-bit PCM (build/training/heldout8.s16 and heldout.s16 of `make quality`); BUILD are
folders of presets, the first one the reference. Says how many frames have another state or status,
how far the score of those is from the threshold, and whether utterances and audio differ.
"""
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


def answers(build, rate, samples):
    """(frames [n] of FRAME, utterances [m] of UTTERANCE)."""
    emulator = EMULATORS.get(os.path.basename(build).split("-")[0], [])
    with open(samples, "rb") as audio:
        data = subprocess.run([*emulator, os.path.join(build, "tests", "answers"),
                               os.path.join(ROOT, "models", f"vad{rate}k.bin")],
                              stdin=audio, stdout=subprocess.PIPE, check=True).stdout
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
    if len(sys.argv) < 5:
        sys.exit(__doc__)
    builds, different = sys.argv[3:], 0
    for rate, samples in zip((8, 16), sys.argv[1:3]):
        frames, utterances = answers(builds[0], rate, samples)
        print(f"{rate} kHz, {builds[0]}: {len(frames)} frames, {len(utterances)} ends of utterances",
              flush=True)
        for build in builds[1:]:
            others, ends = answers(build, rate, samples)
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
