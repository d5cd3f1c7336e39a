"""Writes the seeds of the fuzz targets, fuzz/corpus/TARGET/seed-*, and the models of the session's target.

The seeds of label files and models, and what a fuzzer found, are not made but kept.
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


def write(target, name, content):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, "seed-" + name), "wb") as file:
        file.write(content)


def network(dimension, sizes, rate=8000, count=None, header=b"a\nb\nc\n"):
    parameters = sum((a + 1) * b for a, b in zip(sizes, sizes[1:]))
    vectors = b"".join(b"%s %d\n" % (name, dimension) + b"0.5\n" * dimension
                       for name in (b"meanvec", b"revvarvec"))
    return (header + struct.pack("<5i", dimension, rate, 40, 3800, 1) + b"\n"
            + b"%d\n" % (parameters if count is None else count) + vectors
            + struct.pack(f"<{len(sizes) + 1}i", len(sizes), *sizes)
            + b"".join(struct.pack("<f", k % 5 - 2) for k in range(parameters)))


def wav(channels, rate, bits, data, form=1, length=None):
    body = (b"WAVEfmt " + struct.pack("<IHHIIHH", 16, form, channels, rate,
                                      rate * channels * bits // 8, channels * bits // 8, bits)
            + b"data" + struct.pack("<I", len(data) if length is None else length) + data)
    return b"RIFF" + struct.pack("<I", len(body)) + body


def main():
    for name, dimension, rate in (("8k", 26, 8000), ("16k", 40, 16000)):
        with open(os.path.join(HERE, f"tiny{name}.bin"), "wb") as file:
            file.write(network(dimension, (2 * dimension, 3, 9), rate))
    write("config", "all", b"# margins\nPARAM_DNN_SPEECH_threshold:0.3\nPARAM_MAX_WAIT_DURATION: 50\n"
          b"PARAM_MAX_SP_PAUSE:90\nPARAM_SAMPLE_RATE:16000\nPARAM_DNN_FILE:vad.bin\nnothing\n")
    write("config", "long", b"PARAM_DNN_FILE:" + b"x" * 1100 + b"\nPARAM_CMVN_FILE:" + b"y" * 511 + b"\n")
    write("network", "small", network(2, (4, 3, 9)))
    write("network", "deep", network(26, (26, 2, 3, 4, 9)))
    write("network", "wide-rate", network(1, (1, 9), rate=16000))
    write("network", "few-parameters", network(2, (4, 3, 9), count=7))
    write("network", "no-layers", network(2, ()))
    write("network", "no-parameters", network(2, (2, 9), count=0))
    for bins, choice in ((128, b"\0"), (256, b"\1")):
        with open(os.path.join(ROOT, "models", f"bleep{bins // 16}k.txt"), "rb") as file:
            write("bleep", str(bins), choice + file.read())
    write("evad", "stream", bytes((0, 80, 0, 3, 0, 0)) + bytes((10, 80, 0)) * 60 + bytes((5, 0, 4)))
    write("evad", "settings", bytes((2, 80, 0, 2, 5, 3, 4, 3, 0, 0, 8, 0, 0, 9, 9, 0, 0, 90)) + bytes((11, 80, 0)) * 40)
    listen = bytes((31, 63))
    for wide in (0, 1):
        begin = bytes((3, wide, 0, 0))
        write("session", f"stream-{wide}", begin + listen * 9 + bytes((7, 26, 0, 19, 10, 0, 9)))
        write("session", f"again-{wide}", begin + listen * 3 + bytes((5,)) + listen + bytes((6,)) + begin + listen)
    write("session", "halving", bytes((1, 13, 0x80, 0x3e, 3, 0, 0, 0)) + listen * 6 + bytes((14,)) + bytes(8))
    write("session", "parameters", bytes((1, 5, 30, 0, 1, 3, 5, 0, 1, 25, 1, 0, 3, 0, 0, 0)) + listen * 6)
    tone = bytes(range(256)) * 3
    write("wav", "8k", b"\x01" + wav(1, 8000, 16, tone))
    write("wav", "48k-stereo-24", b"\x81" + wav(2, 48000, 24, tone))
    write("wav", "float", b"\x09" + wav(1, 16000, 32, struct.pack("<4f", 0.5, float("nan"), 1e30, -2), 3))
    write("wav", "lies", b"\x01" + wav(8, 96000, 16, tone, length=0xfffffff0))
    write("wav", "raw", b"\x00" + tone)
    for target, words in (("config", [b"PARAM_%s:" % w for w in (
            b"DNN_SPEECH_threshold", b"DNN_SIL_threshold", b"MAX_WAIT_DURATION", b"MAX_SP_DURATION",
            b"MIN_SP_DURATION", b"MAX_SP_PAUSE", b"HEAD_SIL_DURATION", b"START_BACK_FRAME",
            b"END_BACK_FRAME", b"DEBUG_LOG", b"SAMPLE_RATE", b"SPEECH_OFFSET", b"DETECT_START",
            b"WAIT_AFTER_MINSPEECH", b"EVAD_DNNVAD_SWITCH", b"BLEEP_DETECT", b"CMVN_FILE", b"DNN_FILE")]),
            ("network", [b"meanvec ", b"revvarvec ", b"0.5\\x0a", b"\\xff\\xff\\xff\\x7f"])):
        with open(os.path.join(HERE, target + ".dict"), "wb") as file:
            file.write(b"".join(b'"%s"\n' % word for word in words))


if __name__ == "__main__":
    main()
