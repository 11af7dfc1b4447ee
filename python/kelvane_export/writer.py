"""Writes a model directory for kelvane from PyTorch modules.

Each layer becomes one or more .npy files (little-endian float32, row-major)
in the layouts the library's layers read; see ModelWriter for the names.
"""
import os
import re

import numpy as np

from .directory import AtomicDirectory, ExportError
from .geometry import ConvGeometry, library_axis, torch_starts

# kelvane pre-calculates sqrt(variance + 0.001) for batch-norm variances.
CONVERTER_BN_EPSILON = 0.001

_IDENTIFIER = re.compile(r"[A-Za-z_][A-Za-z0-9_]*\Z")
_WORD = re.compile(r"[A-Za-z0-9]+\Z")


def _numpy(tensor):
    return tensor.detach().cpu().numpy().astype(np.float64)


def _module_name(module):
    return type(module).__name__


def conv_padding(name, module):
    """The zero padding of an nn.Conv2d as (top, bottom, left, right).

    padding='same' pads k - 1 in all, the larger half after, as PyTorch does.
    """
    if module.padding == "valid":
        return 0, 0, 0, 0
    if module.padding == "same":
        (kh, kw), pads = module.kernel_size, []
        for k in (kh, kw):
            pads += [(k - 1) // 2, k - 1 - (k - 1) // 2]
        top, bottom, left, right = pads
    else:
        (top, left), (bottom, right) = module.padding, module.padding
    if (top or bottom or left or right) and module.padding_mode != "zeros":
        raise ExportError(f"{name}: padding_mode={module.padding_mode!r}; the library pads with zeros: "
                          "pass padding_mode='zeros' (the default)")
    return top, bottom, left, right


class ModelWriter:
    """A model directory being written, one layer per call.

    Files written, for a layer named N:
      linear     N_w (inputs x outputs), N_b (1 x outputs, if the layer has a bias)
      batchnorm  N_offset, N_scale, N_mean (1 x features each) and the variance
                 under `variance_name` (default pop_var); pass every variance
                 name to kelvane's -bnmatrices (see the bnmatrices property)
      lstm       N_w ((inputs + units) x 4*units), N_b (1 x 4*units)
      conv2d     N_w ((filter_h * filter_w) x out_channels), N_b (1 x out_channels)
    and model_info() writes _MODEL_INFO_. Names must be C identifiers, since
    they name the generated tables, and each file is written once.

    The directory is written whole: the files appear, and those of an
    earlier export go, when close() runs (or the with block ends without an
    exception), together with the record .kelvane_options of what the
    conversion needs (-bnmatrices, the weights of the quantised-weight
    form), which kelvane_add_model() reads. An error leaves the previous
    directory as it was.

    `defines` collects the sizes of the layers written so far (and whatever
    the caller adds), as C macros for write_header().
    """

    # The kelvane mode this writer's layouts are made for.
    MODE = "matrices"

    def __init__(self, directory):
        self.directory = directory
        self.defines = {}
        self._written = set()
        self._variances = []
        self._weights = []  # tables that the quantised-weight layers read as fixed point
        self._out = AtomicDirectory(directory)

    def __enter__(self):
        return self

    def __exit__(self, kind, value, traceback):
        if kind is None:
            self.close()
        else:
            self._out.discard()
        return False

    def close(self):
        """Puts the directory in place with its record; later layers are refused."""
        if self._out.open:
            self._out.commit(self.record())

    def record(self):
        """What converting this directory needs, as written to .kelvane_options."""
        return {"mode": [self.MODE],
                "bnmatrices": [self.bnmatrices] if self._variances else [],
                "quantised_weights": list(self._weights)}

    # -- files -------------------------------------------------------------

    def _save(self, name, array):
        if not _IDENTIFIER.match(name):
            raise ExportError(f"{name!r} is not a C identifier; kelvane names tables after their files")
        if name in self._written:
            raise ExportError(f"{name} is written twice: give each layer a name of its own")
        array = np.asarray(array, dtype=np.float64)
        if array.ndim == 1 and self.MODE == "matrices":
            array = array.reshape(1, -1)
        if not np.all(np.isfinite(array)):
            raise ExportError(f"{name} holds a value that is not finite")
        # The loader reads the data row-major whatever the header says, so
        # never let numpy.save write a column-major (transposed) array.
        np.save(self._out.path(name + ".npy"), np.ascontiguousarray(array.astype("<f4")))
        self._written.add(name)

    def _define(self, name, key, value):
        self.defines[f"{name}_{key}".upper()] = value

    @property
    def bnmatrices(self):
        """The argument of kelvane's -bnmatrices for this model."""
        return ",".join(self._variances)

    # -- layers ------------------------------------------------------------

    def linear(self, name, module, conv_output=None):
        """nn.Linear: weight transposed to inputs x outputs, bias as one row.

        conv_output=(channels, height, width) names the shape of a PyTorch
        convolution output that reaches this layer through nn.Flatten
        (channel-major order); the rows are then reordered to the library's
        convolution output, whose channels stand next to each other per
        position.
        """
        import torch.nn as nn
        if not isinstance(module, nn.Linear):
            raise ExportError(f"{name}: expected nn.Linear, got {_module_name(module)}")
        weight = _numpy(module.weight).T  # inputs x outputs
        if conv_output is not None:
            c, h, w = conv_output
            if c * h * w != weight.shape[0]:
                raise ExportError(f"{name}: conv_output {conv_output} has {c * h * w} values, "
                                  f"the layer takes {weight.shape[0]} inputs")
            # Row r of the library's order is position (y, x), channel ch.
            order = np.arange(c * h * w).reshape(c, h, w).transpose(1, 2, 0).reshape(-1)
            weight = weight[order]
        self._save(name + "_w", weight)
        self._weights.append(name + "_w")
        if module.bias is not None:
            self._save(name + "_b", _numpy(module.bias))
        self._define(name, "inputs", weight.shape[0])
        self._define(name, "outputs", weight.shape[1])

    def batchnorm(self, name, module, variance_name="pop_var"):
        """nn.BatchNorm1d in evaluation form: offset, scale, mean, variance.

        kelvane adds 0.001 to the variance before its root; a layer trained
        with another eps gets its variance moved by the difference, so that
        the root comes out as PyTorch's.
        """
        import torch.nn as nn
        if not isinstance(module, nn.BatchNorm1d):
            raise ExportError(f"{name}: expected nn.BatchNorm1d, got {_module_name(module)}")
        if module.running_mean is None or module.running_var is None:
            raise ExportError(f"{name}: the layer keeps no running statistics "
                              "(track_running_stats=False); the library normalises with fixed ones")
        n = module.num_features
        scale = _numpy(module.weight) if module.affine else np.ones(n)
        offset = _numpy(module.bias) if module.affine else np.zeros(n)
        variance = _numpy(module.running_var) + module.eps - CONVERTER_BN_EPSILON
        if np.any(variance < 0):
            raise ExportError(f"{name}: a running variance is below {CONVERTER_BN_EPSILON} - eps; "
                              f"the converter's fixed epsilon of {CONVERTER_BN_EPSILON} cannot reproduce "
                              "it: train with nn.BatchNorm1d(..., eps=1e-3)")
        if variance_name in self._written:
            raise ExportError(f"{name}: the variance name {variance_name} is taken by an earlier layer; "
                              f"pass variance_name= (say variance_name=\"{name}_var\")")
        self._save(name + "_offset", offset)
        self._save(name + "_scale", scale)
        self._save(name + "_mean", _numpy(module.running_mean))
        self._save(variance_name, variance)
        self._variances.append(variance_name)
        self._define(name, "size", n)

    def lstm(self, name, module):
        """A single-layer nn.LSTM as the library's cell weight and bias.

        The library joins the input and the previous output side by side and
        reads the gates as column quarters in the order input, candidate,
        forget, output (PyTorch: input, forget, candidate, output). It adds
        1.0 to the forget gate on every step, so the exported forget bias is
        lowered by 1.0.
        """
        import torch.nn as nn
        if not isinstance(module, nn.LSTM):
            raise ExportError(f"{name}: expected nn.LSTM, got {_module_name(module)}")
        if module.num_layers != 1:
            raise ExportError(f"{name}: {module.num_layers} stacked layers; the library's cell is "
                              "one layer: export each as an nn.LSTM of its own")
        if module.bidirectional:
            raise ExportError(f"{name}: bidirectional; the library's cell runs forwards only")
        if not module.bias:
            raise ExportError(f"{name}: bias=False; the library's cell adds 1.0 to the forget gate, "
                              "which a bias-free PyTorch LSTM does not")
        if getattr(module, "proj_size", 0):
            raise ExportError(f"{name}: proj_size={module.proj_size}; the library's cell has no projection")
        units = module.hidden_size
        w_ih = _numpy(module.weight_ih_l0)  # 4*units x inputs, gates i f g o
        w_hh = _numpy(module.weight_hh_l0)  # 4*units x units
        bias = _numpy(module.bias_ih_l0) + _numpy(module.bias_hh_l0)
        weight = np.concatenate([w_ih, w_hh], axis=1).T  # (inputs + units) x 4*units
        i, f, g, o = (slice(k * units, (k + 1) * units) for k in range(4))
        weight = np.concatenate([weight[:, i], weight[:, g], weight[:, f], weight[:, o]], axis=1)
        bias = np.concatenate([bias[i], bias[g], bias[f] - 1.0, bias[o]])
        self._save(name + "_w", weight)
        self._save(name + "_b", bias)
        self._weights.append(name + "_w")
        self._define(name, "inputs", module.input_size)
        self._define(name, "units", units)

    def conv2d(self, name, module, input_size):
        """A one-input-channel nn.Conv2d, or nn.Sequential(nn.ZeroPad2d,
        nn.Conv2d), on inputs of input_size = (height, width).

        The filter becomes one row per window place (row by row through the
        window) and one column per output channel. The library pads by its
        own rule; the layer is exported only if one of its two padding
        settings places the windows where PyTorch does. Returns the
        ConvGeometry, whose padding is the argument to pass to the layer.
        """
        import torch.nn as nn
        pad = (0, 0, 0, 0)  # left, right, top, bottom
        if isinstance(module, nn.Sequential) and len(module) == 2 and isinstance(module[0], nn.ZeroPad2d):
            pad = tuple(module[0].padding)
            module = module[1]
        if not isinstance(module, nn.Conv2d):
            raise ExportError(f"{name}: expected nn.Conv2d, got {_module_name(module)}")
        if module.in_channels != 1:
            raise ExportError(f"{name}: {module.in_channels} input channels; this convolution takes "
                              "one-channel matrices: export the network with TensorModelWriter for kelvane -3d")
        if module.groups != 1 or tuple(module.dilation) != (1, 1):
            raise ExportError(f"{name}: groups={module.groups}, dilation={tuple(module.dilation)}; "
                              "the library's convolution needs groups=1 and dilation=1")
        filter_h, filter_w = module.kernel_size
        stride_y, stride_x = module.stride
        height, width = input_size
        top, bottom, left, right = conv_padding(name, module)
        torch_x = torch_starts(width, filter_w, stride_x, pad[0] + left, pad[1] + right)
        torch_y = torch_starts(height, filter_h, stride_y, pad[2] + top, pad[3] + bottom)
        for padding in (0, 1):
            if padding == 0 and (filter_w > width or filter_h > height):
                continue
            ax = library_axis(width, filter_w, stride_x, padding)
            ay = library_axis(height, filter_h, stride_y, padding)
            if ax.starts(stride_x) == torch_x and ay.starts(stride_y) == torch_y:
                break
        else:
            ax = library_axis(width, filter_w, stride_x, 1)
            ay = library_axis(height, filter_h, stride_y, 1)
            raise ExportError(
                f"{name}: the library places no windows where this layer does. PyTorch starts them at "
                f"x {torch_x}, y {torch_y}; the library at x {ax.starts(stride_x)}, y {ay.starts(stride_y)} "
                "with padding and at the corner without. Pad in PyTorch with "
                "nn.ZeroPad2d((left, right, top, bottom)) to match one of them.")
        out_channels = module.out_channels
        # out x 1 x fh x fw -> (fh * fw) x out: row dy * filter_w + dx.
        weight = _numpy(module.weight).reshape(out_channels, filter_h * filter_w).T
        bias = _numpy(module.bias) if module.bias is not None else np.zeros(out_channels)
        self._save(name + "_w", weight)
        self._save(name + "_b", bias)
        self._weights.append(name + "_w")
        geometry = ConvGeometry(filter_w, filter_h, out_channels, stride_x, stride_y, padding,
                                ax.positions, ay.positions)
        for key in ("filter_w", "filter_h", "out_channels", "stride_x", "stride_y", "padding",
                    "out_w", "out_h", "out_size"):
            self._define(name, key, getattr(geometry, key))
        return geometry

    def model_info(self, words, name="model", version="v1"):
        """_MODEL_INFO_ from (word, window, threshold1, threshold2) tuples.

        Words are letters and digits; the window is 1 to 9. The library's
        detector (dl_detector_alloc_from_info) reads them so: word i's score,
        averaged over its last `window` network runs (earlier runs count as
        0), fires the word when it reaches threshold1, and re-arms it once the
        average has fallen below threshold2, normally the lower one.
        """
        fields = [name, version]
        for field in fields:
            if not _WORD.match(field):
                raise ExportError(f"_MODEL_INFO_: {field!r} must be letters and digits")
        if not words:
            raise ExportError("_MODEL_INFO_ needs at least one word")
        for word, window, first, second in words:
            if not _WORD.match(word):
                raise ExportError(f"_MODEL_INFO_: word {word!r} must be letters and digits")
            if not (isinstance(window, int) and 1 <= window <= 9):
                raise ExportError(f"_MODEL_INFO_: window {window!r} of {word} must be 1 to 9")
            fields += [word, str(window), f"{first:g}", f"{second:g}"]
        with open(self._out.path("_MODEL_INFO_"), "w") as f:
            f.write("_".join(fields) + "\n")

    # -- beside the model --------------------------------------------------

    def write_header(self, path, guard=None, comment=None, notes=None):
        """Writes `defines` as a C header, e.g. for firmware that needs the
        layer sizes, the convolution geometry and the shifts of the
        fixed-point layers. notes maps a define to a comment on its line,
        such as the headroom that calibration measured for a shift."""
        guard = guard or re.sub(r"\W", "_", os.path.basename(path)).upper()
        notes = notes or {}
        lines = [f"/* {comment} */"] if comment else []
        lines += [f"#ifndef {guard}", f"#define {guard}", ""]
        # Values and comments aligned in columns, as the project's format has them.
        width = max((len(key) for key in self.defines), default=0)
        body = [f"#define {key:<{width}} {value}" for key, value in self.defines.items()]
        column = max((len(line) for line, key in zip(body, self.defines) if key in notes), default=0) + 1
        lines += [f"{line:<{column}}/* {notes[key]} */" if key in notes else line
                  for line, key in zip(body, self.defines)]
        lines += ["", f"#endif /* {guard} */", ""]
        with open(path, "w") as f:
            f.write("\n".join(lines))
