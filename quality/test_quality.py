"""Checks of the measurement itself on hand-made cases.

    /usr/bin/python3 -m unittest discover quality

Needs numpy; the parts that need node or the training recordings say when they are skipped.
"""
import json
import os
import shutil
import subprocess
import sys
import unittest

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import metrics
import quality

CLIPS = os.path.join(os.path.dirname(HERE), "build", "training", "clips.json")


def marked(frames, *stretches):
    """One scene with the given [start, end) stretches marked."""
    marks = np.zeros(frames, bool)
    for start, end in stretches:
        marks[start:end] = True
    return marks


class Curves(unittest.TestCase):
    def test_area_is_the_share_of_pairs_in_order(self):
        score = np.array([0.1, 0.4, 0.35, 0.8, 0.4])
        truth = np.array([0, 0, 1, 1, 1], bool)
        pairs = [(p > n) + 0.5 * (p == n) for p in score[truth] for n in score[~truth]]
        self.assertAlmostEqual(metrics.auc(score, truth), np.mean(pairs))
        self.assertEqual(metrics.auc(np.zeros(5), truth), 0.5)

    def test_shift_finds_the_delay(self):
        rng = np.random.default_rng(1)
        truth = np.repeat(rng.random((2, 30)) < 0.5, 10, axis=1)
        late = np.zeros(truth.shape)
        late[:, 7:] = truth[:, :-7]
        self.assertEqual(metrics.shifted_auc(late, truth), (1.0, 7))
        self.assertLess(metrics.auc(late, truth), 0.9)

    def test_curve_passes_through_the_known_points(self):
        score = np.array([3, 3, 2, 1, 1, 0])
        truth = np.array([1, 0, 1, 0, 1, 0], bool)
        alarm, hit, precision = metrics.curve(score, truth)
        np.testing.assert_allclose(alarm, [0, 1 / 3, 1 / 3, 2 / 3, 1])
        np.testing.assert_allclose(hit, [0, 1 / 3, 2 / 3, 1, 1])
        np.testing.assert_allclose(precision, [1, 1 / 2, 2 / 3, 3 / 5, 1 / 2])

    def test_thinned_curve_keeps_the_area(self):
        rng = np.random.default_rng(2)
        truth = rng.random(20000) < 0.3
        score = rng.standard_normal(20000) + 1.5 * truth
        alarm, hit, _ = metrics.curve(score, truth, 200)
        self.assertLess(len(alarm), 210)
        self.assertAlmostEqual(np.trapz(hit, alarm), metrics.auc(score, truth), delta=0.001)

    def test_frame_rates(self):
        rates = metrics.frame_rates(marked(20, (4, 12)), marked(20, (6, 16)))
        self.assertAlmostEqual(rates["f1"], 12 / 18)
        self.assertAlmostEqual(rates["precision"], 6 / 8)
        self.assertAlmostEqual(rates["miss_rate"], 4 / 10)
        self.assertAlmostEqual(rates["alarm_rate"], 2 / 10)


