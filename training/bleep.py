"""The template that tells the device's prompt from a user's first word, for one network model.

    python3 training/bleep.py make MODEL OUT          derives OUT (models/bleep8k.txt) for a network
    python3 training/bleep.py check MODEL TEMPLATE    measures it on voices and noises held out

A session asks the bleep detector once, when its first utterance ends: is this the prompt? What the
detector then sees is a map of the cells (10 ms by 31.25 Hz) that are nearly as loud as the loudest
one. Both commands run whole sessions of the library over streams that are made here: prompts,
words, noise and music in rooms, channels and backgrounds.
"""
import argparse
import collections
import functools
import json
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy.optimize import minimize
from scipy.signal import resample_poly

import export
import features
import label
import mix
import prompt
import synth
from progress import progress

RATE = prompt.RATE
ROWS, LOW = 15, 5  # rows of a template; columns LOW - 1 .. F - 2 have weights
WORK = os.path.join(features.ROOT, "build", "training")
TAIL = 1.5  # seconds of silence that end a stream: the pause limit is 0.9 s
PLAIN, LIVELY = ("none", "steady"), ("effects", "machines", "music")  # backgrounds
PROMPTS, WORDS, SOUNDS = 2000, 4000, 1000  # streams that a template is derived from
THRESHOLDS = (0.2, 0.15)  # of speech, at which all streams run; 0.2 is the default
ON = 0.6  # share of the prompts in which a cell of the template is on
DECAY = 5e-5  # penalty on squared weights
FALSE_SHARE = 0.001  # of other sounds that may pass for the prompt: where the bias is set

COMMANDS, FIRST_WORDS = 600, 1500  # streams that measure, of each kind
SPEAKING, ENDED = 1, 6  # status codes
REVERBERATION = 20  # frames for which the prompt may be heard after its end
OUTCOMES = ("recognised", "no speech", "not recognised", "not asked", "joined", "other")
RIGHT = OUTCOMES[:2]


# ---- Streams ------------------------------------------------------------------------------------


def word(rng, sources, shortest, longest):
    """A stretch of speech of one voice, in seconds, at active level 1; RATE."""
    while True:
        record = sources.voices.clip(rng)
        clip = sources.load(record)
        if sources.varied:
            up, down = mix.SPEEDS[rng.integers(len(mix.SPEEDS))]
            clip = resample_poly(clip, up, down) if up != down else clip
        marks = label.label(clip, mix.REVERBERANT.get(record["package"], 32.0))
        # Between pauses of more than 0.3 s, or else a word's begin.
        pieces = label.runs(label.close_gaps(marks, 30)) * mix.SHIFT
        if len(pieces) == 0:
            continue
        start, end = pieces[rng.integers(len(pieces))]
        end = min(end, start + int(rng.uniform(shortest, longest) * RATE))
        if end - start >= shortest * RATE:
            piece = synth.shaped(clip[start:end].astype(np.float64), 0.01)
            return piece / mix.active_rms(piece)


def line_up(*parts):
    """Samples: sounds and, as numbers, seconds of silence between them."""
    return np.concatenate([part if isinstance(part, np.ndarray) else np.zeros(int(part * RATE))
                           for part in parts])


def recorded(rng, sources, x, snr, kinds=PLAIN + LIVELY, alone=False):
    """16-bit samples at both rates of a clean stream in a room, before a background at snr dB.

    alone: the same recording without the stream, its background as loud.
    """
    x = x / mix.active_rms(x)
    if rng.random() < 0.5:
        x = synth.room(rng, x)
    x = synth.channel(rng, x)
    level, noise = mix.active_rms(x), np.zeros(len(x))
    kind = rng.choice(kinds)
    if kind != "none":
        noise = mix.background(rng, sources, len(x), kind) * level * 10 ** (-snr / 20)
    if rng.random() < 0.9:  # a microphone's own noise
        noise = noise + synth.coloured(rng, len(x), rng.uniform(0, 1.5)) * level * 10 ** (
            -rng.uniform(35, 65) / 20)
    peak, alias = rng.uniform(-45, -3), rng.random() < 0.1
    if alone:
        peak += 20 * np.log10(max(np.abs(noise).max(), 1e-6) / np.abs(x + noise).max())
    return mix.to_int16(noise if alone else x + noise, peak, alias=alias)


