"""A node that calls a function of the model -> the nodes of that function, by onnx's inliner.

Exporters write a module, or an operator composed of others, as a function. Patterns name the operators inside.
"""

from __future__ import annotations

import logging
from collections.abc import Iterable, Iterator
from graphlib import CycleError, TopologicalSorter

from onnx import FunctionProto, ModelProto, NodeProto, TypeProto, checker, helper

from onnxgraft.graph import onnx_calls
from onnxgraft.graph.bodies import bodies
from onnxgraft.graph.names import all_names
from onnxgraft.preparation.workpiece import Workpiece, remove_at

LOG = logging.getLogger(__name__)

Name = tuple[str, str]  # domain and name

# A model may carry functions for these operators, so that tools without them can still compute it.
_OWN_OPERATORS = frozenset({"TesselQuant", "TesselDequant"})


def inline_functions(workpiece: Workpiece) -> int:
    """Inlines the functions that the outer graph and nested bodies call, and removes functions without a caller.

    A function for another version of an operator set than the model's stays. All functions stay if one calls itself.

    Returns:
        The number of calls that were inlined.
    """
    model = workpiece.model
    if model is None or not model.functions:
        return 0
    functions, imports = _fitting(model)
    names = {_name(function) for function in functions}
    calls = sum(name in names for name in _calls(model.graph.node))
    if not calls:
        return 0
    try:
        tuple(TopologicalSorter({_name(f): set(_calls(f.node)) & names for f in functions}).static_order())
        inlined = onnx_calls.inline_local_functions(_outline(model, functions))
    except (CycleError, RuntimeError, ValueError, checker.ValidationError) as error:
        LOG.warning("functions are not inlined: %s", " ".join(str(error).split()))
        return 0
    calls -= sum(name in names for name in _calls(inlined.graph.node))
    if calls:
        del model.graph.node[:]
        model.graph.node.extend(inlined.graph.node)
        _drop_uncalled(model, names)
        known = {_domain(entry.domain) for entry in model.opset_import}
        model.opset_import.extend(helper.make_opsetid(d, version) for d, version in imports.items() if d not in known)
        workpiece.infer_again()
    return calls


def _fitting(model: ModelProto) -> tuple[list[FunctionProto], dict[str, int]]:
    """The functions whose operator sets agree with the model's, and the operator sets of all of them together."""
    versions = {_domain(entry.domain): entry.version for entry in model.opset_import}
    fitting = []
    for function in model.functions:
        own = {_domain(entry.domain): entry.version for entry in function.opset_import}
        if function.name in _OWN_OPERATORS:
            continue
        if any(versions.get(domain, version) != version for domain, version in own.items()):
            LOG.warning("function '%s' is not inlined: it is for another version of an operator set than the "
                        "model", function.name)  # fmt: skip
            continue
        versions.update(own)
        fitting.append(function)
    return fitting, versions


def _drop_uncalled(model: ModelProto, candidates: set[Name]) -> None:
    """Removes the candidates that neither the graph nor a remaining function calls."""
    bodies_of = {_name(function): function.node for function in model.functions}
    called: set[Name] = set()
    pending = [*_calls(model.graph.node)]
    pending += [
        call for function in model.functions if _name(function) not in candidates for call in _calls(function.node)
    ]
    while pending:
        name = pending.pop()
        if name in bodies_of and name not in called:
            called.add(name)
            pending += _calls(bodies_of[name])
    gone = candidates - called
    remove_at(model.functions, [k for k, function in enumerate(model.functions) if _name(function) in gone])


def _outline(model: ModelProto, functions: list[FunctionProto]) -> ModelProto:
    """The nodes and the functions, and all other names, so that new names differ from them."""
    outline = ModelProto(ir_version=model.ir_version, opset_import=model.opset_import, functions=functions)
    outline.graph.name = model.graph.name
    outline.graph.node.extend(model.graph.node)
    outline.graph.input.extend(helper.make_value_info(name, TypeProto()) for name in sorted(all_names(model.graph)))
    return outline


def _domain(text: str) -> str:
    return "" if text == "ai.onnx" else text


def _name(called: NodeProto | FunctionProto) -> Name:
    return _domain(called.domain), called.op_type if isinstance(called, NodeProto) else called.name


def _calls(nodes: Iterable[NodeProto]) -> Iterator[Name]:
    """Operators of nodes and of the bodies nested in them."""
    for node in nodes:
        yield _name(node)
        for body in bodies(node):
            yield from _calls(body.node)
