"""The detection session: parameters, audio in and out, the driver and its state machine.

The counterpart of the library's CMFE, written apart from it; names are the library's without
their prefixes. Where a function hands out audio it returns the samples.
"""
import numpy as np

from components import (INVALID, SIL2SIL, SIL2SPEECH, SPEECH2SIL, SPEECH2SPEECH, Bleep, EnergyVad, F,
                        FeatureChain, Network, Smoother, cdiv, fft_double, to_int)


class Segment:
    def __init__(self, start, speech_start):
        self.start, self.end, self.speech_start, self.last_speech = start, -1, speech_start, -1


class Session:
    ENERGY_SIL_FRAMES, ENERGY_LIMIT = 30, 20000

    def __init__(self, fft=fft_double):
        self.fft = fft
        self.max_speech_pause = self.cfg_max_speech_pause = 90
        self.max_wait = self.cfg_max_wait = 110
        self.wait_after_minspeech, self.head_sil = 200, 400
        self.max_sp_duration, self.min_sp_duration = 5000, 25
        self.start_back_frame = self.end_back_frame = 40
        self.speech_threshold = self.sil_threshold = F(0.2)
        self.buf_frames, self.detect_start = 500, 0
        self.vad_enable = self.speech_only = True
        self.sample_rate, self.frame_shift, self.max_data_len = 8000, 80, 40000
        self.debug_log, self.evad_switch, self.bleep_detect = 0, 0, 1
        self.evad_active = 0
        self._narrow_layout()
        self._drop()
        self.reset()

    def _narrow_layout(self):
        self.wide, self.low, self.high, self.channels = False, 40, 3800, 26

    def _drop(self):
        self.data = self.data8k = self.frame_state = None
        self.network = self.chain = self.smoother = self.evad = self.bleep = None

    # -- parameters

    def set_param(self, number, value):
        v = to_int(value)
        plain = {2: "max_sp_duration", 4: "min_sp_duration", 5: "head_sil", 6: "start_back_frame",
                 7: "end_back_frame", 10: "detect_start", 25: "evad_switch", 26: "bleep_detect"}
        if number in plain:
            setattr(self, plain[number], v)
        elif number == 1:
            self.max_wait = v
            if v <= self.cfg_max_speech_pause:
                self.cfg_max_speech_pause = v - 1
            self.cfg_max_wait = v
        elif number == 3:
            self.cfg_max_speech_pause = v
            if v >= self.max_wait:
                self.max_wait = v + 1
            self.max_speech_pause = v
        elif number == 8:
            self.debug_log = max(v, 0)
        elif number == 9:
            q = cdiv(v, self.frame_shift) + 1
            self.buf_frames = q if q > 99 else 100
        elif number == 11:
            self.vad_enable = v != 0
        elif number == 12:
            self.speech_only = v != 0
        elif number == 13:
            if v not in (8000, 16000):
                return -109
            self.frame_shift, self.sample_rate = v // 100, v
            self.max_data_len = self.frame_shift * self.buf_frames
        elif number == 14:
            self.wait_after_minspeech = max(v, self.cfg_max_wait)
        elif number == 23:
            self.speech_threshold = F(value)
        elif number == 24:
            self.sil_threshold = F(value)
        else:
            return -109
        return 0

    def get_param(self, number):
        if number == 9:
            return float(self.buf_frames * self.frame_shift * 2)
        names = {1: "cfg_max_wait", 2: "max_sp_duration", 3: "cfg_max_speech_pause",
                 4: "min_sp_duration", 5: "head_sil", 6: "start_back_frame", 7: "end_back_frame",
                 8: "debug_log", 10: "detect_start", 12: "speech_only", 13: "sample_rate",
                 23: "speech_threshold", 24: "sil_threshold", 25: "evad_switch",
                 26: "bleep_detect"}
        return float(F(getattr(self, names[number]))) if number in names else -109.0

    # -- lifecycle

    def init(self, model, bleep=None):
        return self.init_load_model(model, bleep) and -1

    def init_load_model(self, model, bleep):
        self.data_end = False
        if not model:
            return -103
        self._drop()
        if self.wide:
            self._narrow_layout()
        self.smoother = Smoother(self.speech_threshold, self.sil_threshold)
        self.network = Network(model)
        if self.network.feat_dim == 40:
            self.wide, self.channels = True, 40
            self.low, self.high = self.network.low, self.network.high
            self.sample_rate = self.network.rate
            if self.sample_rate in (8000, 16000):
                self.frame_shift = self.sample_rate // 100
        if not self.network.loaded or self.network.feat_dim < 26:
            return -120
        bins = 256 if self.wide else 128
        if self.bleep_detect != 0:
            self.bleep = Bleep(bleep, bins)
            if not self.bleep.loaded:
                self.bleep_detect = 0
        self.chain = FeatureChain(self.wide, self.low, self.high, self.channels, self.network.mean,
                                  self.network.rev_var, self.network.sizes[0], self.fft)
        if self.chain.failed:
            return -120
        self.frame_samples = np.zeros(400 if self.wide else 200, F)
        self.posteriors = np.zeros(self.network.sizes[-1], F)
        self.evad = EnergyVad()
        self.data = np.zeros(self.frame_shift * self.buf_frames, np.int16)
        self.data8k = np.zeros(80 * self.buf_frames, np.int16)
        self.frame_state = [255] * self.buf_frames
        self.last_speech = 0
        return self.reset()

    def reset(self):
        self.segments = []
        self.max_speech_pause, self.max_wait = self.cfg_max_speech_pause, self.cfg_max_wait
        self.data_end = False
        for name in ("speech_start status last_status samples_in samples_8k samples_16k decim_rest "
                     "speech_end_sample out_begin out_end pass_first_frame frames_avail cur_frame "
                     "onset_frame prev_last_speech user_stop evad_on_frame last_speech onset_count "
                     "speech_frames sil_frames").split():
            setattr(self, name, 0)
        for part in (self.chain, self.smoother, self.evad):
            if part:
                part.reset()
        return 0

    def exit(self):
        self._drop()
        return 0

    # -- audio

    def get_frame(self, s):
        if self.wide:
            return cdiv(s - 400, 160) + 1
        if self.sample_rate == 16000:
            s = cdiv(s, 2)
        return cdiv(s - 200, 80) + 1

    def sample_spot(self, f):
        if self.wide:
            return 400 + 160 * f
        return (200 + 80 * f) * (2 if self.sample_rate == 16000 else 1)

    def send(self, pcm, n):
        if pcm is None and n == 0:
            self.user_stop = 1
            if self.vad_enable:
                self.last_status, self.status = self.status, 2
            else:
                self.data_end = True
            return 0
        if n < 0:
            return -109
        if n > cdiv(self.max_data_len, 2):
            return -118
        if self.data is None and n == 0:
            self.last_status, self.status = self.status, self.status if self.vad_enable else 1
            return 0
        if pcm is None or self.data is None:
            return -103
        old, size = self.samples_in, len(self.data)
        at = old + (self.decim_rest if self.vad_enable else 0)
        self.data[np.arange(at, at + n) % size] = pcm[:n]
        end = at + n
        if not self.vad_enable:
            self.samples_in = self.out_end = end
            self.last_status, self.status = self.status, 1
            return 0
        if self.wide:
            self.samples_in = self.samples_16k = end
        elif self.sample_rate == 8000:
            self.samples_in = self.samples_8k = end
        else:
            self.decim_rest = end % 80
            self.samples_in = end - self.decim_rest
            k = np.arange(self.samples_in - old)
            self.data8k[(old // 2 + k) % len(self.data8k)] = self.data[(old + 2 * k) % size]
            self.samples_8k = self.samples_in // 2
        self.last_status = self.status
        return 0

    def callback(self, capacity):
        """Returns the samples handed out."""
        s, t = self.status, self.last_status
        nothing = np.zeros(0, np.int16)
        if self.vad_enable and self.speech_only:
            if s in (0, 3) or (s == 6 and t == 6) or (s == 2 and t in (0, 6)):
                self.out_begin = self.out_end
                return nothing
            if s == 1 and t in (0, 6):
                if not self.segments:
                    self.out_begin = self.out_end
                    return nothing
                self.out_end = self.speech_end_sample
                self.out_begin = self.frame_shift * self.segments[-1].start
        else:
            self.out_end = self.samples_in
        n = self.out_end - self.out_begin
        if 2 * n > capacity:
            n = capacity // 2
            self.out_begin = self.out_end - n
        out = nothing
        if n > 0 and self.data is not None:
            out = self.data[np.arange(self.out_begin, self.out_end) % len(self.data)]
        self.out_begin = self.out_end
        if s == 6 and self.speech_only:
            self.out_begin = self.out_end = self.speech_end_sample
        return out

    # -- detection

    def report(self):
        return self.status if 0 <= self.status <= 6 else 0

    def score_frame(self, frame, smooth=True):
        self.chain.translate(self.frame_samples)
        self.posteriors = self.network.forward(self.chain.read())
        if smooth:
            return self.smoother.step(self.posteriors, frame)
        silence, speech = F(0), F(0)
        for p in self.posteriors[:3]:
            silence += p
        for p in self.posteriors[3:9]:
            speech += p
        return int(silence <= speech)

    def score_samples(self, pcm, frame, smooth):
        n = min(len(pcm), len(self.frame_samples))
        self.frame_samples[:n] = pcm[:n]
        return self.score_frame(frame, smooth)

    def is_sil(self, first, end):
        size = len(self.frame_state) if self.frame_state else self.buf_frames
        if end > self.cur_frame or self.cur_frame - size >= first:
            return -109
        if first < 0 < end - first:
            return -109
        good = all(self.frame_state[f % size] == SIL2SIL for f in range(first, end))
        return 0 if good else -102

    def user_stops(self):
        self.out_begin = self.out_end
        if self.last_status not in (0, 6):
            self.out_end = self.samples_in
        self.speech_end_sample = self.out_end
        self.prev_last_speech = self.get_frame(self.out_end)
        self.user_stop = 0
        if self.last_status != 1:
            return 3 if self.last_status == 0 else 2
        n = self.prev_last_speech - self.onset_frame
        return 4 if n < self.min_sp_duration else 5 if n >= self.max_sp_duration - 9 else 2

    def detect(self):
        if not self.vad_enable:
            self.speech_end_sample = self.samples_in
            frames = self.get_frame(self.samples_in)
            if not self.segments:
                self.segments.append(Segment(0, 0))
            self.segments[-1].end = self.segments[-1].last_speech = frames
            return 2 if self.data_end else 1
        if self.user_stop == 1:
            return self.user_stops()
        if self.data is None:
            return self.report()
        self.pass_first_frame = self.cur_frame = self.frames_avail
        count, length, shift = ((self.samples_16k, 400, 160) if self.wide
                                else (self.samples_8k, 200, 80))
        self.frames_avail = 0 if count < length else (count - length) // shift + 1
        if self.cur_frame < self.detect_start and self.detect_start >= self.frames_avail:
            self.pass_first_frame = self.frames_avail
            return self.report()
        if self.cur_frame >= self.frames_avail:
            return self.report()
        self.out_end, self.speech_end_sample = self.speech_end_sample, self.samples_in
        self.status = self.last_status
        if self.status in (0, 6):
            self.speech_start = self.frames_avail
        ring = self.data if self.wide or self.sample_rate == 8000 else self.data8k
        for f in range(self.cur_frame, self.frames_avail):
            frame = ring[np.arange(f * shift, f * shift + length) % len(ring)]
            self.frame_samples[:] = frame
            energy = int(np.abs(frame.astype(np.int64)).sum())
            if self.evad_active == 0:
                state = self.score_frame(f)
            elif self.evad_active == 1:
                state = SIL2SIL
                if self.evad.step(frame[:shift]) == SIL2SPEECH:
                    self.evad_active = 0
                    self.evad.reset()
            else:
                state = INVALID
            if self.bleep_detect != 0 and self.bleep:
                self.bleep.save(f, self.chain.spectrum_db)
            self.frame_state[f % len(self.frame_state)] = state
            if self.transition(f, state, energy):
                return self.report()
            self.adjust_pause(f - self.speech_start)
        self.cur_frame = self.frames_avail
        self.out_end = self.speech_end_sample
        if self.status == 2 and self.cur_frame - self.last_speech > self.end_back_frame:
            self.out_end = self.sample_spot(self.last_speech + self.end_back_frame)
        self.make_segment()
        return self.report()

    def transition(self, f, state, energy):
        """True when the driver has to return at once."""
        if state == SIL2SIL:
            return self.silence(f, f - self.last_speech, energy)
        self.speech_frames += 1
        if state == SIL2SPEECH:
            self.speech_start = min(self.speech_start, f)
            self.onset_frame = f
            self.prev_last_speech, self.last_speech = self.last_speech, f
            self.onset_count += 1
            self.status = 1
        elif state == SPEECH2SPEECH:
            self.last_speech = f
            self.status = 5 if f - self.speech_start > self.max_sp_duration else 1
        elif state == SPEECH2SIL:
            self.last_speech = f
            self.status = 1
            self.max_wait = self.cfg_max_wait
        return False

    def silence(self, f, d, energy):
        self.sil_frames += 1
        if (self.evad_switch != 0 and d > self.ENERGY_SIL_FRAMES and f - self.evad_on_frame > 30
                and energy < self.ENERGY_LIMIT):
            if self.evad_active == 0:
                self.evad_on_frame = f
            self.evad_active = 1
        spoken = self.last_speech != 0
        if d > (self.max_wait if spoken else self.head_sil):
            self.max_speech_pause = self.cfg_max_speech_pause
            self.status = 3
            return True
        if not spoken:
            self.status = 0
        elif self.last_status == 6:
            self.status = 6
        elif d > self.max_speech_pause:
            self.end_of_speech(f)
            return True
        elif d > self.end_back_frame:
            self.out_end = self.sample_spot(self.last_speech + self.end_back_frame)
            self.status = 2
        elif self.onset_count != 0:
            self.status = 2
        else:
            self.status = self.last_status
        return False

    def open_segment(self):
        start = max(self.speech_start - self.start_back_frame, self.detect_start)
        self.segments.append(Segment(start, self.speech_start))

    def end_of_speech(self, f):
        if not self.segments:
            self.open_segment()
        last = self.segments[-1]
        last.end, last.last_speech = min(self.last_speech + self.end_back_frame, f), self.last_speech
        self.status = 6
        self.max_speech_pause = self.cfg_max_speech_pause
        self.speech_end_sample = self.sample_spot(f)
        self.out_end = min(self.sample_spot(self.last_speech + self.end_back_frame),
                           self.speech_end_sample)
        self.frames_avail, self.cur_frame, self.onset_count = f, f + 1, 0
        if len(self.segments) != 1:
            return
        length = self.last_speech - last.speech_start
        if length <= 9:
            self.last_speech = 0
        elif length < self.min_sp_duration:
            self.max_wait = self.wait_after_minspeech
        if 120 > self.last_speech and length > 15 and self.bleep_detect != 0 and self.bleep:
            if self.bleep.decide(self.last_speech) > F(0.5):
                self.last_speech, self.status = 0, 0

    def adjust_pause(self, n):
        limit = cdiv(self.max_sp_duration, 2) if self.max_sp_duration < 2000 else 1000
        if n > limit:
            share = F(n) / (F(self.max_sp_duration) + F(0.01))
            self.max_speech_pause = to_int((F(1) - share) * F(self.cfg_max_speech_pause))

    def make_segment(self):
        s, t = self.status, self.last_status
        last = self.segments[-1] if self.segments else None
        if last and t not in (0, 6):
            last.end, last.last_speech = self.cur_frame, self.last_speech
        elif s == 1 and t == 0:
            self.open_segment()
        elif last and t == 6 and (s in (1, 5) or (s == 2 and self.onset_count == 1)):
            start = max(self.speech_start - self.start_back_frame, last.end)
            if self.speech_start - start <= 9:
                start = max(self.speech_start - 10, last.last_speech)
            self.segments.append(Segment(start, self.speech_start))
