#!/usr/bin/python3
"""Makes the golden traces in tests/golden with the reference (never with the library).

    python3 tests/reference/make_golden.py [NAME ...]

Fails when a score comes within 1e-3 of the threshold it is compared with, or a bleep score within
0.1 of its own: there FFT libraries could fall to different sides.
"""
import os
import sys

from scenario import Trace

FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "golden")
COMMAND = "python3 tests/reference/make_golden.py"

SCENARIOS = {
    # Two utterances with pauses of both kinds, pushed 10 ms at a time, audio taken as it comes.
    "chunks_10ms": """
        source 8000 1; silence 700 60; speech 900 6000 200 0; silence 400 60; speech 500 6000 200 0
        silence 1400 60; speech 600 9000 200 1; silence 600 60; init synth8k.bin
        run 80 40800 40000; states; scores; issil 0 60; issil 60 120; issil 380 520; issil -1 3; end
        callback 40000; detect; callback 40000; detect""",
    # Other pieces than 10 ms, single long chunks, refused ones.
    "chunks_odd": """
        source 8000 111; silence 700 60; speech 900 6000 200 0; silence 400 60; speech 500 6000 200 0
        silence 1400 60; speech 600 9000 200 1; silence 600 60; init synth8k.bin
        run 173 12000 40000; run 37 6000 300; run 997 11964 1; run 4000 10836 40000; states; end; detect
        reset; rewind; send 20001; sendnull 5; sendnull -1; send 20000; detect; callback 50000
        send 15000; detect; callback 50000; send 0; detect; detect""",
    # 16 kHz input to the 8 kHz model: only whole blocks of 80 samples count.
    "halved_input": """
        source 16000 3; silence 500 60; speech 700 6000 200 0; silence 1300 60; speech 400 6000 200 1
        silence 300 60; set 13 16000; init synth8k.bin; send 170; detect; convert 16000 50
        run 160 20000 80000; run 333 30969 80000; states; scores; end; detect; callback 80000""",
    # The 16 kHz model decides the rate although the parameter says 8000.
    "model_16k": """
        source 16000 4; silence 500 60; speech 900 6000 200 0; silence 1300 60; speech 400 6000 200 1
        silence 200 60; set 7 30; set 6 10; init synth16k.bin; get 13; get 9; convert 16000 50
        run 160 51200 80000; states; scores; end; detect; callback 80000""",
    "detection_off": """
        source 8000 5; silence 200 60; speech 300 6000 200 0; set 11 0; init synth8k.bin
        run 80 2000 40000; send 500; detect; callback 300; end; detect; callback 300; reset
        set 11 1; set 12 0; run 240 4000 40000; end; detect; callback 400""",
    # The input ends without speech, within short, ordinary and long speech, within a pause, after
    # an end of speech and after a time-out.
    "end_of_input": """
        source 8000 6; silence 300 60; speech 2000 6000 200 0; silence 2500 60; init synth8k.bin
        set 2 150; run 80 2000; end; detect; callback 9000; reset; rewind
        run 80 4400; end; detect; callback 9000; reset; rewind
        run 80 8000; end; detect; callback 9000; reset; rewind
        run 80 16000; end; detect; callback 9000; reset; rewind
        run 80 21600; end; detect; callback 9000; reset; rewind; set 3 30
        run 80 23440; end; detect; callback 9000; reset; rewind
        run 80 34400; end; detect; callback 9000""",
    # Speech beyond the maximum and the pause limit that shrinks with it, a blip, a first utterance
    # below the minimum, head silence.
    "limits": """
        source 8000 127; silence 600 60; speech 2500 6000 200 0; silence 1500 60; set 2 150; set 3 60
        set 1 80; init synth8k.bin; run 80 36800 40000; pause 100; pause 76; pause 75; states; reset
        source 8000 128; silence 500 60; speech 190 6000 200 0; silence 900 60; speech 300 6000 200 0
        silence 2500 60; set 4 90; set 14 150; set 5 200; set 3 40; run 80 35000 40000; states; new
        source 8000 129; silence 2000 60; set 5 100; set 10 30; init synth8k.bin; run 80 8000
        run 400 8000; states; new; source 8000 130; silence 300 60; speech 190 6000 200 0
        silence 1200 60; set 3 30; set 5 120; set 23 1; set 24 1; init synth8k.bin; run 80 13000""",
    # The energy detector gates the network in long silences; its state survives a reset.
    "energy_gate": """
        source 8000 140; silence 1500 60; speech 700 6000 200 0; silence 1800 60; speech 500 6000 200 1
        silence 900 60; set 25 1; set 1 300; init synth8k.bin; run 80 43200 40000; states; reset; rewind
        run 80 16000; states; rewind; reset; run 240 24000; states; new
        source 16000 141; silence 1500 60; speech 700 6000 200 0; silence 500 60; set 25 1
        init synth16k.bin; run 160 43200; states""",
    # A prompt bleep is taken back, other speech of the same length is not.
    "bleep": """
        source 8000 12; silence 200 60; speech 600 6000 200 1; silence 1200 60; speech 500 6000 200 0
        silence 1200 60; init synth8k.bin bleep8k.txt; run 80 29600 40000; reset
        source 8000 13; silence 200 60; speech 600 6000 200 0; silence 1200 60; run 240 16000; new
        source 16000 14; silence 200 60; speech 600 6000 200 1; silence 1300 60
        init synth16k.bin bleep16k.txt; run 160 33600; get 26; init synth16k.bin missing.txt; get 26""",
    # From the 8 kHz model to the 16 kHz one and back, thresholds that change at initialisation only.
    "reuse": """
        source 8000 15; silence 300 60; speech 500 6000 200 0; silence 500 60; init synth8k.bin
        run 80 8000; reset; run 80 4000; init synth16k.bin; run 160 6400; set 13 8000; set 23 0.5
        set 24 0.4; init synth8k.bin; get 13; rewind; run 80 8000; states; exit; send 80; exit
        init missing.bin; init synth8k.bin; run 80 8000 999; states""",
    # The smallest ring goes round many times; a chunk may fill half of it.
    "small_ring": """
        source 8000 16; silence 300 60; speech 900 6000 200 0; silence 1300 60; set 9 1000; set 13 8000
        init synth8k.bin; get 9; send 4001; run 80 12000 120; run 4000 16000 9000; states; issil 0 10
        issil 260 300; callback 30; set 12 0; run 800 8000 100; callback 20000""",
    # Lopsided rules, truncation, values out of range, the adapted pause limit.
    "parameters": """
        set 1 50; get 1; get 3; reset; set 3 70.9; get 3; get 1; reset; set 1 70; get 3; set 3 71; reset
        set 14 60; set 14 300; set 9 80000; get 9; set 9 7919; get 9; set 9 7920; get 9; set 13 16000.7
        set 13 44100; get 13; get 9; set 8 -3; get 8; set 12 0; get 12; get 11; get 14; set 23 0.25
        get 23; get 24; set 10 -7.9; get 10; set 2 7e9; get 2; set 0 1; set 15 1; set 27 1; get 22; get 4
        get 5; get 6; get 7; get 25; get 26; set 3 90; set 2 2000; pause 1000; pause 1001; set 2 1999; reset
        pause 999; pause 1000; set 2 5000; pause 1001; pause 4999; pause 5100""",
    # One frame more or less: a blip of 9 frames, 15 frames for the bleep detector, last speech at
    # frame 120, the shortest utterance, the end of input, the range of the silence query.
    "boundaries": """
        set 3 30; set 23 0.9; set 24 0.9; source 8000 131; silence 300 60; speech 190 6000 200 0
        silence 500 60; init synth8k.bin; run 80 0; set 23 1; set 24 1; set 4 10; source 8000 131
        silence 300 60; speech 200 6000 200 0; silence 500 60; init synth8k.bin; run 80 0; new
        set 3 30; set 23 0.75; set 24 0.75; source 8000 131; silence 300 60; speech 220 6000 200 1
        silence 500 60; init synth8k.bin bleep8k.txt; run 80 0; reset; source 8000 131; silence 300 60
        speech 240 6000 200 1; silence 500 60; run 80 0; set 23 0.9; set 24 0.9; source 8000 131
        silence 830 60; speech 300 6000 200 1; silence 500 60; init synth8k.bin bleep8k.txt; run 80 0
        reset; source 8000 131; silence 840 60; speech 300 6000 200 1; silence 500 60; run 80 0; new
        source 8000 6; silence 300 60; speech 900 6000 200 0; set 9 8000; init synth8k.bin; run 80 8000
        issil 0 36; issil 0 37; issil 0 98; issil 0 99; issil 5 5; issil 5 2; set 4 62; set 2 9999; end
        detect; set 4 63; stop; set 4 0; set 2 71; stop; set 2 72; stop; run 80 1600; issil 17 18
        issil 18 19""",
    # The bundled models on the bundled recordings, the one for 8 kHz on halved audio too, with the thresholds nearest to the defaults that no
    # score comes near to.
    "bundled_8k": """
        wav ../../samples/roadsigns-8k.wav; {thresholds}init ../../models/vad8k.bin
        run 80 0 40000; states; scores; end; detect""",
    "bundled_16k": """
        wav ../../samples/stream-16k.wav; set 13 16000; {thresholds}init ../../models/vad16k.bin
        run 160 0 80000; states; scores; end; detect""",
    "bundled_halved": """
        wav ../../samples/stream-16k.wav; set 13 16000; {thresholds}init ../../models/vad8k.bin
        run 160 0 80000; states; scores; end; detect""",
}


