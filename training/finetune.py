"""Continue training from a bundled model with recordings of your own.

    python3 training/finetune.py --speech FOLDER --noise FOLDER [--model models/vad8k.bin]
                                 [--out build/finetune/vad8k.bin]

Speech: clean recordings of single speakers, a sub-folder for each speaker, in any format that
libsndfile reads; a minute per speaker helps, ten are plenty. Noise: what the device hears when
nobody speaks to it. Of the voices and of the recorded effects in the new scenes OWN_SHARE are yours,
the bundled sources make up the rest, so that the model forgets nothing. Every fifth recording is
kept for measuring the model before and after (its speaker is not: the voices are known).
"""
import argparse
import dataclasses
import json
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HELD_BACK = 5
LONGEST = 1500  # frames of speech without a pause; longer ones are left out


def spoken_pieces(samples):
    """Cut a recording in its pauses of more than 0.3 s, a little of which stays on both sides."""
    from label import close_gaps, label, runs
    from mix import MARGIN, SHIFT
    spoken = runs(close_gaps(label(samples), 30))
    return [samples[max(0, start - 2 * MARGIN) * SHIFT:(end + 2 * MARGIN) * SHIFT]
            for start, end in spoken if end - start <= LONGEST]


def own_clips(work, folders):
    """Write work/clips.s16 and clips.json with every recording of {"speech": .., "noise": ..}."""
    import soundfile
    from decode import RATE, decode_file
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
                            samples = decode_file(file.read(), longest=3600)
                    except soundfile.LibsndfileError as error:
                        print(f"skipped {path}: {error}")
                        continue
                    inside = os.path.relpath(path, folder)
                    voice = f"{OWN}-{os.path.dirname(inside)}" if kind == "speech" else ""
                    # A scene of 30 s must be able to hold a clip.
                    pieces = spoken_pieces(samples) if kind == "speech" else [samples]
                    for piece in pieces:
                        if len(piece) < RATE // 20:
                            continue
                        piece.tofile(out)
                        records.append({"package": f"{OWN}-{kind}", "name": inside, "kind": kind,
                                        "voice": voice,
                                        "held_out": count % HELD_BACK == HELD_BACK - 1,
                                        "start": at, "length": len(piece)})
                        at += len(piece)
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
    out = arguments.out or os.path.join(work, os.path.basename(arguments.model))
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
    start = export.read_model(arguments.model)
    os.makedirs(os.path.dirname(os.path.abspath(out)), exist_ok=True)
    fetch.fetch(bundled)
    decode.decode(bundled)
    own_clips(work, {"speech": arguments.speech, "noise": arguments.noise})
    front = start["front"]
    mix.mix(work, "train", arguments.scenes, seed=11, works=(bundled, work))
    mix.mix(work, "heldout", 112, seed=12, works=(bundled, work))
    features.extract(work, "train", front)
    print("before:")
    check.report(work, arguments.model)
    settings = dataclasses.replace(train.PASSES[-1], name="own", steps=arguments.steps,
                                   rate=2e-3)
    trained = train.train(work, front, settings, start=start, threads=os.cpu_count())
    export.write_model(out, front, *trained)
    print("after:")
    check.report(work, out)
    print(f"wrote {out}")


if __name__ == "__main__":
    main()
