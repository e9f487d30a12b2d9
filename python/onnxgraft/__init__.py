"""Graph rewriting for quantized ONNX networks.

The classes are in three extension modules: `onnxgraft.quant` (the transformations), `onnxgraft.abstract_transformation`
(the base class with the matcher) and `onnxgraft.transform_utilities` (look-up of initializers). The other modules are
the host tool around them, whose command line is `onnxgraft`.
"""
