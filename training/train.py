"""Training through the smoother, so that the classes learn what its score rewards.

The score is a geometric mean over the six speech classes of each one's best 30 ms mean within
200 ms, so the classes must take turns while someone speaks, and stop doing so at once after it.
Nothing tells a class when to peak; the loss on the score alone brings that about.
"""
import json
import os
import time

import numpy as np
import torch
from torch import nn
from torch.nn import functional as F

import features
import network
from label import SHIFT
from mix import RATE, SCENE

CROP = 256  # frames that count in the loss
WARM = network.MAXIMUM + network.AVERAGE - 2  # frames before them that fill the smoother
HIDDEN = 64
OUTPUT_BOUND = 4.7  # no logit leaves +-4.7, so no posterior falls below exp(-9.4) / 8 = 1.03e-5
WHITENING_FLOOR = 0.01  # added to the eigenvalues of the stacked features' covariance
SMOOTHING = 0.02
SPEECH_SHARE = 0.6  # of the crops come from scenes with speech
HARD_SHARE = 0.5  # of the others come from where the network last took something for speech
HARD_EVERY = 2000  # steps between searches for such places


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
    """Whitened input, two tanh layers, a bounded output layer."""

    def __init__(self, centre, whitening):
        super().__init__()
        self.register_buffer("centre", torch.as_tensor(centre, dtype=torch.float32))
        self.register_buffer("whitening", torch.as_tensor(whitening, dtype=torch.float32))
        inputs = len(centre)
        self.first = nn.Linear(inputs, HIDDEN)
        self.second = nn.Linear(HIDDEN, HIDDEN)
        self.last = nn.Linear(HIDDEN, network.CLASSES)

    def bounded(self):
        """Output weights and biases, scaled so that every logit stays within OUTPUT_BOUND."""
        reach = self.last.weight.abs().sum(dim=1) + self.last.bias.abs()
        scale = torch.clamp(OUTPUT_BOUND / reach, max=1.0)
        return self.last.weight * scale[:, None], self.last.bias * scale

    def forward(self, stacked):
        weights = self.first.weight @ self.whitening
        x = fast_tanh(F.linear(stacked - self.centre, weights, self.first.bias))
        x = fast_tanh(self.second(x))
        return F.log_softmax(F.linear(x, *self.bounded()), dim=-1)

    def layers(self):
        """The same network with plain sigmoid layers: [(weights, biases)]."""
        with torch.no_grad():
            double = [p.double() for p in (self.first.weight @ self.whitening, self.first.bias,
                                           self.second.weight, self.second.bias, *self.bounded())]
            w1, b1, w2, b2, w3, b3 = double
            # tanh(a) = 2 sigmoid(2 a) - 1
            plain = [(2 * w1, 2 * (b1 - w1 @ self.centre.double())),
                     (4 * w2, 2 * (b2 - w2.sum(dim=1))),
                     (2 * w3, b3 - w3.sum(dim=1))]
            return [(w.float().numpy(), b.float().numpy()) for w, b in plain]


def log_score(log_posteriors):
    """Logarithm of the smoother's score: [batch, time, 9] -> [batch, time - WARM]."""
    speech = log_posteriors[:, :, network.FIRST_SPEECH:].exp().transpose(1, 2)
    means = F.avg_pool1d(speech, network.AVERAGE, 1)
    maxima = F.max_pool1d(means, network.MAXIMUM, 1)
    return (1 + maxima.log().sum(dim=1)) / (network.CLASSES - network.FIRST_SPEECH)


def loss_of(log_posteriors, marks):
    """Mean loss; marks [batch, CROP] in 0..1."""
    target = marks * (1 - 2 * SMOOTHING) + SMOOTHING
    margin = 4 * (log_score(log_posteriors) - np.log(network.THRESHOLD))
    on_score = F.binary_cross_entropy_with_logits(margin, target)
    speech = log_posteriors[:, WARM:, network.FIRST_SPEECH:].logsumexp(dim=-1)
    silence = log_posteriors[:, WARM:, :network.FIRST_SPEECH].logsumexp(dim=-1)
    on_frame = -(target * speech + (1 - target) * silence).mean()
    return on_score + 0.15 * on_frame


