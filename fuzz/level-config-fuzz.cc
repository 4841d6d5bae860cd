// Fuzzes the logger's level-config reader. It reads a file, so the input is
// written to a scratch file in memory-backed storage first.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>

#include "fuzz/fuzz-file.h"
#include "lib/log/log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const tessera::fuzz::ScratchFile file("level-config");
  if (!file.Write(data, size)) return 0;
  for (bool keep_quotes : {false, true}) {
    std::unordered_map<std::string, std::string> values;
    tessera::log::ReadLevelConfig(file.path(), &values, keep_quotes);
  }
  return 0;
}
