"""The library's fixed-point arithmetic in NumPy, bit for bit, over batches.

A batch of fixed-point records is a QBatch: integer items of shape
(N, rows, columns), row-major here whatever the library's storage, and one
exponent per record (shape (N,)): item * 2^exponent is the value. Tables
read from a model directory are batches of one and broadcast against any N.

Each function follows the library function its docstring names: the
quantiser's half unit and truncation, products as exact integer sums shifted
right (rounding down) and saturated at +-32767, alignment to the larger
exponent by arithmetic right shifts, the Q15 sigmoid table and the tanh that
goes through the float sigmoid. Float steps are float32 with one rounding
each, in the library's order. Each record's exponent moves exactly as the
library moves it, so the items and the exponents can be compared with the C
library's for equality.
"""
import os
from dataclasses import dataclass

import numpy as np

from .geometry import library_axis

F32 = np.float32
F64 = np.float64
ITEM_MAX = 32767
INT32_MAX = 2**31 - 1
INT32_MIN = -2**31

# The float sigmoid's table at x = 0.5 * i, and the same times 32767,
# truncated, for the fixed-point one.
SIGMOID_STEPS = np.array([0.5, 0.62256, 0.73096, 0.81738, 0.88086, 0.92432, 0.95264, 0.9707,
                          0.98193, 0.98877, 0.99316, 0.99609, 0.99756, 0.99854, 0.99902, 1.0], F32)
SIGMOID_STEPS_Q = np.array([16383, 20399, 23951, 26783, 28863, 30287, 31215, 31806,
                            32174, 32399, 32542, 32638, 32687, 32719, 32734, 32767], np.int64)

# The converter's epsilon under the batch-norm variance's square root.
BN_EPSILON = F32(0.001)


@dataclass
class QBatch:
    """Fixed-point records: items (N, rows, columns) int64, exponent (N,)."""

    items: np.ndarray
    exponent: np.ndarray

    def __post_init__(self):
        self.items = np.asarray(self.items, np.int64)
        if self.items.ndim == 2:
            self.items = self.items[None]
        self.exponent = np.broadcast_to(np.asarray(self.exponent, np.int64), self.items.shape[:1]).copy()

    def floats(self):
        """Back to float32 values, as dl_matrix2d_from_matrixq."""
        return (self.items.astype(F32) * _e(pow2f(self.exponent))).astype(F32)

    def columns(self, start, stop):
        """The columns start..stop-1 as records of their own, sharing the
        exponent as the library's slices do when they are made."""
        return QBatch(self.items[:, :, start:stop], self.exponent)

    def rows(self, start, stop):
        return QBatch(self.items[:, start:stop, :], self.exponent)


def _e(exponent):
    """A per-record array (N,) shaped to broadcast against items."""
    return np.asarray(exponent)[:, None, None]


# ---- number helpers ---------------------------------------------------------

def pow2f(e):
    """2^e as float32: exact where representable, 0 below, infinity above."""
    with np.errstate(over="ignore"):
        return np.ldexp(F32(1), np.clip(np.asarray(e, np.int64), -200, 200)).astype(F32)


def trunc_i32(v):
    """Truncation toward zero to 32 bits; NaN and values out of range give the
    lowest 32-bit integer."""
    v = np.asarray(v)
    ok = (v >= F32(-2147483648.0)) & (v < F32(2147483648.0))
    return np.where(ok, np.trunc(np.where(ok, v, 0)), INT32_MIN).astype(np.int64)


def saturate(v):
    return np.clip(v, -ITEM_MAX, ITEM_MAX)


def low16(v):
    """The low 16 bits as a signed item (two's complement wrap)."""
    return ((np.asarray(v, np.int64) + 32768) & 0xFFFF) - 32768


def block_exponent(peak):
    """The exponent that puts each largest magnitude between 16383 and 32767
    items: halved while above 32767, then doubled while below 16383, in
    float32 (0 for a peak of 0)."""
    p = np.array(peak, F32, ndmin=1)
    e = np.zeros(p.shape, np.int64)
    live = p != 0
    for _ in range(128):
        high = live & (p > F32(32767))
        if not high.any():
            break
        p = np.where(high, p / F32(2), p)
        e += high
    while True:
        low = live & (p < F32(16383))
        if not low.any():
            break
        p = np.where(low, p * F32(2), p)
        e -= low
    return e


def product_shift(inputs):
    """15 + floor(log2(inputs)): the right shift that brings a sum of
    `inputs` products back to item size (15 for no inputs)."""
    s, n = 15, inputs
    while n > 1:
        s, n = s + 1, n // 2
    return s


# ---- conversions --------------------------------------------------------------

