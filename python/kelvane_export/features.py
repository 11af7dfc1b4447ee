"""Audio features for training, computed as dl_lib computes them on a device.

    from kelvane_export import features as kf
    mel = kf.mel_filterbank()             # (fft_len/2 + 1) x n_mels, float32
    dct = kf.dct_matrix(40, 13)           # n_mels x n_ceps, float32
    x = kf.log_mel(samples, mel)          # frames x 40, float32, as dl_audio_features
    q, e = kf.log_mel_q(samples, *kf.quantise(mel))   # int16 items, exponent -10

Save `mel` and `dct` into the model directory (numpy.save) so that kelvane
converts them with the network and the device fetches them by name: training
and device then share the very same filter bank.

Frames start every `hop` samples; frame t holds samples [t*hop, t*hop+win_len)
and only whole frames are made. A frame is windowed (periodic Hann), zero
padded to fft_len, transformed by a real FFT (a complex FFT of half the length
and a split step), squared to a power spectrum, weighted by the mel filter
bank, taken to the natural logarithm (floored at LOG_FLOOR) and, when a DCT
matrix is given, multiplied by it.

Float path: float32 in the order of dl_lib's float loops, so it equals the
C within the last bits of logf. Fixed-point path: integers only, bit for bit
dl_lib's `_q` functions. The window and the FFT's twiddle factors come from
`sin_q29`, a Taylor series in 64-bit integers, so both paths use the same
tables everywhere without a math library.
"""
import math

import numpy as np

SAMPLE_RATE = 16000
WIN_LEN = 480
HOP = 320
FFT_LEN = 512
N_MELS = 40

LOG_FLOOR = -20.0        # natural log; an all-zero frame gives this
LOG_EXPONENT = -10       # fixed-point log-mel items are ln(energy) * 2^10
CEPS_EXPONENT = -7       # fixed-point cepstral items are c * 2^7
LOG_FLOOR_Q = -20480     # LOG_FLOOR at LOG_EXPONENT

Q29 = 1 << 29
HALF_PI_Q29 = 843314857  # round(pi / 2 * 2^29)
LN2_Q16 = 45426          # round(ln 2 * 2^16)
# round(log2(1 + i / 64) * 2^16), i = 0..64
LOG2_TABLE = (
    0, 1466, 2909, 4331, 5732, 7112, 8473, 9814, 11136, 12440, 13727, 14996, 16248, 17484, 18704, 19909,
    21098, 22272, 23433, 24579, 25711, 26830, 27936, 29029, 30109, 31178, 32234, 33279, 34312, 35334, 36346,
    37346, 38336, 39316, 40286, 41246, 42196, 43137, 44068, 44990, 45904, 46809, 47705, 48593, 49472, 50344,
    51207, 52063, 52911, 53751, 54584, 55410, 56229, 57040, 57845, 58643, 59434, 60219, 60997, 61769, 62534,
    63294, 64047, 64794, 65536,
)


# -- tables --------------------------------------------------------------------

def sin_q29(num, den):
    """sin(2 pi num / den) * 2^29 by integer arithmetic alone (num >= 0).

    The angle is folded into the first quadrant, x = (pi/2) * r / den in Q29
    (truncated), and sin x is a Taylor series to x^15 in Horner form; every
    product is shifted right by 29 and every division truncates, on values
    that are never negative."""
    num = int(num) % den
    quadrant, r = divmod(4 * num, den)
    if quadrant & 1:
        r = den - r
    x = HALF_PI_Q29 * r // den
    x2 = (x * x) >> 29
    t = Q29
    for d in (210, 156, 110, 72, 42, 20, 6):
        t = Q29 - ((x2 * t) >> 29) // d
    s = (x * t) >> 29
    return -s if quadrant >= 2 else s


def cos_q29(num, den):
    """cos(2 pi num / den) * 2^29, as sin_q29(4 num + den, 4 den)."""
    return sin_q29(4 * int(num) + den, 4 * den)


def hann_q29(win_len):
    """Periodic Hann window, (2^29 - cos) / 2 with the halving truncated."""
    return np.array([(Q29 - cos_q29(n, win_len)) >> 1 for n in range(win_len)], dtype=np.int64)


