"""A NumPy forward pass of the library's layers, written from their
definitions, to check exported arrays against PyTorch without any C code.

Float32 throughout, as in the library, with exact activations where the
library interpolates a table; the sums of the products are NumPy's, so
results agree with the library's layout and formulas, not to the bit.
"""
import numpy as np

F32 = np.float32


def sigmoid(x):
    return (1.0 / (1.0 + np.exp(-np.asarray(x, np.float64)))).astype(F32)


def tanh(x):
    return np.tanh(np.asarray(x, np.float64)).astype(F32)


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


def lstm_step(x, c, h, weight, bias):
    """One step on rows of inputs; returns the new (c, h)."""
    z = (np.concatenate([x, h], axis=1) @ weight).astype(F32)
    if bias is not None:
        z = (z + bias).astype(F32)
    q = z.shape[1] // 4
    i, g, f, o = (z[:, k * q:(k + 1) * q] for k in range(4))
    f = sigmoid((f + F32(1.0)).astype(F32))
    c = ((c * f).astype(F32) + (sigmoid(i) * tanh(g)).astype(F32)).astype(F32)
    return c, (tanh(c) * sigmoid(o)).astype(F32)


def lstm(sequence, weight, bias):
    """Runs a (steps x rows x inputs) sequence from zero states; returns the
    outputs of every step, (steps x rows x units)."""
    units = weight.shape[1] // 4
    c = np.zeros((sequence.shape[1], units), F32)
    h = np.zeros_like(c)
    outputs = []
    for x in sequence:
        c, h = lstm_step(x, c, h, weight, bias)
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


# -- tensors: height x width x channels, the channels of a position adjacent --

def pad_hwc(x, top, bottom, left, right):
    """Zero padding by sides."""
    return np.pad(x, ((top, bottom), (left, right), (0, 0))).astype(F32)


def _windows(x, fh, fw, sy, sx):
    """The windows of x as (out_h, out_w, fh, fw, c), top-left first."""
    out_h, out_w = (x.shape[0] - fh) // sy + 1, (x.shape[1] - fw) // sx + 1
    return np.stack([np.stack([x[oy * sy:oy * sy + fh, ox * sx:ox * sx + fw] for ox in range(out_w)])
                     for oy in range(out_h)])


def conv_hwc(x, weight, bias, stride, pads):
    """A convolution with a (fh, fw, in, out) filter bank, or a depthwise one
    with (fh, fw, C, 1); stride (y, x), pads (top, bottom, left, right)."""
    fh, fw, c, n = weight.shape
    win = _windows(pad_hwc(x, *pads), fh, fw, *stride)
    if n == 1 and c == x.shape[2] and c > 1:  # depthwise: window products per channel
        out = (win * weight[:, :, :, 0]).astype(F32).sum(axis=(2, 3), dtype=F32)
    else:
        out = win.reshape(win.shape[0], win.shape[1], -1) @ weight.reshape(-1, n)
    return (out.astype(F32) + bias.reshape(-1)).astype(F32)


def max_pool_hwc(x, size, stride):
    return _windows(x, *size, *stride).max(axis=(2, 3))


def avg_pool_hwc(x, size, stride):
    win = _windows(x, *size, *stride)
    return (win.sum(axis=(2, 3), dtype=F32) / F32(size[0] * size[1])).astype(F32)


def global_avg_pool_hwc(x):
    return avg_pool_hwc(x, x.shape[:2], (1, 1))


def flatten_hwc(x):
    """The tensor as one row, height, width, channel order."""
    return x.reshape(1, -1)
