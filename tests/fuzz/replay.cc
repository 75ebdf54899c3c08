// Stands in for the fuzzer where it does not exist: runs the target once on each file of the
// directories given, and says on how many.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/fuzz.h"

// There in a build that measures what is reached; it does so when a program ends in good order.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): its name is so
extern "C" int __llvm_profile_write_file() __attribute__((weak));

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : fs::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
      std::printf("%s\n", entry.path().c_str());
      std::fflush(stdout);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      ++count;
    }
  }
  std::printf("%d inputs\n", count);
  fuzz::Require(count > 0, "there are inputs");
  // No good order: the host's threads still run.
  std::fflush(stdout);
  if (__llvm_profile_write_file != nullptr) {
    __llvm_profile_write_file();
  }
  std::_Exit(EXIT_SUCCESS);
}