def window_q15(win_len):
    """The window in Q15, rounded (halves up) and held at most 32767."""
    return np.minimum((hann_q29(win_len) + (1 << 13)) >> 14, 32767)


def window_f(win_len):
    return _q29_to_f(hann_q29(win_len))


def _q29_to_f(v):
    return np.asarray(v, dtype=np.int64).astype(np.float32) * np.float32(2.0**-29)


def _check_fft_len(fft_len):
    if fft_len < 4 or fft_len > 4096 or fft_len & (fft_len - 1):
        raise ValueError(f"fft_len {fft_len} must be a power of two from 4 to 4096")


def _twiddles(fft_len):
    m = fft_len // 2
    stage = np.array([[cos_q29(k, m), sin_q29(k, m)] for k in range(max(m // 2, 1))], dtype=np.int64)
    split = np.array([[cos_q29(k, fft_len), sin_q29(k, fft_len)] for k in range(m + 1)], dtype=np.int64)
    return stage, split


def _bit_reverse(m):
    bits = m.bit_length() - 1
    return np.array([int(f"{i:0{bits}b}"[::-1], 2) if bits else 0 for i in range(m)], dtype=np.int64)


def mel_filterbank(sample_rate=SAMPLE_RATE, fft_len=FFT_LEN, n_mels=N_MELS, f_low=20.0, f_high=None):
    """Triangular filters of peak 1.0 on the mel scale 2595 log10(1 + f/700),
    n_mels + 2 edges evenly spaced from f_low to f_high (default: half the
    sample rate); (fft_len/2 + 1) x n_mels float32, bin k at k * rate / fft_len."""
    f_high = sample_rate / 2 if f_high is None else f_high
    to_mel = lambda f: 2595.0 * np.log10(1.0 + np.asarray(f) / 700.0)  # noqa: E731
    edges = 700.0 * (10.0 ** (np.linspace(to_mel(f_low), to_mel(f_high), n_mels + 2) / 2595.0) - 1.0)
    freqs = np.arange(fft_len // 2 + 1) * sample_rate / fft_len
    bank = np.zeros((fft_len // 2 + 1, n_mels))
    for m in range(n_mels):
        lo, mid, hi = edges[m : m + 3]
        rising = (freqs - lo) / (mid - lo)
        falling = (hi - freqs) / (hi - mid)
        bank[:, m] = np.maximum(0.0, np.minimum(rising, falling))
    return bank.astype(np.float32)


def dct_matrix(n_mels=N_MELS, n_ceps=13):
    """Orthonormal DCT-II as an n_mels x n_ceps float32 matrix: ceps = logmel x D."""
    m = np.arange(n_mels)[:, None]
    j = np.arange(n_ceps)[None, :]
    d = np.sqrt(2.0 / n_mels) * np.cos(np.pi * j * (m + 0.5) / n_mels)
    d[:, 0] = np.sqrt(1.0 / n_mels)
    return d.astype(np.float32)


def quantise(m):
    """(items, exponent) as kelvane's default conversion and
    dl_matrixq_from_matrix2d make them: the exponent puts the largest
    magnitude between 16383 and 32767, half a unit is added before scaling
    and the float product truncates toward zero."""
    m = np.asarray(m, dtype=np.float32)
    peak = np.float32(max(float(m.max()), -float(m.min()))) if m.size else np.float32(0)
    e = 0
    if peak != 0:
        while peak > np.float32(32767) and e < 128:
            e += 1
            peak = np.float32(peak / np.float32(2))
        while peak < np.float32(16383):
            e -= 1
            peak = np.float32(peak * np.float32(2))
    mult = np.float32(2.0**-e)
    half = np.float32(0.5) * np.float32(2.0**e)
    p = (m + half) * mult
    return np.trunc(p).astype(np.int64).astype(np.int16), e


# -- framing -------------------------------------------------------------------

def frame_count(n_samples, win_len=WIN_LEN, hop=HOP):
    return 0 if n_samples < win_len else (n_samples - win_len) // hop + 1


def frames(samples, win_len=WIN_LEN, hop=HOP):
    """frames x win_len int64 view of the whole frames of a 16-bit signal."""
    s = np.asarray(samples).astype(np.int64)
    n = frame_count(len(s), win_len, hop)
    idx = np.arange(n)[:, None] * hop + np.arange(win_len)[None, :]
    return s[idx] if n else np.zeros((0, win_len), dtype=np.int64)


# -- fixed point ---------------------------------------------------------------

def rfft_q(x, fft_len=FFT_LEN):
    """Real FFT of frames x n int32 values (n <= fft_len, zero padded) ->
    (re, im), each frames x (fft_len/2 + 1) int64, not scaled: bin k is the
    sum of x[n] e^(-2 pi i k n / fft_len) to within the roundings below.

    Complex FFT of z[n] = x[2n] + i x[2n+1], radix 2, in place after a
    bit-reversal permutation; each butterfly multiplies by its twiddle
    (c - i s, Q29) as two exact 64-bit sums rounded once, +2^28 >> 29.
    Split: with a = Z[k], b = Z[(M - k) mod M],
      re = ((ar+br) 2^29 - s (ar-br) + c (ai+bi) + 2^29) >> 30
      im = ((ai-bi) 2^29 - s (ai+bi) - c (ar-br) + 2^29) >> 30."""
    _check_fft_len(fft_len)
    x = np.asarray(x, dtype=np.int64)
    if x.ndim == 1:
        x = x[None, :]
    m = fft_len // 2
    padded = np.zeros((x.shape[0], fft_len), dtype=np.int64)
    padded[:, : x.shape[1]] = x
    stage_tw, split_tw = _twiddles(fft_len)
    rev = _bit_reverse(m)
    zr = padded[:, 0::2][:, rev]
    zi = padded[:, 1::2][:, rev]
    size = 2
    while size <= m:
        half = size // 2
        k = np.arange(half) * (m // size)
        c = stage_tw[k, 0]
        s = stage_tw[k, 1]
        zr = zr.reshape(x.shape[0], m // size, size)
        zi = zi.reshape(x.shape[0], m // size, size)
        ar, ai = zr[:, :, :half], zi[:, :, :half]
        br, bi = zr[:, :, half:], zi[:, :, half:]
        tr = (br * c + bi * s + (1 << 28)) >> 29
        ti = (bi * c - br * s + (1 << 28)) >> 29
        zr = np.concatenate([ar + tr, ar - tr], axis=2).reshape(x.shape[0], m)
        zi = np.concatenate([ai + ti, ai - ti], axis=2).reshape(x.shape[0], m)
        size *= 2
    k = np.arange(m + 1)
    ar, ai = zr[:, k % m], zi[:, k % m]
    br, bi = zr[:, (m - k) % m], zi[:, (m - k) % m]
    c, s = split_tw[:, 0], split_tw[:, 1]
    re = ((ar + br) * Q29 - s * (ar - br) + c * (ai + bi) + Q29) >> 30
    im = ((ai - bi) * Q29 - s * (ai + bi) - c * (ar - br) + Q29) >> 30
    return re, im


def power_shift(fft_len):
    """Right shift of the power spectrum before the filter bank, so that the
    64-bit sums cannot overflow for any 16-bit input: 2 per doubling of
    fft_len beyond 512."""
    return max(0, 2 * (fft_len.bit_length() - 1 - 9))


def log2_q16(e):
    """log2 of positive integers below 2^64 in Q16: the position of the
    leading one, plus log2 of the mantissa from LOG2_TABLE, its 6 bits below
    the leading one choosing the entry and the next 16 bits interpolating
    linearly (rounded, halves up)."""
    e = np.asarray(e, dtype=np.uint64)
    msb = np.zeros(e.shape, dtype=np.int64)
    v = e.copy()
    for sh in (32, 16, 8, 4, 2, 1):
        big = v >= (np.uint64(1) << np.uint64(sh))
        msb += np.where(big, sh, 0)
        v = np.where(big, v >> np.uint64(sh), v)
    up = np.maximum(31 - msb, 0).astype(np.uint64)
    down = np.maximum(msb - 31, 0).astype(np.uint64)
    f = ((e << up) >> down).astype(np.int64) & 0x7FFFFFFF
    idx = f >> 25
    frac = (f >> 9) & 0xFFFF
    table = np.array(LOG2_TABLE, dtype=np.int64)
    t0, t1 = table[idx], table[idx + 1]
    return msb * 65536 + t0 + (((t1 - t0) * frac + (1 << 15)) >> 16)


def log_mel_q(samples, mel_items, mel_exponent, dct_items=None, dct_exponent=0, win_len=WIN_LEN, hop=HOP,
              fft_len=FFT_LEN):
    """Fixed-point features of a 16-bit signal, bit for bit dl_audio_features_q:
    (frames x n_out int16 items, exponent). mel_items/dct_items are the
    quantised tables (quantise()), bins x mels and mels x ceps.

    Window: (s w + 2^14) >> 15 with w in Q15. Energy of a filter: the exact
    unsigned 64-bit sum of (power >> power_shift) * item. Log: with
    G = 30 - power_shift - mel_exponent, ((log2_q16(E) - G 2^16) LN2_Q16 + 2^21)
    >> 22, at least LOG_FLOOR_Q (also for E = 0); exponent LOG_EXPONENT.
    DCT: exact 64-bit sums of log items times DCT items, shifted right by
    3 - dct_exponent (rounded, halves up), saturated to +-32767; exponent
    CEPS_EXPONENT."""
    mel_items = np.asarray(mel_items, dtype=np.int64)
    _check_tables(win_len, hop, fft_len, mel_items)
    fr = frames(samples, win_len, hop)
    x = (fr * window_q15(win_len)[None, :] + (1 << 14)) >> 15
    re, im = rfft_q(x, fft_len) if len(fr) else (np.zeros((0, fft_len // 2 + 1), np.int64),) * 2
    power = (re * re + im * im).astype(np.uint64) >> np.uint64(power_shift(fft_len))
    energy = power @ mel_items.astype(np.uint64)
    g = 30 - power_shift(fft_len) - mel_exponent
    l2 = log2_q16(np.maximum(energy, np.uint64(1))) - g * 65536
    y = (l2 * LN2_Q16 + (1 << 21)) >> 22
    y = np.where(energy == 0, LOG_FLOOR_Q, np.clip(y, LOG_FLOOR_Q, 32767))
    if dct_items is None:
        return y.astype(np.int16), LOG_EXPONENT
    shift = 3 - dct_exponent
    if not 1 <= shift <= 62:
        raise ValueError(f"DCT exponent {dct_exponent} out of range")
    acc = y @ np.asarray(dct_items, dtype=np.int64)
    c = (acc + (1 << (shift - 1))) >> shift
    return np.clip(c, -32767, 32767).astype(np.int16), CEPS_EXPONENT


def _check_tables(win_len, hop, fft_len, mel):
    _check_fft_len(fft_len)
    if not (1 <= win_len <= fft_len and hop >= 1):
        raise ValueError("need 1 <= win_len <= fft_len and hop >= 1")
    if mel.shape[0] != fft_len // 2 + 1:
        raise ValueError(f"filter bank has {mel.shape[0]} rows, not fft_len/2 + 1")


# -- float ---------------------------------------------------------------------

def rfft_f(x, fft_len=FFT_LEN):
    """Float32 real FFT in the structure of rfft_q: butterflies
    t = (br c + bi s, bi c - br s), a +- t; split
    re = ((A_r - s B_r) + c B_i) * 0.5, im = ((A_i - s B_i) - c B_r) * 0.5
    with A = a + conj(b), B = a - conj(b), each operation rounded to float32."""
    _check_fft_len(fft_len)
    x = np.asarray(x, dtype=np.float32)
    if x.ndim == 1:
        x = x[None, :]
    m = fft_len // 2
    padded = np.zeros((x.shape[0], fft_len), dtype=np.float32)
    padded[:, : x.shape[1]] = x
    stage_q, split_q = _twiddles(fft_len)
    stage_tw, split_tw = _q29_to_f(stage_q), _q29_to_f(split_q)
    rev = _bit_reverse(m)
    zr = padded[:, 0::2][:, rev]
    zi = padded[:, 1::2][:, rev]
    size = 2
    while size <= m:
        half = size // 2
        k = np.arange(half) * (m // size)
        c, s = stage_tw[k, 0], stage_tw[k, 1]
        zr = zr.reshape(x.shape[0], m // size, size)
        zi = zi.reshape(x.shape[0], m // size, size)
        ar, ai = zr[:, :, :half], zi[:, :, :half]
        br, bi = zr[:, :, half:], zi[:, :, half:]
        tr = br * c + bi * s
        ti = bi * c - br * s
        zr = np.concatenate([ar + tr, ar - tr], axis=2).reshape(x.shape[0], m)
        zi = np.concatenate([ai + ti, ai - ti], axis=2).reshape(x.shape[0], m)
        size *= 2
    k = np.arange(m + 1)
    ar, ai = zr[:, k % m], zi[:, k % m]
    br, bi = zr[:, (m - k) % m], zi[:, (m - k) % m]
    c, s = split_tw[:, 0], split_tw[:, 1]
    half = np.float32(0.5)
    re = (((ar + br) - s * (ar - br)) + c * (ai + bi)) * half
    im = (((ai - bi) - s * (ai + bi)) - c * (ar - br)) * half
    return re, im


def log_mel(samples, mel, dct=None, win_len=WIN_LEN, hop=HOP, fft_len=FFT_LEN):
    """Float features of a 16-bit signal as dl_audio_features computes them
    (frames x n_out float32). Samples are scaled by 2^-15, then windowed;
    power re*re + im*im; each filter sums its bins in ascending order from
    0; log is max(ln(energy), LOG_FLOOR); the DCT sums mels in ascending
    order from 0."""
    mel = np.asarray(mel, dtype=np.float32)
    _check_tables(win_len, hop, fft_len, mel)
    fr = frames(samples, win_len, hop).astype(np.float32)
    x = (fr * np.float32(2.0**-15)) * window_f(win_len)[None, :]
    re, im = rfft_f(x, fft_len)
    power = re * re + im * im
    energy = np.zeros((len(fr), mel.shape[1]), dtype=np.float32)
    for k in range(mel.shape[0]):
        energy = energy + power[:, k : k + 1] * mel[k][None, :]
    with np.errstate(divide="ignore"):
        y = np.maximum(np.log(energy), np.float32(LOG_FLOOR)).astype(np.float32)
    if dct is None:
        return y
    dct = np.asarray(dct, dtype=np.float32)
    out = np.zeros((len(fr), dct.shape[1]), dtype=np.float32)
    for m in range(dct.shape[0]):
        out = out + y[:, m : m + 1] * dct[m][None, :]
    return out


# -- detection -----------------------------------------------------------------

def detect(scores, windows, thresholds):
    """dl_detector_step over a whole run of scores (runs x words), for tuning
    thresholds offline: a list of (run, word, average) in the order the C
    reports them. windows and thresholds as in model_info(): word i averages
    its last windows[i] scores (runs before the first count as 0), summed
    oldest first in float32 and divided by the window; it fires when the
    average reaches thresholds[2i] and re-arms when it falls below
    thresholds[2i+1]."""
    scores = np.asarray(scores, dtype=np.float32)
    thresholds = np.asarray(thresholds, dtype=np.float32)
    armed = [True] * scores.shape[1]
    found = []
    for run in range(scores.shape[0]):
        for word, window in enumerate(windows):
            total = np.float32(0)
            for r in range(run - window + 1, run + 1):
                total = np.float32(total + (scores[r, word] if r >= 0 else np.float32(0)))
            average = np.float32(total / np.float32(window))
            if not armed[word] and average < thresholds[2 * word + 1]:
                armed[word] = True
            if armed[word] and average >= thresholds[2 * word]:
                armed[word] = False
                found.append((run, word, float(average)))
    return found


def log2_table():
    """LOG2_TABLE as computed from its definition (the tests compare)."""
    return tuple(int(math.floor(math.log2(1 + i / 64) * 65536 + 0.5)) for i in range(65))
