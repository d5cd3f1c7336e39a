"""From Debian packages to the bundled model files.

    python3 training/pipeline.py [--work build/training] [--models models] [stage ...]

Stages in order: fetch decode mix-heldout mix features train bleep check. Without a name all of them
run; what an earlier run finished is kept (delete its file in the work folder to make it again), and
an interrupted training goes on from its last checkpoint.
"""
import argparse
import multiprocessing
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
STAGES = ("fetch", "decode", "mix-heldout", "mix", "features", "train", "bleep", "check")


def train_one(work, kilohertz, path):
    """Train one model in this process and write its file; what is done already is not repeated."""
    import export
    import features
    import train
    front, start = features.FRONTS[kilohertz], None
    for settings in train.PASSES:
        trained = train.train(work, front, settings, start=start)
        start = dict(zip(("mean", "reverse_variance", "layers"), trained))
    if export.write_model(path, front, *trained):
        print(f"wrote {path}", flush=True)


def train_all(work, paths):
    """Train the models at the same time, one core each."""
    jobs = [multiprocessing.Process(target=train_one, args=(work, kilohertz, path))
            for kilohertz, path in paths.items()]
    for job in jobs:
        job.start()
    for job in jobs:
        job.join()
    if any(job.exitcode for job in jobs):
        sys.exit("training failed")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("stage", nargs="*", help="default: all")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "training"))
    parser.add_argument("--models", default=os.path.join(ROOT, "models"))
    parser.add_argument("--rates", type=int, nargs="+", choices=(8, 16), default=(8, 16),
                        help="kHz, which models to make")
    parser.add_argument("--scenes", type=int, default=7000, help="training scenes of 30 s")
    parser.add_argument("--held-out", type=int, default=336, help="scenes for measuring")
    arguments = parser.parse_args()
    stages = arguments.stage or STAGES
    if unknown := set(stages) - set(STAGES):
        parser.error(f"no such stage: {', '.join(sorted(unknown))}")
    # Before numpy loads its linear algebra, which reads it once.
    os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
    work = arguments.work
    os.makedirs(work, exist_ok=True)
    os.makedirs(arguments.models, exist_ok=True)
    paths = {rate: os.path.join(arguments.models, f"vad{rate}k.bin") for rate in arguments.rates}

    if "fetch" in stages:
        import fetch
        fetch.fetch(work)
    if "decode" in stages:
        import decode
        decode.decode(work)
    if "mix-heldout" in stages:
        import mix
        mix.mix(work, "heldout", arguments.held_out, seed=2)
    if "mix" in stages:
        import mix
        mix.mix(work, "train", arguments.scenes, seed=1)
    if "features" in stages:
        import features
        for rate in paths:
            features.extract(work, "train", features.FRONTS[rate])
    if "train" in stages:
        train_all(work, paths)
        import curve
        curve.draw(work, paths)
    if "bleep" in stages:
        import bleep
        for rate, path in paths.items():
            bleep.make(work, path, os.path.join(arguments.models, f"bleep{rate}k.txt"), 1000 * rate)
    if "check" in stages:
        import check
        for path in paths.values():
            check.report(work, path)


if __name__ == "__main__":
    main()
