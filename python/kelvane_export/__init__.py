"""kelvane_export: PyTorch modules to a kelvane model directory.

    from kelvane_export import ModelWriter
    out = ModelWriter("model")
    out.lstm("lstm", net.lstm)
    out.linear("fc", net.fc)
    out.model_info([("yes", 3, 0.8, 0.6), ("no", 3, 0.8, 0.6)])

then `kelvane model kws.c kws.h kws` (add `-bnmatrices out.bnmatrices` when
the model has batch normalisation under other names than pop_var).
"""
from .geometry import ConvGeometry, library_axis
from .writer import CONVERTER_BN_EPSILON, ExportError, ModelWriter

__all__ = ["ModelWriter", "ExportError", "ConvGeometry", "library_axis", "CONVERTER_BN_EPSILON"]
