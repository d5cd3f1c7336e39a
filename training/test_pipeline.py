"""Checks of the pipeline's own parts, and of the whole of it on two minutes of scenes.

    DNNVAD_TRAINING_TOOLS=FOLDER /usr/bin/python3 -m unittest discover training

FOLDER holds the built session_pcm and extract_features (default: where the pipeline builds them).
Needs numpy; the parts that need scipy, soundfile, torch or the tools say when they are skipped.
"""
import importlib.util
import json
import os
import struct
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import network

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
TOOLS = os.environ.get("DNNVAD_TRAINING_TOOLS",
                       os.path.join(ROOT, "build", "training", "tools", "training"))


def missing(*modules):
    return [name for name in modules if importlib.util.find_spec(name) is None]


NEEDS_SCIPY = unittest.skipIf(missing("scipy"), "needs scipy")


def vowel(rng, seconds, pitch=120.0):
    t = np.arange(int(seconds * 16000)) / 16000
    return 4000 * sum(np.sin(2 * np.pi * pitch * k * t + rng.uniform(0, 6)) / k
                      for k in range(1, 20)) / 2


def hiss(rng, seconds):
    return 500 * np.diff(rng.standard_normal(int(seconds * 16000)), prepend=0)


@NEEDS_SCIPY
class Labels(unittest.TestCase):
    def test_marks_follow_the_speech(self):
        import label
        rng = np.random.default_rng(1)
        x = 8 * rng.standard_normal(4 * 16000)
        for start, sound in ((0.50, vowel(rng, 0.60)), (1.16, vowel(rng, 0.34)),  # 60 ms gap
                             (1.50, hiss(rng, 0.15)),  # a weak "s" at the end
                             (2.60, vowel(rng, 0.40))):
            at = int(start * 16000)
            x[at:at + len(sound)] += sound
        x[int(3.5 * 16000)] += 8000  # a click
        found = label.runs(label.label(x)) * 0.01
        # A frame's middle lies 12.5 ms behind its start.
        np.testing.assert_allclose(found + 0.0125, [[0.50, 1.65], [2.60, 3.00]], atol=0.025)

    def test_silence_has_no_speech(self):
        import label
        self.assertFalse(label.label(np.zeros(16000, np.int16)).any())
        self.assertEqual(len(label.label(np.zeros(200, np.int16))), 0)


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
        import export
        import features
        # Dimension 10 puts a line end into the binary header.
        front = features.Front(16000, 10, 50, 7000, 3, (7, 5))
        mean, multiplier = (self.rng.standard_normal(10).astype(np.float32) for _ in range(2))
        layers = random_layers(self.rng, (30, 7, 5, 9))
        export.write_model(self.path, front, mean, multiplier, layers)
        back = export.read_model(self.path)
        np.testing.assert_array_equal(back["mean"], mean)
        np.testing.assert_array_equal(back["reverse_variance"], multiplier)
        self.assertEqual(back["front"], front)
        for (w, b), (w_back, b_back) in zip(layers, back["layers"]):
            np.testing.assert_array_equal(w_back, w)
            np.testing.assert_array_equal(b_back, b)

    def test_bytes_lie_where_the_library_reads_them(self):
        import export
        import features
        layers = random_layers(self.rng, (4, 3, 2))
        export.write_model(self.path, features.NARROW, np.zeros(2), np.ones(2), layers)
        with open(self.path, "rb") as file:
            data = file.read()
        at = len(data) - 4 * (3 * 5 + 2 * 4)
        self.assertEqual(struct.unpack_from("<4i", data, at - 16), (3, 4, 3, 2))
        self.assertEqual(struct.unpack_from("<f", data, at + 4)[0], layers[0][0][0, 1])
        self.assertEqual(struct.unpack_from("<f", data, len(data) - 4)[0], layers[1][1][1])
        self.assertIn(b"\n23\nmeanvec 2\n0\n0\nrevvarvec 2\n1\n1\n", data)


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
    def setUp(self):
        import torch
        import train
        self.torch, self.train = torch, train
        torch.manual_seed(4)
        rng = np.random.default_rng(4)
        self.net = train.Net(rng.standard_normal(60), rng.standard_normal((60, 60)) / 5, (20, 10))
        self.x = 3 * rng.standard_normal((300, 60)).astype(np.float32)
        with torch.no_grad():
            self.net.last.weight *= 50  # far beyond the bound

    def test_folded_layers_and_score_match_the_trained_form(self):
        with self.torch.no_grad():
            trained = self.net(self.torch.from_numpy(self.x)[None])
        folded = network.forward(self.net.layers(), self.x)
        np.testing.assert_allclose(trained[0].exp().numpy(), folded, atol=1e-4)
        self.assertGreater(folded.min(), 1e-5)
        np.testing.assert_allclose(self.train.log_score(trained)[0].exp().numpy(),
                                   network.scores(folded)[self.train.WARM:], rtol=1e-3)

    def test_a_network_continues_where_its_file_left_off(self):
        again = self.train.Net(self.net.centre + 1, self.net.whitening * 2, (20, 10))
        again.start_from(self.net.layers())
        np.testing.assert_allclose(network.forward(again.layers(), self.x),
                                   network.forward(self.net.layers(), self.x), atol=1e-4)

    def test_frames_after_edges_weigh_more(self):
        marks = np.zeros(6000, np.uint8)
        marks[10:40] = marks[50:60] = marks[4000:4001] = 1
        weights = self.train.frame_weights(marks, np.array([20, -3]),
                                           self.train.Pass("", 1, 1, onset=3, tail=5, noisy=2))
        self.assertEqual(set(np.flatnonzero(weights[:3000] == 3)), {*range(10, 22), *range(50, 62)})
        self.assertEqual(set(np.flatnonzero(weights[:3000] == 5)), {*range(43, 50), *range(63, 80)})
        self.assertEqual(set(np.flatnonzero(weights[:3000] == 15)), set())
        np.testing.assert_array_equal(np.unique(weights[3000:]), [2, 6, 10, 30])


