"""Every name that a graph holds."""

from onnx import GraphProto

from onnxgraft.nested_bodies import bodies


def all_names(graph: GraphProto) -> set[str]:
    """Of tensors and nodes in the graph and in all nested bodies."""
    names = {v.name for v in (*graph.input, *graph.output, *graph.value_info)}
    names |= {t.name for t in graph.initializer}
    for sparse in graph.sparse_initializer:
        names |= {sparse.values.name, sparse.indices.name}
    for annotation in graph.quantization_annotation:
        names |= {annotation.tensor_name, *(e.value for e in annotation.quant_parameter_tensor_names)}
    for node in graph.node:
        names |= {node.name, *node.input, *node.output}
        for body in bodies(node):
            names |= all_names(body)
    return names - {""}
