"""Measures the models beside openly known detectors and writes the report.

    /usr/bin/python3 quality/quality.py [--work build/training] [--out build/quality]
                                        [--models models/vad8k.bin models/vad16k.bin]

Reads the evaluation set in the work folder (heldout.s16, heldout8.s16, heldout.marks, heldout.json;
`make quality` makes it) and writes index.html, quality.md with its pictures, and figures.json. What
the detectors said is kept beside them and made again when the scenes, or the detector, are newer.
"""
import argparse
import collections
import hashlib
import json
import os
import subprocess
import sys

import numpy as np

import metrics

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
FRAMES = 3000  # of a scene of 30 s
SNR = ("clean", "20", "10", "5", "0")  # groups that "all" stands for
SPOKEN = SNR + ("-5", "quiet")
FREE = ("effects", "machines", "music", "crowd", "tones", "steady")
OUTPUTS = 12  # floats per frame from session_pcm: 9 posteriors, score, frame state, status
# name in the report, name for peers.mjs, threshold
PEERS = (("Silero v5", "silero", 0.5), ("RNNoise", "rnnoise", 0.5),
         ("WebRTC mode 2", "webrtc2", 0.5), ("WebRTC mode 3", "webrtc3", 0.5))

Scenes = collections.namedtuple("Scenes", "abouts marks")  # marks: bool [scenes, FRAMES]
# score [scenes, FRAMES], found the same in bool, begins: utterances begun per scene
Detector = collections.namedtuple("Detector", "name decision score found begins")


def load_scenes(work):
    with open(os.path.join(work, "heldout.json")) as file:
        abouts = json.load(file)
    marks = np.fromfile(os.path.join(work, "heldout.marks"), np.uint8).reshape(-1, FRAMES) > 0
    if len(marks) != len(abouts):
        raise ValueError(f"{len(abouts)} scenes are listed, {len(marks)} are marked")
    return Scenes(abouts, marks)


def fresh(target, *sources):
    """Whether target is there and newer than every source."""
    return os.path.exists(target) and all(
        os.path.getmtime(target) > os.path.getmtime(source) for source in sources)


def run(target, command, *sources):
    """The path target, which command(path) writes; done again when a source is newer."""
    if not fresh(target, *sources):
        print("quality:", os.path.basename(target), flush=True)
        # A 16 kHz session prints a line every frame.
        subprocess.run(command(target + ".partial"), check=True, stdout=subprocess.DEVNULL)
        os.replace(target + ".partial", target)
    return target


def model_rate(path):
    """Sampling rate that the header of a model file states, behind three lines and a number."""
    with open(path, "rb") as file:
        for _ in range(3):
            file.readline()
        return int(np.frombuffer(file.read(8), "<i4")[1])


def own_detector(work, out, tool, model):
    """Whole sessions of the library in 10 ms chunks with default parameters."""
    rate = model_rate(model)
    audio = os.path.join(work, "heldout8.s16" if rate == 8000 else "heldout.s16")
    with open(model, "rb") as file:
        name = hashlib.blake2b(file.read(), digest_size=4).hexdigest()
    target = run(os.path.join(out, f"{os.path.basename(model)}-{name}.session"),
                 lambda path: [tool, model, audio, path, str(FRAMES)], audio, tool)
    table = np.fromfile(target, np.float32).reshape(-1, FRAMES, OUTPUTS)
    status = table[:, :, 11].astype(int)
    return Detector(f"dnnvad {rate // 1000} kHz", "0.2 / 0.2", table[:, :, 9],
                    np.isin(table[:, :, 10], (0, 3)),
                    np.array([metrics.status_begins(scene) for scene in status]))


def peer_scores(work, out, peer):
    audio, program = os.path.join(work, "heldout.s16"), os.path.join(HERE, "peers.mjs")
    target = run(os.path.join(out, peer + ".f32"),
                 lambda path: ["node", program, peer, audio, path, str(FRAMES * 160)],
                 audio, program)
    return np.fromfile(target, np.float32).reshape(-1, FRAMES)


def peer_detector(work, out, name, peer, threshold):
    score = peer_scores(work, out, peer)
    found = score >= threshold
    decision = f"score {threshold}" if not peer.startswith("webrtc") else f"mode {peer[-1]}"
    return Detector(name, decision, score, found,
                    np.array([metrics.session_begins(scene) for scene in found]))


def chosen(scenes, groups):
    """Indices of the scenes of some groups."""
    return np.array([k for k, about in enumerate(scenes.abouts) if about["group"] in groups], int)


def median(delays):
    """None without any; inf when most never came."""
    return float(np.median(delays)) if len(delays) else None


def speech_figures(scenes, detector, groups):
    """What the detector does in scenes with speech."""
    pick = chosen(scenes, groups)
    score, found, truth = detector.score[pick], detector.found[pick], scenes.marks[pick]
    spoken = metrics.utterance_figures(found, truth)
    best, shift = metrics.shifted_auc(score, truth)
    return {"auc": metrics.auc(score, truth), "auc_shifted": best, "shift": shift,
            **{name: float(rate) for name, rate in metrics.frame_rates(found, truth).items()},
            **spoken, "missed_utterances": spoken["missed"] / spoken["utterances"],
            "early_utterances": spoken["early"] / spoken["utterances"],
            "onset_median": median(spoken["onset"]), "end_median": median(spoken["end"]),
            "cut_utterances": spoken["cut"] / max(1, spoken["ended"]),
            "bridged_utterances": float(np.sum(np.isinf(spoken["end"]))) / max(1, spoken["ended"])}


