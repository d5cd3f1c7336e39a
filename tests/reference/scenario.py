#!/usr/bin/python3
"""Replays a scenario script on the reference session and prints its trace.

    python3 tests/reference/scenario.py SCRIPT        the script's lines, each followed by its output

A trace is a script too: only lines that begin with "> " are read. Operations (tests/session_trace.h
replays the same on the library):

    source RATE SEED            start a new PCM source
    silence MS NOISE            append noise of that amplitude
    speech MS AMP NOISE SET     append a tone that goes round six pitches, 30 ms each; SET 0 or 1
    wav FILE                    append a 16-bit mono WAV file
    rewind                      back to the start of the source
    new | exit | reset | stop | end | detect
    init MODEL [BLEEP] | set ID VALUE | get ID | send N | sendnull N | callback BYTES | issil A B
    convert S F | pause N | frame N F SMOOTH
    run CHUNK TOTAL [BYTES]     send and detect (and hand out) chunk by chunk, up to the end of the
                                source when TOTAL is 0; prints a line when the
                                result, the status, the energy gate or the segment count changes,
                                with a checksum of all lines up to there
    states                      frame states, run-length coded
    scores                      smoothed scores after each detect of "run" since the last "scores"
    exact                       from here on, lines end with a checksum of the posteriors' bits

A line of fields holds: status last_status samples_in samples_8k samples_16k decim_rest | pass_first
frames_avail cur_frame | last_speech speech_start onset_count onset_frame prev_last_speech |
pause_limit max_wait | out_begin out_end speech_end_sample | speech_frames sil_frames | evad_active
evad_on_frame | user_stop data_end | start:end:speech_start:last_speech of each segment
"""
import os
import struct
import sys

import numpy as np

from components import fft_double
from session import Session

PITCHES = ((420, 760, 1150, 1650, 2250, 3000), (330, 600, 950, 1400, 1950, 2600))


def fnv(data, h=0x811C9DC5):
    for byte in data:
        h = ((h ^ byte) * 0x01000193) & 0xFFFFFFFF
    return h