def quantise(x):
    """dl_matrixq_from_matrix2d on each record of x (N, rows, columns): the
    exponent from the largest magnitude, half a unit added in float, scaled
    and truncated toward zero. The values must be finite (the library's
    treatment of NaN is not reproduced)."""
    x = np.asarray(x, F32)
    if x.ndim == 2:
        x = x[None]
    flat = x.reshape(len(x), -1)
    hi, lo = flat.max(axis=1), flat.min(axis=1)
    e = block_exponent(np.where(hi > -lo, hi, -lo))
    mult, half = _e(pow2f(-e)), _e(F32(0.5) * pow2f(e))
    p = ((x + half).astype(F32) * mult).astype(F32)
    return QBatch(low16(trunc_i32(p)), e)


def sqrt_variance(variance):
    """What the converter stores for a batch-norm variance: sqrt(v + 0.001)
    in double precision, rounded to float; 0 for a negative sum."""
    s = (np.asarray(variance, F32) + BN_EPSILON).astype(F32)
    return np.where(s >= 0, np.sqrt(np.maximum(s, 0).astype(F64)), 0).astype(F32)


def load_table(directory, name, variance=False, quantised=True):
    """A table of a model directory as the default conversion writes it: the
    .npy as float32 (a batch-norm variance through its square root), then
    quantised as one record unless quantised is False."""
    m = np.load(os.path.join(directory, name + ".npy")).astype(F32)
    if m.ndim == 1:
        m = m.reshape(1, -1)
    if variance:
        m = sqrt_variance(m)
    return quantise(m) if quantised else m


# ---- element-wise arithmetic ------------------------------------------------

def _add_or_sub(a, b, shift, sub):
    a_high = a.exponent >= b.exponent
    high_e = np.where(a_high, a.exponent, b.exponent)
    d = _e(np.minimum(np.abs(a.exponent - b.exponent), 31))
    ah = _e(a_high)
    p = np.where(ah, a.items, b.items)
    q = np.where(ah, b.items, a.items) >> d
    t = np.where(ah, p - q, q - p) if sub else p + q
    if shift == 0:
        return QBatch(t >> 1, high_e + 1)
    return QBatch(saturate(t), high_e)


def add(a, b, shift):
    """dl_matrixq_add: aligned to the larger exponent; shift 1 saturates,
    shift 0 halves (rounding down) and raises the exponent by one."""
    assert shift in (0, 1)
    return _add_or_sub(a, b, shift, False)


def sub(a, b, shift):
    """dl_matrixq_sub: a - b, any non-zero shift as 1."""
    return _add_or_sub(a, b, 0 if shift == 0 else 1, True)


def mul(a, b):
    """dl_matrixq_mul: upper 16 bits of each product, exponent + 16."""
    return QBatch((a.items * b.items) >> 16, a.exponent + b.exponent + 16)


def div(a, b, shift):
    """dl_matrixq_div: (a << shift) / b truncated toward zero, saturated; a
    zero divisor gives +-32767 by the dividend's sign."""
    assert 0 <= shift <= 16
    num = np.broadcast_to(a.items << shift, np.broadcast(a.items, b.items).shape)
    den = np.broadcast_to(b.items, num.shape)
    safe = np.where(den == 0, 1, den)
    q = np.abs(num) // np.abs(safe) * np.sign(num) * np.sign(safe)
    q = np.where(den == 0, np.sign(num) * ITEM_MAX, q)
    return QBatch(saturate(q), a.exponent - b.exponent - shift)


def add_const(m, value, shift):
    """dl_matrixq_add_const: value in item units truncated toward zero to c
    (no change where c is 0); c and the items halved, the exponent raised,
    while |c| > 32766; shift 1 saturates, shift 0 halves toward zero."""
    assert shift in (0, 1)
    e = m.exponent
    v = F32(value)
    with np.errstate(over="ignore", invalid="ignore", divide="ignore"):
        units = np.where(e < 0, pow2f(-e) * v, v / pow2f(e)).astype(F32)
    c = trunc_i32(units)
    n = np.zeros_like(c)
    while True:
        big = np.abs(c) > 32766
        if not big.any():
            break
        n += big
        c = np.where(big, np.trunc(c / 2).astype(np.int64), c)  # toward zero
    live = c != 0
    t = (m.items >> _e(n)) + _e(c)
    items = np.trunc(t / 2).astype(np.int64) if shift == 0 else saturate(t)
    items = np.where(_e(live), items, m.items)
    exponent = np.where(live, e + n + (1 if shift == 0 else 0), e)
    return QBatch(items, exponent)


def concat(a, b):
    """dl_matrixq_concat: a's columns then b's, at the larger exponent."""
    e = np.maximum(a.exponent, b.exponent)
    da, db = np.minimum(e - a.exponent, 31), np.minimum(e - b.exponent, 31)
    return QBatch(np.concatenate([a.items >> _e(da), b.items >> _e(db)], axis=2), e)


