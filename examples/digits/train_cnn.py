#!/usr/bin/python3
"""Trains a depthwise-separable CNN on the digits and exports it for kelvane -3d.

    nice /usr/bin/python3 examples/digits/train_cnn.py      (a few seconds)

Data: the split of train.py (its split(): 80 % training, 20 % test images,
8 x 8 pixels of 0 to 1), one channel.

Network (PyTorch, fixed seeds), the batch norms folded into the
convolutions before them on export:
  cnn_conv1      3 x 3 convolution, 1 -> 8 channels, padding 1 -> batch norm -> ReLU6
  cnn_conv2      3 x 3 depthwise convolution, 8 channels, padding 1 -> batch norm -> ReLU6
  cnn_conv3      1 x 1 convolution, 8 -> 16 channels -> batch norm -> ReLU6
  cnn_maxpool1   2 x 2 max pooling, stride 2: 4 x 4 x 16
  cnn_fc1        flattened (height, width, channel) -> fully connected 256 -> 10

Written here (all committed, so that building and testing need no Python):
  cnn/                 the model directory, by kelvane_export's TensorModelWriter
                       (convert with -3d; kelvane_add_model reads that from
                       cnn/.kelvane_options)
  cnn_net.h            every layer's shapes, pads, strides and clip, and the
                       shifts of the fixed-point layers (choose_shifts)
  test/cnn_torch.npy   what the PyTorch network predicts for the test images

Provenance: every file above is written by numpy.save or plain text from this
script; rerunning it rewrites them.
"""
import os
import sys
import time

import numpy as np
import torch
import torch.nn as nn

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))
from kelvane_export import TensorModelWriter  # noqa: E402
from kelvane_export import fixedpoint as fx  # noqa: E402
from train import CLIP, split, train  # noqa: E402


def cnn():
    def block(conv):
        return [conv, nn.BatchNorm2d(conv.out_channels), nn.Hardtanh(0.0, CLIP)]
    return nn.Sequential(*block(nn.Conv2d(1, 8, 3, padding=1)),
                         *block(nn.Conv2d(8, 8, 3, padding=1, groups=8)),
                         *block(nn.Conv2d(8, 16, 1)),
                         nn.MaxPool2d(2),
                         nn.Flatten(),
                         nn.Linear(4 * 4 * 16, 10))


def block_exponent(peak):
    """The exponent the library's quantiser gives a peak magnitude (the
    fixed-point twin's search)."""
    return int(fx.block_exponent(peak)[0])


def choose_shifts(net, out, x_train):
    """Each fixed-point layer's shift: the largest that keeps the layer's
    items below 16384 (one bit of headroom under saturation) on every
    training image, by the layers' exponent rule. A layer of K products per
    item shifts its exact sums right by s = 15 + floor(log2(K)) - shift, to
    the exponent e_in + e_weight + s (or the bias's, where that is larger);
    ReLU and pooling keep it. The image comes at the exponent of its own
    range; the smallest over the training set is the worst case."""
    peaks = {}
    hooks = [m.register_forward_hook(lambda m, i, o, k=k: peaks.__setitem__(k, float(o.abs().max())))
             for k, m in [("conv1", net[1]), ("conv2", net[4]), ("conv3", net[7]), ("fc1", net[11])]]
    with torch.no_grad():
        net(torch.from_numpy(x_train)[:, None])
    for h in hooks:
        h.remove()
    def table(name):
        return np.load(os.path.join(HERE, "cnn", name + ".npy"))
    e_in = min(block_exponent(np.abs(x).max()) for x in x_train)
    for layer, products in [("conv1", 9), ("conv2", 9), ("conv3", 8), ("fc1", 256)]:
        e_w = block_exponent(np.abs(table(f"cnn_{layer}_w")).max())
        e_b = block_exponent(np.abs(table(f"cnn_{layer}_b")).max())
        default = 15 + int(np.floor(np.log2(products)))
        wanted = int(np.ceil(np.log2(peaks[layer] / 16383.0)))  # lowest exponent that fits
        shift = min(max(default - (wanted - e_in - e_w), 0), default)
        e_in = max(e_in + e_w + default - shift, e_b)
        out.defines[f"CNN_{layer.upper()}_SHIFT"] = shift
        print(f"  {layer}: shift {shift:2d}, exponent {e_in:3d}, peak {peaks[layer]:8.3f} = item "
              f"{peaks[layer] / 2.0 ** e_in:7.0f}")


def main():
    torch.manual_seed(0)
    torch.set_num_threads(1)  # the layers are too small to gain from threads
    started = time.time()

    x_train, x_test, y_train, y_test = split()
    xt, yt = torch.from_numpy(x_train)[:, None], torch.from_numpy(y_train)
    xs = torch.from_numpy(x_test)[:, None]

    net = cnn()
    train(net, xt, yt, epochs=20, lr=0.01)
    with torch.no_grad():
        predicted = net(xs).argmax(1).numpy().astype(np.int64)
    np.save(os.path.join(HERE, "test", "cnn_torch.npy"), predicted)
    print(f"cnn: PyTorch test accuracy {100.0 * (predicted == y_test).mean():.1f} %")

    with TensorModelWriter(os.path.join(HERE, "cnn"), input_shape=(8, 8, 1)) as out:
        out.sequential(net, prefix="cnn_")
    choose_shifts(net, out, x_train)
    out.write_header(os.path.join(HERE, "cnn_net.h"),
                     comment="Written by train_cnn.py: shapes, pads and strides of cnn/ (kelvane -3d)")
    print(f"trained and exported in {time.time() - started:.0f} s")


if __name__ == "__main__":
    main()
