#!/usr/bin/python3
"""Trains a small classifier of scikit-learn's wine data as a user would,
exports it and calibrates its fixed-point shifts:

    make_model.py <output directory>

writes into the output directory
  model/       the model directory (kelvane_export.ModelWriter)
  wine_net.h   layer sizes and the calibrated shifts, with their headroom
  inputs.npy   every sample, standardised as in training, one per row
  torch.npy    PyTorch's class for each, one row
  twin_q.npy   the fixed-point scores of every sample as the NumPy twin of
               the library computes them: three items, then the exponent

The network: 13 features -> 32 -> batch norm -> ReLU -> 16 -> batch norm ->
ReLU -> 3 classes, trained on 70 % of the samples (fixed seeds, a few
seconds); the shifts are calibrated on the same 70 %.
"""
import os
import sys

import numpy as np
import torch
import torch.nn as nn
from sklearn.datasets import load_wine
from sklearn.model_selection import train_test_split

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "python"))
from kelvane_export import ModelWriter  # noqa: E402
from kelvane_export.calibrate import BatchNorm, Linear, Quantise, Relu, calibrate, forward  # noqa: E402


class WineNet(nn.Module):
    def __init__(self):
        super().__init__()
        # eps 1e-3 is the converter's, so the exported variance is PyTorch's own.
        self.fc1, self.bn1 = nn.Linear(13, 32), nn.BatchNorm1d(32, eps=1e-3)
        self.fc2, self.bn2 = nn.Linear(32, 16), nn.BatchNorm1d(16, eps=1e-3)
        self.fc3 = nn.Linear(16, 3)

    def forward(self, x):
        x = torch.relu(self.bn1(self.fc1(x)))
        x = torch.relu(self.bn2(self.fc2(x)))
        return self.fc3(x)


def main():
    out_dir = sys.argv[1]
    torch.manual_seed(0)
    torch.set_num_threads(2)
    wine = load_wine()
    x = wine.data.astype(np.float32)
    x_train, _, y_train, _ = train_test_split(x, wine.target, test_size=0.3, stratify=wine.target,
                                              random_state=19)
    mean, std = x_train.mean(0), x_train.std(0)
    x, x_train = (x - mean) / std, (x_train - mean) / std

    net = WineNet()
    optimiser = torch.optim.Adam(net.parameters(), lr=0.01)
    xt, yt = torch.from_numpy(x_train), torch.from_numpy(y_train)
    generator = torch.Generator().manual_seed(1)
    for _ in range(60):
        net.train()
        for batch in torch.randperm(len(xt), generator=generator).split(16):
            optimiser.zero_grad()
            nn.functional.cross_entropy(net(xt[batch]), yt[batch]).backward()
            optimiser.step()
    net.eval()
    with torch.no_grad():
        predicted = net(torch.from_numpy(x)).argmax(1).numpy()
    print(f"wine: PyTorch accuracy {100.0 * (predicted == wine.target).mean():.1f} % on all {len(x)} samples")

    model = os.path.join(out_dir, "model")
    with ModelWriter(model) as out:
        out.linear("fc1", net.fc1)
        out.batchnorm("bn1", net.bn1, variance_name="bn1_var")
        out.linear("fc2", net.fc2)
        out.batchnorm("bn2", net.bn2, variance_name="bn2_var")
        out.linear("fc3", net.fc3)
    layers = [Quantise(), Linear("fc1"), BatchNorm("bn1", variance="bn1_var"), Relu(),
              Linear("fc2"), BatchNorm("bn2", variance="bn2_var"), Relu(), Linear("fc3")]
    result = calibrate(model, layers, x_train)
    scores = forward(model, layers, x, result.shifts)
    twin = np.concatenate([scores.items[:, 0, :], scores.exponent[:, None]], axis=1)
    np.save(os.path.join(out_dir, "twin_q.npy"), twin.astype("<f4"))
    out.defines.update(result.shifts)
    out.write_header(os.path.join(out_dir, "wine_net.h"), notes=result.notes,
                     comment="Written by make_model.py: sizes and calibrated shifts")
    np.save(os.path.join(out_dir, "inputs.npy"), x.astype("<f4"))
    np.save(os.path.join(out_dir, "torch.npy"), predicted.astype("<f4").reshape(1, -1))


if __name__ == "__main__":
    main()
