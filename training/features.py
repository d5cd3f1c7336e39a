"""Features through the library's own front end, so that training and detection see the same."""
import os
import subprocess

import numpy as np

DIMENSION = 26
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def build_tools(work):
    """Compile the library and the two tools; quick when nothing changed. Returns their folder."""
    build = os.path.join(work, "tools")
    if not os.path.exists(os.path.join(build, "CMakeCache.txt")):
        subprocess.run(["cmake", "-S", ROOT, "-B", build, "-DCMAKE_BUILD_TYPE=Release",
                        "-DDNNVAD_BUILD_TRAINING=ON", "-DDNNVAD_BUILD_APP=OFF"],
                       check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "--target", "extract_features", "score_pcm"],
                   check=True, stdout=subprocess.DEVNULL)
    return os.path.join(build, "training")


def extract(work, name):
    """Write work/NAME.f32 from work/NAME.s16; done once."""
    target = os.path.join(work, name + ".f32")
    if os.path.exists(target):
        return
    print(f"features {name}", flush=True)
    subprocess.run([os.path.join(build_tools(work), "extract_features"),
                    os.path.join(work, name + ".s16"), target + ".partial"], check=True)
    os.rename(target + ".partial", target)


def load(work, name):
    """Memory map [frames, 26]."""
    return np.memmap(os.path.join(work, name + ".f32"), np.float32, "r").reshape(-1, DIMENSION)


def normalisation(frames, count=400000, seed=3):
    """(mean, 1 / standard deviation) per feature over a random choice of frames."""
    pick = np.sort(np.random.default_rng(seed).choice(len(frames), min(count, len(frames)), False))
    chosen = np.array(frames[pick], np.float64)
    return (chosen.mean(axis=0).astype(np.float32),
            (1 / np.maximum(chosen.std(axis=0), 1e-3)).astype(np.float32))
