"""Chooses the shifts of a network's fixed-point layers from representative
inputs.

The network is described as the firmware runs it, one entry per library
call, over the tables of a model directory as kelvane's default mode writes
them (every table quantised, the batch-norm variances through their square
root):

    from kelvane_export.calibrate import calibrate, Quantise, Linear, BatchNorm, Relu
    result = calibrate("model", [Quantise(), Linear("fc1"), BatchNorm("bn1", variance="bn1_var"),
                                 Relu(), Linear("fc2")], x_train)
    out.defines.update(result.shifts)
    out.write_header("net.h", notes=result.notes)

calibrate() runs the batch through the library's own fixed-point arithmetic
(fixedpoint.py, bit for bit the C library's) layer by layer. For a layer with
a shift it takes the largest shift under which no record of the batch comes
within `margin` bits of saturating (an item at most 32767 / 2^margin) in the
results the shift governs: a product and its bias, a batch norm's quotient
and its result, an LSTM's gate inputs. A record of gate inputs whose
saturation level (32767 items) stands for `gate_range` (8.0) or more may
saturate: the library's sigmoid is 1.0 from 7.5 on and its tanh from 3.75,
so a clipped input acts as the exact one would. The next layer is then
calibrated on the outputs of the shift chosen. A layer that saturates even
with shift 0 keeps 0 and is marked in the table.

The table printed has, per layer: the shift, the exponents of its outputs
over the batch, the bits their largest items use (the library's sanity check
warns at 10 or fewer), the share of saturated items, and the headroom in
bits between the largest item and 32767.
"""
import math
import sys
from dataclasses import dataclass, field

import numpy as np

from . import fixedpoint as fx

GATE_RANGE = 8.0
SANITY_BITS = 10  # dl_matrixq_check_sanity warns at this many bits or fewer


def _table(layer, directory, name, variance=False):
    """A fixed-point table of the layer, noting an all-zero one: the quantiser
    gives it exponent 0, and a sum with it takes that exponent, leaving the
    layer's results a few items at most."""
    table = fx.load_table(directory, name, variance=variance)
    if not table.items.any():
        layer.zero_tables = getattr(layer, "zero_tables", []) + [name]
    return table


def _bits(items):
    """Bits of the largest magnitude of each record (0 for an all-zero one)."""
    peak = np.abs(items).reshape(len(items), -1).max(axis=1)
    return np.array([int(p).bit_length() for p in peak])


class Layer:
    """One library call. Layers with a shift name the C define that carries
    it; pass shift= to fix it instead of calibrating it."""

    define = None
    shift = None
    checked = slice(0)  # the records of run()'s list that the library's layer checks for sanity

    def load(self, directory):
        """Reads the layer's tables from the model directory."""

    def max_shift(self, x):
        return 0

    def run(self, x, shift, limit=None):
        """The outputs for a batch, and the records the shift governs as
        (record, harmless): harmless None, or per record whether saturating
        it changes nothing downstream. Given a limit, a layer may stop early
        and return None for its outputs once a record goes beyond it."""
        raise NotImplementedError


class Quantise(Layer):
    """dl_matrixq_from_matrix2d on each input (for an LSTM: the whole
    sequence at once, one exponent for all its steps)."""

    name = "quantise"

    def run(self, x, shift, limit=None):
        return fx.quantise(x), []


class Relu(Layer):
    """dl_relu / dl_relu_q with a clip, dl_relu_noclip / _q without."""

    def __init__(self, clip=None):
        self.clip = clip
        self.name = "relu" if clip is None else f"relu {clip:g}"

    def run(self, x, shift, limit=None):
        if isinstance(x, fx.QBatch):
            return (fx.relu_noclip_q(x) if self.clip is None else fx.relu_q(x, self.clip)), []
        return fx.relu_f(x, self.clip), []


class Sigmoid(Layer):
    name = "sigmoid"

    def run(self, x, shift, limit=None):
        return fx.sigmoid_q(x), []


class Tanh(Layer):
    name = "tanh"

    def run(self, x, shift, limit=None):
        return fx.tanh_q(x), []


class Linear(Layer):
    """dl_fully_connect_layer_q with the tables NAME_w and NAME_b (bias=False
    for none); its shift goes to the define NAME_SHIFT unless named."""

    def __init__(self, name, define=None, bias=True, shift=None):
        self.name, self.bias, self.shift = name, bias, shift
        self.define = define or f"{name.upper()}_SHIFT"

    def load(self, directory):
        self.w = _table(self, directory, self.name + "_w")
        self.b = _table(self, directory, self.name + "_b") if self.bias else None

    def max_shift(self, x):
        return fx.product_shift(x.items.shape[2])

    def run(self, x, shift, limit=None):
        product = fx.dot(x, self.w, shift)
        if self.b is None:
            return product, [(product, None)]
        out = fx.add(product, self.b, 1)
        return out, [(product, None), (out, None)]


