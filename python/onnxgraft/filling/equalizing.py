"""Divides channels by factors where they are made, and multiplies the weights that read them: the function stays."""

from __future__ import annotations

from dataclasses import dataclass, field, replace
from typing import TYPE_CHECKING, Any

import numpy as np
import numpy.typing as npt
import onnx

from onnxgraft.calibration.equalizing import ELEMENTWISE, Equalizable, equalizable
from onnxgraft.filling import graph_edits
from onnxgraft.graph.names import all_names
from onnxgraft.io.weight_store import WeightStore
from onnxgraft.transform_utilities import get_init

if TYPE_CHECKING:
    from onnxgraft.calibration import Calibration, Range

Array = npt.NDArray[Any]


@dataclass
class Renamed:
    """Tensors that hold other values now, and have other names.

    Attributes:
        names: Their new names by their names before.
        ranges: The known ranges of those that quantized operators read, by their new names.
        outside: The share of their values that the ranges leave out.
    """

    names: dict[str, str] = field(default_factory=dict)
    ranges: dict[str, Range] = field(default_factory=dict)
    outside: dict[str, float] = field(default_factory=dict)

    def applied(self, calibration: Calibration) -> Calibration:
        """The calibration of the changed model."""
        ranges, outside = {**calibration.ranges, **self.ranges}, {**calibration.outside, **self.outside}
        return replace(calibration, ranges=ranges, outside=outside)


def equalize(graph: onnx.GraphProto, calibration: Calibration, store: WeightStore | None = None) -> Renamed:
    """Changes weights, constants and the names of the tensors between them in place."""
    renamed = Renamed()
    places = [place for place in equalizable(graph) if _is_known(place, calibration)]
    if not places:
        return renamed
    taken = all_names(graph)
    for place in places:
        known = calibration.equalized[place.tensor]
        factors = np.asarray(known.factors, np.float64)
        for node, position in place.divided:
            along = (-1, *[1] * (place.rank - 1 if node.op_type == "Conv" and position == 1 else 0))
            if node.op_type in ELEMENTWISE:
                along = (1, -1, *[1] * (place.rank - 2))
            shaped = factors.reshape(along)
            _scale(graph, node, position, shaped if node.op_type == "Div" else 1 / shaped, taken, store)
        for node in place.readers:
            weight = get_init(graph, (node.input[1],))[0][0]
            repeated = np.repeat(factors, len(weight) // place.channels)
            _scale(graph, node, 1, repeated.reshape(-1, *[1] * (place.rank - 1)), taken, store)
        for name in place.between:
            renamed.names[name] = _fresh(f"{name}_equalized", taken)
        tensor = renamed.names[place.tensor]
        renamed.ranges[tensor], renamed.outside[tensor] = known.range, known.outside
    _rename(graph, renamed.names)
    return renamed


def _is_known(place: Equalizable, calibration: Calibration) -> bool:
    """Whether there are factors for it, and no weights whose INT8 numbers must stay."""
    known = calibration.equalized.get(place.tensor)
    touched = {node.input[position] for node, position in place.divided} | {node.input[1] for node in place.readers}
    return known is not None and len(known.factors) == place.channels and not touched & calibration.weights.keys()


def _scale(
    graph: onnx.GraphProto,
    node: onnx.NodeProto,
    position: int,
    factors: Array,
    taken: set[str],
    store: WeightStore | None,
) -> None:
    """Multiplies a constant input; a constant with other readers stays as it is."""
    name = node.input[position]
    values = get_init(graph, (name,))[0][0]
    scaled = np.asarray(values * factors, values.dtype)
    if sum(list(other.input).count(name) for other in graph.node) > 1:
        name = _fresh(f"{name}_equalized", taken)
        node.input[position] = name
    graph_edits.put(graph, name, scaled, store)


def _rename(graph: onnx.GraphProto, names: dict[str, str]) -> None:
    for node in graph.node:
        if not node.name and node.output[0] in names:  # messages still name it by its former output
            node.name = node.output[0]
        for texts in (node.input, node.output):
            for position, name in enumerate(texts):
                if name in names:
                    texts[position] = names[name]
    for value in graph.value_info:
        value.name = names.get(value.name, value.name)


def _fresh(wanted: str, taken: set[str]) -> str:
    name, number = wanted, 1
    while name in taken:
        name, number = f"{wanted}_{number}", number + 1
    taken.add(name)
    return name
