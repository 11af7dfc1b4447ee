"""Each exported layout, run through the NumPy forward pass of the library's
definitions (reference.py), against the PyTorch module on random inputs."""
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
from kelvane_export import ExportError, ModelWriter, TensorModelWriter, library_axis, read_record  # noqa: E402

class ExportCase(unittest.TestCase):
    def setUp(self):
        torch.manual_seed(7)
        # PyTorch notes that an even window with padding='same' copies the input.
        warnings.filterwarnings("ignore", "Using padding='same'", UserWarning)
        self.rng = np.random.default_rng(7)
        self._tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self._tmp.cleanup)
        self.dir = self._tmp.name
        self.out = ModelWriter(self.dir)
        self.addCleanup(self.out._out.discard)

    def load(self, name):
        self.out.close()
        return ref.load(self.dir, name)

    def randn(self, *shape):
        return self.rng.standard_normal(shape).astype(np.float32)


class GeometryTest(unittest.TestCase):
    def test_library_axis(self):
        # size, filter, stride -> positions, padded size, offset, margin (padding 1)
        cases = [(3, 2, 1, 3, 5, 1, 1), (2, 2, 1, 2, 4, 1, 1), (5, 3, 2, 3, 7, 0, 1),
                 (5, 3, 1, 5, 7, 0, 1), (6, 3, 2, 3, 8, 1, 1), (8, 5, 2, 4, 12, 1, 2),
                 (4, 2, 2, 2, 6, 1, 1), (4, 6, 4, 1, 10, 3, 3), (7, 1, 1, 7, 7, 0, 0)]
        for size, f, s, n, padded, offset, margin in cases:
            with self.subTest(size=size, filter=f, stride=s):
                axis = library_axis(size, f, s, 1)
                self.assertEqual((axis.positions, axis.padded, axis.offset, axis.margin),
                                 (n, padded, offset, margin))


class LayoutTest(ExportCase):
    def test_batchnorm(self):
        for eps, affine in ((1e-3, True), (1e-5, True), (1e-3, False)):
            with self.subTest(eps=eps, affine=affine):
                out = ModelWriter(os.path.join(self.dir, f"{eps}{affine}"))
                bn = nn.BatchNorm1d(5, eps=eps, affine=affine)
                bn.running_mean.uniform_(-1, 1)
                bn.running_var.uniform_(0.01, 3)
                if affine:
                    bn.weight.data.uniform_(0.5, 2)
                    bn.bias.data.uniform_(-1, 1)
                bn.eval()
                out.batchnorm("bn", bn)
                out.close()
                x = self.randn(4, 5)
                d = out.directory
                got = ref.batch_normalize(x, ref.load(d, "bn_offset"), ref.load(d, "bn_scale"),
                                          ref.load(d, "bn_mean"), ref.sqrtvar(ref.load(d, "pop_var")))
                np.testing.assert_allclose(got, bn(torch.from_numpy(x)).detach().numpy(),
                                           rtol=1e-4, atol=1e-5)

    def test_lstm_layout(self):
        lstm = nn.LSTM(5, 7)
        self.out.lstm("cell", lstm)
        sequence = self.randn(8, 3, 5)  # steps x rows x inputs
        got = ref.lstm(sequence, self.load("cell_w"), self.load("cell_b"))
        want, _ = lstm(torch.from_numpy(sequence))
        self.assertLess(np.abs(got - want.detach().numpy()).max(), 1e-5)

    CONVS = [  # name, module, input (height, width), library padding
        ("same 3x3", lambda: nn.Conv2d(1, 3, 3, padding=1), (8, 8), 1),
        ("valid 2x3", lambda: nn.Conv2d(1, 2, (2, 3)), (5, 6), 0),
        ("valid stride 2", lambda: nn.Conv2d(1, 2, 3, stride=2), (7, 9), 0),
        ("stride 2 padded after", lambda: nn.Sequential(nn.ZeroPad2d((0, 1, 0, 1)), nn.Conv2d(1, 4, 3, stride=2)),
         (8, 8), 1),
        ("even filter", lambda: nn.Sequential(nn.ZeroPad2d((0, 1, 0, 1)), nn.Conv2d(1, 2, 2)), (4, 5), 1),
        ("padding='same'", lambda: nn.Conv2d(1, 3, 3, padding="same"), (6, 7), 1),
        ("padding='same', even filter", lambda: nn.Conv2d(1, 3, 2, padding="same"), (4, 5), 1),
        ("padding='valid'", lambda: nn.Conv2d(1, 3, 3, padding="valid"), (6, 7), 0),
        ("filter larger than input", lambda: nn.Sequential(nn.ZeroPad2d((0, 2, 0, 2)), nn.Conv2d(1, 2, 6, stride=4)),
         (4, 4), 1),
    ]

    def test_conv2d(self):
        for label, make, size, padding in self.CONVS:
            with self.subTest(label):
                out = ModelWriter(os.path.join(self.dir, label))
                module = make()
                geometry = out.conv2d("conv", module, size)
                out.close()
                self.assertEqual(geometry.padding, padding)
                image = self.randn(*size)
                got = ref.conv(image, ref.load(out.directory, "conv_w"), ref.load(out.directory, "conv_b"),
                               geometry)
                want = module(torch.from_numpy(image)[None, None])[0]  # channels x h x w
                self.assertEqual((geometry.out_h, geometry.out_w), tuple(want.shape[1:]))
                np.testing.assert_allclose(got, want.permute(1, 2, 0).reshape(-1).detach().numpy(), atol=1e-5)

    def test_linear_after_flattened_conv(self):
        conv = nn.Conv2d(1, 3, 3, padding=1)
        fc = nn.Linear(3 * 4 * 5, 6)
        geometry = self.out.conv2d("conv", conv, (4, 5))
        self.out.linear("fc", fc, conv_output=(3, 4, 5))
        image = self.randn(4, 5)
        features = ref.conv(image, self.load("conv_w"), self.load("conv_b"), geometry)
        got = ref.fully_connect(features[None], self.load("fc_w"), self.load("fc_b"))
        want = fc(conv(torch.from_numpy(image)[None, None]).flatten(1))
        np.testing.assert_allclose(got, want.detach().numpy(), atol=1e-5)


