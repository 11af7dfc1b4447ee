#!/usr/bin/python3
"""Writes the firmware's small every-layer model in ./model and its test
inputs in ./inputs.

Provenance: the .npy files in ./model and ./inputs were written by numpy.save
from this script (seeded, so reruns give the same bytes), run as
    /usr/bin/python3 examples/firmware/make_model.py
with Debian's python3-numpy. The weights are random, not trained: the model
exercises every layer of the library on a device, it recognises nothing.

The network, one 8 x 6 single-channel input at a time:
    conv 3x3, 4 channels, stride 2, padding   -> 1 x 48
    relu (clip 6)
    fully connected 48 -> 16                 fc1_w, fc1_b
    batch normalisation                      bn1_*, pop_var
    LSTM, 8 units, state kept across inputs  lstm_w, lstm_b
    fully connected 8 -> 3, softmax          fc2_w, fc2_b
"""
import os

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
rng = np.random.default_rng(20261124)


def save(folder, name, array):
    os.makedirs(os.path.join(HERE, folder), exist_ok=True)
    np.save(os.path.join(HERE, folder, name + ".npy"), array.astype(np.float32))


# Filter rows are the 9 places of the window (row by row), columns the channels.
save("model", "conv_w", rng.normal(0, 0.4, (9, 4)))
save("model", "conv_b", rng.normal(0, 0.1, (4,)))
save("model", "fc1_w", rng.normal(0, 0.2, (48, 16)))
save("model", "fc1_b", rng.normal(0, 0.1, (16,)))
save("model", "bn1_offset", rng.normal(0, 0.1, (16,)))
save("model", "bn1_scale", rng.uniform(0.8, 1.2, (16,)))
save("model", "bn1_mean", rng.normal(0, 0.1, (16,)))
save("model", "pop_var", rng.uniform(0.5, 2.0, (16,)))  # the converter stores the roots
# LSTM: rows are 16 inputs then 8 outputs fed back; columns the four gates.
save("model", "lstm_w", rng.normal(0, 0.3, (24, 32)))
save("model", "lstm_b", rng.normal(0, 0.1, (32,)))
save("model", "fc2_w", rng.normal(0, 0.4, (8, 3)))
save("model", "fc2_b", rng.normal(0, 0.1, (3,)))

# Four inputs, one sequence for the LSTM: 6 rows of 8 values.
for i in range(4):
    save("inputs", "in%d" % i, rng.uniform(-1.0, 1.0, (6, 8)))
