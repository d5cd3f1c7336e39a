"""The learning curves of a training as a picture."""
import json
import os


def draw(work, rates):
    """Write work/learning-curve.svg from the logs of the rates (kHz) that have one."""
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    figure, axes = pyplot.subplots(figsize=(8, 4.5))
    for number, rate in enumerate(rates):
        path = os.path.join(work, f"train{rate}k-log.json")
        if not os.path.exists(path):
            continue
        with open(path) as file:
            steps, seen, unseen, _ = zip(*json.load(file))
        axes.plot(steps, seen, f"C{number}", alpha=0.4, label=f"{rate} kHz, crops drawn")
        axes.plot(steps, unseen, f"C{number}", label=f"{rate} kHz, unseen crops, averaged weights")
    axes.set(xlabel="step", ylabel="loss", yscale="log",
             title="Hard places join the crops drawn now and then")
    axes.grid(alpha=0.3)
    axes.legend()
    figure.tight_layout()
    figure.savefig(os.path.join(work, "learning-curve.svg"))
    pyplot.close(figure)
