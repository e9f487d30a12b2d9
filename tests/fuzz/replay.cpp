// Runs the fuzzer's function over all files of the given folders, for compilers that have no fuzzer. Every ctest run
// replays the corpus this way. Fails if there was no file, since a wrong path would pass otherwise.
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
