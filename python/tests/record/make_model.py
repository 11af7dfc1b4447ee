#!/usr/bin/python3
"""Writes the fixtures of record.c with kelvane_export, records included:

  model/  a linear layer 2 -> 3 and a batch norm whose variance has a name
          of its own, bn_var, holding 0.999, 3.999 and 8.999, whose roots
          after the converter's epsilon of 0.001 are 1, 2 and 3
  cnn/    one 1 x 1 convolution, 1 -> 2 channels, for kelvane -3d

Provenance: every file in model/ and cnn/ is written by this script
(numpy.save through kelvane_export); rerun it to rewrite them.
"""
import os
import sys

import torch
import torch.nn as nn

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", ".."))
from kelvane_export import ModelWriter, TensorModelWriter  # noqa: E402

fc = nn.Linear(2, 3)
bn = nn.BatchNorm1d(3, eps=1e-3).eval()
conv = nn.Conv2d(1, 2, 1)
with torch.no_grad():
    fc.weight.copy_(torch.tensor([[1.0, 2.0], [3.0, 4.0], [5.0, 6.0]]) / 4)
    fc.bias.copy_(torch.tensor([0.5, -0.5, 0.25]))
    bn.running_var.copy_(torch.tensor([0.999, 3.999, 8.999]))
    conv.weight.copy_(torch.tensor([0.5, -0.25]).reshape(2, 1, 1, 1))
    conv.bias.zero_()

with ModelWriter(os.path.join(HERE, "model")) as out:
    out.linear("fc", fc)
    out.batchnorm("bn", bn, variance_name="bn_var")
with TensorModelWriter(os.path.join(HERE, "cnn"), (4, 4, 1)) as out:
    out.conv2d("conv1", conv)
