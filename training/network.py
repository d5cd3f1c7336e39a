"""The network and the smoother as the library computes them, in plain numpy."""
import numpy as np

CLASSES, FIRST_SPEECH = 9, 3
AVERAGE, MAXIMUM = 3, 20
THRESHOLD = 0.2


def stack(frames, context):
    """[frames, n] normalised features -> [frames, context n], oldest first, begun with copies."""
    padded = np.concatenate([np.repeat(frames[:1], context - 1, axis=0), frames])
    return np.concatenate([padded[k:k + len(frames)] for k in range(context)], axis=1)


def fast_sigmoid(x):
    """1 / (1 + exp(-x)) with the exponential put together from exponent and mantissa bits."""
    high = np.trunc(-np.asarray(x, np.float64) * 1512775.3951951857).astype(np.int64) + 1072632447
    exponential = (high << 32).view(np.float64)
    return (1.0 / (exponential + 1.0)).astype(np.float32)


def forward(layers, stacked):
    """Posteriors of [frames, inputs]; layers: [(weights [out, in], biases)]."""
    x = stacked
    for weights, biases in layers[:-1]:
        x = fast_sigmoid(x @ weights.T + biases)
    weights, biases = layers[-1]
    logits = x @ weights.T + biases
    power = np.exp(logits - logits.max(axis=1, keepdims=True))
    return power / power.sum(axis=1, keepdims=True)


def scores(posteriors):
    """Smoother's score per frame of one stream."""
    speech = posteriors[:, FIRST_SPEECH:].astype(np.float32)
    sums = np.zeros_like(speech)
    for back in range(min(AVERAGE, len(speech))):
        sums[back:] += speech[:len(speech) - back]
    count = np.minimum(np.arange(1, len(speech) + 1), AVERAGE)[:, None]
    means = sums / count
    maxima = means.copy()
    for back in range(1, min(MAXIMUM, len(means))):
        np.maximum(maxima[back:], means[:len(means) - back], out=maxima[back:])
    with np.errstate(divide="ignore"):
        return np.exp((1 + np.log(maxima).sum(axis=1)) / (CLASSES - FIRST_SPEECH))


def states(score, start=THRESHOLD, end=THRESHOLD):
    """True per frame while the smoother is in speech (from the frame that enters it)."""
    inside, out = False, np.zeros(len(score), bool)
    if start == end:
        # They differ only for a score of exactly the threshold, which enters and leaves.
        return score >= start
    for number, value in enumerate(score):
        inside = value > end if inside else value >= start
        out[number] = inside
    return out
