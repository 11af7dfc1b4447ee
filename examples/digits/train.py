#!/usr/bin/python3
"""Trains the two digit recognisers of this example and exports them.

    nice /usr/bin/python3 examples/digits/train.py      (about a minute on two cores)

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
                            shift arguments of the fixed-point layers
  test/images.npy           the test images, one row of 64 pixels each
  test/labels.npy           their digits
  test/lstm_torch.npy, test/conv_torch.npy
                            what the PyTorch networks predict for them

Provenance: every file above is written by numpy.save or plain text from this
script; rerunning it rewrites them.
"""
import math
import os
import sys
import time

import numpy as np
import torch
import torch.nn as nn
from sklearn.datasets import load_digits
from sklearn.model_selection import train_test_split

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))
from kelvane_export import ModelWriter  # noqa: E402

DIGITS = ["zero", "one", "two", "three", "four", "five", "six", "seven", "eight", "nine"]
CLIP = 6.0  # ReLU6: the library's relu clips at its `clip` argument
GATE_RANGE = 8.0  # LSTM gate inputs beyond this change no activation


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


def split():
    digits = load_digits()
    images = (digits.images / 16.0).astype(np.float32)
    return train_test_split(images, digits.target, test_size=0.2, stratify=digits.target, random_state=20261123)


# -- shifts of the fixed-point layers -----------------------------------------
#
# A fixed-point product keeps 15 + floor(log2(inputs)) - shift bits of its
# exact sum below the result, so a larger shift keeps more precision until the
# largest result saturates at 32767 items. A layer whose outputs are scores
# gets the largest shift under which no training image saturates, less one
# bit of headroom for unseen images. The LSTM's gates may saturate: the
# library's sigmoid is 1.0 from 7.5 on and its tanh from 3.75, so a gate
# input clamped at +-8 acts as the unclamped one, and the cell's shift is the
# largest that keeps that range. Exponents follow the library's number model:
# the quantiser puts the largest magnitude at 16383 to 32767 items, and the
# layers derive theirs from their operands'.

def qexp(r):
    """Exponent the quantiser gives a matrix of largest magnitude r."""
    r, e = np.float32(r), 0
    if r == 0:
        return 0
    while r > 32767:
        r, e = np.float32(r / 2), e + 1
    while r < 16383:
        r, e = np.float32(r * 2), e - 1
    return e


def product_shift(e_in, e_weight, inputs, largest):
    """Largest shift of a product whose input is at exponent e_in and whose
    result (with bias) reaches `largest` without saturating."""
    default = 15 + int(math.floor(math.log2(inputs)))
    return int(math.floor(math.log2(32767 / largest))) + e_in + e_weight + default


def lstm_shifts(net, x):
    lstm_w = np.concatenate([net.lstm.weight_ih_l0.detach().numpy(), net.lstm.weight_hh_l0.detach().numpy()], 1)
    e_w, e_fc = qexp(np.abs(lstm_w).max()), qexp(float(net.fc.weight.abs().max()))
    with torch.no_grad():
        outputs, _ = net.lstm(x)
    outputs = outputs.numpy()
    images = x.numpy()
    shifts, fc_shifts = [], []
    for image, h_all in zip(images, outputs):
        h = np.zeros(32, np.float32)
        e_x = qexp(np.abs(image).max())  # the image is quantised once
        for step in range(8):
            e_in = max(e_x, qexp(np.abs(h).max())) if h.any() else e_x
            shifts.append(product_shift(e_in, e_w, 40, GATE_RANGE))
            h = h_all[step]
        r = net.fc.weight.detach().numpy() @ h
        z = r + net.fc.bias.detach().numpy()
        fc_shifts.append(product_shift(qexp(np.abs(h).max()), e_fc, 32, max(np.abs(r).max(), np.abs(z).max())))
    return min(shifts), min(fc_shifts) - 1


