"""The filling of each family of transformations: THE table."""

from __future__ import annotations

from typing import Any

from onnxgraft import quant
from onnxgraft.filling.filler import Handler
from onnxgraft.filling.handlers.batch_normalization import fuse_normalization
from onnxgraft.filling.handlers.concat_deletion import delete_concat
from onnxgraft.filling.handlers.concat_order import keep_order
from onnxgraft.filling.handlers.float_again import make_float_again
from onnxgraft.filling.handlers.merging import merge
from onnxgraft.filling.handlers.quantizing import quantize
from onnxgraft.filling.handlers.updating import update

# The first class that a transformation is an instance of counts. Classes that are not listed change no numbers.
HANDLERS: tuple[tuple[type[Any], Handler], ...] = (
    (quant.QuantConvTransformation, quantize),
    (quant.QuantGemmTransformation, quantize),
    (quant.QuantMatMulTransformation, quantize),
    (quant.FuseQuantBatchNormTransformation, fuse_normalization),
    (quant.FuseTesselQuantAnyTransformation, merge),
    (quant.UpdateTesselQuantTransformation, update),
    (quant.ReplaceConcatQuantTransformationV1, keep_order),
    (quant.DeleteConcatTransformation, delete_concat),
    (quant.ChangeGAPCONVTransformation, make_float_again),
)
