"""Window geometry of the library's convolution layers.

The library places its windows by its own rule, which is not PyTorch's: with
padding switched on, the input sits in a zero margin and the first window may
start inside that margin or at the first input element, depending on the
sizes. A PyTorch convolution can be exported only when its windows cover the
same input positions; these functions say where the library's windows start.
"""
import math
from dataclasses import dataclass


@dataclass(frozen=True)
class Axis:
    """One axis of the library's geometry."""

    positions: int  # number of window positions
    padded: int     # size of the zero-padded matrix (the input size without padding)
    offset: int     # start of the first window in the padded matrix
    margin: int     # place of the first input element in the padded matrix

    def starts(self, stride):
        """Window starts in input coordinates (negative: inside the margin)."""
        return [self.offset - self.margin + i * stride for i in range(self.positions)]


def library_axis(size, filter_size, stride, padding):
    """The library's geometry along one axis (padding 0: none, 1: on)."""
    if padding == 0:
        return Axis((size - filter_size) // stride + 1, size, 0, 0)
    n = int(math.ceil(size / stride))
    k = filter_size - 1 if filter_size % 2 else filter_size
    half = k // 2
    padded = size + k * padding
    rem = padded - filter_size - (n - 1) * stride
    if rem <= 0:
        offset = 0
    elif rem > half:
        offset = half
    else:
        offset = half - int(math.floor((2 * half - rem) / 2.0))
    return Axis(n, padded, offset, (k * padding) // 2)


def torch_starts(size, filter_size, stride, pad_before, pad_after):
    """Window starts of a PyTorch convolution in input coordinates."""
    n = (size + pad_before + pad_after - filter_size) // stride + 1
    return [-pad_before + i * stride for i in range(max(n, 0))]


@dataclass(frozen=True)
class ConvGeometry:
    """The arguments of the library's convolution layers for one layer, and
    the shape of its output row."""

    filter_w: int
    filter_h: int
    out_channels: int
    stride_x: int
    stride_y: int
    padding: int
    out_w: int  # window positions across
    out_h: int  # window positions down

    @property
    def out_size(self):
        """Length of the output row: out_channels * out_w * out_h."""
        return self.out_channels * self.out_w * self.out_h
