#!/usr/bin/python3
"""Trains the two digit recognisers of this example and exports them.

    nice /usr/bin/python3 examples/digits/train.py      (about a minute on two cores)
    /usr/bin/python3 examples/digits/train.py --calibrate-only
        calibrates the committed models again and rewrites the two headers,
        leaving the model directories as they are

Data: the 8 x 8 handwritten digits that Debian's python3-sklearn ships
(load_digits, 1797 images of 0 to 16), scaled to 0..1, split once into 80 %
training and 20 % test images, stratified by digit, with a fixed seed.

Networks (PyTorch, fixed seeds):
  lstm/  the image rows as 8 time steps of 8 pixels -> LSTM of 32 units ->
         fully connected 32 -> 10 on the last output. _MODEL_INFO_ holds the
         ten digit names.
  conv/  3 x 3 convolution, 4 channels, same padding -> ReLU6 ->
         fully connected 256 -> 32 -> batch normalisation -> ReLU6 ->
         fully connected 32 -> 10.

Written here (all committed, so that building and testing need no Python):
  lstm/, conv/              the model directories, by kelvane_export
  lstm_net.h, conv_net.h    layer sizes, the convolution's geometry and the
                            shift arguments of the fixed-point layers,
                            calibrated on the training images (the table
                            of each calibration is printed)
  test/images.npy           the test images, one row of 64 pixels each
  test/labels.npy           their digits
  test/lstm_torch.npy, test/conv_torch.npy
                            what the PyTorch networks predict for them

Provenance: every file above is written by numpy.save or plain text from this
script; rerunning it rewrites them.
"""
import os
import sys
import tempfile
import time

import numpy as np
import torch
import torch.nn as nn
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))
from kelvane_export import ModelWriter  # noqa: E402
from kelvane_export.calibrate import BatchNorm, Conv2d, Linear, Lstm, Quantise, Relu, calibrate  # noqa: E402

