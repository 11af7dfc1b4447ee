"""The audio feature twin against NumPy's FFT and log, and against the
committed fixtures that the C tests read (tests/data/audio)."""
import os
import sys
import unittest

import numpy as np

HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.join(HERE, "..", "..", "tests", "data", "audio")
sys.path.insert(0, os.path.join(HERE, ".."))
sys.path.insert(0, DATA)

from kelvane_export import features as kf  # noqa: E402
import make_audio_fixtures  # noqa: E402


def fixture(name):
    return np.load(os.path.join(DATA, name + ".npy"))


class Tables(unittest.TestCase):
    def test_sin_q29_within_eight_units(self):
        # Truncated Q29 angle and seven truncating Horner steps: a few units
        # of 2^-29, checked on every angle of each table size the library uses.
        for den in (4, 7, 32, 480, 512, 1920, 4096):
            got = np.array([kf.sin_q29(k, den) for k in range(den)]) / 2.0**29
            want = np.sin(2 * np.pi * np.arange(den) / den)
            self.assertLess(np.abs(got - want).max(), 8 / 2.0**29, den)

    def test_log2_table_and_interpolation(self):
        self.assertEqual(kf.LOG2_TABLE, kf.log2_table())
        rng = np.random.default_rng(3)
        values = np.concatenate([
            np.array([1, 2, 3, 255, 256, 2**31 - 1, 2**31, 2**32 + 1, 2**63, 2**64 - 1], dtype=np.uint64),
            rng.integers(1, 2**63, 2000, dtype=np.uint64),
        ])
        got = kf.log2_q16(values) / 65536.0
        want = np.array([np.log2(float(v)) for v in values])
        # Linear interpolation over steps of 1/64: at most 4.4e-5, plus half
        # a unit of the table and of the result.
        self.assertLess(np.abs(got - want).max(), 6e-5)
        exact = kf.log2_q16(np.array([1, 2, 1024], dtype=np.uint64))
        self.assertEqual(exact.tolist(), [0, 65536, 10 * 65536])

    def test_quantise_as_the_converter(self):
        cases = [
            ([[1.0]], [[16384]], -14),
            # Half a unit is added before the truncation: -0.25 lands one
            # unit above its nearest item.
            ([[0.5, -0.25]], [[16384, -8191]], -15),
            ([[40000.0, 1.0]], [[20000, 1]], 1),
            ([[0.0, 0.0]], [[0, 0]], 0),
        ]
        for values, items, exponent in cases:
            got, e = kf.quantise(np.array(values, dtype=np.float32))
            self.assertEqual(e, exponent, values)
            self.assertEqual(got.tolist(), items, values)


class Fft(unittest.TestCase):
    def test_sizes_and_padding(self):
        rng = np.random.default_rng(5)
        for fft_len, n in ((4, 3), (16, 16), (64, 40), (512, 480), (4096, 4000)):
            x = rng.integers(-32768, 32768, (2, n))
            re, im = kf.rfft_q(x, fft_len)
            self.assertEqual(re.shape, (2, fft_len // 2 + 1))
            self.assertLess(np.abs(re + 1j * im - np.fft.rfft(x, fft_len)).max(), 4 * np.log2(fft_len))


class Features(unittest.TestCase):
    def setUp(self):
        self.samples = fixture("speech")[0].astype(np.int64)
        self.mel = fixture("mel")
        self.dct = fixture("dct")

    def test_float_path_against_a_double_precision_reference(self):
        fr = kf.frames(self.samples).astype(np.float64) / 32768.0
        hann = 0.5 - 0.5 * np.cos(2 * np.pi * np.arange(kf.WIN_LEN) / kf.WIN_LEN)
        power = np.abs(np.fft.rfft(fr * hann, kf.FFT_LEN)) ** 2
        with np.errstate(divide="ignore"):
            want = np.maximum(np.log(power @ self.mel.astype(np.float64)), kf.LOG_FLOOR)
        got = kf.log_mel(self.samples, self.mel)
        # float32 FFT errors are absolute, about 1e-7 of the frame's largest
        # bin: 1e-4 in ln units for bands above -8, 1e-3 down to -16, the
        # quietest bands of this fixture.
        loud = want > -8
        self.assertLess(np.abs(got - want)[loud].max(), 1e-4)
        self.assertLess(np.abs(got - want).max(), 1e-3)

    def test_fixtures_are_the_twins_outputs(self):
        outputs = make_audio_fixtures.outputs(self.samples, self.mel, self.dct)
        for name, value in outputs.items():
            np.testing.assert_array_equal(fixture(name), np.asarray(value).astype(np.float32), err_msg=name)

    def test_detection_fixture_is_the_twins(self):
        for name, value in make_audio_fixtures.detection().items():
            np.testing.assert_array_equal(fixture(name), value, err_msg=name)

    def test_tables_are_the_generators(self):
        np.testing.assert_array_equal(self.mel, kf.mel_filterbank())
        np.testing.assert_array_equal(self.dct, kf.dct_matrix(kf.N_MELS, 13))
        d = kf.dct_matrix(40, 40).astype(np.float64)
        np.testing.assert_allclose(d.T @ d, np.eye(40), atol=1e-6)

    def test_silence_and_short_input(self):
        mq, me = kf.quantise(self.mel)
        self.assertEqual(kf.log_mel_q(np.zeros(479, dtype=np.int64), mq, me)[0].shape, (0, kf.N_MELS))
        q, e = kf.log_mel_q(np.zeros(800, dtype=np.int64), mq, me)
        self.assertEqual((q.shape, e), ((2, kf.N_MELS), -10))
        self.assertTrue((q == kf.LOG_FLOOR_Q).all())
        self.assertTrue((kf.log_mel(np.zeros(800), self.mel) == np.float32(kf.LOG_FLOOR)).all())

    def test_full_scale_square_wave_stays_in_range(self):
        # The fixture's last 0.1 s gives the largest energies of a 16-bit
        # frame (ln about 10.3): no item saturates, and the fixed point
        # follows the float path as it does on speech.
        mq, me = kf.quantise(self.mel)
        tail = self.samples[-1600:]
        q, _ = kf.log_mel_q(tail, mq, me)
        f = kf.log_mel(tail, self.mel)
        self.assertGreater(f.max(), 10.0)
        self.assertLess(np.abs(q / 1024.0 - f)[f > -8].max(), 0.02)
        dq, de = kf.quantise(self.dct)
        c, _ = kf.log_mel_q(tail, mq, me, dq, de)
        self.assertLess(np.abs(c.astype(np.int64)).max(), 32767)

if __name__ == "__main__":
    unittest.main()
