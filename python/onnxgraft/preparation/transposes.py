"""`Transpose` of an initializer -> a transposed initializer."""

from __future__ import annotations

from onnxgraft.preparation.workpiece import Workpiece, is_standard


def fold_transposes(workpiece: Workpiece) -> int:
    """Folds those whose output is not returned by the graph; the original stays for its other readers."""
    graph, constants = workpiece.graph, workpiece.constants()
    results = {value.name for value in graph.output}
    folded = {}
    for index, node in enumerate(graph.node):
        if not is_standard(node, "Transpose") or len(node.input) != 1 or len(node.output) != 1:
            continue
        source, target = node.input[0], node.output[0]
        array = workpiece.values(constants[source]) if source in constants and target not in results else None
        axes = next((list(a.ints) for a in node.attribute if a.name == "perm"), None)
        if array is None or (axes is not None and sorted(axes) != list(range(array.ndim))):
            continue
        workpiece.add_array(array.transpose(axes), target)
        constants[target] = graph.initializer[-1]
        folded[index] = source
    workpiece.remove_nodes(folded)
    workpiece.drop_unread(set(folded.values()))
    return len(folded)