def prompt_stream(rng, sources):
    """(samples at both rates, frame of the prompt's begin)."""
    lead = rng.uniform(0.02, 0.5)
    x = line_up(lead, prompt.prompt(), TAIL)
    samples = recorded(rng, sources, x, rng.uniform(5, 40), PLAIN + PLAIN + LIVELY)
    return samples, int(lead * 100)


def word_stream(rng, sources):
    """A stream that begins with a user's first word, short enough to be questioned."""
    lead = rng.uniform(0.02, 0.4)
    x = line_up(lead, word(rng, sources, 0.2, min(0.9, 1.1 - lead)), TAIL)
    return recorded(rng, sources, x, rng.uniform(5, 40)), None


def sound_stream(rng, sources):
    """A stream that begins with a short piece of noise, music, crowd or tones."""
    kind = rng.choice(["effects", "machines", "music", "crowd", "tones"])
    piece = mix.background(rng, sources, int(rng.uniform(0.3, 1.0) * RATE), kind)
    x = line_up(rng.uniform(0.02, 0.2), synth.shaped(piece), TAIL)
    return recorded(rng, sources, x, rng.uniform(20, 40)), None


def command_stream(rng, sources, kinds, alone=False):
    """(samples at both rates, frames (prompt's end, command's begin)): prompt, pause, command.

    The pause is longer than the pause limit, the command earlier than the head silence. alone: the
    background of the same stream by itself.
    """
    before = line_up(rng.uniform(0.05, 0.4), prompt.prompt())
    spoken = word(rng, sources, 0.3, 2.0) * mix.active_rms(prompt.prompt()) * 10 ** (
        rng.uniform(-6, 10) / 20)
    pause = rng.uniform(1.3, 2.0)
    frames = len(before) // mix.SHIFT, len(before) // mix.SHIFT + int(100 * pause)
    x = line_up(before, pause, spoken, 2 * TAIL)
    return recorded(rng, sources, x, rng.uniform(10, 40), kinds, alone), frames


def plain_command_stream(rng, sources):
    return command_stream(rng, sources, PLAIN)


def lively_command_stream(rng, sources):
    return command_stream(rng, sources, LIVELY)


def background_stream(rng, sources):
    """What lies behind the lively_command_stream of the same random numbers."""
    return command_stream(rng, sources, LIVELY, alone=True)


# ---- Sessions -----------------------------------------------------------------------------------


def sessions(tool, model, template, rate, stream, sources, count, thresholds=THRESHOLDS, numbers=None):
    """{threshold: [(what stream() says of itself, what bleep_maps says)]} of `count` streams.

    The map is [asked, F] of 0 and 1. numbers: the stream whose random numbers are drawn, by default
    its own.
    """
    abouts, found, begun = [], {}, time.time()
    with tempfile.TemporaryDirectory() as folder:
        streams, out = os.path.join(folder, "streams"), os.path.join(folder, "out")
        with open(streams, "wb") as file:
            for seed in range(count):
                # Each kind of stream and each split draws numbers of its own.
                name = (numbers or stream).__name__
                rng = np.random.default_rng([seed, sources.varied, *name.encode()])
                samples, about = stream(rng, sources)
                abouts.append(about)
                samples = samples[0 if rate == RATE else 1]
                file.write(np.int32(len(samples)).tobytes() + samples.tobytes())
                progress(stream.__name__.replace("_", " ") + "s", len(abouts), count, begun)
        for threshold in thresholds:
            with open(streams, "rb") as file:
                subprocess.run([tool, model, template, out, str(threshold)], stdin=file,
                               stdout=subprocess.DEVNULL, check=True)
            with open(out) as file:
                results = [json.loads(line) for line in file]
            for result in results:
                if result["asked"] > 0:
                    cells = np.unpackbits(np.frombuffer(bytes.fromhex(result["map"]), np.uint8))
                    result["map"] = cells.reshape(result["asked"], -1)
            found[threshold] = list(zip(abouts, results))
    return found


# ---- Template and weights -----------------------------------------------------------------------


def align(cells, template):
    """The row of a map [rows, F] at which the library lays a template [ROWS, F]."""
    on = cells.astype(np.float32) @ template.T.astype(np.float32)
    last = len(cells) - len(template)  # not tried itself
    overlap = sum(on[row:row + last, row] for row in range(len(template)))
    return int(np.argmax(overlap))


def counts(cells, template):
    """The library's embedding of a map: ones per used column where the template fits best."""
    best = align(cells, template)
    return cells[best:best + ROWS, LOW - 1:-1].sum(axis=0)


