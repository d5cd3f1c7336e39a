"""Continue training from a bundled model with recordings of your own.

    python3 training/finetune.py --speech FOLDER --noise FOLDER [--model models/vad8k.bin]
                                 [--out build/finetune/vad8k.bin]

Speech: clean recordings of single speakers, a sub-folder for each speaker, in any format that
libsndfile reads; a minute per speaker helps, ten are plenty. Noise: what the device hears when nobody
speaks to it. They make up OWN_SHARE of the clips in the new scenes, the bundled sources the rest, so
that the model forgets nothing. Every fifth recording is kept for measuring the model before and
after.
"""
import argparse
import dataclasses
import json
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HELD_BACK = 5


def own_clips(work, folders):
    """Write work/clips.s16 and clips.json with every recording of {"speech": .., "noise": ..}."""
    import soundfile
    from decode import decode_file
    from mix import OWN
    records, at = [], 0
    with open(os.path.join(work, "clips.s16"), "wb") as out:
        for kind, folder in folders.items():
            count = 0
            for place, _, names in sorted(os.walk(folder)):
                for name in sorted(names):
                    path = os.path.join(place, name)
                    try:
                        with open(path, "rb") as file:
                            samples = decode_file(file.read())
                    except soundfile.LibsndfileError as error:
                        print(f"skipped {path}: {error}")
                        continue
                    samples.tofile(out)
                    inside = os.path.relpath(path, folder)
                    voice = f"{OWN}-{os.path.dirname(inside)}" if kind == "speech" else ""
                    records.append({"package": f"{OWN}-{kind}", "name": inside, "kind": kind,
                                    "voice": voice, "held_out": count % HELD_BACK == HELD_BACK - 1,
                                    "start": at, "length": len(samples)})
                    at += len(samples)
                    count += 1
            if count < HELD_BACK:
                sys.exit(f"{folder}: {count} recordings, at least {HELD_BACK} are needed")
            print(f"{kind}: {count} recordings")
    with open(os.path.join(work, "clips.json"), "w") as file:
        json.dump(records, file)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--speech", required=True)
    parser.add_argument("--noise", required=True)
    parser.add_argument("--model", default=os.path.join(ROOT, "models", "vad8k.bin"))
    parser.add_argument("--out")
    parser.add_argument("--bundled", default=os.path.join(ROOT, "build", "training"),
                        help="work folder of the bundled sources, fetched when they are not there")
    parser.add_argument("--work", default=os.path.join(ROOT, "build", "finetune"))
    parser.add_argument("--scenes", type=int, default=1500)
    parser.add_argument("--steps", type=int, default=4000)
    arguments = parser.parse_args()
    os.environ.setdefault("OPENBLAS_NUM_THREADS", str(os.cpu_count()))
    work, bundled = arguments.work, arguments.bundled
    if os.path.exists(os.path.join(work, "clips.json")):
        sys.exit(f"{work} holds an earlier run: move it away or give another --work")
    os.makedirs(work, exist_ok=True)
    os.makedirs(bundled, exist_ok=True)

    import check
    import decode
    import export
    import features
    import fetch
    import mix
    import train
    own_clips(work, {"speech": arguments.speech, "noise": arguments.noise})
    fetch.fetch(bundled)
    decode.decode(bundled)
    start = export.read_model(arguments.model)
    front = start["front"]
    mix.mix(work, "train", arguments.scenes, seed=11, works=(bundled, work))
    mix.mix(work, "heldout", 112, seed=12, works=(bundled, work))
    features.extract(work, "train", front)
    print("before:")
    check.report(work, arguments.model)
    settings = dataclasses.replace(train.PASSES[-1], name="own", steps=arguments.steps)
    trained = train.train(work, front, settings, start=start, threads=os.cpu_count())
    out = arguments.out or os.path.join(work, os.path.basename(arguments.model))
    export.write_model(out, front, *trained)
    print("after:")
    check.report(work, out)
    print(f"wrote {out}")


if __name__ == "__main__":
    main()