def readjust_exp(m):
    """dl_matrixq_readjust_exp: a record with an item at +-32767 is halved;
    otherwise doubled until its largest magnitude reaches 16383."""
    mag = np.abs(m.items).reshape(len(m.items), -1)
    largest = mag.max(axis=1) if mag.shape[1] else np.zeros(len(mag), np.int64)
    clipped = (mag == ITEM_MAX).any(axis=1)
    adjust = np.zeros_like(largest)
    grow = ~clipped & (largest > 0)
    level = largest.copy()
    while True:
        low = grow & (level < 16383)
        if not low.any():
            break
        adjust += low
        level = np.where(low, level * 2, level)
    adjust = np.where(clipped & (largest > 0), -1, adjust)
    items = np.where(_e(adjust < 0), m.items >> 1, m.items << _e(np.maximum(adjust, 0)))
    return QBatch(items, m.exponent - adjust)


# ---- activations ------------------------------------------------------------

def sigmoid_f(x):
    """dl_sigmoid_op: table interpolation, the lower weight in double and the
    upper in float; 1.0 from 7.5 on and for NaN; 1 - op(-x) below zero."""
    x = np.asarray(x, F32)
    neg = F32(0) > x
    t = (np.where(neg, -x, x) / F32(0.5)).astype(F32)
    i = trunc_i32(t)
    top = (i >= 15) | (i == INT32_MIN)
    i = np.where(top, 0, i)
    f = (t - i.astype(F32)).astype(F32)
    low = SIGMOID_STEPS[i].astype(F64) * (1.0 - f.astype(F64))
    high = (SIGMOID_STEPS[i + 1] * f).astype(F32)
    r = np.where(top, F32(1), (high.astype(F64) + low).astype(F32)).astype(F32)
    return np.where(neg, (F32(1) - r).astype(F32), r).astype(F32)


def tanh_f(x):
    """dl_tanh_op: 2 * sigmoid(2x) - 1 in float."""
    x = np.asarray(x, F32)
    s = sigmoid_f((x + x).astype(F32))
    return ((s + s).astype(F32) - F32(1)).astype(F32)


def sigmoid_op_q(x):
    """dl_sigmoid_op_q on Q15 values (int64 holding 32-bit values)."""
    x = np.asarray(x, np.int64)
    neg = x < 0
    a = np.where(neg, np.where(x == INT32_MIN, INT32_MAX, -x), x)
    t = 2 * a
    top = t > INT32_MAX
    t = np.where(top, 0, t)
    i = t >> 15
    top |= i >= 15
    i = np.where(top, 0, i)
    f = t - (i << 15)
    r = (SIGMOID_STEPS_Q[i] * (ITEM_MAX - f) + SIGMOID_STEPS_Q[i + 1] * f) >> 15
    r = np.where(top, ITEM_MAX, r)
    return np.where(neg, ITEM_MAX - r, r)


def tanh_op_q(x):
    """dl_tanh_op_q: the float tanh of x / 32767, times 32767, truncated."""
    a = (np.asarray(x, np.int64).astype(F32) / F32(32767)).astype(F32)
    return trunc_i32((F32(32767) * tanh_f(a)).astype(F32))


def _align_q15(m):
    s = _e(m.exponent + 15)
    right = m.items >> np.minimum(np.maximum(-s, 0), 31)
    left = np.clip(m.items * (np.int64(1) << np.clip(s, 0, 32)), -INT32_MAX, INT32_MAX)
    return np.where(s <= 0, right, np.where(m.items == 0, 0, left))


def sigmoid_q(m):
    """dl_sigmoid_q: items aligned to Q15 (saturating at 32 bits), exponent -15."""
    return QBatch(low16(sigmoid_op_q(_align_q15(m))), np.full_like(m.exponent, -15))


def tanh_q(m):
    """dl_tanh_q, as sigmoid_q with dl_tanh_op_q."""
    return QBatch(low16(tanh_op_q(_align_q15(m))), np.full_like(m.exponent, -15))


def relu_q(m, clip):
    """dl_relu_q: clip brought to each record's exponent (truncated, at most
    32767); the exponent stays."""
    e = m.exponent
    c = F32(clip)
    with np.errstate(over="ignore", invalid="ignore"):
        scaled = np.where(e > 0, c / pow2f(e), pow2f(-e) * c).astype(F32)
    limit = np.where(scaled >= F32(32767), ITEM_MAX,
                     np.where(scaled <= F32(-32767), -ITEM_MAX,
                              np.where(np.isnan(scaled), 0, trunc_i32(np.nan_to_num(scaled)))))
    x = m.items
    return QBatch(np.where(x < 0, 0, np.where(x > _e(limit), _e(limit), x)), e)


def relu_noclip_q(m):
    """dl_relu_noclip_q: negative items become 0."""
    return QBatch(np.maximum(m.items, 0), m.exponent)


