"""Features through the library's own front end, so that training and detection see the same."""
import os
import subprocess
from dataclasses import dataclass

import numpy as np


@dataclass(frozen=True)
class Front:
    """The front end of one model."""

    rate: int  # Hz
    dimension: int  # log mel energies per frame, as the library has it at this rate
    low: int  # filter bank, Hz
    high: int
    context: int  # frames stacked for the network
    hidden: tuple  # units of the hidden layers

    @property
    def suffix(self):
        """What the names of files at this rate end in."""
        return "8" if self.rate == 8000 else ""


NARROW = Front(8000, 26, 40, 3800, 17, (96, 64))
WIDE = Front(16000, 40, 40, 7600, 17, (96, 64))
FRONTS = {8: NARROW, 16: WIDE}
TOOLS = ("extract_features", "session_pcm", "bleep_maps")
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def build_tools(work):
    """Compile the library and the tools; quick when nothing changed. Returns their folder."""
    build = os.path.join(work, "tools")
    subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                    "-DDNNVAD_BUILD_TRAINING=ON", "-DDNNVAD_BUILD_APP=OFF"],
                   check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "--target", *TOOLS], check=True,
                   stdout=subprocess.DEVNULL)
    return os.path.join(build, "training")


def extract(work, name, front):
    """Write work/NAME.f32 (or NAME8.f32) from the samples at the front end's rate, unless newer."""
    target = os.path.join(work, name + front.suffix + ".f32")
    source = os.path.join(work, name + front.suffix + ".s16")
    if os.path.exists(target) and os.path.getmtime(target) > os.path.getmtime(source):
        return
    print(f"features {name}, {front.rate} Hz", flush=True)
    subprocess.run([os.path.join(build_tools(work), "extract_features"), str(front.rate),
                    str(front.low), str(front.high), source, target + ".partial"],
                   check=True, stdout=subprocess.DEVNULL)  # the library talks at 16 kHz
    os.rename(target + ".partial", target)


def load(work, name, front):
    """Memory map [frames, front.dimension]."""
    return np.memmap(os.path.join(work, name + front.suffix + ".f32"), np.float32,
                     "r").reshape(-1, front.dimension)


def normalisation(frames, count=400000, seed=3):
    """(mean, 1 / standard deviation) per feature over a random choice of frames."""
    pick = np.sort(np.random.default_rng(seed).choice(len(frames), min(count, len(frames)), False))
    chosen = np.array(frames[pick], np.float64)
    return (chosen.mean(axis=0).astype(np.float32),
            (1 / np.maximum(chosen.std(axis=0), 1e-3)).astype(np.float32))
