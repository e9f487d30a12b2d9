"""`delete_concat`: two convolutions with a part of the weight each, where one had the whole.

Finishing splits the numbers; their float values are split in the same way.
"""

from __future__ import annotations

from dataclasses import replace

import onnx

from onnxgraft.filling.filler import Call, Filler

_WEIGHT, _OUTPUTS = "6", ("100", "101")


def delete_concat(filler: Filler, call: Call) -> bool:
    """Remembers the occurrence until its weight is split, which is after the step."""
    if not call.proceed():
        return False
    origin = filler.origins.pop(call.links[_WEIGHT], None)
    if origin is None:
        return True
    outputs = [call.links[name] for name in _OUTPUTS]

    def split(graph: onnx.GraphProto) -> None:
        writers = {node.output[0]: node for node in graph.node if node.op_type == "Conv"}
        shapes = {tensor.name: list(tensor.dims) for tensor in graph.initializer}
        start = 0
        for number, output in enumerate(outputs):
            if output not in writers:  # the step was undone
                filler.origins[call.links[_WEIGHT]] = origin
                return
            weight = writers[output].input[1]
            end = start + shapes[weight][1]
            operator = replace(
                origin.operator,
                weight=origin.operator.weight[:, start:end],
                bias=None if origin.operator.bias is None else origin.operator.bias * (number == 0),
                exact=None,
            )
            correction = origin.correction if number == 0 else None
            filler.origins[weight] = replace(origin, operator=operator, correction=correction)
            start = end

    filler.after_step(split)
    return True
