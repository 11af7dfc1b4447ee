"""The NumPy twin of the fixed-point arithmetic against the C library.

fixtures/digits_fixed_trace.txt is what examples/digits/fixed_trace printed
(the test examples.digits_trace keeps it current): the digits networks in
fixed point, every item and exponent, for shift sets that keep full
precision, that saturate, and that keep few bits. The twin must reproduce it
exactly. The small cases below are worked out by hand from the library's
definitions, for paths the networks seldom take.
"""
import os
import sys
import unittest

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))

from kelvane_export import ConvGeometry  # noqa: E402
from kelvane_export import fixedpoint as fx  # noqa: E402
from kelvane_export.calibrate import BatchNorm, Conv2d, Linear, Quantise, Relu  # noqa: E402

DIGITS = os.path.join(HERE, "..", "..", "examples", "digits")
TRACE = os.path.join(HERE, "fixtures", "digits_fixed_trace.txt")


def q(items, exponent):
    return fx.QBatch(np.array(items, np.int64).reshape(1, 1, -1), [exponent])


def read_trace():
    """{shift tuple: {(net, image, record): (exponent, items)}}"""
    sets, current = {}, None
    with open(TRACE) as f:
        for line in f:
            words = line.split()
            if words[0] == "#":
                continue
            if words[0] == "shifts":
                current = sets.setdefault(tuple(int(w) for w in words[1:]), {})
            else:
                current[(words[0], int(words[1]), words[2])] = (int(words[3]), [int(w) for w in words[4:]])
    return sets


class TraceTest(unittest.TestCase):
    """Every record of the trace, item for item, exponent for exponent."""

    @classmethod
    def setUpClass(cls):
        cls.sets = read_trace()
        cls.images = np.load(os.path.join(DIGITS, "test", "images.npy")).astype(np.float32)

    def check(self, net, count, name, record):
        for image in range(count):
            exponent, items = self.traced[(net, image, name)]
            with self.subTest(net=net, image=image, record=name):
                self.assertEqual(int(record.exponent[image]), exponent)
                self.assertEqual(record.items[image].reshape(-1).tolist(), items)

    def test_digits_networks(self):
        self.assertEqual(len(self.sets), 3)
        for shifts, self.traced in self.sets.items():
            lstm_shift, lstm_fc, fc1, bn1, fc2 = shifts
            count = 1 + max(image for _, image, _ in self.traced)
            x = self.images[:count].reshape(count, 8, 8)
            with self.subTest(shifts=shifts):
                directory = os.path.join(DIGITS, "lstm")
                w, b = fx.load_table(directory, "lstm_w"), fx.load_table(directory, "lstm_b")
                c, h = fx.lstm_sequence_q(fx.quantise(x), w, b, lstm_shift)
                scores = fx.fully_connect_q(h, fx.load_table(directory, "lstm_fc_w"),
                                            fx.load_table(directory, "lstm_fc_b"), lstm_fc)
                for name, record in (("c", c), ("h", h), ("scores", scores)):
                    self.check("lstm", count, name, record)

                directory = os.path.join(DIGITS, "conv")
                layers = [Conv2d("conv", ConvGeometry(3, 3, 4, 1, 1, 1, 8, 8)), Relu(6.0), Quantise(),
                          Linear("fc1"), BatchNorm("bn1", variance="bn1_var"), Relu(6.0), Linear("fc2")]
                records, y = {}, x
                for layer, shift in zip(layers, (0, 0, 0, fc1, bn1, 0, fc2)):
                    layer.load(directory)
                    y, _ = layer.run(y, shift)
                    records[layer.name] = y
                for name, record in (("fc1", records["fc1"]), ("bn1", records["bn1"]), ("scores", y)):
                    self.check("conv", count, name, record)


