// The list of all rows; its order is the order of `vars(quant)`.
//
// A class of this list must come after its bases. A new transformation needs a line here and a row in a header of this
// folder.
#include "quant/catalogue/catalogue.h"

#include <array>

#include "quant/catalogue/concat_pull_up.h"
#include "quant/catalogue/quant_fusion.h"
#include "quant/catalogue/quant_pull_up.h"
#include "quant/catalogue/quant_update.h"
#include "quant/catalogue/quantized_operators.h"
#include "quant/catalogue/structure.h"

namespace onnxgraft::quant {

namespace {

constexpr std::array all{
    &rows::fuse_quant_any::row,  &rows::change_quant::row,       &rows::update_quant::row, &rows::pull_up::row,
    &rows::change_quant_v2::row, &rows::concat_v1::row,          &rows::concat_v2::row,    &rows::concat_v3::row,
    &rows::concat_v4::row,       &rows::concat_v5::row,          &rows::concat_v6::row,    &rows::concat_v7::row,
    &rows::concat_v8::row,       &rows::concat_v9::row,          &rows::concat_v10::row,   &rows::change_pool::row,
    &rows::delete_concat::row,   &rows::fuse_normalization::row, &rows::resize_quant::row, &rows::simplify_shape::row,
    &rows::quantize_base::row,   &rows::quant_conv::row,         &rows::quant_matmul::row, &rows::quant_gemm::row,
};
static_assert(all.size() == 24);

}  // namespace

std::span<const py::ClassRow* const> catalogue() { return all; }

}  // namespace onnxgraft::quant
