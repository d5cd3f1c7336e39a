"""Checks of the pipeline's own parts on a few seconds of made-up data.

    /usr/bin/python3 -m unittest discover training

Needs numpy; the parts that need scipy, soundfile, torch or the compiled tools say when they are
skipped.
"""
import importlib.util
import json
import os
import struct
import subprocess
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import export
import label
import network

TOOL = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))),
                    "build", "training", "tools", "training", "score_pcm")


def missing(*modules):
    return [name for name in modules if importlib.util.find_spec(name) is None]


def vowel(rng, seconds, pitch=120.0):
    t = np.arange(int(seconds * 8000)) / 8000
    return 4000 * sum(np.sin(2 * np.pi * pitch * k * t + rng.uniform(0, 6)) / k
                      for k in range(1, 20)) / 2


def hiss(rng, seconds):
    x = rng.standard_normal(int(seconds * 8000))
    return 250 * np.diff(x, prepend=0)


class Labels(unittest.TestCase):
    def test_marks_follow_the_speech(self):
        rng = np.random.default_rng(1)
        x = 8 * rng.standard_normal(4 * 8000)
        for start, sound in ((0.50, vowel(rng, 0.60)), (1.16, vowel(rng, 0.34)),  # 60 ms gap
                             (1.50, hiss(rng, 0.15)),  # a weak "s" at the end
                             (2.60, vowel(rng, 0.40))):
            at = int(start * 8000)
            x[at:at + len(sound)] += sound
        x[int(3.5 * 8000)] += 8000  # a click
        found = label.runs(label.label(x)) * 0.01
        # A frame's middle lies 12.5 ms behind its start.
        np.testing.assert_allclose(found + 0.0125, [[0.50, 1.65], [2.60, 3.00]], atol=0.025)

    def test_silence_has_no_speech(self):
        self.assertFalse(label.label(np.zeros(8000, np.int16)).any())
        self.assertEqual(len(label.label(np.zeros(100, np.int16))), 0)


def random_layers(rng, sizes):
    return [(rng.standard_normal((b, a)).astype(np.float32) / 8,
             rng.standard_normal(b).astype(np.float32)) for a, b in zip(sizes, sizes[1:])]


