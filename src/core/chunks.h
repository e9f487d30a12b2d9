// A growing array that never moves what is in it: at no time are there two copies of its content, and the memory of
// each chunk is touched as it fills.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace onnxgraft::core {

template <class T>
class Chunks {
 public:
  void push_back(const T& value) {
    if ((size_ & mask) == 0) chunks_.push_back(std::make_unique_for_overwrite<T[]>(chunk_size));
    chunks_.back()[size_ & mask] = value;
    ++size_;
  }
  const T& operator[](std::size_t index) const { return chunks_[index / chunk_size][index & mask]; }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  static constexpr std::size_t chunk_size = 4096;
  static constexpr std::size_t mask = chunk_size - 1;
  std::vector<std::unique_ptr<T[]>> chunks_;
  std::size_t size_ = 0;
};

}  // namespace onnxgraft::core