class ArithmeticTest(unittest.TestCase):
    def assertRecord(self, record, items, exponent):
        self.assertEqual(record.items.reshape(-1).tolist(), items)
        self.assertEqual(int(record.exponent[0]), exponent)

    def test_quantiser(self):
        # Half a unit added, then truncated toward zero: 1.0 -> 16384.5 -> 16384;
        # -1.0 -> -16383.5 -> -16383 (a unit above the nearest item).
        self.assertRecord(fx.quantise(np.array([[1.0, -1.0, 0.5]], np.float32)), [16384, -16383, 8192], -14)
        # The search halves from above and doubles from below: a peak just
        # above 16383 stays at 16383.x when doubled to, 32766.x when halved to.
        cases = [(32767.0, 0), (32767.5, 1), (16383.0, 0), (16382.9, -1), (65532.0, 1), (0.0, 0), (1.0, -14)]
        for peak, exponent in cases:
            with self.subTest(peak=peak):
                self.assertEqual(int(fx.block_exponent(peak)[0]), exponent)

    def test_add_sub_align_down(self):
        # b at the smaller exponent: -5 >> 1 = -3 (rounding down).
        self.assertRecord(fx.add(q([7], 0), q([-5], -1), 1), [4], 0)
        self.assertRecord(fx.add(q([7], 0), q([-5], -1), 0), [2], 1)
        # The difference keeps the argument order when b is aligned to a.
        self.assertRecord(fx.sub(q([1], -2), q([7], 0), 1), [-7], 0)
        self.assertRecord(fx.add(q([30000], 0), q([30000], 0), 1), [32767], 0)

    def test_mul_div(self):
        self.assertRecord(fx.mul(q([-3, 32767], 0), q([-65536 // 4, 32767], 0)), [0, 16383], 16)
        # (a << 1) / b toward zero; a zero divisor saturates by the sign.
        self.assertRecord(fx.div(q([3, -3, 5, -5, 0], 0), q([2, 2, 0, 0, 0], -3), 1),
                          [3, -3, 32767, -32767, 0], 2)

    def test_add_const(self):
        cases = [  # items, exponent, value, shift -> items, exponent
            ([100, -101], -2, 1.0, 1, [104, -97], -2),
            # 40000 units: c and the items halved once (items rounding down).
            ([100, -101], -2, 10000.0, 1, [20050, 19949], -1),
            ([100, -101], -2, 10000.0, 0, [10025, 9974], 0),
            # Half a unit truncates to 0: nothing changes, the exponent neither.
            ([100, -101], 1, 1.0, 1, [100, -101], 1),
        ]
        for items, e, value, shift, want, want_e in cases:
            with self.subTest(items=items, e=e, value=value, shift=shift):
                self.assertRecord(fx.add_const(q(items, e), value, shift), want, want_e)

    def test_readjust(self):
        self.assertRecord(fx.readjust_exp(q([32767, 2], 0)), [16383, 1], 1)
        self.assertRecord(fx.readjust_exp(q([3, -1], 0)), [24576, -8192], -13)
        self.assertRecord(fx.readjust_exp(q([0, 0], 5)), [0, 0], 5)

    def test_q15_activations(self):
        # A table point comes out one below its entry; the complement is
        # taken against 32767; 7.5 and beyond (and overflowing alignments) give 32767.
        x = np.array([0, 16384, -16384, 15 * 16384, 2**30, -2**31 + 1])
        self.assertEqual(fx.sigmoid_op_q(x).tolist(), [16382, 20398, 12369, 32767, 32767, 0])
        self.assertRecord(fx.sigmoid_q(q([1, -1], 20)), [32767, 0], -15)
        self.assertEqual(fx.tanh_op_q(np.array([0, 32767 * 4, -32767 * 4])).tolist(), [0, 32767, -32767])

    def test_relu_q_clip_at_the_exponent(self):
        # 6.0 at exponent -12 is 24576 items; at -13 it is beyond the range.
        self.assertRecord(fx.relu_q(q([-5, 30000, 100], -12), 6.0), [0, 24576, 100], -12)
        self.assertRecord(fx.relu_q(q([-5, 30000, 100], -13), 6.0), [0, 30000, 100], -13)


if __name__ == "__main__":
    unittest.main()