class RefusalTest(ExportCase):
    def test_what_the_library_cannot_express(self):
        bn_without_stats = nn.BatchNorm1d(3, track_running_stats=False)
        tiny_var = nn.BatchNorm1d(3)
        tiny_var.running_var.fill_(1e-4)
        cases = [
            ("two input channels", lambda w: w.conv2d("c", nn.Conv2d(2, 4, 3), (8, 8)), "TensorModelWriter"),
            ("dilation", lambda w: w.conv2d("c", nn.Conv2d(1, 4, 3, dilation=2), (8, 8)), "dilation"),
            ("strided same padding", lambda w: w.conv2d("c", nn.Conv2d(1, 4, 3, stride=2, padding=1), (8, 8)),
             "nn.ZeroPad2d"),
            ("reflect padding", lambda w: w.conv2d("c", nn.Conv2d(1, 4, 3, padding=1, padding_mode="reflect"),
                                                   (8, 8)), "zeros"),
            ("stacked lstm", lambda w: w.lstm("l", nn.LSTM(4, 4, num_layers=2)), "stacked"),
            ("bias-free lstm", lambda w: w.lstm("l", nn.LSTM(4, 4, bias=False)), "bias=False"),
            ("bidirectional lstm", lambda w: w.lstm("l", nn.LSTM(4, 4, bidirectional=True)), "bidirectional"),
            ("projected lstm", lambda w: w.lstm("l", nn.LSTM(4, 4, proj_size=2)), "proj_size"),
            ("gru", lambda w: w.lstm("l", nn.GRU(4, 4)), "expected nn.LSTM"),
            ("no running stats", lambda w: w.batchnorm("b", bn_without_stats), "running statistics"),
            ("variance below epsilon", lambda w: w.batchnorm("b", tiny_var), "eps=1e-3"),
            ("flatten size", lambda w: w.linear("f", nn.Linear(10, 2), conv_output=(2, 2, 2)), "8 values"),
            ("not an identifier", lambda w: w.linear("my-fc", nn.Linear(2, 2)), "C identifier"),
            ("written twice", lambda w: (w.linear("f", nn.Linear(2, 2)), w.linear("f", nn.Linear(2, 2))),
             "twice"),
            ("two variances one name", lambda w: (w.batchnorm("a", nn.BatchNorm1d(2).eval()),
                                                  w.batchnorm("b", nn.BatchNorm1d(2).eval())),
             'variance_name="b_var"'),
            ("word with _", lambda w: w.model_info([("hey_you", 3, 0.5, 0.5)]), "letters and digits"),
            ("window 0", lambda w: w.model_info([("hey", 0, 0.5, 0.5)]), "1 to 9"),
            ("window 10", lambda w: w.model_info([("hey", 10, 0.5, 0.5)]), "1 to 9"),
            ("no words", lambda w: w.model_info([]), "at least one"),
        ]
        for label, call, message in cases:
            with self.subTest(label):
                with self.assertRaises(ExportError) as caught:
                    with ModelWriter(os.path.join(self.dir, label)) as w:
                        call(w)
                self.assertIn(message, str(caught.exception))


