"""From Debian packages to a model file.

    python3 training/pipeline.py [--work build/training] [--model models/vad8k.bin] [stage ...]

Stages in order: fetch decode mix features train check. Without a name all of them run; what an
earlier run finished is kept (delete its file in the work folder to make it again).
"""
import argparse
import os

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
STAGES = ("fetch", "decode", "mix", "features", "train", "check")


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("stage", nargs="*", help="default: all")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "training"))
    parser.add_argument("--model", default=os.path.join(ROOT, "models", "vad8k.bin"))
    parser.add_argument("--scenes", type=int, default=4400, help="training scenes of 30 s")
    parser.add_argument("--held-out", type=int, default=288, help="scenes for measuring")
    parser.add_argument("--steps", type=int, default=12000)
    parser.add_argument("--threads", type=int, default=1)
    arguments = parser.parse_args()
    stages = arguments.stage or STAGES
    if unknown := set(stages) - set(STAGES):
        parser.error(f"no such stage: {', '.join(sorted(unknown))}")
    # Before numpy loads its linear algebra, which reads it once.
    os.environ.setdefault("OPENBLAS_NUM_THREADS", str(arguments.threads))
    os.makedirs(arguments.work, exist_ok=True)

    if "fetch" in stages:
        import fetch
        fetch.fetch(arguments.work)
    if "decode" in stages:
        import decode
        decode.decode(arguments.work)
    if "mix" in stages:
        import mix
        mix.mix(arguments.work, "heldout", arguments.held_out, seed=2)
        mix.mix(arguments.work, "train", arguments.scenes, seed=1)
    if "features" in stages:
        import features
        for name in ("heldout", "train"):
            features.extract(arguments.work, name)
    if "train" in stages:
        import export
        import train
        trained = train.train(arguments.work, steps=arguments.steps, threads=arguments.threads)
        export.write_model(arguments.model, *trained)
        print(f"wrote {arguments.model}")
    if "check" in stages:
        import check
        check.report(arguments.work, arguments.model)


if __name__ == "__main__":
    main()
