"""Measure a model file through the library on held-out voices, noises and music."""
import json
import os
import subprocess
import sys

import numpy as np
import soundfile

import features
import network
from export import read_model
from label import SHIFT, close_gaps, drop_blips, runs
from mix import BEDS, RATE, SCENE

PAUSE = 90  # frames of silence that end an utterance in a session with default parameters


def library_scores(work, model, name):
    """(posteriors, speech) per frame, every scene a stream of its own, by the library."""
    tools = features.build_tools(work)
    target = os.path.join(work, name + ".scores")
    subprocess.run([os.path.join(tools, "score_pcm"), model, os.path.join(work, name + ".s16"),
                    target, str(SCENE * RATE // SHIFT)], check=True)
    table = np.fromfile(target, np.float32).reshape(-1, network.CLASSES + 1)
    return table[:, :network.CLASSES], np.isin(table[:, network.CLASSES], (0, 3))


def auc(score, truth):
    """Area under the receiver operating curve, ties counted half."""
    values, inverse, counts = np.unique(score, return_inverse=True, return_counts=True)
    rank = (np.cumsum(counts) - (counts - 1) / 2)[inverse]
    positive = int(truth.sum())
    negative = len(truth) - positive
    return (rank[truth].sum() - positive * (positive + 1) / 2) / (positive * negative)


def f1(found, truth):
    return 2 * np.sum(found & truth) / max(1, found.sum() + truth.sum())


def session_starts(found):
    """How often a session would begin an utterance: onsets after more than PAUSE frames' rest."""
    pieces = runs(found)
    return len(pieces) and 1 + int(np.sum(pieces[1:, 0] - pieces[:-1, 1] > PAUSE))


def utterance_figures(found, truth):
    """[(onset delay or None when missed, end delay or None)] for utterances of >= 200 ms."""
    figures = []
    spoken = drop_blips(close_gaps(truth, 30), 19)
    stretches = runs(spoken)
    for number, (start, end) in enumerate(stretches):
        limit = stretches[number + 1][0] if number + 1 < len(stretches) else len(found)
        hits = np.flatnonzero(found[start:min(end + 20, limit)])
        if len(hits) == 0:
            figures.append((None, None))
            continue
        # Already in speech before the onset: early, not counted as a delay.
        onset = hits[0] if start == 0 or not found[start - 1] else None
        tail = None
        if limit - end >= 60 and found[end - 1]:
            quiet = np.flatnonzero(~found[end - 1:limit])
            tail = quiet[0] - 1 if len(quiet) else None
        figures.append((onset if onset is not None else -1, tail))
    return figures


def report(work, model, name="heldout"):
    """Print the agreement with the replica and the quality table; returns the figures."""
    with open(os.path.join(work, name + ".json")) as file:
        abouts = json.load(file)
    per_scene = SCENE * RATE // SHIFT
    posteriors, speech = library_scores(work, model, name)
    truth = np.fromfile(os.path.join(work, name + ".marks"), np.uint8)[:len(speech)] > 0
    frames = features.load(work, name)
    parts = read_model(model)
    difference, scored = 0.0, []
    for scene in range(len(abouts)):
        piece = slice(scene * per_scene, min((scene + 1) * per_scene, len(speech)))
        plain = network.forward(parts["layers"], network.stack(
            (frames[piece] - parts["mean"]) * parts["reverse_variance"]))
        difference = max(difference, float(np.abs(plain - posteriors[piece]).max()))
        scored.append(network.scores(posteriors[piece]))
    score = np.concatenate(scored)
    print(f"library against replica: largest posterior difference {difference:.2e}, "
          f"smallest posterior {posteriors.min():.2e}")

    by_group = {}
    for scene, about in enumerate(abouts):
        by_group.setdefault(about["group"], []).append(scene)
    result = {"difference": difference, "groups": {}}
    everything = {"speech": [], "onset": [], "tail": [], "utterances": 0, "missed": 0}
    for group, scenes in by_group.items():
        where = np.concatenate([np.arange(s * per_scene, min((s + 1) * per_scene, len(speech)))
                                for s in scenes])
        hours = len(where) / 360000
        if group in BEDS:
            starts = sum(session_starts(speech[s * per_scene:(s + 1) * per_scene]) for s in scenes)
            line = {"false_starts_per_hour": starts / hours,
                    "speech_frames_percent": 100 * speech[where].mean()}
        else:
            pieces = [slice(s * per_scene, (s + 1) * per_scene) for s in scenes]
            figures = [f for piece in pieces
                       for f in utterance_figures(speech[piece], truth[piece])]
            onset = [o for o, _ in figures if o is not None and o >= 0]
            tail = [t for _, t in figures if t is not None]
            missed = sum(o is None for o, _ in figures)
            line = {"auc": auc(score[where], truth[where]), "f1": f1(speech[where], truth[where]),
                    "missed_of_100": 100 * missed / len(figures),
                    "onset_frames": float(np.median(onset)), "end_frames": float(np.median(tail))}
            if group != "quiet":
                everything["speech"].append(where)
            everything["onset"] += onset
            everything["tail"] += tail
            everything["utterances"] += len(figures)
            everything["missed"] += missed
        result["groups"][group] = line
        print(f"{group:>10}  " + "  ".join(f"{k} {v:.4g}" for k, v in line.items()))
    where = np.concatenate(everything["speech"])
    shifted = {shift: auc(np.roll(score, -shift)[where], truth[where]) for shift in range(0, 16)}
    best = max(shifted, key=shifted.get)
    free = [v["false_starts_per_hour"] for v in result["groups"].values()
            if "false_starts_per_hour" in v]
    result["all"] = {
        "auc": shifted[0], "auc_shifted": shifted[best], "shift_frames": best,
        "f1": f1(speech[where], truth[where]),
        "missed_of_100": 100 * everything["missed"] / everything["utterances"],
        "utterances": everything["utterances"],
        "onset_frames": float(np.median(everything["onset"])),
        "end_frames": float(np.median(everything["tail"])),
        "false_starts_per_hour": float(np.mean(free))}
    print("       all  " + "  ".join(f"{k} {v:.4g}" for k, v in result["all"].items()))
    return result


def session_report(work, model, program, name="heldout"):
    """Print how many utterances per hour the host program finds in speech-free scenes."""
    with open(os.path.join(work, name + ".json")) as file:
        abouts = json.load(file)
    scenes = np.memmap(os.path.join(work, name + ".s16"), np.int16, "r").reshape(-1, SCENE * RATE)
    found = {}
    recording = os.path.join(work, "scene.wav")
    for scene, about in zip(scenes, abouts):
        if about["group"] in BEDS:
            soundfile.write(recording, scene, RATE, subtype="PCM_16")
            table = subprocess.run([program, "--model", model, recording], check=True,
                                   capture_output=True, text=True).stdout
            utterances = sum(line.split()[0][0].isdigit() for line in table.splitlines() if line)
            found.setdefault(about["group"], []).append(utterances)
    for group, counts in found.items():
        print(f"{group:>10}  utterances_per_hour {np.mean(counts) * 3600 / SCENE:.4g}")


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit("usage: check.py WORK MODEL [PROGRAM]   (PROGRAM: the built dnnvad)")
    report(*sys.argv[1:3])
    if len(sys.argv) == 4:
        session_report(*sys.argv[1:])
