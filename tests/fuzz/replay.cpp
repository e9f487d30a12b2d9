// Runs the fuzzer's function over files and folders of files, where the compiler has no fuzzer of its own.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int count, char** arguments) {
  std::size_t files = 0;
  for (int index = 1; index < count; ++index) {
    for (const auto& entry : std::filesystem::directory_iterator(arguments[index])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++files;
    }
  }
  std::printf("%zu inputs\n", files);
  return files == 0 ? 1 : 0;
}
