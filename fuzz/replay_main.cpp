// Runs a fuzz target's entry point once over every file of its corpus, without
// libFuzzer, so that any compiler and any sanitizer build can replay the
// committed inputs as a fast regression test.
// Usage: replay_<target> <file or directory>...
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void Collect(const std::string& path, std::vector<std::string>& files) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files.push_back(path);
    return;
  }
  DIR* dir = opendir(path.c_str());
  if (!dir) return;
  std::vector<std::string> names;
  while (dirent* e = readdir(dir))
    if (e->d_name[0] != '.') names.push_back(e->d_name);
  closedir(dir);
  std::sort(names.begin(), names.end());
  for (const auto& n : names) Collect(path + "/" + n, files);
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) Collect(argv[i], files);
  if (files.empty()) {
    std::fprintf(stderr, "no corpus input found\n");
    return 1;
  }
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    if (!in.eof() && in.fail()) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    // Named before it runs, so a crash report says which input caused it.
    std::fprintf(stderr, "replay %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::printf("replayed %zu inputs\n", files.size());
  return 0;
}
