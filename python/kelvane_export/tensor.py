"""Writes a CNN as a model directory for kelvane's tensor modes (-3d).

Every file becomes a tensor. The library's activations are tensors of
height x width x channels, the channels of one position side by side, and
it pads explicitly on each side, so each layer's pads and strides go into
the header defines and the C code never has to work them out.
"""
import numpy as np

from .directory import ExportError
from .writer import ModelWriter, _module_name, _numpy, conv_padding


def _pair(value):
    return tuple(value) if isinstance(value, (tuple, list)) else (value, value)


def _fold(name, weight, bias, bn):
    """Folds an evaluation-mode batch norm into the layer before it.

    weight has the layer's outputs on axis 0; returns the new weight and
    bias, computed in double precision and rounded once when saved.
    """
    if bn.running_mean is None or bn.running_var is None:
        raise ExportError(f"{name}: its batch norm keeps no running statistics (track_running_stats=False); "
                          "folding needs them: train with track_running_stats=True")
    if bn.num_features != weight.shape[0]:
        raise ExportError(f"{name}: its batch norm has {bn.num_features} features, the layer "
                          f"{weight.shape[0]} outputs")
    n = bn.num_features
    gamma = _numpy(bn.weight) if bn.affine else np.ones(n)
    beta = _numpy(bn.bias) if bn.affine else np.zeros(n)
    scale = gamma / np.sqrt(_numpy(bn.running_var) + bn.eps)
    shape = (-1,) + (1,) * (weight.ndim - 1)
    return weight * scale.reshape(shape), (bias - _numpy(bn.running_mean)) * scale + beta


