"""Tensor-mode export: each layer kind, run through the NumPy forward pass of
the tensor operators' definitions (reference.py: zero padding by sides,
height x width x channels, float32), against PyTorch; and the refusals."""
import os
import re
import sys
import tempfile
import unittest
import warnings

import numpy as np
import torch
import torch.nn as nn

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import reference as ref  # noqa: E402
from kelvane_export import ExportError, TensorModelWriter  # noqa: E402

# Float32 sums in another order than PyTorch's differ by a few ulps of the
# largest partial sum; the layers below sum at most 75 products of values
# near 1, and a folded batch norm scales them by up to 1 / sqrt(0.1).
TOLERANCE = 2e-5


def forward(directory, defines, x):
    """Runs an exported network through the reference operators, layer by
    layer in the order of the defines, the kind read from the name."""
    names = [k[:-len("_OUT_C")] for k in defines if k.endswith("_OUT_C")]
    names += [k[:-len("_OUTPUTS")] for k in defines if k.endswith("_OUTPUTS")]
    names.sort(key=lambda n: list(defines).index(next(k for k in defines if k.startswith(n + "_"))))
    for upper in names:
        name = upper.lower()
        kind = re.search(r"(conv|maxpool|avgpool|globalpool|fc)\d+$", name).group(1)

        def d(key):
            return defines[f"{upper}_{key}"]
        if kind == "conv":
            x = ref.conv_hwc(x, ref.load(directory, name + "_w"), ref.load(directory, name + "_b"),
                             (d("STRIDE_Y"), d("STRIDE_X")),
                             (d("PAD_TOP"), d("PAD_BOTTOM"), d("PAD_LEFT"), d("PAD_RIGHT")))
        elif kind == "maxpool":
            x = ref.max_pool_hwc(x, (d("FILTER_H"), d("FILTER_W")), (d("STRIDE_Y"), d("STRIDE_X")))
        elif kind == "avgpool":
            x = ref.avg_pool_hwc(x, (d("FILTER_H"), d("FILTER_W")), (d("STRIDE_Y"), d("STRIDE_X")))
        elif kind == "globalpool":
            x = ref.global_avg_pool_hwc(x)
        else:
            x = ref.fully_connect(ref.flatten_hwc(x), ref.load(directory, name + "_w"),
                                  ref.load(directory, name + "_b"))
        if f"{upper}_RELU_CLIP" in defines:
            x = np.clip(x, 0, float(d("RELU_CLIP").rstrip("f"))).astype(np.float32)
        elif f"{upper}_RELU" in defines:
            x = np.maximum(x, 0)
    return x


def bn(channels, kind=nn.BatchNorm2d):
    """A batch norm in evaluation form with statistics of its own."""
    m = kind(channels, eps=0.01)  # large enough to matter against the tolerance
    m.running_mean.uniform_(-0.5, 0.5)
    m.running_var.uniform_(0.1, 2)
    m.weight.data.uniform_(0.5, 1.5)
    m.bias.data.uniform_(-0.5, 0.5)
    return m.eval()