def relu_f(x, clip=None):
    """dl_relu (clip) or dl_relu_noclip (None) on floats."""
    x = np.asarray(x, F32)
    out = np.where(F32(0) > x, F32(0), x)
    return out if clip is None else np.where(out > F32(clip), F32(clip), out).astype(F32)


# ---- layers -----------------------------------------------------------------

def dot(a, b, shift):
    """dl_matrixq_dot: exact sums shifted right by s = product_shift(inputs)
    - shift (rounding down), saturated; exponent a + b + s."""
    inputs = a.items.shape[2]
    assert b.items.shape[1] == inputs
    assert 0 <= shift <= product_shift(inputs)
    s = product_shift(inputs) - shift
    sums = np.matmul(a.items, b.items)
    return QBatch(saturate(sums >> s), a.exponent + b.exponent + s)


def dot_float(a, b):
    """dl_matrixq_dot_matrix_out: each exact sum rounded once to float, times
    2^(a + b)."""
    sums = np.matmul(a.items, b.items)
    return (sums.astype(F32) * _e(pow2f(a.exponent + b.exponent))).astype(F32)


def fully_connect_q(x, weight, bias, shift):
    """dl_fully_connect_layer_q: the product, then the bias added saturating."""
    out = dot(x, weight, shift)
    return out if bias is None else add(out, bias, 1)


def batch_normalize_q(m, offset, scale, mean, sqrtvar, shift, stages=None):
    """dl_batch_normalize_q: subtract, divide (the shift), multiply, add.
    stages, a dict, receives the quotient under "div"."""
    m = div(sub(m, mean, 1), sqrtvar, shift)
    if stages is not None:
        stages["div"] = m
    return add(mul(m, scale), offset, 1)


def lstm_step_q(x, c, h, weight, bias, shift, stages=None):
    """dl_basic_lstm_layer_q, one step: returns the renormalised (c, h).
    stages, a list, receives the gates' product, then the same with its bias."""
    out = dot(concat(x, h), weight, shift)
    if stages is not None:
        stages.append(out)
    if bias is not None:
        out = add(out, bias, 1)
        if stages is not None:
            stages.append(out)
    q = out.items.shape[2] // 4
    i, g, f, o = (out.columns(k * q, (k + 1) * q) for k in range(4))
    f = sigmoid_q(add_const(f, 1.0, 1))
    i, g = sigmoid_q(i), tanh_q(g)
    c = add(mul(c, f), mul(i, g), 1)
    h = mul(tanh_q(c), sigmoid_q(o))
    return readjust_exp(c), readjust_exp(h)


def lstm_sequence_q(x, weight, bias, shift, stages=None):
    """The cell over the rows of x (N, steps, inputs), each row a time step
    at the sequence's exponent; both states start at zero with exponent -31,
    as a fresh record. Returns the last (c, h)."""
    n, units = len(x.items), weight.items.shape[2] // 4
    c = QBatch(np.zeros((n, 1, units), np.int64), np.full(n, -31))
    h = QBatch(np.zeros((n, 1, units), np.int64), np.full(n, -31))
    for t in range(x.items.shape[1]):
        c, h = lstm_step_q(x.rows(t, t + 1), c, h, weight, bias, shift, stages)
    return c, h


def conv_quantised_weight(x, filter_q, bias, filter_w, filter_h, out_channels, stride_x=1, stride_y=1,
                          padding=0):
    """dl_basic_conv_layer_quantised_weight on one-channel float inputs
    x (N, rows, columns): each input quantised as a whole, its windows'
    exact sums with the filter rounded once to float and scaled, then the
    float bias. Returns (N, 1, positions * out_channels), channels of one
    position side by side."""
    x = np.asarray(x, F32)
    n, height, width = x.shape
    ax = library_axis(width, filter_w, stride_x, padding)
    ay = library_axis(height, filter_h, stride_y, padding)
    q = quantise(x)
    framed = np.zeros((n, ay.padded, ax.padded), np.int64)
    framed[:, ay.margin:ay.margin + height, ax.margin:ax.margin + width] = q.items
    places = []
    for dy in range(filter_h):
        for dx in range(filter_w):
            y0, x0 = ay.offset + dy, ax.offset + dx
            places.append(framed[:, y0:y0 + stride_y * (ay.positions - 1) + 1:stride_y,
                                 x0:x0 + stride_x * (ax.positions - 1) + 1:stride_x])
    windows = np.stack(places, axis=-1).reshape(n, ay.positions * ax.positions, filter_h * filter_w)
    weights = QBatch(filter_q.items[:, :filter_h * filter_w, :out_channels], filter_q.exponent)
    sums = dot_float(QBatch(windows, q.exponent), weights)
    b = np.asarray(bias, F32).reshape(-1)[:out_channels]
    return (sums + b).astype(F32).reshape(n, 1, -1)
