"""Shift calibration: the shift chosen for small layers worked out by hand,
the LSTM's harmless gate saturation, and the digits example's headers."""
import io
import os
import re
import sys
import tempfile
import unittest

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, ".."))

from kelvane_export.calibrate import Linear, Lstm, Quantise, calibrate  # noqa: E402

DIGITS = os.path.join(HERE, "..", "..", "examples", "digits")

try:
    import sklearn  # noqa: F401
    HAVE_SKLEARN = True
except ImportError:
    HAVE_SKLEARN = False


class TablesCase(unittest.TestCase):
    def setUp(self):
        self._tmp = tempfile.TemporaryDirectory()
        self.addCleanup(self._tmp.cleanup)
        self.dir = self._tmp.name

    def tables(self, **arrays):
        for name, value in arrays.items():
            np.save(os.path.join(self.dir, name + ".npy"), np.array(value, "<f4"))


class LinearShiftTest(TablesCase):
    def test_largest_shift_within_the_margin(self):
        # x [1, 0.5] is [16384, 8192] at 2^-14, w [1, 1] 16384 at 2^-14: the
        # sum is 1.5 * 2^28, shifted right by 16 - shift. Margin m needs the
        # item at most 32767 / 2^m: 24576 at shift 2, 12288 at 1, 6144 at 0.
        # [1.99, 1.99] with w [1.99, 1.99] is 32443 items even at shift 0.
        cases = [  # x, w, margin -> shift, margin met
            ([1.0, 0.5], [[1.0], [1.0]], 0, 2, True),
            ([1.0, 0.5], [[1.0], [1.0]], 1, 1, True),
            ([1.0, 0.5], [[1.0], [1.0]], 2, 0, True),
            ([1.99, 1.99], [[1.99], [1.99]], 1, 0, False),
        ]
        for x, w, margin, shift, fits in cases:
            with self.subTest(x=x, margin=margin):
                self.tables(fc_w=w)
                out = io.StringIO()
                result = calibrate(self.dir, [Quantise(), Linear("fc", bias=False)], [x], margin=margin, out=out)
                self.assertEqual(result.shifts, {"FC_SHIFT": shift})
                self.assertEqual(result.rows[-1].fits, fits)
                self.assertEqual("saturates on this batch" in out.getvalue(), not fits)

    def test_fixed_shift_is_kept_and_reported(self):
        self.tables(fc_w=[[1.0], [1.0]], fc_b=[0.25])
        result = calibrate(self.dir, [Quantise(), Linear("fc", shift=2)], [[1.0, 0.5]], out=None)
        # 24576 at 2^-14 plus the bias 16384 at 2^-16 aligned down: 28672.
        self.assertEqual(result.shifts, {"FC_SHIFT": 2})
        self.assertEqual(result.outputs.items.tolist(), [[[28672]]])
        self.assertFalse(result.rows[-1].fits)

    def test_all_zero_bias_is_named(self):
        # Zeros quantise at exponent 0, so the sum lands there: [1, 0.5] x [1, 1]
        # is 1.5, one item.
        self.tables(fc_w=[[1.0], [1.0]], fc_b=[0.0])
        out = io.StringIO()
        result = calibrate(self.dir, [Quantise(), Linear("fc")], [[1.0, 0.5]], out=out)
        self.assertEqual(result.outputs.items.tolist(), [[[1]]])
        self.assertEqual(result.zero_tables, ["fc_b"])
        self.assertIn("fc_b is all zeros", out.getvalue())

    def test_lstm_gates_may_saturate_beyond_the_flat_range(self):
        # One input of 1.0, one unit, every gate weight 100 and no bias: the
        # gate inputs are 100. Sums of 16384 * 25600 at exponent -22 + s
        # (s = 16 - shift) saturate at every shift the margin would need, but
        # from s = 11 the saturation level is 15.99 >= 8, where the sigmoid
        # and tanh are flat: shift 5. At shift 6 it is 7.99 and counts. (The
        # bias is small, not 0: an all-zero table has exponent 0, which would
        # take over the sum.)
        self.tables(cell_w=[[100.0] * 4, [0.0] * 4], cell_b=[0.001] * 4)
        result = calibrate(self.dir, [Quantise(), Lstm("cell")], np.ones((1, 1, 1)), out=None)
        self.assertEqual(result.shifts, {"CELL_SHIFT": 5})
        self.assertTrue(result.rows[-1].fits)
        self.assertEqual(result.rows[-1].saturated, 1.0)  # the product and its bias: all at 32767


@unittest.skipUnless(HAVE_SKLEARN, "scikit-learn is not installed")
class DigitsHeadersTest(unittest.TestCase):
    def test_headers_hold_the_calibrated_shifts(self):
        sys.path.insert(0, DIGITS)
        import train
        calibrations = train.calibrate_models(train.training_images(), out=None)
        for name, result in calibrations.items():
            with open(os.path.join(DIGITS, f"{name}_net.h")) as f:
                header = dict(re.findall(r"#define (\w+_SHIFT)\s+(\d+)", f.read()))
            with self.subTest(network=name):
                self.assertEqual(header, {k: str(v) for k, v in result.shifts.items()})
                self.assertTrue(all(row.fits for row in result.rows))


if __name__ == "__main__":
    unittest.main()