class BatchNorm(Layer):
    """dl_batch_normalize_q with NAME_offset, NAME_scale, NAME_mean and the
    variance table (converted with -bnmatrices); the shift is the
    division's, 0 to 16."""

    checked = slice(0, 1)  # the quotient

    def __init__(self, name, variance="pop_var", define=None, shift=None):
        self.name, self.variance, self.shift = name, variance, shift
        self.define = define or f"{name.upper()}_SHIFT"

    def load(self, directory):
        self.offset, self.scale, self.mean = (_table(self, directory, f"{self.name}_{part}")
                                              for part in ("offset", "scale", "mean"))
        self.root = _table(self, directory, self.variance, variance=True)

    def max_shift(self, x):
        return 16

    def run(self, x, shift, limit=None):
        stages = {}
        out = fx.batch_normalize_q(x, self.offset, self.scale, self.mean, self.root, shift, stages)
        return out, [(stages["div"], None), (out, None)]


class Lstm(Layer):
    """dl_basic_lstm_layer_q over the rows of each input (one row a time
    step), states starting at zero with exponent -31; the output is the last
    step's state_h. Tables NAME_w and NAME_b; define NAME_SHIFT."""

    checked = slice(None)

    def __init__(self, name, define=None, shift=None, gate_range=GATE_RANGE):
        self.name, self.shift, self.gate_range = name, shift, gate_range
        self.define = define or f"{name.upper()}_SHIFT"

    def load(self, directory):
        self.w = _table(self, directory, self.name + "_w")
        self.b = _table(self, directory, self.name + "_b")

    def max_shift(self, x):
        return fx.product_shift(self.w.items.shape[1])

    def run(self, x, shift, limit=None):
        # Beyond gate_range the activations are flat: a record whose
        # saturation level stands for gate_range or more saturates harmlessly.
        # A record that saturates harmfully ends the run early (None).
        n, units = len(x.items), self.w.items.shape[2] // 4
        c = h = fx.QBatch(np.zeros((n, 1, units), np.int64), np.full(n, -31))
        stages = []
        for t in range(x.items.shape[1]):
            gates = []
            c, h = fx.lstm_step_q(x.rows(t, t + 1), c, h, self.w, self.b, shift, gates)
            for g in gates:
                stages.append((g, fx.ITEM_MAX * fx.pow2f(g.exponent).astype(np.float64) >= self.gate_range))
            if limit is not None and max(_peak(r, harmless, limit) for r, harmless in stages) > limit:
                return None, stages
        return h, stages


class Conv2d(Layer):
    """dl_basic_conv_layer_quantised_weight on float inputs (N, rows,
    columns) with the fixed-point filter NAME_w and the bias NAME_b turned
    back to floats (the fixed-point conversion quantises it too); geometry is
    what ModelWriter.conv2d returned. Float outputs."""

    def __init__(self, name, geometry):
        self.name, self.geometry = name, geometry

    def load(self, directory):
        self.w = _table(self, directory, self.name + "_w")
        # A float bias: zeros are harmless here.
        self.b = fx.load_table(directory, self.name + "_b").floats()[0]

    def run(self, x, shift, limit=None):
        g = self.geometry
        return fx.conv_quantised_weight(x, self.w, self.b, g.filter_w, g.filter_h, g.out_channels,
                                        g.stride_x, g.stride_y, g.padding), []


@dataclass
class Row:
    """What calibration measured for one layer."""

    name: str
    define: str = None
    shift: int = None
    exponents: tuple = None    # lowest and highest output exponent
    bits: tuple = None         # fewest and most bits used by a record
    saturated: float = 0.0     # share of items at +-32767
    headroom: float = None     # bits between the largest item and 32767 (harmless saturation included)
    fits: bool = True          # the margin was met
    few_bits: bool = False     # a record the layer checks uses SANITY_BITS or fewer


