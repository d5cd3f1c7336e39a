"""Measure a model file through sessions of the library on held-out voices, noises and music."""
import json
import os
import subprocess
import sys

import numpy as np

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "quality"))
import features  # noqa: E402
import metrics  # noqa: E402
import network  # noqa: E402
from export import read_model  # noqa: E402
from mix import BEDS, FRAMES  # noqa: E402

APART = ("-5", "quiet")  # groups that "all" leaves out: the table has rows for them


def sessions(work, model, name="heldout"):
    """(posteriors [scenes, frames, 9], scores, states, statuses [scenes, frames])."""
    front = read_model(model)["front"]
    target = os.path.join(work, f"{name}{front.suffix}.sessions")
    subprocess.run([os.path.join(features.build_tools(work), "session_pcm"), model,
                    os.path.join(work, name + front.suffix + ".s16"), target, str(FRAMES)],
                   check=True, stdout=subprocess.DEVNULL)
    table = np.fromfile(target, np.float32).reshape(-1, FRAMES, network.CLASSES + 3)
    return (table[:, :, :network.CLASSES], *(table[:, :, network.CLASSES + k] for k in range(3)))


def agreement(work, model, posteriors, statuses, name="heldout"):
    """Largest difference of a posterior from the trainer's arithmetic.

    After the end of an utterance a session scores one frame twice, so that the two are compared up to
    there only.
    """
    parts = read_model(model)
    features.extract(work, name, parts["front"])
    frames = features.load(work, name, parts["front"])
    largest = 0.0
    for scene, (ours, status) in enumerate(zip(posteriors, statuses)):
        count = int(np.argmax(status == 6)) if (status == 6).any() else FRAMES - 2
        piece = frames[scene * FRAMES:scene * FRAMES + count]
        plain = network.forward(parts["layers"], network.stack(
            (piece - parts["mean"]) * parts["reverse_variance"], parts["front"].context))
        largest = max(largest, float(np.abs(plain - ours[:count]).max(initial=0)))
    return largest


def report(work, model, name="heldout"):
    """Print the agreement with the trainer and the quality table; returns the figures."""
    with open(os.path.join(work, name + ".json")) as file:
        abouts = json.load(file)
    truth = np.fromfile(os.path.join(work, name + ".marks"), np.uint8).reshape(-1, FRAMES) > 0
    posteriors, score, states, statuses = sessions(work, model, name)
    found = np.isin(states, (0, 3))
    result = {"difference": agreement(work, model, posteriors, statuses, name),
              "smallest_posterior": float(posteriors.min())}
    print(f"library against trainer: largest posterior difference {result['difference']:.1e}, "
          f"smallest posterior {result['smallest_posterior']:.1e}")
    groups = np.array([about["group"] for about in abouts])
    with_speech = [group for group in dict.fromkeys(groups) if group not in BEDS]
    rows = {group: groups == group for group in with_speech}
    rows["all"] = np.isin(groups, with_speech) & ~np.isin(groups, APART)
    for row, where in rows.items():
        area, shift = metrics.shifted_auc(score[where], truth[where])
        figures = metrics.utterance_figures(found[where], truth[where])
        line = {"utterances": figures["utterances"],
                "auc": metrics.auc(score[where], truth[where]), "auc_shifted": area,
                "shift": shift, "f1": metrics.frame_rates(found[where], truth[where])["f1"],
                "missed_of_100": 100 * figures["missed"] / figures["utterances"],
                "onset": float(np.median(figures["onset"])),
                "end": float(np.median(figures["end"]))}
        result[row] = line
        print(f"{row:>9}  " + "  ".join(f"{k} {v:.4g}" for k, v in line.items()))
    begins = {}
    for group in BEDS:
        where = groups == group
        begins[group] = [metrics.status_begins(status) for status in statuses[where]]
        result[group] = {"false_starts_per_hour": 360000 / FRAMES * float(np.mean(begins[group])),
                         "speech_percent": 100 * float(found[where].mean())}
        print(f"{group:>9}  " + "  ".join(f"{k} {v:.4g}" for k, v in result[group].items()))
    every = [count for counts in begins.values() for count in counts]
    result["false_starts_per_hour"] = 360000 / FRAMES * float(np.mean(every))
    taken = {}
    for hit, about in zip(found, abouts):
        for yes, kind in zip(*metrics.bursts_taken(hit, about.get("tones", []))):
            taken.setdefault("beep or DTMF" if kind in ("beep", "dtmf") else "other", []).append(yes)
    result["tones_taken_percent"] = {kind: 100 * float(np.mean(t)) for kind, t in taken.items()}
    print(f"speech-free, all: {result['false_starts_per_hour']:.0f} false starts per hour; "
          "tones taken for speech: " + ", ".join(
              f"{kind} {percent:.1f} %" for kind, percent in result["tones_taken_percent"].items()))
    return result


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit("usage: check.py WORK MODEL")
    report(*sys.argv[1:])