class Utterances(unittest.TestCase):
    def test_gaps_close_before_short_ones_go(self):
        marks = marked(300, (10, 20), (50, 60), (91, 110), (200, 220))
        # A gap of 30 closes, one of 31 does not; 19 frames are too few, 20 are enough.
        self.assertEqual(metrics.utterances(marks), [(10, 60), (200, 220)])

    def test_delays(self):
        truth = marked(1000, (0, 50), (200, 250), (400, 450), (600, 650), (700, 750), (900, 950))
        found = marked(1000,
                       (5, 58),      # 5 late, 8 over
                       (190, 240),   # early, gone before the end: cut
                       (475, 490),   # nothing until 20 behind the end: missed, and cut
                       (669, 700),   # the last chance of the fourth; runs on into the fifth: early
                       (700, 905))   # never rests, so the fifth has no end; the sixth is early
        # The fourth and the sixth have 50 frames behind them, too few to time their ends.
        self.assertEqual(metrics.utterance_figures(found[None], truth[None]), {
            "utterances": 6, "missed": 1, "early": 3, "onset": [5, 69], "ended": 4, "cut": 2,
            "end": [8, np.inf]})

    def test_each_scene_stands_alone(self):
        truth = np.array([marked(200, (100, 150)), marked(200, (0, 40))])
        found = np.array([marked(200, (100, 200)), marked(200, (3, 40))])
        figures = metrics.utterance_figures(found, truth)
        self.assertEqual((figures["early"], figures["onset"], figures["end"]), (0, [0, 3], [0]))

    def test_begins(self):
        self.assertEqual(metrics.session_begins(marked(500)), 0)
        # A rest of 90 frames goes on with the utterance, one of 91 begins another.
        self.assertEqual(metrics.session_begins(marked(500, (0, 9), (99, 101), (192, 193))), 2)
        self.assertEqual(metrics.status_begins(np.array([0, 1, 2, 1, 6, 6, 1, 3, 1, 5, 1])), 3)
        self.assertEqual(metrics.status_begins(np.array([1, 1, 2])), 1)

    def test_bursts(self):
        bursts = [[50, 60, "ring"], [10, 20, "beep"], [65, 70, "dtmf"], [90, 95, "beep"]]
        found = marked(120, (29, 31), (66, 67), (105, 106))
        # The first by its tail; the ring not, for the next burst begins within its tail.
        self.assertEqual(metrics.bursts_taken(found, bursts),
                         ([True, False, True, False], ["beep", "ring", "dtmf", "beep"]))


class Recordings(unittest.TestCase):
    def test_a_shared_recording_is_seen(self):
        samples = np.arange(60, dtype=np.int16)
        samples[40:50] = samples[10:20]
        records = [{"package": "p", "name": str(start), "held_out": start >= 30, "start": start,
                    "length": 10} for start in range(0, 60, 10)]
        self.assertEqual(quality.shared_recordings(records, samples), [("p 10", "p 40")])
        records[1]["held_out"] = True  # twice on the same side is no fault
        self.assertEqual(quality.shared_recordings(records, samples), [])

    @unittest.skipUnless(os.path.exists(CLIPS), "the recordings are not decoded")
    def test_nothing_is_in_both_sets(self):
        with open(CLIPS) as file:
            records = json.load(file)
        self.assertEqual({record["held_out"] for record in records}, {False, True})
        # Speech is held out by voice, the rest by package.
        origins = [{(r["kind"], r["voice"] if r["kind"] == "speech" else r["package"])
                    for r in records if r["held_out"] == side} for side in (False, True)]
        self.assertEqual(origins[0] & origins[1], set())
        samples = np.memmap(CLIPS[:-4] + "s16", np.int16, "r")
        self.assertEqual(quality.shared_recordings(records, samples), [])


@unittest.skipUnless(shutil.which("node"), "node is not installed")
class Peers(unittest.TestCase):
    def run_js(self, expression):
        code = ("import {align, tripler} from './peers.mjs';"
                f"console.log(JSON.stringify({expression}))")
        done = subprocess.run(["node", "--input-type=module", "-e", code], cwd=HERE, check=True,
                              capture_output=True, text=True)
        return json.loads(done.stdout)

    def test_scores_are_those_of_the_chunks_that_are_complete(self):
        # 512-sample chunks are complete with samples 512, 1024, 1536; the windows of the frames
        # with 400, 560, 720, 880, 1040, 1200, 1360, 1520 and 1680. No tenth window fits in.
        self.assertEqual(self.run_js("[...align([1, 2, 3], 512, 1700)]"),
                         [0, 1, 1, 1, 2, 2, 2, 2, 3, 3])
        # Of 160-sample chunks, two are complete with the first window.
        self.assertEqual(self.run_js("[...align([1, 2, 3, 4, 5, 6], 160, 960)]"),
                         [2, 3, 4, 5, 5, 5])

    def test_tripled_rate_keeps_a_tone(self):
        made = self.run_js("""(() => { const up = tripler(), all = [];
            for (let c = 0; c < 4; c++) { const out = new Float64Array(480);
              up(Float64Array.from({length: 160}, (_, i) => Math.sin(0.7 * (160 * c + i))), out);
              all.push(...out); } return all; })()""")
        t = np.arange(480, 1920) / 3 - 24  # the filter's delay: 24 samples at 16 kHz
        np.testing.assert_allclose(made[480:], np.sin(0.7 * t), atol=0.002)


if __name__ == "__main__":
    unittest.main()
