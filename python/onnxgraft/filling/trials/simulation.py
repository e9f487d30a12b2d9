"""One quantized operator as standard operators on floating-point tensors, with its numbers."""

from __future__ import annotations

from typing import Any

import numpy as np
import numpy.typing as npt
import onnx
from onnx import TensorProto, helper, numpy_helper

from onnxgraft.filling.activations import HIGHEST, LOWEST
from onnxgraft.filling.operators import Quantizable
from onnxgraft.filling.origins import Origin

Array = npt.NDArray[Any]


class Simulation:
    """The replacement of one operator: nodes, and the constants that they read.

    Args:
        operator: The operator.
        origin: Its float form.
        name: The prefix of the names of all new tensors.
        element_type: That of the operator's output.
    """

    def __init__(self, operator: Quantizable, origin: Origin, name: str, element_type: int) -> None:
        self.operator = operator
        self.name = name
        self.constants: list[onnx.TensorProto] = []
        self._element_type = element_type
        self._origin = origin
        self._numbers = origin.numbers()

    @property
    def channels(self) -> tuple[int, ...]:
        """The shape of one number per output channel, as it broadcasts to the output."""
        weight = self._origin.operator.weight
        if self.operator.node.op_type == "Conv":
            return (weight.shape[0], *[1] * (weight.ndim - 2))
        return (weight.shape[-1],) if weight.ndim > 1 else ()

    def multiply_adds(self, size: int) -> int:
        """The number of multiplications for an output of `size` elements."""
        weight = self._origin.operator.weight
        if self.operator.node.op_type == "Conv":
            return size * int(weight.size // max(1, weight.shape[0]))
        return size * int(weight.shape[-2] if weight.ndim > 1 else weight.size)

    @property
    def is_correctable(self) -> bool:
        """Whether it has a bias, or can get one."""
        return self._origin.operator.bias is not None or self.operator.node.op_type != "MatMul"

    def write(self, correction: str = "") -> tuple[list[onnx.NodeProto], str]:
        """The nodes, and their output; `constants` holds afterwards the constants that these nodes read, each once.

        Args:
            correction: A tensor of shape `channels` to subtract from the result.
        """
        node, numbers, activation = self.operator.node, self._numbers, self._origin.activation
        is_convolution = node.op_type == "Conv"
        nodes: list[onnx.NodeProto] = []
        self.constants = []

        def add(op_type: str, *inputs: str, **attributes: Any) -> str:
            output = f"{self.name}_{len(nodes)}"
            nodes.append(helper.make_node(op_type, inputs, [output], **attributes))
            return output

        value = add("Cast", node.input[0], to=TensorProto.FLOAT)
        value = add("Mul", value, self._constant("scale", np.float32(activation.scale)))
        offset = self._constant("offset", np.float32(activation.offset))
        value = add("Round", add("Add", value, offset))
        value = add(
            "Clip", value, self._constant("low", np.float32(LOWEST)), self._constant("high", np.float32(HIGHEST))
        )
        if is_convolution:
            value = add("Sub", value, offset)
        weight = add("Cast", self._constant("weight", numbers.weight), to=TensorProto.FLOAT)
        product = onnx.NodeProto(op_type=node.op_type, input=[value, weight], output=[f"{self.name}_product"])
        product.attribute.extend(one for one in node.attribute if one.name not in {"alpha", "beta", "transB"})
        nodes.append(product)
        value = product.output[0]
        if numbers.bias is not None:
            bias = numbers.bias.reshape(self.channels) if is_convolution else numbers.bias
            value = add("Add", value, self._constant("bias", bias.astype(np.float32)))
        scales = numbers.scales.reshape(() if numbers.scales.size == 1 else self.channels)
        value = add("Mul", value, self._constant("scales", scales))
        if correction:
            value = add("Sub", value, correction)
        return nodes, add("Cast", value, to=self._element_type)

    def _constant(self, what: str, values: Array | np.float32) -> str:
        name = f"{self.name}_{what}"
        self.constants.append(numpy_helper.from_array(np.asarray(values), name))
        return name