def mean_map(maps, begins, span):
    """[span, F]: share of the maps in which a cell is on, rows counted from the prompt's begin."""
    total = np.zeros((span, maps[0].shape[1]))
    for cells, begin in zip(maps, begins):
        piece = cells[begin:begin + span]
        total[:len(piece)] += piece
    return total / len(maps)


def candidates(share):
    """Templates [ROWS, F] cut from a mean map at every other row."""
    for first in range(2, len(share) - ROWS, 2):
        template = (share[first:first + ROWS] > ON).astype(np.uint8)
        template[:, :LOW - 1] = template[:, -1] = 0
        if template.any():
            yield first, template


def fit(x, y, decay):
    """Logistic regression [n, columns] -> (bias, weights), both classes of equal weight."""
    weight = np.where(y, 0.5 / y.mean(), 0.5 / (1 - y).mean()) / len(y)
    sign = np.where(y, 1.0, -1.0)

    def loss(w):
        margin = sign * (x @ w[1:] + w[0])
        slope = -weight * sign / (1 + np.exp(np.clip(margin, -50, 50)))
        return (np.sum(weight * np.logaddexp(0, -margin)) + decay * np.sum(w[1:] ** 2) / 2,
                np.concatenate([[slope.sum()], x.T @ slope + decay * w[1:]]))

    found = minimize(loss, np.zeros(x.shape[1] + 1), jac=True, method="L-BFGS-B",
                     options={"maxiter": 500})
    return found.x[0], found.x[1:]


def unseen_logits(x, y, streams, decay, folds=3):
    """The logit of every map by a fit that did not see its stream, at no threshold."""
    out = np.zeros(len(y))
    for fold in range(folds):
        held = streams % folds == fold
        bias, weights = fit(x[~held], y[~held], decay)
        out[held] = x[held] @ weights + bias
    return out


def derive(maps, begins, others, streams):
    """(template, bias, weights) from maps of the prompt, where it begins in them, other maps.

    streams: the number of the stream that each map, the prompt's first, comes from. Every stretch of
    the prompt is tried as the template. A fit that has not seen a stream says how
    well it does there: the share of prompts missed when FALSE_SHARE of the other sounds pass.
    """
    y = np.repeat([True, False], [len(maps), len(others)])
    span = len(prompt.prompt()) * 100 // RATE + 2
    best = None
    if not maps or not others:
        sys.exit("bleep: the network does not take the prompt for speech, or nothing else")
    for first, template in candidates(mean_map(maps, begins, span)):
        x = np.array([counts(cells, template) for cells in maps + others]).astype(float)
        unseen = unseen_logits(x / ROWS, y, streams, DECAY)
        bound = np.quantile(unseen[~y], 1 - FALSE_SHARE)
        missed = np.mean(unseen[y] <= bound)
        loss = np.mean(np.logaddexp(0, bound - unseen[y]))
        if best is None or (missed, loss) < best[:2]:
            best = missed, loss, first, template, x, bound
    missed, _, first, template, x, bound = best
    print(f"bleep: template of {template.sum()} cells from frame {first} of the prompt, unseen "
          f"prompts missed {100 * missed:.2f} %")
    bias, weights = fit(x / ROWS, y, DECAY)
    return template, bias - bound, weights / ROWS


def write_template(path, template, bias, weights):
    with open(path, "w") as file:
        for row in template:
            file.write(" ".join(map(str, row)) + "\n")
        file.write("\n".join(f"{value:.6g}" for value in (bias, *weights)) + "\n")


def read_template(path, bins):
    """(template, bias, weights) of a file."""
    with open(path) as file:
        values = file.read().split()
    numbers = np.array(values[ROWS * bins:], float)
    return np.array(values[:ROWS * bins], np.uint8).reshape(ROWS, bins), numbers[0], numbers[1:]


def make(work, model, out, rate):
    """Derive the template file `out` for a network, unless it is newer, from training sources."""
    if os.path.exists(out) and os.path.getmtime(out) > os.path.getmtime(model):
        return
    tool = os.path.join(features.build_tools(work), "bleep_maps")
    sources = mix.Sources([work], False)
    bins = 128 * rate // 8000
    maps, begins, others, asked = [], [], [], {True: [], False: []}
    with tempfile.TemporaryDirectory() as folder:
        # The sessions need some template to be asked at all; this one never says yes.
        blank = os.path.join(folder, "blank")
        write_template(blank, np.zeros((ROWS, bins), int), -50, np.zeros(bins - LOW))
        for stream, count in ((prompt_stream, PROMPTS), (word_stream, WORDS),
                              (sound_stream, SOUNDS)):
            found = sessions(tool, model, blank, rate, stream, sources, count)
            for pairs in found.values():
                for number, (begin, result) in enumerate(pairs):
                    if result["asked"] <= 0:
                        continue
                    asked[stream is prompt_stream].append(number)
                    if stream is prompt_stream:
                        maps.append(result["map"])
                        begins.append(begin)
                    else:
                        others.append(result["map"])
    write_template(out, *derive(maps, begins, others, np.array(asked[True] + asked[False])))
    print(f"wrote {out}, from {len(maps)} prompts and {len(others)} other sounds", flush=True)