class FilesTest(ExportCase):
    def test_arrays_are_row_major_float32(self):
        self.out.linear("fc", nn.Linear(3, 2))  # the weight is a transposed view
        self.out.close()
        with open(os.path.join(self.dir, "fc_w.npy"), "rb") as f:
            header = f.read(128).decode("latin1")
        self.assertIn("'descr': '<f4'", header)
        self.assertIn("'fortran_order': False", header)
        self.assertIn("'shape': (3, 2)", header)
        self.assertEqual(self.load("fc_b").shape, (1, 2))

    def test_model_info_line(self):
        self.out.model_info([("zero", 1, 0.5, 0.25), ("one", 9, 0.75, 0.125)], name="digits", version="v2")
        self.out.close()
        with open(os.path.join(self.dir, "_MODEL_INFO_")) as f:
            self.assertEqual(f.read(), "digits_v2_zero_1_0.5_0.25_one_9_0.75_0.125\n")

    def test_header_and_bnmatrices(self):
        self.out.conv2d("conv", nn.Conv2d(1, 4, 3, padding=1), (8, 8))
        self.out.batchnorm("bn", nn.BatchNorm1d(3).eval(), variance_name="bn_var")
        self.out.defines["FC_SHIFT"] = 2
        path = os.path.join(self.dir, "net.h")
        self.out.write_header(path, notes={"FC_SHIFT": "calibrated"})
        with open(path) as f:
            text = re.sub(" +", " ", f.read())  # the values stand in an aligned column
        for line in ("#ifndef NET_H", "#define CONV_PADDING 1", "#define CONV_OUT_SIZE 256",
                     "#define BN_SIZE 3", "#define FC_SHIFT 2 /* calibrated */"):
            self.assertIn(line + "\n", text)
        self.assertEqual(self.out.bnmatrices, "bn_var")


class DirectoryTest(unittest.TestCase):
    """The directory is replaced whole, or not at all, and records its options."""

    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self._tmp.cleanup)
        self.dir = os.path.join(self._tmp.name, "model")

    def entries(self):
        return sorted(os.listdir(self.dir))

    def snapshot(self):
        contents = {}
        for e in self.entries():
            with open(os.path.join(self.dir, e), "rb") as f:
                contents[e] = f.read()
        return contents

    def test_rewrite_drops_the_files_of_layers_that_left(self):
        with ModelWriter(self.dir) as out:
            out.linear("old", nn.Linear(2, 2))
            self.assertFalse(os.path.exists(self.dir))  # nothing shows before the end
        with ModelWriter(self.dir) as out:
            out.linear("fc", nn.Linear(2, 2))
        self.assertEqual(self.entries(), [".kelvane_options", "fc_b.npy", "fc_w.npy"])
        self.assertEqual(sorted(os.listdir(self._tmp.name)), ["model"])  # no staging left

    def test_an_error_leaves_the_previous_directory(self):
        with ModelWriter(self.dir) as out:
            out.linear("fc", nn.Linear(2, 2))
        before = self.snapshot()
        with self.assertRaises(ExportError):
            with ModelWriter(self.dir) as out:
                out.linear("fc", nn.Linear(3, 3))
                out.lstm("fc", nn.GRU(2, 2))
        self.assertEqual(self.snapshot(), before)
        self.assertEqual(sorted(os.listdir(self._tmp.name)), ["model"])

    def test_a_directory_with_other_files_is_refused(self):
        os.makedirs(self.dir)
        open(os.path.join(self.dir, "notes.txt"), "w").close()
        with self.assertRaises(ExportError) as caught:
            ModelWriter(self.dir)
        self.assertIn("notes.txt, which no export wrote", str(caught.exception))
        # .npy files and _MODEL_INFO_ of an export without a record are taken over.
        os.remove(os.path.join(self.dir, "notes.txt"))
        for entry in ("w.npy", "_MODEL_INFO_"):
            open(os.path.join(self.dir, entry), "w").close()
        with ModelWriter(self.dir) as out:
            out.linear("fc", nn.Linear(2, 2))
        self.assertEqual(self.entries(), [".kelvane_options", "fc_b.npy", "fc_w.npy"])

    def test_record(self):
        cases = [
            (lambda: ModelWriter(self.dir), lambda w: (w.conv2d("c", nn.Conv2d(1, 2, 3), (5, 5)),
                                                       w.batchnorm("bn", nn.BatchNorm1d(2).eval(), "bn_var"),
                                                       w.batchnorm("bn2", nn.BatchNorm1d(2).eval(), "bn2_var"),
                                                       w.linear("fc", nn.Linear(2, 2))),
             {"mode": ["matrices"], "bnmatrices": ["bn_var,bn2_var"], "quantised_weights": ["c_w", "fc_w"]}),
            (lambda: ModelWriter(self.dir), lambda w: w.linear("fc", nn.Linear(2, 2, bias=False)),
             {"mode": ["matrices"], "quantised_weights": ["fc_w"]}),
            (lambda: TensorModelWriter(self.dir, (4, 4, 1)), lambda w: w.conv2d("c", nn.Conv2d(1, 2, 3)),
             {"mode": ["tensors"]}),
        ]
        for make, write, want in cases:
            with self.subTest(want):
                with make() as out:
                    write(out)
                record = read_record(self.dir)
                files = record.pop("files")
                self.assertEqual(record, want)
                self.assertEqual(files, [e for e in self.entries() if not e.startswith(".")])


if __name__ == "__main__":
    unittest.main()
