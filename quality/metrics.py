"""Figures of merit of a voice-activity detector on marked scenes.

Arrays are [scenes, frames] or [frames] unless said otherwise, 100 frames a second; frame f covers
10 f to 10 f + 25 ms. `truth` is what the marks say, `found` what the detector says (both bool),
`score` what it decides by (more is speech). Rates are fractions of 1.
"""
import numpy as np

GAP, SHORTEST = 30, 20  # frames: gaps that an utterance closes, shortest one that counts
LATE = 20  # frames behind its end within which an utterance still counts as found
REST = 60  # frames of silence behind an utterance whose end is timed
PAUSE = 90  # frames of silence that end an utterance in a session with default parameters
TAIL = 10  # frames behind a tone burst that still belong to it


def runs(marks):
    """[start, end) of every stretch of true marks of one scene."""
    edges = np.flatnonzero(np.diff(np.concatenate([[0], np.asarray(marks, np.int8), [0]])))
    return edges.reshape(-1, 2)


def auc(score, truth):
    """Area under the receiver operating curve, ties counted half."""
    score, truth = np.ravel(score), np.ravel(truth)
    _, inverse, counts = np.unique(score, return_inverse=True, return_counts=True)
    rank = (np.cumsum(counts) - (counts - 1) / 2)[inverse]
    positive = int(truth.sum())
    negative = len(truth) - positive
    return float((rank[truth].sum() - positive * (positive + 1) / 2) / (positive * negative))


def shifted_auc(score, truth, longest=20):
    """(best AUC, shift): the score of frame f + shift stands for frame f, shift 0 .. longest.

    What a detector's look-back costs is left out so. The last `longest` frames of a scene are too.
    """
    frames = score.shape[-1] - longest
    areas = [auc(score[..., shift:shift + frames], truth[..., :frames])
             for shift in range(longest + 1)]
    best = int(np.argmax(areas))
    return areas[best], best


def curve(score, truth, points=400):
    """(false alarm rate, hit rate, precision) at falling thresholds, thinned to about `points`.

    From nothing found, where precision is 1 by definition, to everything found.
    """
    score, truth = np.ravel(score), np.ravel(truth)
    order = np.argsort(-score, kind="stable")
    last = np.append(np.flatnonzero(np.diff(score[order])), len(score) - 1)  # of equal scores
    hits = np.cumsum(truth[order])[last]
    alarms = last + 1 - hits
    hit, alarm = hits / hits[-1], alarms / alarms[-1]
    precision = hits / (hits + alarms)
    # Points even along the curve: scores crowd at the ends.
    way = np.cumsum(np.hypot(np.diff(hit, prepend=0), np.diff(alarm, prepend=0)))
    keep = np.unique(np.searchsorted(way, np.linspace(0, way[-1], points)).clip(0, len(way) - 1))
    return (np.append(0, alarm[keep]), np.append(0, hit[keep]), np.append(1, precision[keep]))


def frame_rates(found, truth):
    """f1, precision, miss_rate (of the speech frames) and alarm_rate (of the others)."""
    both, named, spoken = np.sum(found & truth), np.sum(found), np.sum(truth)
    return {"f1": 2 * both / max(1, named + spoken), "precision": both / max(1, named),
            "miss_rate": 1 - both / max(1, spoken),
            "alarm_rate": (named - both) / max(1, truth.size - spoken)}


def utterances(marks):
    """[start, end) of the utterances of a scene: gaps closed first, then what is too short gone."""
    joined = []
    for start, end in runs(marks):
        if joined and start - joined[-1][1] <= GAP:
            joined[-1][1] = end
        else:
            joined.append([start, end])
    return [(int(start), int(end)) for start, end in joined if end - start >= SHORTEST]


def utterance_figures(found, truth):
    """How the utterances of scenes [scenes, frames] are found.

    utterances, missed: counts. Missed: no frame found from the start to LATE behind the end (at
        most to the next utterance).
    early: found with the detector in speech already in the frame before the start.
    onset: frames from the true start to the first frame found, of those neither missed nor early.
    ended: how many have REST frames of silence behind them; cut: how many of these were not found
        in their last frame. For the others
    end: frames from the last spoken one to the last found one; inf when the detector stays in
        speech until the next utterance or the end of the scene.
    """
    figures = {"utterances": 0, "missed": 0, "early": 0, "onset": [], "ended": 0, "cut": 0,
               "end": []}
    for hit, marks in zip(found, truth):
        spoken = utterances(marks)
        limits = [start for start, _ in spoken[1:]] + [len(hit)]
        for (start, end), limit in zip(spoken, limits):
            figures["utterances"] += 1
            where = np.flatnonzero(hit[start:min(end + LATE, limit)])
            if len(where) == 0:
                figures["missed"] += 1
            elif start > 0 and hit[start - 1]:
                figures["early"] += 1
            else:
                figures["onset"].append(int(where[0]))
            if limit - end < REST:
                continue
            figures["ended"] += 1
            if not hit[end - 1]:
                figures["cut"] += 1
                continue
            quiet = np.flatnonzero(~hit[end:limit])
            figures["end"].append(int(quiet[0]) if len(quiet) else np.inf)
    return figures


def session_begins(found):
    """How often an utterance begins in a scene: found after a rest of more than PAUSE frames.

    For detectors without a state machine of their own; the first frame found begins one, too.
    """
    pieces = runs(found)
    return int(len(pieces) and 1 + np.sum(pieces[1:, 0] - pieces[:-1, 1] > PAUSE))


def status_begins(status):
    """The same from a session's status codes: 1 behind 0 (also: as the first), 3 or 6."""
    before = np.concatenate([[0], status[:-1]])
    return int(np.sum((status == 1) & np.isin(before, (0, 3, 6))))


def bursts_taken(found, bursts):
    """Which tone bursts [first frame, last frame + 1, ...] of a scene are taken for speech.

    One is when a frame is found from its first to TAIL behind its end, or to the next burst.
    """
    bursts = sorted(bursts, key=lambda burst: burst[0])
    limits = [burst[0] for burst in bursts[1:]] + [len(found)]
    return [bool(np.any(found[burst[0]:max(burst[1], min(burst[1] + TAIL, limit))]))
            for burst, limit in zip(bursts, limits)], [burst[2] for burst in bursts]