# ---- Measuring ----------------------------------------------------------------------------------


def judge(result, prompt_end, command):
    """What became of a stream: one of OUTCOMES. Frames: the prompt's end, the command's begin."""
    ends = [frame for frame, status in result["status"] if status == ENDED]
    heard = [(first, last) for first, last in result["segments"] if last > command]
    taken = any(status == SPEAKING and frame < prompt_end + REVERBERATION
                for frame, status in result["status"])
    recognised = result["asked"] > 0 and result["score"] > 0.5
    if taken and not recognised and ends and ends[0] < command:
        return "not recognised" if result["asked"] > 0 else "not asked"
    if len(heard) == 1 and heard[0][0] < prompt_end + REVERBERATION:
        return "joined"
    if len(heard) == 1 and len(ends) == 1 and ends[0] > heard[0][1]:
        if recognised or not taken:
            return "recognised" if recognised else "no speech"
    return "other"


def check(work, model, path):
    """Print how whole sessions fare on voices and sounds held out; returns the figures."""
    rate = export.read_model(model)["front"].rate
    tool = os.path.join(features.build_tools(work), "bleep_maps")
    sources = mix.Sources([work], True)
    template, bias, weights = read_template(path, 128 * rate // 8000)
    run = functools.partial(sessions, tool, model, path, rate, sources=sources)
    figures = {threshold: {} for threshold in THRESHOLDS}
    # In lively backgrounds the network hears speech where there is none, whatever the prompt: the
    # streams whose background alone starts nothing tell how the prompt fares.
    still = {threshold: [not any(status == SPEAKING for _, status in result["status"])
                         for _, result in pairs]
             for threshold, pairs in run(stream=background_stream, count=COMMANDS,
                                         numbers=lively_command_stream).items()}
    for name, stream in (("plain", plain_command_stream), ("lively", lively_command_stream)):
        for threshold, pairs in run(stream=stream, count=COMMANDS).items():
            every = [judge(result, *frames) for frames, result in pairs]
            outcomes = collections.Counter(every)
            line = figures[threshold]
            if name == "lively":
                kept = [outcome for outcome, alone in zip(every, still[threshold]) if alone]
                line["lively, still: streams"] = len(kept)
                line["lively, still: right %"] = 100 * sum(o in RIGHT for o in kept) / len(kept)
            line[f"{name}: right %"] = 100 * sum(outcomes[o] for o in RIGHT) / COMMANDS
            line.update({f"{name}: {o} %": 100 * outcomes[o] / COMMANDS for o in OUTCOMES})
    difference = 0.0
    for name, stream in (("words", word_stream), ("sounds", sound_stream)):
        for threshold, pairs in run(stream=stream, count=FIRST_WORDS).items():
            asked = [result for _, result in pairs if result["asked"] > 0]
            line = figures[threshold]
            line[f"{name} asked"] = len(asked)
            line[f"{name} taken for it %"] = 100 * np.mean([r["score"] > 0.5 for r in asked])
            for result in asked:
                logit = counts(result["map"], template) @ weights + bias
                difference = max(difference, abs(1 / (1 + np.exp(-logit)) - result["score"]))
    print(f"library against replica: largest difference of scores {difference:.1e}")
    for name in figures[THRESHOLDS[0]]:
        print(f"{name:>24}" + "".join(f"{figures[t][name]:>9.4g}" for t in THRESHOLDS))
    return figures


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=("make", "check"))
    parser.add_argument("model")
    parser.add_argument("template")
    parser.add_argument("--work", default=WORK)
    arguments = parser.parse_args()
    if arguments.what == "make":
        make(arguments.work, arguments.model, arguments.template,
             export.read_model(arguments.model)["front"].rate)
    else:
        check(arguments.work, arguments.model, arguments.template)


if __name__ == "__main__":
    main()
