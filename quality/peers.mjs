// Runs one openly known voice-activity detector over a recording.
//
//   node peers.mjs PEER IN.s16 OUT.f32 [SCENE_SAMPLES]
//
// PEER: silero (v5), webrtc0 .. webrtc3 (libfvad in that mode) or rnnoise. IN: 16-bit mono samples
// at 16 kHz, without a header; the detector starts afresh every SCENE_SAMPLES (without: one stream;
// samples behind the last whole scene are left out). OUT: a little-endian float per 10 ms frame,
// as align() says.
import fs from "node:fs";
import { createRequire } from "node:module";
import path from "node:path";
import { fileURLToPath } from "node:url";

export const SHIFT = 160; // samples from frame to frame
export const WINDOW = 400; // samples of a frame

// Scores of the frames of a scene of `samples` samples, causally: frame f takes the score of the
// latest chunk (chunk k holds samples k * size .. (k + 1) * size - 1) that is complete when the
// frame's window (samples 160 f .. 160 f + 399) has arrived, 0 before the first. The frames whose
// windows would pass the end of the scene repeat the last one, so that a scene has samples / 160.
export function align(scores, size, samples) {
  const frames = Math.floor(samples / SHIFT);
  const last = Math.floor((samples - WINDOW) / SHIFT);
  const out = new Float32Array(frames);
  for (let f = 0; f < frames; f++) {
    const complete = Math.floor((SHIFT * Math.min(f, last) + WINDOW) / size);
    out[f] = complete > 0 ? scores[complete - 1] : 0;
  }
  return out;
}

// Three times the rate: a causal polyphase filter (Kaiser-windowed sinc: within 0.4 dB to 7.2 kHz,
// below -60 dB from 8.4 kHz; it delays by HALF input samples = 1.5 ms). Returns a function that
// takes the 160 samples of a chunk and fills `out` with 480.
export function tripler() {
  const HALF = 24, BETA = 7, CUT = 0.96;
  const bessel = (x) => {
    let sum = 1, term = 1;
    for (let k = 1; k < 40; k++) sum += term *= (x / (2 * k)) ** 2;
    return sum;
  };
  const phases = [0, 1, 2].map((phase) => {
    const taps = Float64Array.from({ length: 2 * HALF }, (_, n) => {
      const t = n - HALF + phase / 3; // distance to the sample n back from the newest
      const sinc = t === 0 ? CUT : Math.sin(Math.PI * CUT * t) / (Math.PI * t);
      return Math.abs(t) > HALF ? 0 : sinc * bessel(BETA * Math.sqrt(1 - (t / HALF) ** 2));
    });
    const sum = taps.reduce((a, b) => a + b);
    return taps.map((tap) => tap / sum);
  });
  const line = new Float64Array(2 * HALF + SHIFT - 1);
  return (chunk, out) => {
    line.copyWithin(0, SHIFT);
    line.set(chunk, line.length - SHIFT);
    for (let i = 0; i < SHIFT; i++) {
      for (let phase = 0; phase < 3; phase++) {
        let sum = 0;
        for (let n = 0; n < 2 * HALF; n++) sum += phases[phase][n] * line[i + 2 * HALF - 1 - n];
        out[3 * i + phase] = sum;
      }
    }
  };
}

// A detector: {size: samples per chunk, reset(), score(Int16Array of size) -> number or promise}.

// Silero VAD v5: probability of speech for 512 samples, which go in behind the 64 before them.
async function silero() {
  const runtime = await import("onnxruntime-web");
  runtime.env.wasm.numThreads = 1;
  const package_ = createRequire(import.meta.url).resolve("@ricky0123/vad-web");
  const model = path.join(path.dirname(package_), "silero_vad_v5.onnx");
  const session = await runtime.InferenceSession.create(fs.readFileSync(model));
  const sr = new runtime.Tensor("int64", BigInt64Array.of(16000n), []);
  const samples = new Float32Array(64 + 512);
  let state;
  return {
    size: 512,
    reset() {
      samples.fill(0);
      state = new runtime.Tensor("float32", new Float32Array(2 * 128), [2, 1, 128]);
    },
    async score(chunk) {
      samples.copyWithin(0, 512);
      for (let i = 0; i < 512; i++) samples[64 + i] = chunk[i] / 32768;
      const input = new runtime.Tensor("float32", samples, [1, 64 + 512]);
      const { output, stateN } = await session.run({ input, state, sr });
      state = stateN;
      return output.data[0];
    },
  };
}

// The detector of WebRTC: 1 or 0 for 10 ms; mode 0 says speech most readily, 3 least.
async function webrtc(mode) {
  const library = await (await import("@echogarden/fvad-wasm")).default();
  const buffer = library._malloc(2 * SHIFT);
  const detector = library._fvad_new();
  return {
    size: SHIFT,
    reset() {
      library._fvad_reset(detector); // to 8 kHz and mode 0 also
      library._fvad_set_sample_rate(detector, 16000);
      library._fvad_set_mode(detector, mode);
    },
    score(chunk) {
      library.HEAP16.set(chunk, buffer / 2);
      return library._fvad_process(detector, buffer, SHIFT);
    },
  };
}

// RNNoise: the probability of voice of its 10 ms frames at 48 kHz; samples keep their 16-bit scale.
async function rnnoise() {
  const library = await (await import("@echogarden/rnnoise-wasm")).default();
  const buffer = library._malloc(4 * 3 * SHIFT);
  const frame = new Float32Array(3 * SHIFT);
  let detector = 0, triple;
  return {
    size: SHIFT,
    reset() {
      if (detector) library._rnnoise_destroy(detector);
      detector = library._rnnoise_create(0); // 0: the built-in model
      triple = tripler();
    },
    score(chunk) {
      triple(chunk, frame);
      library.HEAPF32.set(frame, buffer / 4);
      return library._rnnoise_process_frame(detector, buffer, buffer);
    },
  };
}

const PEERS = { silero, rnnoise };
for (let mode = 0; mode < 4; mode++) PEERS[`webrtc${mode}`] = () => webrtc(mode);

async function main([peer, source, target, scene]) {
  const make = PEERS[peer];
  if (!make || !target) {
    const names = Object.keys(PEERS).join("|");
    console.error(`usage: node peers.mjs ${names} IN.s16 OUT.f32 [SCENE_SAMPLES]`);
    process.exit(2);
  }
  const detector = await make();
  const bytes = fs.readFileSync(source);
  const pcm = new Int16Array(bytes.buffer, bytes.byteOffset, bytes.length >> 1);
  const length = Number(scene) || pcm.length;
  const file = fs.openSync(target + ".part", "w");
  const began = Date.now();
  for (let start = 0, told = 0; start + length <= pcm.length; start += length) {
    detector.reset();
    const scores = new Float32Array(Math.floor(length / detector.size));
    for (let k = 0; k < scores.length; k++) {
      const at = start + k * detector.size;
      scores[k] = await detector.score(pcm.subarray(at, at + detector.size));
    }
    fs.writeSync(file, align(scores, detector.size, length));
    if (Date.now() - told > 5000 || start + 2 * length > pcm.length) {
      told = Date.now();
      const done = (start + length) / 16000;
      console.error(`${peer}: ${done.toFixed(0)} of ${(pcm.length / 16000).toFixed(0)} s, ` +
        `${((told - began) / 1000).toFixed(1)} s`);
    }
  }
  fs.closeSync(file);
  fs.renameSync(target + ".part", target);
}

if (process.argv[1] && fs.realpathSync(process.argv[1]) === fileURLToPath(import.meta.url)) await main(process.argv.slice(2));
