"""The learning curves of a training as a picture."""
import json
import os

import numpy as np

from train import PASSES


def draw(work, rates):
    """Write work/learning-curve.svg from the logs of the rates (kHz)."""
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    figure, axes = pyplot.subplots(figsize=(8, 4.5))
    for number, rate in enumerate(rates):
        begun = 0
        for settings in PASSES:
            with open(os.path.join(work, f"train{rate}k-{settings.name}-log.json")) as file:
                steps, seen, unseen, _ = np.array(json.load(file)).T
            axes.plot(begun + steps, seen, f"C{number}", alpha=0.4)
            axes.plot(begun + steps, unseen, f"C{number}",
                      label=f"{rate} kHz (pale: crops drawn)" if begun == 0 else None)
            begun += settings.steps
    axes.set(xlabel="step", ylabel="loss", yscale="log",
             title="Loss on unseen crops, averaged weights; each pass weighs frames otherwise")
    axes.grid(alpha=0.3)
    axes.legend()
    figure.tight_layout()
    figure.savefig(os.path.join(work, "learning-curve.svg"))
    pyplot.close(figure)
