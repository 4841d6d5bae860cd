// A module for the loader's tests: its table carries ABI version 7.
#include <cstdint>

namespace {

struct TestModuleTable {
  uint32_t abi_version;
  int (*answer)();
};

int Answer() { return 42; }

const TestModuleTable kTable = {7, &Answer};

}  // namespace

extern "C" TESSERA_MODULE_EXPORT const TestModuleTable* TesseraTestModuleTable() {
  return &kTable;
}
