#include "lib/utility/module-loader.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace utility {
namespace {

struct TestModuleTable {
  uint32_t abi_version;
  int (*answer)();
};

constexpr char kEntry[] = "TesseraTestModuleTable";

const TestModuleTable* Load(std::string path, const char* entry, uint32_t abi_version) {
  ModuleLoader loader("test", "no-such-module", entry, abi_version);
#ifdef _WIN32
  // Under Wine, a path of the build machine is one on Wine's Z: drive.
  if (!path.empty() && path[0] == '/') path = "Z:" + path;
#endif
  loader.SetPath(path);
  const TestModuleTable* first = loader.Get<TestModuleTable>();
  EXPECT_EQ(loader.Get<TestModuleTable>(), first) << "a second call gives the first answer";
  return first;
}

TEST(ModuleLoaderTest, LoadsTheTableOfAMatchingModule) {
  const TestModuleTable* table = Load(TESSERA_TEST_MODULE_PATH, kEntry, 7);
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table->answer(), 42);
}

TEST(ModuleLoaderTest, RefusesUnusableModules) {
  EXPECT_EQ(Load(TESSERA_TEST_MODULE_PATH, kEntry, 8), nullptr) << "another ABI version";
  EXPECT_EQ(Load(TESSERA_TEST_MODULE_PATH, "NoSuchEntry", 7), nullptr) << "no entry point";
  test::ScratchDir scratch;
  EXPECT_EQ(Load(scratch.Path("missing.so"), kEntry, 7), nullptr) << "no file";
  EXPECT_EQ(Load(scratch.MakeFile("text.so", "not a module"), kEntry, 7), nullptr) << "not a module";
}

}  // namespace
}  // namespace utility
}  // namespace tessera
