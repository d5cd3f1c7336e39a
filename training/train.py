"""Training through the smoother, so that the classes learn what its score rewards.

The score is a geometric mean over the six speech classes of each one's best 30 ms mean within
200 ms, so the classes must take turns while someone speaks, and stop doing so at once after it.
Nothing tells a class when to peak; the loss on the score alone brings that about.
"""
import copy
import hashlib
import json
import os
import time
from dataclasses import dataclass

import numpy as np
import torch
from torch import nn
from torch.nn import functional as F

import features
import network
from mix import FRAMES
from progress import progress

CROP = 256  # frames that count in the loss
WARM = network.MAXIMUM + network.AVERAGE - 2  # frames before them that fill the smoother
OUTPUT_BOUND = 4.7  # no logit leaves +-4.7, so no posterior falls below exp(-9.4) / 8 = 1.03e-5
WHITENING_FLOOR = 0.01  # added to the eigenvalues of the stacked features' covariance
SMOOTHING = 0.02
SPEECH_SHARE = 0.62  # of the crops come from scenes with speech
HARD_SHARE = 0.5  # of the others come from where the network last took something for speech
HARD_EVERY = 2500  # steps between searches for such places
ONSET, TAIL = 12, (3, 20)  # frames after an onset and after the end of speech that count more
NOISY = 8  # dB, signal-to-noise ratio of a scene below which its frames count more
WORST, WORST_WEIGHT = 8, 0.2  # frames of a speech-free crop that come nearest to speech

@dataclass(frozen=True)
class Pass:
    """One of the passes that make up a training: later ones sharpen what the first has learned."""

    name: str
    steps: int
    rate: float  # learning rate, falling to 0 as half a cosine
    onset: float  # what frames after an onset, after an end and in noisy scenes count
    tail: float
    noisy: float
    tones: float = 1.0  # how much more often speech-free scenes with tones are drawn
    # The score that the loss tells speech from silence at. Below the session's own threshold, a
    # doubtful sound stays silence.
    boundary: float = network.THRESHOLD


PASSES = (Pass("first", 20000, 8e-3, 2.0, 1.5, 1.0),
          Pass("second", 8000, 3e-3, 1.5, 2.5, 1.4, 4.0, 0.19),
          Pass("third", 5000, 3e-3, 1.5, 2.5, 1.5, 12.0, 0.187))
AVERAGING = 0.999  # of the weights, over the last steps
VALIDATION = 60  # last scenes, kept for the learning curve (a quarter of a small set)


class FastSigmoid(torch.autograd.Function):
    """Forward as the library approximates it, backward as if it were exact."""

    @staticmethod
    def forward(context, x):
        u = x * -1.4426950408889634 + (1072632447 / 2 ** 20 - 1023)
        whole = torch.floor(u)
        out = 1 / (1 + torch.exp2(whole) * (1 + u - whole))
        context.save_for_backward(out)
        return out

    @staticmethod
    def backward(context, grad):
        out, = context.saved_tensors
        return grad * out * (1 - out)


def fast_tanh(x):
    return 2 * FastSigmoid.apply(2 * x) - 1