class ModelFile(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.path = os.path.join(self.folder.name, "model.bin")
        self.addCleanup(self.folder.cleanup)
        self.rng = np.random.default_rng(2)

    def test_round_trip_is_exact(self):
        # Dimension 10 puts a line end into the binary header.
        mean, multiplier = (self.rng.standard_normal(10).astype(np.float32) for _ in range(2))
        layers = random_layers(self.rng, (30, 7, 9))
        export.write_model(self.path, mean, multiplier, layers)
        back = export.read_model(self.path)
        np.testing.assert_array_equal(back["mean"], mean)
        np.testing.assert_array_equal(back["reverse_variance"], multiplier)
        self.assertEqual((back["rate"], back["low"], back["high"]), (8000, 40, 3800))
        for (w, b), (w_back, b_back) in zip(layers, back["layers"]):
            np.testing.assert_array_equal(w_back, w)
            np.testing.assert_array_equal(b_back, b)

    def test_bytes_lie_where_the_library_reads_them(self):
        layers = random_layers(self.rng, (4, 3, 2))
        export.write_model(self.path, np.zeros(2), np.ones(2), layers)
        with open(self.path, "rb") as file:
            data = file.read()
        at = len(data) - 4 * (3 * 5 + 2 * 4)
        self.assertEqual(struct.unpack_from("<4i", data, at - 16), (3, 4, 3, 2))
        self.assertEqual(struct.unpack_from("<f", data, at + 4)[0], layers[0][0][0, 1])
        self.assertEqual(struct.unpack_from("<f", data, len(data) - 4)[0], layers[1][1][1])
        self.assertIn(b"\n23\nmeanvec 2\n0\n0\nrevvarvec 2\n1\n1\n", data)

    @unittest.skipUnless(os.path.exists(TOOL), "score_pcm is not built")
    def test_library_scores_the_file_like_the_replica(self):
        layers = random_layers(self.rng, (286, 64, 64, 9))
        mean, multiplier = np.full(26, 8, np.float32), np.full(26, 0.3, np.float32)
        export.write_model(self.path, mean, multiplier, layers)
        samples = (3000 * self.rng.standard_normal(16000)).astype(np.int16)
        raw = self.path + ".s16"
        samples.tofile(raw)
        subprocess.run([TOOL, self.path, raw, raw + ".out"], check=True)
        table = np.fromfile(raw + ".out", np.float32).reshape(-1, 10)
        feature_tool = os.path.join(os.path.dirname(TOOL), "extract_features")
        subprocess.run([feature_tool, raw, raw + ".f32"], check=True)
        frames = np.fromfile(raw + ".f32", np.float32).reshape(-1, 26)
        plain = network.forward(layers, network.stack((frames - mean) * multiplier))
        self.assertEqual(len(table), label.frame_count(len(samples)))
        np.testing.assert_allclose(table[:, :9], plain, atol=1e-5)
        np.testing.assert_array_equal(np.isin(table[:, 9], (0, 3)),
                                      network.states(network.scores(table[:, :9])))


class Replica(unittest.TestCase):
    def test_fast_sigmoid(self):
        # High word 1072632447: exponent -1, mantissa 987775 / 2^20.
        self.assertAlmostEqual(float(network.fast_sigmoid([0.0])[0]),
                               1 / (1 + 0.5 * (1 + 987775 / 2 ** 20)), places=7)
        x = np.linspace(-30, 30, 3001)
        self.assertLess(np.abs(network.fast_sigmoid(x) - 1 / (1 + np.exp(-x))).max(), 0.02)

    def test_smoother(self):
        sure = np.zeros((30, 9), np.float32)
        sure[:, 3:] = 1
        np.testing.assert_allclose(network.scores(sure), np.exp(1 / 6), rtol=1e-6)
        shared = sure / 6  # six classes that share everything equally never start speech
        self.assertAlmostEqual(float(network.scores(shared)[-1]), 0.19689, places=4)
        self.assertFalse(network.states(network.scores(shared)).any())

        # One frame of each class in turn: the score rises when the last class has been seen and
        # falls when the first one's means leave the 20 frames.
        turns = np.zeros((60, 9), np.float32)
        turns[:, 0] = 1
        for k in range(6):
            turns[10 + k] = np.eye(9)[3 + k]
        score = network.scores(turns)
        np.testing.assert_allclose(score[15:32], np.exp(1 / 6) / 3, rtol=1e-6)
        self.assertEqual(score[14], 0)
        self.assertEqual(score[32], 0)

        # The first two frames are averaged over one and two.
        begin = np.zeros((3, 9), np.float32)
        begin[0, 3:] = 0.5
        np.testing.assert_allclose(network.scores(begin), 0.5 * np.exp(1 / 6), rtol=1e-6)
        self.assertEqual(network.states(np.array([0.1, 0.2, 0.3, 0.15, 0.1]), 0.2, 0.12).tolist(),
                         [False, True, True, True, False])


@unittest.skipIf(missing("torch", "scipy", "soundfile"), "needs torch, scipy and soundfile")
class Trainer(unittest.TestCase):
    def test_folded_layers_and_score_match_the_trained_form(self):
        import torch
        import train
        torch.manual_seed(4)
        rng = np.random.default_rng(4)
        matrix = rng.standard_normal((286, 286)) / 10
        net = train.Net(rng.standard_normal(286), matrix)
        with torch.no_grad():
            net.last.weight *= 50  # far beyond the bound
            x = 3 * rng.standard_normal((300, 286)).astype(np.float32)
            trained = net(torch.from_numpy(x)[None])
            folded = network.forward(net.layers(), x)
            np.testing.assert_allclose(trained[0].exp().numpy(), folded, atol=1e-4)
            self.assertGreater(folded.min(), 1e-5)
            np.testing.assert_allclose(train.log_score(trained)[0].exp().numpy(),
                                       network.scores(folded)[train.WARM:], rtol=1e-3)


@unittest.skipIf(missing("scipy", "soundfile"), "needs scipy and soundfile")
class Mixing(unittest.TestCase):
    def test_scenes_are_reproducible_and_keep_the_splits_apart(self):
        import mix
        rng = np.random.default_rng(5)
        with tempfile.TemporaryDirectory() as work:
            records, pieces, at = [], [], 0
            for number in range(24):
                kind = ("speech", "noise", "music")[number % 3]
                x = 20 * rng.standard_normal(16000)
                if kind == "speech":
                    sound = vowel(rng, 0.8, rng.uniform(90, 200))
                    x[4000:4000 + len(sound)] += sound
                else:
                    x *= 50
                records.append({"package": "made-up", "name": str(number), "kind": kind,
                                "voice": f"v{number % 2}", "held_out": number >= 12, "start": at,
                                "length": len(x)})
                pieces.append(x.astype(np.int16))
                at += len(x)
            np.concatenate(pieces).tofile(os.path.join(work, "clips.s16"))
            with open(os.path.join(work, "clips.json"), "w") as file:
                json.dump(records, file)
            for held_out in (False, True):
                sources = mix.Sources(work, held_out)
                used = [r for voice in sources.voices.values() for r in voice]
                used += [r for p in sources.noise.values() for r in p] + sources.music
                self.assertEqual(len(used), 12)
                self.assertTrue(all(r["held_out"] == held_out for r in used))
            sources = mix.Sources(work, False)
            track, marks = mix.speech_track(np.random.default_rng(6), sources, 30 * 8000)
            self.assertGreater(marks.mean(), 0.1)
            level = label.energies(track)
            spoken = marks[:len(level)]
            self.assertGreater(level[spoken].mean() - level[~spoken].mean(), 20)
            for number in range(6):
                first = mix.training_scene(np.random.default_rng([7, number]), sources)
                again = mix.training_scene(np.random.default_rng([7, number]), sources)
                np.testing.assert_array_equal(first[0], again[0])
                self.assertEqual(len(first[0]), len(first[1]) * label.SHIFT)


if __name__ == "__main__":
    unittest.main()