DIGITS = ["zero", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine"]
CLIP = 6.0  # ReLU6: the library's relu clips at its `clip` argument


class LstmNet(nn.Module):
    def __init__(self):
        super().__init__()
        self.lstm = nn.LSTM(8, 32, batch_first=True)
        self.fc = nn.Linear(32, 10)

    def forward(self, images):  # batch x 8 x 8
        outputs, _ = self.lstm(images)
        return self.fc(outputs[:, -1])


class ConvNet(nn.Module):
    def __init__(self):
        super().__init__()
        self.conv = nn.Conv2d(1, 4, 3, padding=1)
        self.fc1 = nn.Linear(4 * 8 * 8, 32)
        # eps 1e-3 is the converter's own, so the exported variance is PyTorch's.
        self.bn1 = nn.BatchNorm1d(32, eps=1e-3)
        self.fc2 = nn.Linear(32, 10)

    def features(self, images):
        return torch.clamp(self.conv(images[:, None]), 0, CLIP).flatten(1)

    def forward(self, images):
        hidden = torch.clamp(self.bn1(self.fc1(self.features(images))), 0, CLIP)
        return self.fc2(hidden)


def train(net, x, y, epochs, lr):
    optimiser = torch.optim.Adam(net.parameters(), lr=lr)
    schedule = torch.optim.lr_scheduler.CosineAnnealingLR(optimiser, epochs)
    generator = torch.Generator().manual_seed(1)
    for _ in range(epochs):
        net.train()
        for batch in torch.randperm(len(x), generator=generator).split(32):
            optimiser.zero_grad()
            nn.functional.cross_entropy(net(x[batch]), y[batch]).backward()
            optimiser.step()
        schedule.step()
    net.eval()


# -- shifts of the fixed-point layers -----------------------------------------
#
# The shifts are calibrated on the training images: the exporter runs them
# through the library's fixed-point arithmetic, layer by layer as digits.c
# calls it, and takes for each layer the largest shift that keeps one bit of
# headroom (LSTM gate inputs count up to 8, where the activations are flat).

def layers(geometry):
    """The fixed-point variants of digits.c, one entry per library call."""
    return {
        "lstm": [Quantise(), Lstm("lstm"), Linear("lstm_fc")],
        "conv": [Conv2d("conv", geometry), Relu(CLIP), Quantise(), Linear("fc1"),
                 BatchNorm("bn1", variance="bn1_var"), Relu(CLIP), Linear("fc2")],
    }


def training_images():
    """The training split, as train_test_split made it for training."""
    return split()[0]


def split():
    digits = load_digits()
    images = (digits.images / 16.0).astype(np.float32)
    return train_test_split(images, digits.target, test_size=0.2, stratify=digits.target, random_state=20261123)


def export(nets, root):
    """Writes the model directories under root; returns their writers (whose
    defines hold the layer sizes) and the convolution's geometry."""
    net = nets["lstm"]
    lstm = ModelWriter(os.path.join(root, "lstm"))
    lstm.lstm("lstm", net.lstm)
    lstm.linear("lstm_fc", net.fc)
    lstm.model_info([(word, 1, 0.5, 0.5) for word in DIGITS], name="digits", version="lstm")

    net = nets["conv"]
    conv = ModelWriter(os.path.join(root, "conv"))
    geometry = conv.conv2d("conv", net.conv, (8, 8))
    conv.linear("fc1", net.fc1, conv_output=(geometry.out_channels, geometry.out_h, geometry.out_w))
    conv.batchnorm("bn1", net.bn1, variance_name="bn1_var")
    conv.linear("fc2", net.fc2)
    # Each directory is put in place whole when its writer closes.
    lstm.close()
    conv.close()
    return {"lstm": lstm, "conv": conv}, geometry


def architecture():
    """The writers and geometry of untrained networks: sizes and geometry
    depend on the architecture alone, so the committed models' headers can
    be rewritten without exporting (and so changing) the models."""
    with tempfile.TemporaryDirectory() as root:
        return export({"lstm": LstmNet(), "conv": ConvNet()}, root)


def calibrate_models(images, geometry=None, out=sys.stdout):
    """Calibrates the committed model directories on images (N x 8 x 8)."""
    if geometry is None:
        geometry = architecture()[1]
    results = {}
    for name, net_layers in layers(geometry).items():
        if out:
            print(f"{name}:", file=out)
        results[name] = calibrate(os.path.join(HERE, name), net_layers, images, out=out)
    return results


def write_headers(writers, calibrations):
    for name, out in writers.items():
        out.defines.update(calibrations[name].shifts)
        if name == "conv":
            out.defines["RELU_CLIP"] = f"{CLIP}f"
        out.write_header(os.path.join(HERE, f"{name}_net.h"), notes=calibrations[name].notes,
                         comment=f"Written by train.py: sizes and calibrated shifts of {name}/")


def main():
    torch.set_num_threads(2)
    if sys.argv[1:] == ["--calibrate-only"]:
        writers, geometry = architecture()
        write_headers(writers, calibrate_models(training_images(), geometry))
        return
    torch.manual_seed(0)
    started = time.time()

    x_train, x_test, y_train, y_test = split()
    xt, yt = torch.from_numpy(x_train), torch.from_numpy(y_train)
    xs = torch.from_numpy(x_test)

    nets = {"lstm": LstmNet(), "conv": ConvNet()}
    train(nets["lstm"], xt, yt, epochs=60, lr=0.01)
    train(nets["conv"], xt, yt, epochs=40, lr=0.005)

    os.makedirs(os.path.join(HERE, "test"), exist_ok=True)
    np.save(os.path.join(HERE, "test", "images.npy"), x_test.reshape(len(x_test), 64))
    np.save(os.path.join(HERE, "test", "labels.npy"), y_test.astype(np.int64))
    for name, net in nets.items():
        with torch.no_grad():
            predicted = net(xs).argmax(1).numpy().astype(np.int64)
        np.save(os.path.join(HERE, "test", f"{name}_torch.npy"), predicted)
        print(f"{name}: PyTorch test accuracy {100.0 * (predicted == y_test).mean():.1f} %")

    writers, geometry = export(nets, HERE)
    write_headers(writers, calibrate_models(x_train, geometry))
    print("convert conv/ with -bnmatrices", writers["conv"].bnmatrices)
    print(f"trained and exported in {time.time() - started:.0f} s")


if __name__ == "__main__":
    main()