@dataclass
class Calibration:
    """calibrate()'s result: shifts and notes by define, the table rows, and
    the network's fixed-point outputs for the batch."""

    margin: float
    count: int
    rows: list = field(default_factory=list)
    shifts: dict = field(default_factory=dict)
    notes: dict = field(default_factory=dict)
    zero_tables: list = field(default_factory=list)
    outputs: object = None

    def table(self):
        lines = [f"calibrated on {self.count} inputs, margin {self.margin:g} bit(s)",
                 f"{'layer':<12} {'shift':>5} {'exponent':>10} {'bits used':>10} {'saturated':>10} {'headroom':>9}"]
        for r in self.rows:
            if r.exponents is None:
                lines.append(f"{r.name:<12} {'':>5} {'float':>10}")
                continue
            shift = "" if r.shift is None else str(r.shift)
            exps = _span(r.exponents)
            bits = _span(r.bits) + (" *" if r.few_bits else "")
            room = "" if r.headroom is None else f"{r.headroom:.2f}" + ("" if r.fits else " !")
            lines.append(f"{r.name:<12} {shift:>5} {exps:>10} {bits:>10} {100 * r.saturated:>9.2f}% {room:>9}")
        if not all(r.fits for r in self.rows):
            lines.append("! saturates on this batch even with the smallest right shift (shift 0)")
        for name in self.zero_tables:
            lines.append(f"{name} is all zeros: at its exponent 0 it swamps the fixed-point results it meets "
                         "(a bias: leave it out, bias=False in PyTorch and NULL in C)")
        if any(r.few_bits for r in self.rows):
            lines.append(f"* some records use {SANITY_BITS} bits or fewer: the layer's sanity check warns about them")
        return "\n".join(lines)


def _span(pair):
    lo, hi = pair
    return str(lo) if lo == hi else f"{lo}..{hi}"


def _batch(inputs):
    x = np.asarray(inputs, np.float32)
    if x.ndim == 2:
        x = x[:, None, :]
    if len(x) == 0:
        raise ValueError("calibration needs at least one input")
    if not np.isfinite(x).all():
        raise ValueError("calibration inputs must be finite: the quantiser has no item for NaN or infinity")
    return x


def forward(directory, layers, inputs, shifts):
    """The network's outputs for the inputs with the given shifts (by
    define), as the library computes them: a QBatch for a fixed-point end."""
    x = _batch(inputs)
    for layer in layers:
        layer.load(directory)
        x, _ = layer.run(x, shifts[layer.define] if layer.define else 0)
    return x


def calibrate(directory, layers, inputs, margin=1.0, out=sys.stdout):
    """Chooses the shift of every layer with a define, in order, from the
    float inputs (N, rows, columns), or (N, features) for one row each.
    Prints the table to out (None: silent) and returns a Calibration."""
    x = _batch(inputs)
    result = Calibration(margin, len(x))
    # An item at +-32767 may have been clipped: with no margin, the largest
    # item that surely was not is 32766.
    limit = min(fx.ITEM_MAX / 2.0 ** margin, fx.ITEM_MAX - 1)
    for layer in layers:
        layer.zero_tables = []
        layer.load(directory)
        result.zero_tables += layer.zero_tables
        if layer.define is None or layer.shift is not None:
            candidates = [layer.shift or 0]
        else:
            candidates = list(range(layer.max_shift(x), -1, -1))
        for shift in candidates:
            last = shift == candidates[-1]
            y, stages = layer.run(x, shift, None if last else limit)
            peak = max((_peak(record, harmless, limit) for record, harmless in stages), default=0.0)
            if peak <= limit:
                break
        row = Row(layer.name)
        if isinstance(y, fx.QBatch):
            governed = [record for record, _ in stages] or [y]
            row.exponents = (int(y.exponent.min()), int(y.exponent.max()))
            bits = np.concatenate([_bits(r.items) for r in governed])
            row.bits = (int(bits.min()), int(bits.max()))
            checked = [record for record, _ in stages][layer.checked]
            row.few_bits = any(_bits(r.items).min() <= SANITY_BITS for r in checked)
            items = sum(r.items.size for r in governed)
            row.saturated = sum(int((np.abs(r.items) == fx.ITEM_MAX).sum()) for r in governed) / max(items, 1)
        if layer.define is not None:
            row.define, row.shift = layer.define, shift
            # The headroom of the items as they are, harmless saturation included.
            largest = max((_peak(record, None, limit) for record, _ in stages), default=0.0)
            row.headroom = math.log2(fx.ITEM_MAX / largest) if largest > 0 else math.inf
            row.fits = peak <= limit
            note = f"{row.headroom:.2f} bits of headroom on {result.count} calibration inputs"
            if not row.fits:
                note += ", saturating"
            elif largest > limit:
                note += f" (gate inputs may saturate beyond {layer.gate_range:g})"
            result.shifts[layer.define] = shift
            result.notes[layer.define] = note
        result.rows.append(row)
        x = y
    result.outputs = x
    if out is not None:
        print(result.table(), file=out)
    return result


def _peak(record, harmless, limit):
    """The largest magnitude among the items; in the records where
    saturating is harmless, counted up to limit."""
    mag = np.abs(record.items).astype(np.float64)
    if harmless is not None:
        mag = np.where(np.asarray(harmless)[:, None, None], np.minimum(mag, limit), mag)
    return float(mag.max()) if mag.size else 0.0