def free_figures(scenes, detector, groups):
    """What it does in scenes without."""
    pick = chosen(scenes, groups)
    begins = int(detector.begins[pick].sum())
    return {"begins": begins, "begins_per_hour": begins * 360000 / (len(pick) * FRAMES),
            "alarm_rate": float(detector.found[pick].mean())}


def tone_figures(scenes, detector):
    """{kind: [bursts taken for speech, bursts]}, "all" among them."""
    counts = {"all": [0, 0]}
    for scene in chosen(scenes, ("tones",)):
        taken, kinds = metrics.bursts_taken(detector.found[scene], scenes.abouts[scene]["tones"])
        for hit, kind in zip(taken, kinds):
            for name in ("all", kind):
                count = counts.setdefault(name, [0, 0])
                count[0] += hit
                count[1] += 1
    return counts


def measure(scenes, detector):
    """All figures of a detector, by group and together.

    "free_apart" leaves out the crowds, which are voices after all.
    """
    there = {about["group"] for about in scenes.abouts}
    pick = chosen(scenes, SNR)
    score, truth = detector.score[pick], scenes.marks[pick]
    return {"name": detector.name, "decision": detector.decision,
            "all": speech_figures(scenes, detector, SNR),
            "speech": {group: speech_figures(scenes, detector, (group,))
                       for group in SPOKEN if group in there},
            "free_all": free_figures(scenes, detector, FREE),
            "free_apart": free_figures(scenes, detector, set(FREE) - {"crowd"}),
            "free": {group: free_figures(scenes, detector, (group,))
                     for group in FREE if group in there},
            "tones": tone_figures(scenes, detector),
            "curve": [list(map(float, line)) for line in metrics.curve(score, truth)]}


def plain(figures):
    """What goes into figures.json: no curves and delays, no infinity (null: never)."""
    if isinstance(figures, dict):
        return {key: plain(value) for key, value in figures.items()
                if key not in ("curve", "onset", "end")}
    return None if figures == np.inf else figures


def shared_recordings(records, samples):
    """[(trained, held out)] names of recordings, sample by sample the same, that both sets have.

    records: dicts with package, name, held_out, start and length (samples in `samples`, int16).
    """
    names = ({}, {})  # not held out, held out: content -> name
    for record in records:
        piece = samples[record["start"]:record["start"] + record["length"]]
        content = hashlib.blake2b(np.ascontiguousarray(piece).tobytes()).digest()
        names[bool(record["held_out"])].setdefault(content,
                                                   f"{record['package']} {record['name']}")
    return [(name, names[1][content]) for content, name in names[0].items() if content in names[1]]


def sources(work):
    """What the report says about the recordings: None when their list is not there."""
    listing = os.path.join(work, "clips.json")
    if not os.path.exists(listing):
        return None
    with open(listing) as file:
        records = json.load(file)
    shared = shared_recordings(records, np.memmap(os.path.join(work, "clips.s16"), np.int16, "r"))
    held_out = [record for record in records if record["held_out"]]
    kinds = {}
    for record in held_out:
        kinds.setdefault(record["kind"], set()).add(record["package"])
    return {"recordings": len(held_out), "of": len(records), "shared": shared,
            "voices": len({r["voice"] for r in held_out if r["kind"] == "speech"}),
            "packages": {kind: sorted(packages) for kind, packages in sorted(kinds.items())}}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "training"))
    parser.add_argument("--out", default=os.path.join(ROOT, "build", "quality"))
    parser.add_argument("--tool", help="the built session_pcm (without: it is built)")
    parser.add_argument("--models", nargs="+", default=[
        os.path.join(ROOT, "models", name) for name in ("vad8k.bin", "vad16k.bin")])
    arguments = parser.parse_args()
    import report  # needs matplotlib, which the checks do without

    os.makedirs(arguments.out, exist_ok=True)
    scenes = load_scenes(arguments.work)
    tool = arguments.tool
    if tool is None:
        sys.path.append(os.path.join(ROOT, "training"))
        import features
        tool = os.path.join(features.build_tools(arguments.work), "session_pcm")
    detectors = []
    for model in arguments.models:
        if os.path.exists(model):
            detectors.append(own_detector(arguments.work, arguments.out, tool, model))
        else:
            print(f"quality: there is no {model}", file=sys.stderr)
    detectors += [peer_detector(arguments.work, arguments.out, *peer) for peer in PEERS]

    for detector in detectors:
        if not detector.score.shape == scenes.marks.shape == detector.found.shape:
            raise ValueError(f"{detector.name}: not the frames of {len(scenes.marks)} scenes")

    results = [measure(scenes, detector) for detector in detectors]
    pick = chosen(scenes, SNR)
    modes = [metrics.frame_rates(peer_scores(arguments.work, arguments.out, f"webrtc{mode}")[pick]
                                 >= 0.5, scenes.marks[pick]) for mode in range(4)]
    counts = collections.Counter(about["group"] for about in scenes.abouts)
    about = {"scenes": dict(counts), "hours": len(scenes.abouts) * FRAMES / 360000,
             "utterances": results[0]["all"]["utterances"], "sources": sources(arguments.work)}
    with open(os.path.join(arguments.out, "figures.json"), "w") as file:
        json.dump({"about": about, "detectors": [plain(result) for result in results]}, file,
                  indent=1)
    print(report.write(arguments.out, about, results, modes))


if __name__ == "__main__":
    main()
