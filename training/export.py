"""Model files: writing, reading."""
import io
import os
import struct

import numpy as np

from features import Front

HEADER = b"dnnvad network model\nsilence classes 0-2, speech classes 3-8\nlog mel features\n"


def write_model(path, front, mean, reverse_variance, layers):
    """One file with the front-end settings, the normalisation and the layers.

    A file that is there and the same is left alone. Returns whether it was written.
    """
    sizes = [layers[0][0].shape[1]] + [weights.shape[0] for weights, _ in layers]
    parameters = np.concatenate(
        [np.concatenate([np.ravel(weights), biases]) for weights, biases in layers])
    with io.BytesIO() as file:
        file.write(HEADER)
        file.write(struct.pack("<5i", len(mean), front.rate, front.low, front.high, 1) + b"\n")
        file.write(b"%d\n" % len(parameters))
        for name, vector in ((b"meanvec", mean), (b"revvarvec", reverse_variance)):
            file.write(b"%s %d\n" % (name, len(vector)))
            # Nine digits bring every float back exactly.
            file.writelines(b"%.9g\n" % value for value in np.asarray(vector, np.float32))
        file.write(struct.pack(f"<{len(sizes) + 1}i", len(sizes), *sizes))
        file.write(parameters.astype("<f4").tobytes())
        content = file.getvalue()
    if os.path.exists(path):
        with open(path, "rb") as file:
            if file.read() == content:
                return False
    with open(path + ".partial", "wb") as file:
        file.write(content)
    os.replace(path + ".partial", path)
    return True


def read_model(path):
    """{"front", "mean", "reverse_variance", "layers"} of a model file."""
    with open(path, "rb") as file:
        for _ in range(3):
            file.readline()
        dimension, rate, low, high, _ = struct.unpack("<5i", file.read(20))
        file.readline()
        count = int(file.readline())
        vectors = {}
        for name in (b"meanvec", b"revvarvec"):
            word, size = file.readline().split()
            if word != name or int(size) != dimension:
                raise ValueError(f"{path}: not a model file")
            vectors[name] = np.array([float(file.readline()) for _ in range(dimension)],
                                     np.float32)
        number, = struct.unpack("<i", file.read(4))
        sizes = struct.unpack(f"<{number}i", file.read(4 * number))
        block = np.frombuffer(file.read(4 * count), "<f4")
    layers, at = [], 0
    for inputs, outputs in zip(sizes, sizes[1:]):
        weights = block[at:at + inputs * outputs].reshape(outputs, inputs)
        at += inputs * outputs
        layers.append((weights, block[at:at + outputs]))
        at += outputs
    if at != count:
        raise ValueError(f"{path}: {count} parameters, the layers need {at}")
    front = Front(rate, dimension, low, high, sizes[0] // dimension, tuple(sizes[1:-1]))
    return {"front": front, "mean": vectors[b"meanvec"],
            "reverse_variance": vectors[b"revvarvec"], "layers": layers}