def conv_shifts(net, x):
    def absmax(t):
        return float(t.detach().abs().max())
    with torch.no_grad():
        a = net.features(x)
        r1 = a @ net.fc1.weight.T
        z1 = r1 + net.fc1.bias
        bn = net.bn1
        root = torch.sqrt(bn.running_var + 0.001)
        centred = z1 - bn.running_mean
        normal = centred / root
        hidden = torch.clamp(normal * bn.weight + bn.bias, 0, CLIP)
        r2 = hidden @ net.fc2.weight.T
        z2 = r2 + net.fc2.bias
    e_w1, e_b1, e_w2 = qexp(absmax(net.fc1.weight)), qexp(absmax(net.fc1.bias)), qexp(absmax(net.fc2.weight))
    e_mean, e_root = qexp(absmax(bn.running_mean)), qexp(absmax(root))
    e_scale, e_offset = qexp(absmax(bn.weight)), qexp(absmax(bn.bias))
    e_a = [qexp(absmax(row)) for row in a]
    fc1 = min(product_shift(e, e_w1, 256, max(absmax(r), absmax(z)))
              for e, r, z in zip(e_a, r1, z1)) - 1
    # Exponents through the fully connected layer and the batch norm's steps.
    e_fc1 = [max(e + e_w1 + 15 + 8 - fc1, e_b1) for e in e_a]
    e_sub = [max(e, e_mean) for e in e_fc1]
    # The division keeps `shift` more bits of the quotient of two items; the
    # dividend is shifted left in 32 bits, so 16 at most.
    bn1 = min(16, min(int(math.floor(math.log2(32767 / absmax(n)))) + e - e_root
                      for n, e in zip(normal, e_sub))) - 1
    e_bn = [max(e - e_root - bn1 + e_scale + 16, e_offset) for e in e_sub]
    fc2 = min(product_shift(e, e_w2, 32, max(absmax(r), absmax(z)))
              for e, r, z in zip(e_bn, r2, z2)) - 1
    return fc1, bn1, fc2


def main():
    torch.manual_seed(0)
    torch.set_num_threads(2)
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

    net = nets["lstm"]
    out = ModelWriter(os.path.join(HERE, "lstm"))
    out.lstm("lstm", net.lstm)
    out.linear("lstm_fc", net.fc)
    out.model_info([(word, 1, 0.5, 0.5) for word in DIGITS], name="digits", version="lstm")
    out.defines["LSTM_SHIFT"], out.defines["LSTM_FC_SHIFT"] = lstm_shifts(net, xt)
    out.close()
    out.write_header(os.path.join(HERE, "lstm_net.h"), comment="Written by train.py: sizes and shifts of lstm/")
    print("lstm: shifts", out.defines["LSTM_SHIFT"], out.defines["LSTM_FC_SHIFT"])

    net = nets["conv"]
    out = ModelWriter(os.path.join(HERE, "conv"))
    geometry = out.conv2d("conv", net.conv, (8, 8))
    out.linear("fc1", net.fc1, conv_output=(geometry.out_channels, geometry.out_h, geometry.out_w))
    out.batchnorm("bn1", net.bn1, variance_name="bn1_var")
    out.linear("fc2", net.fc2)
    out.defines["FC1_SHIFT"], out.defines["BN1_SHIFT"], out.defines["FC2_SHIFT"] = conv_shifts(net, xt)
    out.defines["RELU_CLIP"] = f"{CLIP}f"
    out.close()
    out.write_header(os.path.join(HERE, "conv_net.h"), comment="Written by train.py: sizes and shifts of conv/")
    print("conv: shifts", out.defines["FC1_SHIFT"], out.defines["BN1_SHIFT"], out.defines["FC2_SHIFT"],
          "; convert with -bnmatrices", out.bnmatrices)
    print(f"trained and exported in {time.time() - started:.0f} s")


if __name__ == "__main__":
    main()
