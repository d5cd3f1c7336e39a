"""Checks of the prompt and of its template's derivation, on made-up maps."""
import importlib.util
import os
import sys
import tempfile
import unittest

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

NEEDED = ("scipy", "soundfile")
if all(importlib.util.find_spec(name) for name in NEEDED):
    import bleep
    import prompt
else:
    bleep = None


def dominant_pitch(x):
    """Hz of the best period between 100 and 400 Hz, by autocorrelation."""
    lags = np.arange(prompt.RATE // 400, prompt.RATE // 100)
    return prompt.RATE / lags[np.argmax([np.dot(x[lag:], x[:-lag]) for lag in lags])]


def template_of(rng, bins):
    return (rng.random((bleep.ROWS, bins)) < 0.2).astype(np.uint8)


@unittest.skipIf(bleep is None, "needs scipy and soundfile")
class Prompt(unittest.TestCase):
    def test_has_its_two_notes(self):
        x = prompt.prompt()
        self.assertAlmostEqual(np.abs(x).max(), 1)
        for begin, length, *pitches, _ in prompt.NOTES:
            middle = int((begin + length / 2) * prompt.RATE)
            self.assertAlmostEqual(dominant_pitch(x[middle - 800:middle + 800]) / np.mean(pitches),
                                   1, delta=0.03)
        self.assertTrue(0.3 < len(x) / prompt.RATE < 0.6)


@unittest.skipIf(bleep is None, "needs scipy and soundfile")
class Templates(unittest.TestCase):
    def test_alignment_finds_the_template_and_prefers_the_earliest_place(self):
        rng = np.random.default_rng(1)
        template = template_of(rng, 128)
        cells = np.zeros((90, 128), np.uint8)
        cells[40:40 + bleep.ROWS] = template
        self.assertEqual(bleep.align(cells, template), 40)
        np.testing.assert_array_equal(bleep.counts(cells, template),
                                      template[:, bleep.LOW - 1:-1].sum(axis=0))
        cells[20:20 + bleep.ROWS] = template
        self.assertEqual(bleep.align(cells, template), 20)
        # The last place where it fits is not tried.
        self.assertEqual(bleep.align(np.roll(cells, 90 - 40 - bleep.ROWS, axis=0), template),
                         90 - 20 - bleep.ROWS)

    def test_derived_template_tells_the_prompt_from_other_sounds(self):
        rng = np.random.default_rng(2)
        span = len(prompt.prompt()) // 160 + 2
        true = (rng.random((span, 128)) < 0.2).astype(np.uint8)

        def prompts(count):
            begins = rng.integers(0, 40, count)
            maps = (rng.random((count, 100, 128)) < 0.05).astype(np.uint8)
            for cells, begin in zip(maps, begins):
                cells[begin:begin + span] |= true & (rng.random(true.shape) < 0.9)
            return list(maps), list(begins)

        def others(count):
            return list((rng.random((count, 100, 128)) < 0.2).astype(np.uint8))

        template, bias, weights = bleep.derive(*prompts(80), others(160), np.arange(240))
        self.assertEqual(template.shape, (bleep.ROWS, 128))
        self.assertFalse(template[:, :bleep.LOW - 1].any())
        unheard, begins = prompts(40)
        right = [bleep.counts(cells, template) @ weights + bias > 0 for cells in unheard]
        wrong = [bleep.counts(cells, template) @ weights + bias > 0 for cells in others(80)]
        self.assertGreater(sum(right), 38)
        self.assertLess(sum(wrong), 8)

        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "template")
            bleep.write_template(path, template, bias, weights)
            again = bleep.read_template(path, 128)
            np.testing.assert_array_equal(again[0], template)
            np.testing.assert_allclose(again[1], bias, rtol=1e-5)
            np.testing.assert_allclose(again[2], weights, rtol=1e-5)


@unittest.skipIf(bleep is None, "needs scipy and soundfile")
class Judgement(unittest.TestCase):
    def judge(self, status, segments, asked=-1, score=0.0):
        return bleep.judge({"status": status, "segments": segments, "asked": asked,
                            "score": score}, 60, 200)

    def test_streams_are_told_apart(self):
        both = [[25, 72], [205, 280]]
        self.assertEqual(self.judge([[27, 1], [75, 2], [164, 0], [207, 1], [283, 2], [372, 6]],
                                    both, 72, 0.9), "recognised")
        self.assertEqual(self.judge([[207, 1], [283, 2], [372, 6]], both[1:]), "no speech")
        twice = [[27, 1], [75, 2], [164, 6], [207, 1], [283, 2], [372, 6]]
        self.assertEqual(self.judge(twice, both, 72, 0.3), "not recognised")
        self.assertEqual(self.judge(twice, both), "not asked")
        timed_out = [[27, 1], [75, 2], [164, 6], [184, 3]]
        self.assertEqual(self.judge(timed_out, both[:1], 72, 0.3), "not recognised")
        self.assertEqual(self.judge([[27, 1], [283, 2], [372, 6]], [[25, 280]]), "joined")
        # The command is missed, does not end, or ends twice.
        self.assertEqual(self.judge([[27, 1], [75, 2], [164, 0]], both[:1], 72, 0.9), "other")
        self.assertEqual(self.judge([[27, 1], [75, 2], [164, 0], [207, 1]], both, 72, 0.9),
                         "other")
        self.assertEqual(self.judge([[207, 1], [240, 6], [300, 1], [400, 6]],
                                    [[205, 220], [300, 330]]), "other")


if __name__ == "__main__":
    unittest.main()
