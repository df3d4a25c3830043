// Runs a fuzz target over kept inputs without libFuzzer, so that every build (plain and
// under the sanitizers) replays the seeds and every input that ever crashed.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::recursive_directory_iterator(argv[i]))
        if (entry.is_regular_file())
          files.push_back(entry.path());
    } else {
      files.emplace_back(argv[i]);
    }
    for (const auto& file : files) {
      std::ifstream in(file, std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
      ++inputs;
    }
  }
  std::printf("replayed %zu inputs\n", inputs);
  return inputs > 0 ? 0 : 1;  // an empty corpus is a mistake in the build, not a pass
}