class TensorModelWriter(ModelWriter):
    """A CNN's model directory for `kelvane -3d`, written layer by layer from
    the input shape on, or at once from an nn.Sequential by sequential().

    Files for a layer named N:
      convolution  N_w (filter_h, filter_w, in_channels, out_channels),
                   depthwise (filter_h, filter_w, channels, 1); N_b (out_channels,)
      linear       N_w (inputs, outputs), inputs in height, width, channel
                   order when it follows a flattened tensor; N_b (outputs,)
      pooling      none
    A batch norm after a convolution or a linear layer is folded into it.

    Defines for N (write_header()): convolutions and pooling N_IN_H, N_IN_W,
    N_IN_C, N_OUT_H, N_OUT_W, N_OUT_C; convolutions and window pooling
    N_FILTER_H, N_FILTER_W, N_STRIDE_Y, N_STRIDE_X; convolutions N_PAD_TOP,
    N_PAD_BOTTOM, N_PAD_LEFT, N_PAD_RIGHT and N_DEPTHWISE (0 or 1); linear
    layers N_INPUTS and N_OUTPUTS; a ReLU after N sets N_RELU 1, and
    N_RELU_CLIP (a float literal) if it clips.
    """

    MODE = "tensors"

    def __init__(self, directory, input_shape):
        """input_shape: (height, width, channels) of the network's input."""
        super().__init__(directory)
        h, w, c = input_shape
        self._shape = (h, w, c)
        self._flat = False       # an nn.Flatten came since the last tensor
        self._pad = (0, 0, 0, 0)  # an nn.ZeroPad2d waiting for its convolution
        self._last = None         # the last layer named, for the ReLU defines

    def record(self):
        # The tensor modes neither quantise selectively nor pre-calculate
        # variances: batch norms are folded, weights take the mode's format.
        return {"mode": [self.MODE]}

    @property
    def shape(self):
        """(height, width, channels) of the activation after the last layer."""
        return self._shape

    def _geometry(self, name, **values):
        h, w, c = self._shape
        values = dict(in_h=h, in_w=w, in_c=c, **values)
        for key, value in values.items():
            self._define(name, key, value)
        self._shape = (values["out_h"], values["out_w"], values["out_c"])
        self._last = name

    def _tensor_input(self, name, what):
        if self._flat:
            raise ExportError(f"{name}: a {what} after nn.Flatten; the library's {what} takes a tensor")
        if self._pad != (0, 0, 0, 0) and what != "convolution":
            raise ExportError(f"{name}: nn.ZeroPad2d before a {what}; only a convolution takes it over")

    # -- layers ------------------------------------------------------------

    def zero_pad(self, module):
        """nn.ZeroPad2d: added to the padding of the next convolution."""
        import torch.nn as nn
        if not isinstance(module, nn.ZeroPad2d):
            raise ExportError(f"expected nn.ZeroPad2d, got {_module_name(module)}")
        left, right, top, bottom = module.padding
        if min(left, right, top, bottom) < 0:
            raise ExportError(f"nn.ZeroPad2d{tuple(module.padding)} crops; the library pads only: "
                              "crop the input before the network")
        t, b, l, r = self._pad
        self._pad = (t + top, b + bottom, l + left, r + right)

    def conv2d(self, name, module, batchnorm=None):
        """nn.Conv2d with groups 1, or depthwise (groups == in == out channels),
        and an optional nn.BatchNorm2d to fold in."""
        import torch.nn as nn
        if not isinstance(module, nn.Conv2d):
            raise ExportError(f"{name}: expected nn.Conv2d, got {_module_name(module)}")
        self._tensor_input(name, "convolution")
        h, w, c = self._shape
        if module.in_channels != c:
            raise ExportError(f"{name}: takes {module.in_channels} channels, the tensor before it has {c}")
        if tuple(module.dilation) != (1, 1):
            raise ExportError(f"{name}: dilation={tuple(module.dilation)}; the library's windows are dense: "
                              "use dilation=1")
        depthwise = module.groups != 1
        if depthwise and not module.groups == module.in_channels == module.out_channels:
            raise ExportError(f"{name}: groups={module.groups} with {module.in_channels} input and "
                              f"{module.out_channels} output channels; the library convolves with "
                              "groups=1 or depthwise (groups == in_channels == out_channels): split it "
                              "into a depthwise and a 1 x 1 convolution")
        top, bottom, left, right = (a + b for a, b in zip(self._pad, conv_padding(name, module)))
        fh, fw = module.kernel_size
        sy, sx = module.stride
        out_h = (h + top + bottom - fh) // sy + 1
        out_w = (w + left + right - fw) // sx + 1
        if out_h < 1 or out_w < 1:
            raise ExportError(f"{name}: a {fh} x {fw} window does not fit the padded {h} x {w} input; "
                              "pad more or use a smaller window")
        weight = _numpy(module.weight)  # out, in / groups, fh, fw
        bias = _numpy(module.bias) if module.bias is not None else np.zeros(module.out_channels)
        if batchnorm is not None:
            weight, bias = _fold(name, weight, bias, batchnorm)
        # depthwise: (C, 1, fh, fw) -> (fh, fw, C, 1); else (out, in, fh, fw) -> (fh, fw, in, out)
        self._save(name + "_w", weight.transpose(2, 3, 0, 1) if depthwise else weight.transpose(2, 3, 1, 0))
        self._save(name + "_b", bias)
        self._pad = (0, 0, 0, 0)
        self._geometry(name, filter_h=fh, filter_w=fw, stride_y=sy, stride_x=sx,
                       pad_top=top, pad_bottom=bottom, pad_left=left, pad_right=right,
                       depthwise=int(depthwise), out_h=out_h, out_w=out_w, out_c=module.out_channels)

    def pool(self, name, module):
        """nn.MaxPool2d, nn.AvgPool2d (windows inside the input: no padding,
        floor mode) or nn.AdaptiveAvgPool2d(1). Writes no file."""
        import torch.nn as nn
        self._tensor_input(name, "pooling")
        h, w, c = self._shape
        if isinstance(module, nn.AdaptiveAvgPool2d):
            if _pair(module.output_size) != (1, 1):
                raise ExportError(f"{name}: output_size={module.output_size}; the library's global pooling "
                                  "gives one position: use nn.AdaptiveAvgPool2d(1) or nn.AvgPool2d")
            self._geometry(name, out_h=1, out_w=1, out_c=c)
            return
        if not isinstance(module, (nn.MaxPool2d, nn.AvgPool2d)):
            raise ExportError(f"{name}: expected nn.MaxPool2d, nn.AvgPool2d or nn.AdaptiveAvgPool2d, "
                              f"got {_module_name(module)}")
        if module.ceil_mode:
            raise ExportError(f"{name}: ceil_mode=True places windows past the input; the library's pooling "
                              "keeps them inside: use ceil_mode=False or pad the input to a multiple")
        if _pair(module.padding) != (0, 0):
            raise ExportError(f"{name}: padding={module.padding}; the library pools without padding: "
                              "use padding=0")
        if isinstance(module, nn.MaxPool2d):
            if _pair(module.dilation) != (1, 1):
                raise ExportError(f"{name}: dilation={module.dilation}; the library's windows are dense")
            if module.return_indices:
                raise ExportError(f"{name}: return_indices=True; the library returns the maxima only")
        elif module.divisor_override:
            raise ExportError(f"{name}: divisor_override={module.divisor_override}; the library divides by "
                              "the window's size")
        fh, fw = _pair(module.kernel_size)
        sy, sx = _pair(module.stride if module.stride else module.kernel_size)
        if fh > h or fw > w:
            raise ExportError(f"{name}: a {fh} x {fw} window does not fit the {h} x {w} input")
        self._geometry(name, filter_h=fh, filter_w=fw, stride_y=sy, stride_x=sx,
                       out_h=(h - fh) // sy + 1, out_w=(w - fw) // sx + 1, out_c=c)

    def flatten(self, module=None):
        """nn.Flatten(): the tensor becomes one row in height, width, channel order."""
        if module is not None and (module.start_dim != 1 or module.end_dim != -1):
            raise ExportError(f"nn.Flatten({module.start_dim}, {module.end_dim}); the library flattens "
                              "a whole image: use nn.Flatten()")
        if not self._flat:  # a row stays a row
            self._tensor_input("nn.Flatten", "flattening")
            self._flat = True

    def linear(self, name, module, batchnorm=None):
        """nn.Linear after nn.Flatten (or another linear layer), with an
        optional nn.BatchNorm1d to fold in. The inputs are reordered from
        PyTorch's channel-first flattening to the tensor's order."""
        import torch.nn as nn
        if not isinstance(module, nn.Linear):
            raise ExportError(f"{name}: expected nn.Linear, got {_module_name(module)}")
        h, w, c = self._shape
        if not self._flat and h * w > 1:
            raise ExportError(f"{name}: nn.Linear on a {h} x {w} x {c} tensor; put nn.Flatten() before it")
        if module.in_features != h * w * c:
            raise ExportError(f"{name}: takes {module.in_features} inputs, the {h} x {w} x {c} tensor "
                              f"before it has {h * w * c}")
        weight = _numpy(module.weight)  # outputs x inputs
        bias = _numpy(module.bias) if module.bias is not None else np.zeros(module.out_features)
        if batchnorm is not None:
            weight, bias = _fold(name, weight, bias, batchnorm)
        # Input (ch, y, x) of PyTorch's flattening is input (y, x, ch) here.
        order = np.arange(c * h * w).reshape(c, h, w).transpose(1, 2, 0).reshape(-1)
        self._save(name + "_w", weight.T[order])
        self._save(name + "_b", bias)
        self._define(name, "inputs", module.in_features)
        self._define(name, "outputs", module.out_features)
        self._shape, self._flat, self._last = (1, 1, module.out_features), True, name

    def relu(self, module):
        """nn.ReLU, nn.ReLU6 or nn.Hardtanh(0, clip) after the last layer."""
        import torch.nn as nn
        if self._last is None:
            raise ExportError(f"{_module_name(module)} before any layer; the library's ReLU runs on a "
                              "layer's output")
        if isinstance(module, nn.ReLU):
            clip = None
        elif isinstance(module, nn.Hardtanh) and module.min_val == 0:  # nn.ReLU6 included
            clip = module.max_val
        else:
            raise ExportError(f"{self._last}: {_module_name(module)} after it; the library has ReLU, "
                              "with or without an upper clip")
        self._define(self._last, "relu", 1)
        if clip is not None:
            self._define(self._last, "relu_clip", f"{float(clip)!r}f")

    def sequential(self, net, prefix=""):
        """Writes an nn.Sequential (nested ones flattened): convolutions
        conv1, conv2, ..., pooling maxpool1, avgpool1, globalpool1, ...,
        linear layers fc1, ... (one count per kind), each name after
        `prefix`, which keeps the defines of two models in one program apart;
        batch norms fold into the layer before them, and nn.Dropout and
        nn.Identity are skipped as in evaluation."""
        import torch.nn as nn
        modules = []

        def collect(m):
            if isinstance(m, nn.Sequential):
                for child in m:
                    collect(child)
            else:
                modules.append(m)
        collect(net)
        counts = {"conv": 0, "maxpool": 0, "avgpool": 0, "globalpool": 0, "fc": 0}

        def next_name(kind):
            counts[kind] += 1
            return f"{prefix}{kind}{counts[kind]}"
        i = 0
        while i < len(modules):
            m = modules[i]
            follower = modules[i + 1] if i + 1 < len(modules) else None
            i += 1
            if isinstance(m, (nn.Conv2d, nn.Linear)):
                bn_kind = nn.BatchNorm2d if isinstance(m, nn.Conv2d) else nn.BatchNorm1d
                bn = follower if isinstance(follower, bn_kind) else None
                i += bn is not None
                write = self.conv2d if isinstance(m, nn.Conv2d) else self.linear
                write(next_name("conv" if isinstance(m, nn.Conv2d) else "fc"), m, bn)
            elif isinstance(m, (nn.MaxPool2d, nn.AvgPool2d, nn.AdaptiveAvgPool2d)):
                kind = {nn.MaxPool2d: "maxpool", nn.AvgPool2d: "avgpool"}.get(type(m), "globalpool")
                self.pool(next_name(kind), m)
            elif isinstance(m, nn.ZeroPad2d):
                self.zero_pad(m)
            elif isinstance(m, nn.Flatten):
                self.flatten(m)
            elif isinstance(m, (nn.ReLU, nn.Hardtanh)):
                self.relu(m)
            elif isinstance(m, (nn.BatchNorm1d, nn.BatchNorm2d)):
                raise ExportError(f"{_module_name(m)} after {self._last or 'the input'}; batch norms fold into "
                                  "a convolution or linear layer right before them")
            elif not isinstance(m, (nn.Dropout, nn.Identity)):
                raise ExportError(f"{_module_name(m)} after {self._last or 'the input'}: the library has no "
                                  "operator for it")

    # Matrix-mode layers have no tensor layout.
    def lstm(self, name, module):
        raise ExportError(f"{name}: an LSTM in a tensor model; export it with ModelWriter")

    def batchnorm(self, name, module, variance_name="pop_var"):
        raise ExportError(f"{name}: pass the batch norm to conv2d() or linear() of the layer before it, "
                          "which folds it in")
