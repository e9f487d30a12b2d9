// Operators of the default domain that have no attribute of a graph type, in any version of the standard, and the
// quantize and dequantize nodes. Sorted. An operator that is missing here is looked at more closely, no more: a
// standard operator of later date costs time, not correctness.
#pragma once

#include <array>
#include <string_view>

namespace onnxgraft::py {

// clang-format off: a table
inline constexpr auto bodyless_operators = std::to_array<std::string_view>({
    "Abs", "Acos", "Acosh", "Add", "AffineGrid", "And", "ArgMax", "ArgMin", "Asin", "Asinh", "Atan", "Atanh",
    "Attention", "AveragePool", "BatchNormalization", "Bernoulli", "BitCast", "BitShift", "BitwiseAnd", "BitwiseNot",
    "BitwiseOr", "BitwiseXor", "BlackmanWindow", "Cast", "CastLike", "CausalConvWithState", "Ceil", "Celu",
    "CenterCropPad", "Clip", "Col2Im", "Compress", "Concat", "ConcatFromSequence", "Constant", "ConstantOfShape",
    "Conv", "ConvInteger", "ConvTranspose", "Cos", "Cosh", "CumProd", "CumSum", "DFT", "DeformConv", "DepthToSpace",
    "DequantizeLinear", "Det", "Div", "Dropout", "DynamicQuantizeLinear", "Einsum", "Elu", "Equal", "Erf", "Exp",
    "Expand", "EyeLike", "Flatten", "Floor", "GRU", "Gather", "GatherElements", "GatherND", "Gelu", "Gemm",
    "GlobalAveragePool", "GlobalLpPool", "GlobalMaxPool", "Greater", "GreaterOrEqual", "GridSample",
    "GroupNormalization", "HammingWindow", "HannWindow", "HardSigmoid", "HardSwish", "Hardmax", "Identity",
    "ImageDecoder", "InstanceNormalization", "IsInf", "IsNaN", "LRN", "LSTM", "LayerNormalization", "LeakyRelu",
    "Less", "LessOrEqual", "LinearAttention", "Log", "LogSoftmax", "LpNormalization", "LpPool", "MatMul",
    "MatMulInteger", "Max", "MaxPool", "MaxRoiPool", "MaxUnpool", "Mean", "MeanVarianceNormalization",
    "MelWeightMatrix", "Min", "Mish", "Mod", "Mul", "Multinomial", "Neg", "NegativeLogLikelihoodLoss",
    "NonMaxSuppression", "NonZero", "Not", "OneHot", "Optional", "OptionalGetElement", "OptionalHasElement", "Or",
    "PRelu", "Pad", "Pow", "QLinearConv", "QLinearMatMul", "QuantizeLinear", "RMSNormalization", "RNN",
    "RandomNormal", "RandomNormalLike", "RandomUniform", "RandomUniformLike", "Range", "Reciprocal", "ReduceL1",
    "ReduceL2", "ReduceLogSum", "ReduceLogSumExp", "ReduceMax", "ReduceMean", "ReduceMin", "ReduceProd", "ReduceSum",
    "ReduceSumSquare", "RegexFullMatch", "Relu", "Reshape", "Resize", "ReverseSequence", "RoiAlign",
    "RotaryEmbedding", "Round", "STFT", "Scatter", "ScatterElements", "ScatterND", "Selu", "SequenceAt",
    "SequenceConstruct", "SequenceEmpty", "SequenceErase", "SequenceInsert", "SequenceLength", "Shape", "Shrink",
    "Sigmoid", "Sign", "Sin", "Sinh", "Size", "Slice", "Softmax", "SoftmaxCrossEntropyLoss", "Softplus", "Softsign",
    "SpaceToDepth", "Split", "SplitToSequence", "Sqrt", "Squeeze", "StringConcat", "StringNormalizer", "StringSplit",
    "Sub", "Sum", "SwiGLU", "Swish", "Tan", "Tanh", "TensorScatter", "TesselDequant", "TesselQuant",
    "TfIdfVectorizer", "ThresholdedRelu", "Tile", "TopK", "Transpose", "Trilu", "Unique", "Unsqueeze", "Upsample",
    "Where", "Xor",
});
// clang-format on

}  // namespace onnxgraft::py
