// Replays a fuzz target's corpus without libFuzzer: every regular file below the directories (or the files)
// named on the command line goes once through LLVMFuzzerTestOneInput, in name order. A target's checks abort
// the process on a fault, so getting to the end is the pass. Finding no input at all is a failure: a corpus
// that went missing must not pass unnoticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);

  namespace fs = std::filesystem;
  std::vector<fs::path> inputs;
  for (int i = 1; i < argc; ++i) {
    const fs::path given(argv[i]);
    if (fs::is_directory(given)) {
      for (const auto& entry : fs::recursive_directory_iterator(given)) {
        if (entry.is_regular_file()) inputs.push_back(entry.path());
      }
    } else if (fs::is_regular_file(given)) {
      inputs.push_back(given);
    } else {
      std::fprintf(stderr, "replay: %s is neither a file nor a directory\n", argv[i]);
      return 2;
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs (usage: %s <corpus directory or file>...)\n", argv[0]);
    return 2;
  }
  std::sort(inputs.begin(), inputs.end());

  for (const auto& path : inputs) {
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
      std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 2;
    }
    std::fprintf(stderr, "replay: %s\n", path.filename().c_str());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "replay: %zu inputs passed\n", inputs.size());
  return 0;
}
