"""A NumPy forward pass of the library's layers, written from their
definitions, to check exported arrays against PyTorch without any C code.

Float32 throughout, as in the library. The table activations follow the
library's interpolation and precisions; the sums of the products are
NumPy's, so results agree with the library to rounding, not to the bit.
"""
import numpy as np

F32 = np.float32

# Sigmoid at x = 0.5 * i, as the library tabulates it.
SIGMOID_STEPS = np.array([0.5, 0.62256, 0.73096, 0.81738, 0.88086, 0.92432, 0.95264, 0.9707,
                          0.98193, 0.98877, 0.99316, 0.99609, 0.99756, 0.99854, 0.99902, 1.0], F32)


def table_sigmoid(x):
    x = np.asarray(x, F32)
    a = np.abs(x)
    t = (a / F32(0.5)).astype(F32)
    top = ~(t < 15)  # 7.5 and above, infinities and not-a-number give 1.0
    t = np.where(top, F32(0), t)
    i = np.floor(t).astype(np.int64)
    f = (t - i.astype(F32)).astype(F32)
    low = SIGMOID_STEPS[i].astype(np.float64) * (1.0 - f.astype(np.float64))
    high = (SIGMOID_STEPS[np.minimum(i + 1, 15)] * f).astype(F32).astype(np.float64)
    r = np.where(top, F32(1.0), (high + low).astype(F32))
    return np.where(x < 0, (F32(1.0) - r).astype(F32), r).astype(F32)


def table_tanh(x):
    s = table_sigmoid((np.asarray(x, F32) * F32(2)).astype(F32))
    return ((s + s).astype(F32) - F32(1.0)).astype(F32)


def exact_sigmoid(x):
    return (1.0 / (1.0 + np.exp(-np.asarray(x, np.float64)))).astype(F32)


def exact_tanh(x):
    return np.tanh(np.asarray(x, np.float64)).astype(F32)


TABLE = (table_sigmoid, table_tanh)
EXACT = (exact_sigmoid, exact_tanh)


def load(directory, name):
    return np.load(f"{directory}/{name}.npy").astype(F32)


def fully_connect(x, weight, bias=None):
    out = (x @ weight).astype(F32)
    return out if bias is None else (out + bias).astype(F32)


def sqrtvar(variance):
    """What the converter stores for a batch-norm variance."""
    return np.sqrt((variance + F32(0.001)).astype(F32).astype(np.float64)).astype(F32)


def batch_normalize(m, offset, scale, mean, root):
    m = ((m - mean).astype(F32) / root).astype(F32)
    return ((m * scale).astype(F32) + offset).astype(F32)


def lstm_step(x, c, h, weight, bias, activations=TABLE):
    """One step on rows of inputs; returns the new (c, h)."""
    sigmoid, tanh = activations
    z = (np.concatenate([x, h], axis=1) @ weight).astype(F32)
    if bias is not None:
        z = (z + bias).astype(F32)
    q = z.shape[1] // 4
    i, g, f, o = (z[:, k * q:(k + 1) * q] for k in range(4))
    f = sigmoid((f + F32(1.0)).astype(F32))
    c = ((c * f).astype(F32) + (sigmoid(i) * tanh(g)).astype(F32)).astype(F32)
    return c, (tanh(c) * sigmoid(o)).astype(F32)


def lstm(sequence, weight, bias, activations=TABLE):
    """Runs a (steps x rows x inputs) sequence from zero states; returns the
    outputs of every step, (steps x rows x units)."""
    units = weight.shape[1] // 4
    c = np.zeros((sequence.shape[1], units), F32)
    h = np.zeros_like(c)
    outputs = []
    for x in sequence:
        c, h = lstm_step(x, c, h, weight, bias, activations)
        outputs.append(h)
    return np.stack(outputs)


def conv(image, weight, bias, geometry):
    """The library's convolution of one (height x width) image: one row of
    positions, the channels of a position next to each other."""
    from kelvane_export import library_axis
    g = geometry
    height, width = image.shape
    ax = library_axis(width, g.filter_w, g.stride_x, g.padding)
    ay = library_axis(height, g.filter_h, g.stride_y, g.padding)
    padded = np.zeros((ay.padded, ax.padded), F32)
    padded[ay.margin:ay.margin + height, ax.margin:ax.margin + width] = image
    out = []
    for oy in range(ay.positions):
        for ox in range(ax.positions):
            y0, x0 = ay.offset + oy * g.stride_y, ax.offset + ox * g.stride_x
            window = padded[y0:y0 + g.filter_h, x0:x0 + g.filter_w].reshape(-1)
            out.append((window @ weight).astype(F32) + bias.reshape(-1))
    return np.concatenate(out).astype(F32)
