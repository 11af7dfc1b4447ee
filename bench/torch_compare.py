#!/usr/bin/python3
"""Time per image of the bundled digit networks: the library (examples/digits/digits, one image
at a time, as firmware runs them) beside PyTorch's standard modules of the same shapes, also
one image at a time, measured in the same run on the same machine.

    /usr/bin/python3 bench/torch_compare.py [build dir]     (default: build/release)

Needs Debian's python3-torch and python3-sklearn, and the digits program built in the build
directory (the README's first command builds it). PyTorch runs with one thread, as the
library does, under torch.no_grad() in evaluation mode; its time is the median of five
passes over the 360 test images, and so is the library's (five runs of the program).
Prints a Markdown table of microseconds per image, the ratio PyTorch / library, and the ratio
each variant is meant to reach: 10 times, the fixed-point LSTM 15 times.
"""
import os
import re
import statistics
import subprocess
import sys
import time

import torch

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "examples", "digits"))
from train import ConvNet, LstmNet, split  # noqa: E402
from train_cnn import cnn  # noqa: E402

PASSES = 5


def goal(network, variant):
    return 15.0 if (network, variant) == ("lstm", "fixed point") else 10.0


def torch_micros(net, images):
    net.eval()
    with torch.no_grad():
        for x in images[:20]:  # warm up
            net(x)
        times = []
        for _ in range(PASSES):
            start = time.perf_counter()
            for x in images:
                net(x)
            times.append((time.perf_counter() - start) / len(images) * 1e6)
    return statistics.median(times)


def library_micros(program):
    runs = {}
    for _ in range(PASSES):
        out = subprocess.run([program], check=True, capture_output=True, text=True).stdout
        network = None
        for line in out.splitlines():
            m = re.match(r"^(\w+)\s+PyTorch", line)
            if m:
                network = m.group(1)
                continue
            m = re.match(r"^\s+(float|quantised weights|fixed point)\s.*?([\d.]+) us$", line)
            if m and network:
                runs.setdefault((network, m.group(1)), []).append(float(m.group(2)))
    return {key: statistics.median(values) for key, values in runs.items()}


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "build", "release")
    program = os.path.join(build, "examples", "digits", "digits")
    torch.set_num_threads(1)
    _, x_test, _, _ = split()
    images = torch.from_numpy(x_test)
    inputs = {
        "lstm": [x[None] for x in images],          # 8 steps of 8 pixels
        "conv": [x[None] for x in images],          # the network adds the channel
        "cnn": [x[None, None] for x in images],
    }
    nets = {"lstm": LstmNet(), "conv": ConvNet(), "cnn": cnn()}
    reference = {name: torch_micros(nets[name], inputs[name]) for name in nets}
    library = library_micros(program)
    print(f"PyTorch {torch.__version__}, one thread; library: {program}\n")
    print("| network | PyTorch (us) | variant | library (us) | PyTorch / library | goal |")
    print("|---|---:|---|---:|---:|---:|")
    below = []
    for name in nets:
        for variant in ("float", "quantised weights", "fixed point"):
            t = library.get((name, variant))
            if t is None:
                continue
            ratio, want = reference[name] / t, goal(name, variant)
            if ratio < want:
                below.append(f"{name} {variant}")
            print(f"| {name} | {reference[name]:.1f} | {variant} | {t:.1f} | {ratio:.1f} | {want:.0f} |")
    print("\nbelow the goal: " + (", ".join(below) if below else "none"))


if __name__ == "__main__":
    main()
