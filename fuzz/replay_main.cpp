// Replays every file of a corpus folder through LLVMFuzzerTestOneInput, so a
// saved corpus runs as a regression test in builds without libFuzzer. A folder
// that is missing, unreadable or holds no input fails the run: a replay of
// nothing would pass without testing anything.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s CORPUS_DIR...\n", argv[0]);
    return 2;
  }
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    std::error_code ec;
    if (!fs::is_directory(argv[i], ec)) {
      std::fprintf(stderr, "corpus folder %s: not found\n", argv[i]);
      status = 1;
      continue;
    }
    size_t count = 0;
    for (fs::recursive_directory_iterator it(argv[i], ec), end; !ec && it != end; it.increment(ec)) {
      if (!it->is_regular_file()) continue;
      std::ifstream in(it->path(), std::ios::binary);
      if (!in) {
        std::fprintf(stderr, "%s: cannot be read\n", it->path().c_str());
        status = 1;
        continue;
      }
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
    if (ec) {
      std::fprintf(stderr, "corpus folder %s: %s\n", argv[i], ec.message().c_str());
      status = 1;
    }
    std::printf("%s: replayed %zu inputs\n", argv[i], count);
    if (count == 0) status = 1;
  }
  return status;
}