class Net(nn.Module):
    """Whitened input, tanh layers, a bounded output layer."""

    def __init__(self, centre, whitening, hidden):
        super().__init__()
        self.register_buffer("centre", torch.as_tensor(centre, dtype=torch.float32))
        self.register_buffer("whitening", torch.as_tensor(whitening, dtype=torch.float32))
        sizes = [len(centre), *hidden, network.CLASSES]
        self.inner = nn.ModuleList(nn.Linear(a, b) for a, b in zip(sizes, sizes[1:-1]))
        self.last = nn.Linear(sizes[-2], sizes[-1])

    def bounded(self):
        """Output weights and biases, scaled so that every logit stays within OUTPUT_BOUND."""
        reach = self.last.weight.abs().sum(dim=1) + self.last.bias.abs()
        scale = torch.clamp(OUTPUT_BOUND / reach, max=1.0)
        return self.last.weight * scale[:, None], self.last.bias * scale

    def forward(self, stacked):
        first, *others = self.inner
        x = fast_tanh(F.linear(stacked - self.centre, first.weight @ self.whitening, first.bias))
        for layer in others:
            x = fast_tanh(layer(x))
        return F.log_softmax(F.linear(x, *self.bounded()), dim=-1)

    def layers(self):
        """The same network with plain sigmoid layers: [(weights, biases)]."""
        with torch.no_grad():
            pairs = [(layer.weight.double(), layer.bias.double()) for layer in self.inner]
            first = pairs[0][0] @ self.whitening.double()
            pairs[0] = first, pairs[0][1] - first @ self.centre.double()
            pairs.append(tuple(p.double() for p in self.bounded()))
            plain = []
            for number, (weight, bias) in enumerate(pairs):
                if number > 0:  # its inputs are tanh(a) = 2 sigmoid(2 a) - 1
                    weight, bias = 2 * weight, bias - weight.sum(dim=1)
                if number < len(pairs) - 1:  # its outputs are sigmoids
                    weight, bias = 2 * weight, 2 * bias
                plain.append((weight, bias))
            return [(w.float().numpy(), b.float().numpy()) for w, b in plain]

    def start_from(self, layers):
        """Take over plain sigmoid layers, as layers() gives them."""
        with torch.no_grad():
            for number, (weight, bias) in enumerate(layers):
                weight, bias = (torch.tensor(p, dtype=torch.float64) for p in (weight, bias))
                if number < len(layers) - 1:
                    weight, bias = weight / 2, bias / 2
                if number > 0:
                    weight = weight / 2
                    bias = bias + weight.sum(dim=1)
                else:
                    bias = bias + weight @ self.centre.double()
                    weight = weight @ torch.linalg.inv(self.whitening.double())
                target = [*self.inner, self.last][number]
                target.weight.copy_(weight)
                target.bias.copy_(bias)


def log_score(log_posteriors):
    """Logarithm of the smoother's score: [batch, time, 9] -> [batch, time - WARM]."""
    speech = log_posteriors[:, :, network.FIRST_SPEECH:].exp().transpose(1, 2)
    means = F.avg_pool1d(speech, network.AVERAGE, 1)
    maxima = F.max_pool1d(means, network.MAXIMUM, 1)
    return (1 + maxima.log().sum(dim=1)) / (network.CLASSES - network.FIRST_SPEECH)


def loss_of(log_posteriors, marks, weights, free, boundary=network.THRESHOLD):
    """Mean loss; marks and weights [batch, CROP], free [batch]: 1 where a scene may not start one."""
    target = marks * (1 - 2 * SMOOTHING) + SMOOTHING
    margin = 4 * (log_score(log_posteriors) - np.log(boundary))
    each = F.binary_cross_entropy_with_logits(margin, target, reduction="none")
    on_score = (each * weights).sum() / weights.sum()
    speech = log_posteriors[:, WARM:, network.FIRST_SPEECH:].logsumexp(dim=-1)
    silence = log_posteriors[:, WARM:, :network.FIRST_SPEECH].logsumexp(dim=-1)
    on_frame = -(target * speech + (1 - target) * silence).mean()
    # One moment above the threshold is a false start, however good the other moments are.
    worst = F.softplus(margin.topk(WORST, dim=1).values).mean(dim=1)
    return on_score + 0.15 * on_frame + WORST_WEIGHT * (worst * free).mean()


def frame_weights(marks, snrs, settings):
    """What each frame counts in the loss: marks [scenes * FRAMES], snrs [scenes], a Pass."""
    weights = np.repeat(np.where(snrs < NOISY, settings.noisy, 1.0), FRAMES).astype(np.float32)
    edges = np.diff(marks.astype(np.int8), prepend=0)
    for onset in np.flatnonzero(edges == 1):
        weights[onset:onset + ONSET] *= settings.onset
    for end in np.flatnonzero(edges == -1):
        tail = slice(end + TAIL[0], end + TAIL[1])
        weights[tail] *= np.where(marks[tail], 1.0, settings.tail)
    return weights