class Crops:
    """Random pieces of training scenes with their marks."""

    def __init__(self, work, name, mean, reverse_variance):
        frames = features.load(work, name)
        self.per_scene = SCENE * RATE // SHIFT
        self.frames = torch.empty(len(frames), features.DIMENSION)
        for start in range(0, len(frames), 1 << 18):
            piece = (frames[start:start + (1 << 18)] - mean) * reverse_variance
            self.frames[start:start + len(piece)] = torch.from_numpy(piece)
        marks = np.fromfile(os.path.join(work, name + ".marks"), np.uint8)
        self.marks = torch.from_numpy(marks)
        with_speech = marks.reshape(-1, self.per_scene).any(axis=1)
        self.speech_scenes = np.flatnonzero(with_speech)
        self.other_scenes = np.flatnonzero(~with_speech)
        with open(os.path.join(work, name + ".json")) as file:
            crowd = np.array(["babble" in about["kinds"] for about in json.load(file)])
        # A crowd is speech after all: searching there would find little else.
        self.searched_scenes = np.flatnonzero(~with_speech & ~crowd)
        self.hard = np.zeros((0, 2), np.int64)  # (first frame of a crop, frames taken for speech)
        self.length = CROP + WARM + network.CONTEXT - 1
        # The last two frames of a scene reach into the next one.
        self.room = self.per_scene - 2 - self.length

    def stacked(self, index):
        """[batch, time] frame numbers -> [batch, time - 10, 286]."""
        windows = self.frames[index].unfold(1, network.CONTEXT, 1)
        return windows.permute(0, 1, 3, 2).reshape(*windows.shape[:2], -1)

    def draw(self, rng, batch):
        """(stacked features, marks) of `batch` crops."""
        share = rng.random(batch)
        scenes = np.where(share < SPEECH_SHARE, rng.choice(self.speech_scenes, batch),
                          rng.choice(self.other_scenes, batch))
        starts = scenes * self.per_scene + rng.integers(0, self.room, batch)
        if len(self.hard):
            weights = np.sqrt(self.hard[:, 1])
            chosen = self.hard[rng.choice(len(self.hard), batch, p=weights / weights.sum()), 0]
            starts = np.where(share > 1 - HARD_SHARE * (1 - SPEECH_SHARE), chosen, starts)
        index = torch.from_numpy(starts)[:, None] + torch.arange(self.length)
        return self.stacked(index), self.marks[index[:, self.length - CROP:]].float()

    def find_hard(self, net):
        """Note where the network takes speech-free scenes for speech, or nearly."""
        places = []
        with torch.no_grad():
            for scene in self.searched_scenes:
                first = scene * self.per_scene
                index = first + torch.arange(self.per_scene - 2)[None]
                near = log_score(net(self.stacked(index)))[0] > np.log(0.7 * network.THRESHOLD)
                blocks = near[:len(near) // 128 * 128].reshape(-1, 128).sum(dim=1).numpy()
                for block in np.flatnonzero(blocks):
                    places.append((first + min(block * 128, self.room - 1), blocks[block]))
        self.hard = np.array(places, np.int64).reshape(-1, 2)


def whitening(crops, rng):
    """(centre, matrix): regularised ZCA of the stacked features."""
    sample = torch.cat([crops.draw(rng, 64)[0].reshape(-1, 286)[::7] for _ in range(80)]).double()
    centre = sample.mean(dim=0)
    values, vectors = torch.linalg.eigh(torch.cov(sample.T))
    matrix = vectors @ torch.diag((values + WHITENING_FLOOR) ** -0.5) @ vectors.T
    return centre.numpy(), matrix.numpy()


def train(work, steps=12000, batch=20, rate=8e-3, seed=5, name="train", threads=1):
    """Train on work/NAME, with checkpoints: (mean, reverse variance, layers)."""
    torch.set_num_threads(threads)
    torch.manual_seed(seed)
    rng = np.random.default_rng(seed)
    mean, reverse_variance = features.normalisation(features.load(work, name))
    crops = Crops(work, name, mean, reverse_variance)
    net = Net(*whitening(crops, rng))
    optimiser = torch.optim.AdamW(net.parameters(), rate, weight_decay=1e-2)
    schedule = torch.optim.lr_scheduler.LambdaLR(
        optimiser, lambda step: min(1, (step + 1) / 200) * 0.5 * (1 + np.cos(np.pi * step / steps)))
    checkpoint, start = os.path.join(work, "checkpoint.pt"), 0
    settings = [steps, batch, rate, seed, name, len(crops.marks)]
    if os.path.exists(checkpoint):
        saved = torch.load(checkpoint)
        if saved["settings"] == settings:
            net.load_state_dict(saved["net"])
            optimiser.load_state_dict(saved["optimiser"])
            schedule.load_state_dict(saved["schedule"])
            rng.bit_generator.state, start = saved["rng"], saved["step"]
            crops.hard = saved["hard"]
    log, begun, running = [], time.time(), 0.0
    for step in range(start, steps):
        stacked, marks = crops.draw(rng, batch)
        loss = loss_of(net(stacked), marks)
        optimiser.zero_grad()
        loss.backward()
        nn.utils.clip_grad_norm_(net.parameters(), 1.0)
        optimiser.step()
        schedule.step()
        running += loss.item()
        if step % HARD_EVERY == HARD_EVERY - 1 and step + 1 < steps:
            crops.find_hard(net)
            print(f"train: {crops.hard[:, 1].sum() / 100:.0f} s of speech-free scenes taken for "
                  f"speech, or nearly", flush=True)
        if step % 200 == 199:
            log.append([step + 1, running / 200])
            print(f"train {step + 1}/{steps} loss {running / 200:.4f} "
                  f"{(time.time() - begun) / (step + 1 - start) * 1000:.0f} ms/step", flush=True)
            running = 0.0
        if step % 1000 == 999:
            torch.save({"settings": settings, "net": net.state_dict(), "step": step + 1,
                        "optimiser": optimiser.state_dict(), "schedule": schedule.state_dict(),
                        "rng": rng.bit_generator.state, "hard": crops.hard}, checkpoint)
    with open(os.path.join(work, "train-log.json"), "w") as file:
        json.dump(log, file)
    return mean, reverse_variance, net.layers()
