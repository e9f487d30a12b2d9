"""Reads the table `where` of a rule: conditions on matched nodes and tensors."""

from __future__ import annotations

from typing import Any

from onnxgraft.rules.conditions import NodeCondition, Numbers, Shape, TensorCondition
from onnxgraft.rules.expression_reader import Known, element_type, numbers
from onnxgraft.rules.place import Place

_NUMBER_KEYS = ("elements", "value", "not", "min", "max")
_TENSOR_KEYS = (*_NUMBER_KEYS, "type", "rank", "shape", "fits")
_NODE_KEYS = ("attributes", "without", "domain")


def read_conditions(
    where: Any, place: Place, known: Known
) -> tuple[tuple[NodeCondition, ...], tuple[TensorCondition, ...]]:
    """The conditions on nodes and on tensors."""
    nodes, tensors = [], []
    for key, value in place.table(where).items():
        if key == "tensor":
            for tensor, table in place.at(key).table(value).items():
                tensors.append(_tensor(tensor, table, place.at(key).at(tensor), known))
        elif key.isdecimal():
            nodes.append(_node(int(key), value, place.at(key), known))
        else:
            place.at(key).error("unknown key; write 'tensor', or the number of a node of the pattern")
    return tuple(nodes), tuple(tensors)


def _node(number: int, value: Any, place: Place, known: Known) -> NodeCondition:
    if number >= known.nodes:
        place.error(f"there is no node {number}: the pattern has nodes 0 to {known.nodes - 1}")
    table = place.table(value)
    place.keys(table, _NODE_KEYS)
    attributes: dict[str, Numbers | str] = {}
    for name, wanted in place.at("attributes").table(table.get("attributes", {})).items():
        here = place.at("attributes").at(name)
        if isinstance(wanted, str):
            attributes[name] = wanted
        elif isinstance(wanted, dict):
            here.keys(wanted, _NUMBER_KEYS)
            attributes[name] = _numbers(wanted, here)
        else:
            attributes[name] = Numbers(value=numbers(wanted, here))
    without = place.at("without").texts(table.get("without", []), "names of attributes")
    domain = table.get("domain")
    if domain is not None:
        place.at("domain").typed(domain, str, 'the name of a domain, such as ""')
    return NodeCondition(number, attributes, without, domain)


def _tensor(tensor: str, value: Any, place: Place, known: Known) -> TensorCondition:
    if tensor not in known.tensors:
        place.error(f"there is no tensor {tensor} in the pattern")
    table = place.table(value)
    place.keys(table, _TENSOR_KEYS)
    asked = _numbers(table, place)
    if asked.asks and tensor not in known.initializers:
        place.error(f"only an initializer has values to check: write '{tensor}i' in the pattern")
    types = table.get("type", [])
    ranks = table.get("rank", [])
    for rank in ranks if isinstance(ranks, list) else [ranks]:
        if place.at("rank").typed(rank, int, "a whole number, or a list of them") < 0:
            place.at("rank").error(f"expected a rank of 0 or more, not {rank}")
    fits = table.get("fits")
    if fits is not None and fits not in known.tensors:
        place.at("fits").error(f"there is no tensor {fits} in the pattern")
    return TensorCondition(
        tensor,
        asked,
        tuple(element_type(name, place.at("type")) for name in (types if isinstance(types, list) else [types])),
        tuple(ranks) if isinstance(ranks, list) else (ranks,),
        _shapes(table["shape"], place.at("shape")) if "shape" in table else (),
        fits,
    )


def _shapes(value: Any, place: Place) -> tuple[Shape, ...]:
    """One shape, or a list of shapes of which one must match."""
    if not isinstance(value, list):
        place.error(f'expected a shape such as [1, "*", 1, 1], not {value!r}')
    listed = value if value and all(isinstance(item, list) for item in value) else [value]
    for shape in listed:
        for size in shape:
            if size != "*" and (type(size) is not int or size < 0):
                place.error(f'expected sizes of 0 or more, or "*" for any, not {size!r}')
    return tuple(tuple(None if size == "*" else size for size in shape) for shape in listed)


def _numbers(table: Any, place: Place) -> Numbers:
    for key in ("not", "min", "max"):
        if key in table:
            place.at(key).typed(table[key], (int, float), "a number")
    elements = table.get("elements")
    if elements is not None and place.at("elements").typed(elements, int, "a whole number") < 0:
        place.at("elements").error(f"expected 0 or more elements, not {elements}")
    value = numbers(table["value"], place.at("value")) if "value" in table else None
    return Numbers(elements, value, table.get("not"), table.get("min"), table.get("max"))