class Crops:
    """Random pieces of scenes with their marks."""

    def __init__(self, work, name, front, mean, reverse_variance, settings):
        frames = features.load(work, name, front)
        self.context = front.context
        self.frames = torch.empty(len(frames), front.dimension)
        for start in range(0, len(frames), 1 << 18):
            piece = (frames[start:start + (1 << 18)] - mean) * reverse_variance
            self.frames[start:start + len(piece)] = torch.from_numpy(piece)
        marks = np.fromfile(os.path.join(work, name + ".marks"), np.uint8)
        with open(os.path.join(work, name + ".json")) as file:
            abouts = json.load(file)
        # A crowd is speech after all: a search for false starts would find little else.
        crowd = np.array(["crowd" in about["kinds"] for about in abouts])
        snrs = np.array([about.get("snr", np.inf) for about in abouts])
        self.marks = torch.from_numpy(marks)
        self.weights = torch.from_numpy(frame_weights(marks, snrs, settings))
        has_speech = marks.reshape(-1, FRAMES).any(axis=1)
        drawn = len(has_speech) - min(VALIDATION, len(has_speech) // 4)
        self.speech_scenes = np.flatnonzero(has_speech[:drawn])
        self.other_scenes = np.flatnonzero(~has_speech[:drawn])
        self.validation_scenes = np.arange(drawn, len(has_speech))
        # What each scene weighs when one without speech is drawn.
        self.share = np.array([settings.tones if "tones" in about["kinds"] else 1.0
                               for about in abouts])
        others = self.share[self.other_scenes]
        self.other_share = others / others.sum()
        self.free = torch.from_numpy(~has_speech & ~crowd).float()
        self.searched_scenes = np.flatnonzero(~has_speech[:drawn] & ~crowd[:drawn])
        self.hard = np.zeros((0, 2))  # (first frame of a crop, weight)
        self.length = CROP + WARM + self.context - 1
        # The last two frames of a scene reach into the next one.
        self.room = FRAMES - 2 - self.length

    def stacked(self, index):
        """[batch, time] frame numbers -> [batch, time - context + 1, inputs]."""
        windows = self.frames[index].unfold(1, self.context, 1)
        return windows.permute(0, 1, 3, 2).reshape(*windows.shape[:2], -1)

    def batch(self, starts):
        """(stacked features, marks, weights, free) of the crops that begin at frames `starts`."""
        index = torch.from_numpy(starts)[:, None] + torch.arange(self.length)
        counted = index[:, self.length - CROP:]
        return (self.stacked(index), self.marks[counted].float(), self.weights[counted],
                self.free[starts // FRAMES])

    def draw(self, rng, batch):
        share = rng.random(batch)
        scenes = np.where(share < SPEECH_SHARE, rng.choice(self.speech_scenes, batch),
                          rng.choice(self.other_scenes, batch, p=self.other_share))
        starts = scenes * FRAMES + rng.integers(0, self.room, batch)
        if len(self.hard):
            chosen = self.hard[rng.choice(len(self.hard), batch, p=self.hard_share), 0]
            starts = np.where(share > 1 - HARD_SHARE * (1 - SPEECH_SHARE), chosen, starts)
        return self.batch(starts.astype(np.int64))

    def validation(self):
        """The same crops of the last scenes every time."""
        rng = np.random.default_rng(0)
        return self.batch(self.validation_scenes * FRAMES
                          + rng.integers(0, self.room, len(self.validation_scenes)))

    def find_hard(self, net):
        """Note where the network takes speech-free scenes for speech, or nearly."""
        places = []
        with torch.no_grad():
            for scene in self.searched_scenes:
                first = scene * FRAMES
                index = first + torch.arange(FRAMES - 2)[None]
                near = log_score(net(self.stacked(index)))[0] > np.log(0.7 * network.THRESHOLD)
                blocks = near[:len(near) // 128 * 128].reshape(-1, 128).sum(dim=1).numpy()
                places += [(first + min(block * 128, self.room - 1),
                            self.share[scene] * np.sqrt(blocks[block]))
                           for block in np.flatnonzero(blocks)]
        self.use_hard(np.array(places).reshape(-1, 2))

    def use_hard(self, places):
        self.hard = places
        self.hard_share = places[:, 1] / places[:, 1].sum() if len(places) else None


def digest(arrays):
    """What tells one list of arrays, or of tuples of them, from another."""
    state = hashlib.sha256()
    for array in arrays:
        for part in array if isinstance(array, tuple) else (array,):
            state.update(np.ascontiguousarray(part))
    return state.hexdigest()


def whitening(crops, rng):
    """(centre, matrix): regularised ZCA of the stacked features."""
    sample = [crops.draw(rng, 64)[0] for _ in range(60)]
    sample = torch.cat([s.reshape(-1, s.shape[-1])[::9] for s in sample]).double()
    centre = sample.mean(dim=0)
    values, vectors = torch.linalg.eigh(torch.cov(sample.T))
    matrix = vectors @ torch.diag((values + WHITENING_FLOOR) ** -0.5) @ vectors.T
    return centre.numpy(), matrix.numpy()


def train(work, front, settings, batch=20, seed=5, name="train", threads=1, start=None):
    """One Pass over work/NAME, with checkpoints: (mean, reverse variance, layers).

    start: a model as export.read_model gives it, to continue from.
    """
    steps = settings.steps
    torch.set_num_threads(threads)
    torch.manual_seed(seed)
    rng = np.random.default_rng(seed)
    if start:
        mean, reverse_variance = start["mean"], start["reverse_variance"]
    else:
        mean, reverse_variance = features.normalisation(features.load(work, name, front))
    crops = Crops(work, name, front, mean, reverse_variance, settings)
    net = Net(*whitening(crops, rng), front.hidden)
    if start:
        net.start_from(start["layers"])
    average = copy.deepcopy(net)
    optimiser = torch.optim.AdamW(net.parameters(), settings.rate, weight_decay=1e-2)
    schedule = torch.optim.lr_scheduler.LambdaLR(
        optimiser, lambda step: min(1, (step + 1) / 200) * 0.5 * (1 + np.cos(np.pi * step / steps)))
    label = f"train {front.rate // 1000}k, {settings.name} pass"
    place = os.path.join(work, f"{name}{front.rate // 1000}k-{settings.name}")
    checkpoint, first = place + ".pt", 0
    made_by = [settings, batch, seed, front, digest(start["layers"]) if start else "",
               digest([crops.marks.numpy(), mean])]
    log, running = [], 0.0
    if os.path.exists(checkpoint):
        saved = torch.load(checkpoint)
        if saved["made_by"] == made_by:
            net.load_state_dict(saved["net"])
            average.load_state_dict(saved["average"])
            optimiser.load_state_dict(saved["optimiser"])
            schedule.load_state_dict(saved["schedule"])
            rng.bit_generator.state, first, log = saved["rng"], saved["step"], saved["log"]
            crops.use_hard(saved["hard"])
    begun, validation = time.time(), crops.validation()
    for step in range(first, steps):
        if step % HARD_EVERY == 0 and (step > 0 or start):
            crops.find_hard(net)
        drawn = crops.draw(rng, batch)
        loss = loss_of(net(drawn[0]), *drawn[1:], settings.boundary)
        optimiser.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(net.parameters(), 1.0)
        optimiser.step()
        schedule.step()
        running += loss.item()
        with torch.no_grad():
            for kept, now in zip(average.parameters(), net.parameters()):
                kept.lerp_(now, max(1 - AVERAGING, 1 / (step + 1)))
        if step % 200 == 199:
            with torch.no_grad():
                unseen = loss_of(average(validation[0]), *validation[1:],
                                 settings.boundary).item()
            log.append([step + 1, running / 200, unseen, len(crops.hard)])
            running = 0.0
            progress(label, step + 1 - first, steps - first, begun,
                     f"loss {log[-1][1]:.4f}, unseen {unseen:.4f}, {len(crops.hard)} hard places")
            with open(place + "-log.json", "w") as file:
                json.dump(log, file)
        if step % 1000 == 999 or step + 1 == steps:
            torch.save({"made_by": made_by, "net": net.state_dict(), "step": step + 1,
                        "average": average.state_dict(), "optimiser": optimiser.state_dict(),
                        "schedule": schedule.state_dict(), "rng": rng.bit_generator.state,
                        "hard": crops.hard, "log": log}, checkpoint + ".partial")
            os.replace(checkpoint + ".partial", checkpoint)
    return mean, reverse_variance, average.layers()
