"""Names that are not UTF-8, which onnx loads: every function names the first one, or works anyway."""

from collections.abc import Callable

import onnx
import pytest
from google.protobuf.internal import api_implementation

import onnxgraft
from helpers.small_graphs import model_of, ones
from onnxgraft.errors import HostError

FUNCTIONS: list[Callable[[onnx.ModelProto], object]] = [
    lambda model: onnxgraft.rewrite(model, ["quant_conv", "replace_quant"], details="neighbours").to_json(),
    lambda model: onnxgraft.rewrite(model, "yolov5", prepare=True),
    onnxgraft.prepare,
    lambda model: onnxgraft.find(model, "quant_conv"),
    lambda model: onnxgraft.explain(model, "quant_conv"),
    lambda model: str(onnxgraft.diff(model, model)),
    lambda model: str(onnxgraft.verify(model, model)),
]


@pytest.mark.skipif(api_implementation.Type() != "upb", reason="others refuse such a model when they read it")
@pytest.mark.parametrize(
    ("old", "new", "place"),
    [
        (b"\x02xx", b"\x02\xe9x", "node 0 (Conv): input 0"),
        (b"\x02ww", b"\x02\xe9w", "node 0 (Conv): input 1"),
        (b"\x02yy", b"\x02\xe9y", "node 0 (Conv): output 0"),
        (b"node_0", b"node_\xe9", "node 0 (Conv): name"),
        (b"Relu", b"Rel\xe9", "node 1: op"),
        (b"group", b"grou\xe9", "node 0 (Conv), attribute 0: name"),
        (b"small", b"smal\xe9", "name"),
    ],
)
def test_the_place_is_named(old: bytes, new: bytes, place: str) -> None:
    lines = ["Conv:group=1 xx ww -> yy", "Relu yy -> zz"]
    model = model_of(lines, inputs={"xx": [1, 3, 8, 8]}, outputs=["zz"], tensors={"ww": ones(4, 3, 3, 3)})
    content = model.SerializeToString()
    assert old in content
    named = 0
    for function in FUNCTIONS:
        try:
            function(onnx.ModelProto.FromString(content.replace(old, new)))
        except HostError as error:
            assert place in str(error)  # noqa: PT017
            assert "is not UTF-8" in str(error)  # noqa: PT017
            named += 1
    assert named >= (2 if place != "name" else 0)
