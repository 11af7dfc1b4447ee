"""kelvane_export: PyTorch modules to a kelvane model directory.

    from kelvane_export import ModelWriter
    with ModelWriter("model") as out:
        out.lstm("lstm", net.lstm)
        out.linear("fc", net.fc)
        out.model_info([("yes", 3, 0.8, 0.6), ("no", 3, 0.8, 0.6)])

then `kelvane model kws.c kws.h kws`, or kelvane_add_model() in CMake, which
reads the options the directory needs (-bnmatrices, -3d) from the record
.kelvane_options that the writer leaves in it. A CNN goes through
TensorModelWriter for `kelvane -3d`:

    with TensorModelWriter("cnn", input_shape=(49, 10, 1)) as out:
        out.sequential(net)
        out.write_header("cnn_net.h")
"""
from .directory import OPTIONS_FILE, ExportError, read_record
from .geometry import ConvGeometry, library_axis
from .tensor import TensorModelWriter
from .writer import CONVERTER_BN_EPSILON, ModelWriter

__all__ = ["ModelWriter", "TensorModelWriter", "ExportError", "ConvGeometry", "library_axis",
           "CONVERTER_BN_EPSILON", "OPTIONS_FILE", "read_record"]