class Source:
    """Samples made with integers only, so that they are the same everywhere."""

    def __init__(self, rate=8000, seed=1):
        self.rate, self.seed, self.position, self.pcm = rate, seed, 0, []

    def noise(self, amplitude):
        self.seed = (self.seed * 1664525 + 1013904223) & 0xFFFFFFFF
        return (((self.seed >> 16) - 32768) * amplitude) >> 15

    def silence(self, ms, noise):
        self.pcm += [self.noise(noise) for _ in range(ms * self.rate // 1000)]

    def speech(self, ms, amplitude, noise, which):
        phase = 0
        for i in range(ms * self.rate // 1000):
            pitch = PITCHES[which][i * 1000 // self.rate // 30 % 6]
            phase = (phase + (pitch << 32) // self.rate) & 0xFFFFFFFF
            wave = abs((phase >> 16) - 32768) * 2 - 32768
            wave += (abs(((phase * 2 & 0xFFFFFFFF) >> 16) - 32768) * 2 - 32768) >> 3
            value = (wave * amplitude >> 15) + self.noise(noise)
            self.pcm.append(max(-32768, min(32767, value)))

    def wav(self, path):
        with open(path, "rb") as file:
            data = file.read()
        at = data.index(b"data") + 8
        size, = struct.unpack_from("<I", data, at - 4)
        self.pcm += np.frombuffer(data[at:at + size // 2 * 2], "<i2").tolist()

    def take(self, n):
        first, self.position = self.position, self.position + n
        return np.array([self.pcm[i % len(self.pcm)] for i in range(first, first + n)], np.int16)


class Trace:
    def __init__(self, folder, fft=fft_double):
        self.folder, self.fft = folder, fft
        self.source, self.scores, self.exact = Source(), [], False
        self.margins, self.bleep_scores, self.scored = [], [], []
        self.session = Session(fft)

    def play(self, lines):
        for line in lines:
            if line.startswith("> "):
                yield line.rstrip("\n")
                yield from self.operation(*line[2:].split())

    def path(self, name):
        return os.path.join(self.folder, name)

    def fields(self):
        s = self.session
        groups = ((s.status, s.last_status, s.samples_in, s.samples_8k, s.samples_16k, s.decim_rest),
                  (s.pass_first_frame, s.frames_avail, s.cur_frame),
                  (s.last_speech, s.speech_start, s.onset_count, s.onset_frame, s.prev_last_speech),
                  (s.max_speech_pause, s.max_wait), (s.out_begin, s.out_end, s.speech_end_sample),
                  (s.speech_frames, s.sil_frames), (s.evad_active, s.evad_on_frame),
                  (s.user_stop, int(s.data_end)))
        text = " | ".join(" ".join(map(str, group)) for group in groups) + " |"
        for g in s.segments:
            text += " %d:%d:%d:%d" % (g.start, g.end, g.speech_start, g.last_speech)
        if self.exact and s.network:
            text += " nn=%08x" % fnv(s.posteriors.astype("<f4").tobytes())
        return text

    def handed_out(self, capacity):
        out = self.session.callback(capacity)
        return " callback %d %08x" % (2 * len(out), fnv(out.astype("<i2").tobytes()))

    def run(self, chunk, total, capacity=None):
        s, h, shown, sent = self.session, 0x811C9DC5, None, 0
        total = total or len(self.source.pcm) - self.source.position
        while sent < total:
            n = min(chunk, total - sent)
            sent += n
            rc = s.send(self.source.take(n), n)
            result = s.detect()
            self.scores.append(s.smoother.score if s.smoother else 0.0)
            line = "%d %d %d | %s" % (sent, rc, result, self.fields())
            if capacity is not None:
                line += self.handed_out(capacity)
            h = fnv(line.encode(), h)
            key = (rc, result, s.status, len(s.segments), s.evad_active)
            if key != shown or sent == total:
                yield line + " #%08x" % h
            shown = key

    def states(self):
        s, runs = self.session, []
        size = len(s.frame_state)
        for f in range(max(0, s.frames_avail - size), s.frames_avail):
            state = s.frame_state[f % size]
            if not runs or runs[-1][0] != state:
                runs.append([state, 0])
            runs[-1][1] += 1
        return " ".join("%d*%d" % tuple(run) for run in runs)

    def collect(self):
        """Keeps what says how near a decision came to falling otherwise."""
        s = self.session
        if s.smoother:
            self.margins += s.smoother.margins
            self.scored.append(len(s.smoother.margins))
            s.smoother.margins = []
        if s.bleep and s.bleep.score is not None:
            self.bleep_scores.append(float(s.bleep.score))
            s.bleep.score = None

    def operation(self, name, *words):
        s = self.session
        self.collect()
        if name in ("set", "init", "wav"):
            numbers = []
        else:
            numbers = [int(w) for w in words]
        if name == "source":
            self.source = Source(*numbers)
        elif name in ("silence", "speech"):
            getattr(self.source, name)(*numbers)
        elif name == "wav":
            self.source.wav(self.path(words[0]))
        elif name == "rewind":
            self.source.position = 0
        elif name == "exact":
            self.exact = True
        elif name == "new":
            self.session = Session(self.fft)
        elif name == "init":
            paths = [self.path(w) for w in words]
            rc = s.init_load_model(*paths) if len(paths) > 1 else s.init(*paths)
            yield "%d | %d %d %d %d %d | %s" % (rc, s.sample_rate, s.frame_shift, s.buf_frames,
                                                s.max_data_len, s.bleep_detect, self.fields())
        elif name == "set":
            yield "%d" % s.set_param(int(words[0]), float(words[1]))
        elif name == "get":
            yield "%.9g" % s.get_param(*numbers)
        elif name == "callback":
            yield self.handed_out(*numbers)[1:] + " | " + self.fields()
        elif name == "issil":
            yield "%d" % s.is_sil(*numbers)
        elif name == "convert":
            yield "%d %d" % (s.get_frame(numbers[0]), s.sample_spot(numbers[1]))
        elif name == "run":
            yield from self.run(*numbers)
        elif name == "states":
            yield self.states()
        elif name == "scores":
            for i in range(0, len(self.scores), 10):
                yield "~ " + " ".join("%.6f" % v for v in self.scores[i:i + 10])
            self.scores = []
        else:
            yield "%d | %s" % (self.call(name, numbers), self.fields())
        self.collect()

    def call(self, name, numbers):
        s = self.session
        if name == "send":
            return s.send(self.source.take(numbers[0]), numbers[0])
        if name == "sendnull":
            return s.send(None, numbers[0])
        if name == "end":
            return s.send(None, 0)
        if name == "frame":
            return s.score_samples(self.source.take(numbers[0]), numbers[1], bool(numbers[2]))
        if name == "pause":
            return s.adjust_pause(numbers[0]) or 0
        return {"detect": s.detect, "reset": s.reset, "exit": s.exit, "stop": s.user_stops}[name]()


if __name__ == "__main__":
    script = sys.argv[1]
    with open(script) as lines:
        for text in Trace(os.path.dirname(script)).play(lines):
            print(text)