class TensorExportTest(unittest.TestCase):
    def setUp(self):
        torch.manual_seed(3)
        # PyTorch notes that an even window with padding='same' copies the input.
        warnings.filterwarnings("ignore", "Using padding='same'", UserWarning)
        self.rng = np.random.default_rng(3)
        self._tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self._tmp.cleanup)

    def export(self, net, shape):
        directory = tempfile.mkdtemp(dir=self._tmp.name)
        with TensorModelWriter(directory, shape) as out:
            out.sequential(net)
        return directory, out

    # input (h, w, c), then the network; the last one also covers a strided
    # depthwise layer, batch norms folded into convolutions and a 2 x 2 max pool
    CASES = [
        ("3x3 same, one channel", (8, 8, 1), lambda: nn.Conv2d(1, 4, 3, padding=1)),
        ("3 channels, stride 2, odd sizes", (7, 9, 3), lambda: nn.Conv2d(3, 5, 3, stride=2, padding=1)),
        ("2x3 window, stride (1, 2), padding (0, 1)", (6, 7, 2),
         lambda: nn.Conv2d(2, 3, (2, 3), stride=(1, 2), padding=(0, 1))),
        ("padding='same', even window: more after", (6, 5, 2), lambda: nn.Conv2d(2, 3, 4, padding="same")),
        ("1x1 pointwise, no bias", (4, 5, 6), lambda: nn.Conv2d(6, 7, 1, bias=False)),
        ("zero pad then stride 2", (8, 8, 2),
         lambda: nn.Sequential(nn.ZeroPad2d((0, 1, 0, 1)), nn.Conv2d(2, 3, 3, stride=2))),
        ("depthwise with batch norm", (5, 5, 3),
         lambda: nn.Sequential(nn.Conv2d(3, 3, 3, padding="same", groups=3), bn(3), nn.ReLU())),
        ("max pool 3 stride 2, remainder dropped", (8, 7, 2), lambda: nn.MaxPool2d(3, stride=2)),
        ("avg pool (2, 3) stride (1, 2)", (5, 7, 2), lambda: nn.AvgPool2d((2, 3), stride=(1, 2))),
        ("global avg pool", (5, 6, 4), lambda: nn.AdaptiveAvgPool2d(1)),
        ("flatten, linear", (3, 4, 5),
         lambda: nn.Sequential(nn.Conv2d(5, 2, 1), nn.Flatten(), nn.Linear(24, 6))),
        ("linear with batch norm", (2, 2, 3),
         lambda: nn.Sequential(nn.Flatten(), nn.Linear(12, 5), bn(5, nn.BatchNorm1d), nn.Linear(5, 3))),
        ("depthwise-separable network", (8, 8, 1),
         lambda: nn.Sequential(nn.Conv2d(1, 4, 3, padding=1), bn(4), nn.ReLU6(),
                               nn.Conv2d(4, 4, 3, stride=2, padding=1, groups=4), bn(4), nn.ReLU6(),
                               nn.Conv2d(4, 8, 1), nn.ReLU(), nn.MaxPool2d(2), nn.Dropout(),
                               nn.Flatten(), nn.Linear(32, 10))),
    ]

    def test_against_torch(self):
        for label, shape, make in self.CASES:
            with self.subTest(label):
                net = make().eval()
                directory, out = self.export(net, shape)
                x = self.rng.uniform(-1, 1, shape).astype(np.float32)
                got = forward(directory, out.defines, x)
                with torch.no_grad():
                    want = net(torch.from_numpy(x).permute(2, 0, 1)[None])[0]
                if want.dim() == 3:  # channels, h, w -> h, w, channels
                    want = want.permute(1, 2, 0)
                    self.assertEqual(out.shape, tuple(want.shape))
                np.testing.assert_allclose(got.reshape(want.shape), want.numpy(), atol=TOLERANCE, rtol=0)

    def test_files_and_defines(self):
        net = nn.Sequential(nn.ZeroPad2d((1, 0, 2, 0)), nn.Conv2d(3, 8, (3, 2), stride=(2, 1), padding=1),
                            nn.ReLU6(), nn.Conv2d(8, 8, 3, groups=8), nn.AvgPool2d(2),
                            nn.Flatten(), nn.Linear(2 * 4 * 8, 10))
        directory, out = self.export(net, (9, 9, 3))
        shapes = {f[:-4]: np.load(os.path.join(directory, f)).shape
                  for f in os.listdir(directory) if f.endswith(".npy")}
        self.assertEqual(shapes, {"conv1_w": (3, 2, 3, 8), "conv1_b": (8,), "conv2_w": (3, 3, 8, 1),
                                  "conv2_b": (8,), "fc1_w": (64, 10), "fc1_b": (10,)})
        want = {"CONV1_IN_H": 9, "CONV1_IN_C": 3, "CONV1_FILTER_H": 3, "CONV1_FILTER_W": 2,
                "CONV1_STRIDE_Y": 2, "CONV1_STRIDE_X": 1, "CONV1_PAD_TOP": 3, "CONV1_PAD_BOTTOM": 1,
                "CONV1_PAD_LEFT": 2, "CONV1_PAD_RIGHT": 1, "CONV1_OUT_H": 6, "CONV1_OUT_W": 11,
                "CONV1_OUT_C": 8, "CONV1_DEPTHWISE": 0, "CONV1_RELU_CLIP": "6.0f", "CONV2_DEPTHWISE": 1,
                "CONV2_OUT_H": 4, "CONV2_OUT_W": 9, "AVGPOOL1_OUT_H": 2, "AVGPOOL1_OUT_W": 4,
                "FC1_INPUTS": 64, "FC1_OUTPUTS": 10}
        got = {k: out.defines.get(k) for k in want}
        self.assertEqual(got, want)

    REFUSALS = [  # label, input shape, network, words of the message
        ("dilation", (8, 8, 1), nn.Conv2d(1, 2, 3, dilation=2), "dilation=1"),
        ("two groups", (8, 8, 4), nn.Conv2d(4, 4, 3, groups=2), "split it"),
        ("depth multiplier", (8, 8, 2), nn.Conv2d(2, 4, 3, groups=2), "depthwise"),
        ("reflect padding", (8, 8, 1), nn.Conv2d(1, 2, 3, padding=1, padding_mode="reflect"),
         "padding_mode='zeros'"),
        ("window too large", (2, 2, 1), nn.Conv2d(1, 2, 3), "does not fit"),
        ("channels", (8, 8, 3), nn.Conv2d(1, 2, 3), "takes 1 channels"),
        ("cropping", (8, 8, 1), nn.Sequential(nn.ZeroPad2d(-1), nn.Conv2d(1, 2, 3)), "crop"),
        ("pad before a pool", (8, 8, 1), nn.Sequential(nn.ZeroPad2d(1), nn.MaxPool2d(2)), "ZeroPad2d"),
        ("ceil mode", (7, 7, 1), nn.MaxPool2d(2, ceil_mode=True), "ceil_mode=False"),
        ("pool padding", (8, 8, 1), nn.AvgPool2d(3, padding=1), "padding=0"),
        ("pool dilation", (8, 8, 1), nn.MaxPool2d(2, dilation=2), "dilation"),
        ("divisor override", (8, 8, 1), nn.AvgPool2d(2, divisor_override=3), "divisor_override"),
        ("adaptive to 2", (8, 8, 1), nn.AdaptiveAvgPool2d(2), "AdaptiveAvgPool2d(1)"),
        ("adaptive max", (8, 8, 1), nn.AdaptiveMaxPool2d(1), "no operator"),
        ("linear without flatten", (2, 2, 1), nn.Linear(4, 2), "nn.Flatten()"),
        ("partial flatten", (2, 2, 1), nn.Flatten(2), "nn.Flatten()"),
        ("linear size", (2, 2, 1), nn.Sequential(nn.Flatten(), nn.Linear(5, 2)), "takes 5 inputs"),
        ("conv after flatten", (2, 2, 1), nn.Sequential(nn.Flatten(), nn.Conv2d(1, 1, 1)), "after nn.Flatten"),
        ("batch norm alone", (2, 2, 1), nn.BatchNorm2d(1), "fold into"),
        ("no running stats", (4, 4, 1),
         nn.Sequential(nn.Conv2d(1, 2, 3), nn.BatchNorm2d(2, track_running_stats=False)), "running statistics"),
        ("sigmoid", (4, 4, 1), nn.Sequential(nn.Conv2d(1, 2, 3), nn.Sigmoid()), "no operator"),
        ("leaky clip", (4, 4, 1), nn.Sequential(nn.Conv2d(1, 2, 3), nn.Hardtanh()), "with or without"),
    ]

    def test_refusals(self):
        for label, shape, net, words in self.REFUSALS:
            with self.subTest(label):
                directory = os.path.join(self._tmp.name, re.sub(r"\W", "_", label))
                with self.assertRaises(ExportError) as caught:
                    with TensorModelWriter(directory, shape) as out:
                        out.sequential(net)
                self.assertIn(words, str(caught.exception))
                self.assertFalse(os.path.exists(directory))


if __name__ == "__main__":
    unittest.main()