def lines_of(text):
    operations = [op.strip() for line in text.splitlines() for op in line.split(";")]
    return ["> " + op for op in operations if op]


def margin(scores, start, end):
    nearest, in_speech = 1, False
    for score in scores:
        nearest = min(nearest, abs(score - (end if in_speech else start)))
        in_speech = score > end if in_speech else score >= start
    return nearest


def thresholds(text):
    """The operations that set the thresholds nearest to the default that keep clear of scores."""
    trace = Trace(FOLDER)
    for _ in trace.play(lines_of(text.format(thresholds="").replace("scores;", ""))):
        pass
    scores = [float(score) for score in trace.scores]
    steps = [k / 200 for k in range(24, 70)]
    pairs = sorted(((s, e) for s in steps for e in steps if e <= s),
                   key=lambda pair: abs(pair[0] - 0.2) + abs(pair[1] - 0.2))
    start, end = next(pair for pair in pairs if margin(scores, *pair) > 1.2e-3)
    return "set 23 %g; set 24 %g; " % (start, end)


def main(names):
    bad = 0
    for name in names or SCENARIOS:
        trace, text = Trace(FOLDER), SCENARIOS[name]
        if "{thresholds}" in text:
            text = text.format(thresholds=thresholds(text))
        output = list(trace.play(lines_of(text)))
        near = min(trace.margins, default=1)
        unsure = any(abs(score - 0.5) < 0.1 for score in trace.bleep_scores)
        print("%-14s %5d frames, nearest score %.4f, bleep scores %s" % (
            name, len(trace.margins), near, ["%.3f" % score for score in trace.bleep_scores]))
        if near < 1e-3 or unsure:
            print("    too near to a threshold: not written")
            bad += 1
            continue
        with open(os.path.join(FOLDER, name + ".trace"), "w") as file:
            file.write("# Made by: %s %s\n" % (COMMAND, name))
            file.writelines(line + "\n" for line in output)
    return bad


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
