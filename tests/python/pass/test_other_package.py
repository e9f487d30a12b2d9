"""The built `quant` file alone, in a package with another framework and another look-up with the same contract."""

import shutil
import subprocess
import sys
from pathlib import Path

from onnxgraft import quant

FRAMEWORK = """
class AbstractTransformation:
    def _on_replace_subgraph(self, *_, **__):
        return True
"""
LOOK_UP = """
from onnx import numpy_helper


def get_init(graph, names):
    records = [next((t for t in graph.initializer if t.name == name), None) for name in names]
    return [None if r is None else numpy_helper.to_array(r) for r in records], records
"""
SCRIPT = """
import sys
import numpy as np
from onnx import GraphProto, numpy_helper
from elsewhere import quant
from elsewhere.abstract_transformation import AbstractTransformation

assert not any(name.startswith("onnxgraft") for name in sys.modules)
assert quant.QuantConvTransformation.__module__ == "elsewhere.quant"
assert quant._QuantTransformation.__bases__ == (AbstractTransformation,)
graph = GraphProto()
graph.initializer.append(numpy_helper.from_array(np.zeros((4, 3, 1, 1), np.float32), "w"))
graph.node.add(op_type="TesselQuant")
links = {"1": "w", "101": "w8", "104": "s"}
assert quant.QuantConvTransformation()._on_replace_subgraph(graph, [], {0: 0}, links)
assert [(t.name, t.data_type, list(t.dims)) for t in graph.initializer[1:]] == [("w8", 3, [4, 3, 1, 1]), ("s", 13, [4])]
lost = GraphProto()
quantize = lost.node.add(op_type="TesselQuant")
lost.node.add(op_type="Conv", input=["q", "w", "b"], output=["y"])
callback = quant.ReplaceConcatQuantTransformationV1()._on_replace_subgraph
assert callback(lost, [quantize], {}, {"99": "q"}, conv_bias_updated=set()) is False
print("fine")
"""


def test_quant_stands_alone(tmp_path: Path) -> None:
    package = tmp_path / "elsewhere"
    package.mkdir()
    (package / "__init__.py").touch()
    (package / "abstract_transformation.py").write_text(FRAMEWORK)
    (package / "transform_utilities.py").write_text(LOOK_UP)
    shutil.copy(str(quant.__file__), package)
    run = subprocess.run([sys.executable, "-c", SCRIPT], cwd=tmp_path, capture_output=True, text=True, check=False)
    assert (run.returncode, run.stdout) == (0, "fine\n"), run.stderr