def made_up_clips(work):
    """Write clips.s16 and clips.json: voices, noise and music in both splits."""
    rng = np.random.default_rng(5)
    records, pieces, at = [], [], 0
    for number in range(30):
        kind = ("speech", "noise", "music")[number % 3]
        x = 20 * rng.standard_normal(24000)
        if kind == "speech":
            sound = vowel(rng, 0.8, rng.uniform(90, 200))
            x[6000:6000 + len(sound)] += sound
        else:
            x *= 50
        voice = {"speech": f"v{number % 2}", "noise": ("", "machines")[number % 2], "music": ""}
        records.append({"package": "made-up", "name": str(number), "kind": kind,
                        "voice": voice[kind], "held_out": number >= 15, "start": at,
                        "length": len(x)})
        pieces.append(x.astype(np.int16))
        at += len(x)
    np.concatenate(pieces).tofile(os.path.join(work, "clips.s16"))
    with open(os.path.join(work, "clips.json"), "w") as file:
        json.dump(records, file)


@unittest.skipIf(missing("scipy", "soundfile"), "needs scipy and soundfile")
class Mixing(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.work = folder.name
        made_up_clips(self.work)

    def test_splits_stay_apart(self):
        import mix
        for held_out in (False, True):
            sources = mix.Sources([self.work], held_out)
            pools = [sources.voices, *sources.noise.values()]
            used = [clip for pool in pools for group in pool.groups for clip in group]
            self.assertEqual(len(used), 15)
            self.assertTrue(all(clip["held_out"] == held_out for clip in used))

    def test_marks_lie_on_the_speech_and_scenes_are_reproducible(self):
        import label
        import mix
        sources = mix.Sources([self.work], False)
        track, marks = mix.speech_track(np.random.default_rng(6), sources, 30 * 16000)
        self.assertGreater(marks.mean(), 0.1)
        level = label.energies(track[::2])
        spoken = marks[:len(level)]
        self.assertGreater(level[spoken].mean() - level[~spoken].mean(), 20)
        for number in range(6):
            first = mix.training_scene(np.random.default_rng([7, number]), sources)
            again = mix.training_scene(np.random.default_rng([7, number]), sources)
            for rate, samples, repeated in zip((16000, 8000), first[0], again[0]):
                np.testing.assert_array_equal(samples, repeated)
                self.assertEqual(len(samples) * 100, len(first[1]) * rate)

    def test_own_recordings_get_their_share(self):
        import mix
        pool = mix.Pool({"a": list(range(900)), "b": list(range(100)), "own-x": [1]}, lambda _: 1)
        np.testing.assert_allclose(pool.share, [0.45, 0.15, 0.4])

    def test_tone_bursts_lie_where_they_are_said_to(self):
        import synth
        x, places = synth.tones(np.random.default_rng(8), 20 * 16000)
        inside = np.zeros(len(x), bool)
        for first, end, _ in places:
            inside[first:end] = True
            self.assertGreater(np.abs(x[first:end]).max(), 0.2)
        self.assertGreater(len(places), 3)
        self.assertEqual(np.abs(x[~inside]).max(), 0)

    @unittest.skipIf(missing("torch"), "needs torch")
    @unittest.skipUnless(os.path.exists(os.path.join(TOOLS, "session_pcm")), "the tools are missing")
    def test_from_clips_to_a_model_that_the_library_runs_like_the_trainer(self):
        import check
        import export
        import features
        import mix
        import train
        from unittest import mock
        with mock.patch.object(features, "build_tools", lambda work: TOOLS):
            mix.mix(self.work, "train", 8, seed=2)
            mix.mix(self.work, "heldout", 14, seed=2)
            for front in (features.NARROW, features.WIDE):
                features.extract(self.work, "train", front)
                settings = train.Pass("only", 200, 8e-3, 2, 2, 1)
                trained = train.train(self.work, front, settings, batch=4)
                model = os.path.join(self.work, f"{front.rate}.bin")
                export.write_model(model, front, *trained)
                figures = check.report(self.work, model)
                self.assertLess(figures["difference"], 1e-4)
                self.assertGreater(figures["smallest_posterior"], 1e-5)
                self.assertGreater(figures["clean"]["auc_shifted"], 0.9)
                with open(os.path.join(self.work, f"train{front.rate // 1000}k-only-log.json")) as file:
                    self.assertEqual(json.load(file)[-1][0], 200)
                # A finished training is taken from its checkpoint.
                with mock.patch.object(train, "loss_of", self.fail):
                    again = train.train(self.work, front, settings, batch=4)
                for (w, _), (w_again, _) in zip(trained[2], again[2]):
                    np.testing.assert_array_equal(w, w_again)


@unittest.skipIf(missing("scipy", "soundfile"), "needs scipy and soundfile")
class OwnRecordings(unittest.TestCase):
    def test_a_users_folders_become_clips_that_scenes_can_hold(self):
        import finetune
        import mix
        import soundfile
        from decode import load_clips
        rng = np.random.default_rng(9)
        with tempfile.TemporaryDirectory() as folder:
            def path(*parts):
                os.makedirs(os.path.join(folder, *parts[:-1]), exist_ok=True)
                return os.path.join(folder, *parts)
            long = 20 * rng.standard_normal(40 * 8000)  # 40 s at 8 kHz with words of 0.8 s
            for second in range(1, 40, 2):
                word = vowel(rng, 0.8)[::2]
                long[second * 8000:second * 8000 + len(word)] += word
            soundfile.write(path("speech", "ann", "long.wav"), long / 32768, 8000)
            for number in range(5):
                both = np.repeat(vowel(rng, 0.5)[:, None] / 32768, 2, axis=1)
                soundfile.write(path("speech", f"top{number}.flac"), both, 16000)
                soundfile.write(path("noise", f"{number}.wav"), rng.uniform(-0.1, 0.1, 9000), 44100)
            soundfile.write(path("noise", "empty.wav"), np.zeros(0), 16000)
            with open(path("noise", "notes.txt"), "w") as file:
                file.write("no recording")
            work = os.path.join(folder, "work")
            os.mkdir(work)
            finetune.own_clips(work, {"speech": os.path.join(folder, "speech"),
                                      "noise": os.path.join(folder, "noise")})
            clips, samples = load_clips(work)
            self.assertEqual(sum(clip["length"] for clip in clips), len(samples))
            self.assertTrue(all(800 <= clip["length"] < 30 * 16000 for clip in clips))
            voices = [clip["voice"] for clip in clips if clip["kind"] == "speech"]
            self.assertEqual((voices.count("own-ann"), voices.count("own-")), (20, 5))
            self.assertEqual(sum(clip["kind"] == "noise" for clip in clips), 5)
            self.assertTrue(any(clip["held_out"] for clip in clips))
            others = os.path.dirname(path("others", "clips.s16"))
            made_up_clips(others)
            sources = mix.Sources([others, work], False)
            own = [group[0]["voice"].startswith("own") for group in sources.voices.groups]
            np.testing.assert_allclose(sources.voices.share[own].sum(), mix.OWN_SHARE)


if __name__ == "__main__":
    unittest.main()
