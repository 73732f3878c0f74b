// Corpus replay: feeds every file of the given directories (or single files) to the fuzz
// target once, so a normal test run re-checks every input the fuzzer ever kept.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    fs::path const path(argv[i]);
    if (fs::is_directory(path)) {
      for (auto const& entry : fs::directory_iterator(path)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else {
      files.push_back(path);
    }
  }
  // Sorted, so that a failure names the same input on every run.
  std::sort(files.begin(), files.end());
  for (auto const& file : files) {
    std::ifstream stream(file, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(stream)),
                               std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  std::printf("replayed %zu inputs\n", files.size());
  return files.empty() ? 1 : 0;
}
