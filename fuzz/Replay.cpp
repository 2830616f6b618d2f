// Takes the place of the search where the compiler has none: tries every file of the folders that
// are named, each as it is, cut at many places, and with many bytes changed, the same in each run.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#include "fuzz/Input.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t cuts = 20;
constexpr size_t changes = 60;
size_t tried = 0;

void attempt(const std::vector<uint8_t>& bytes) {
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  ++tried;
}

void attemptAllOf(const std::vector<uint8_t>& bytes) {
  attempt(bytes);
  const size_t step = bytes.size() / cuts + 1;
  for (size_t size = 0; size < bytes.size(); size += step) {
    attempt({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)});
  }
  std::mt19937 random(1);
  for (size_t i = 0; i < changes && !bytes.empty(); ++i) {
    std::vector<uint8_t> changed = bytes;
    for (size_t count = 0; count <= i % 3; ++count) {
      changed[random() % changed.size()] = static_cast<uint8_t>(random());
    }
    attempt(changed);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : fs::directory_iterator(argv[i])) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::ifstream in(file, std::ios::binary);
    attemptAllOf({std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()});
  }
  std::printf("%zu inputs of %zu files\n", tried, files.size());
  return tried == 0 ? 1 : 0;
}
