// The Win32 file layer: exact case, stored names, long paths, links.
#include <windows.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "lib/file/file-op.h"
#include "lib/utility/testing/scratch-dir.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace file {
namespace {

namespace fs = std::filesystem;
using ::tessera::test::Exists;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

std::wstring Wide(const std::string& utf8) {
  std::u16string wide = utility::UTF8ToUTF16(utf8);
  return std::wstring(wide.begin(), wide.end());
}

class FileOpWinTest : public ::testing::Test {
 protected:
  test::ScratchDir dir_;
};

TEST_F(FileOpWinTest, ExistsComparesTheStoredName) {
  std::string file = dir_.MakeFile("readme.txt");
  EXPECT_TRUE(FSExists(file, true));
  EXPECT_TRUE(FSExists(dir_.Path("README.TXT"), false));
  EXPECT_FALSE(FSExists(dir_.Path("readme.TXT"), true));
  // A wildcard would make the lookup a pattern search that finds readme.txt.
  EXPECT_FALSE(FSExists(dir_.Path("read*"), false));
  EXPECT_FALSE(FSExists(dir_.Path("readme.tx?"), false));
  CaptureStderr();
  EXPECT_FALSE(FSExists(dir_.Path("missing/deeper"), false));
  EXPECT_EQ(GetCapturedStderr(), "");
  EXPECT_TRUE(FSExists(dir_.path().substr(0, 2), false));  // the drive, "Z:"
  EXPECT_TRUE(FSExists(dir_.path().substr(0, 3), true));   // its root, "Z:\\"
  // A folder given with a trailing separator and joined with "/name".
  EXPECT_TRUE(FSExists(dir_.path() + "\\/readme.txt", true));
  EXPECT_EQ(FSRemove(dir_.path() + "\\\\readme.txt"), 0);
  EXPECT_FALSE(FSExists(file, false));

  // A one-byte name is no drive: its stored case counts.
  dir_.MakeFile("a");
  const fs::path cwd = fs::current_path();
  fs::current_path(dir_.path());
  const bool lower = FSExists("a", true);
  const bool upper = FSExists("A", true);
  const bool upper_any_case = FSExists("A", false);
  fs::current_path(cwd);
  EXPECT_TRUE(lower);
  EXPECT_FALSE(upper);
  EXPECT_TRUE(upper_any_case);
}

TEST_F(FileOpWinTest, StatFillsTheRecordWithTheStoredForm) {
  fs::create_directory(dir_.Path("Sub Dir"));
  // Named through UTF-16: a narrow name would go through the ANSI code page.
  std::ofstream(fs::u8path(dir_.Path("Sub Dir/Caf\xc3\xa9.TXT")), std::ios::binary) << "12345";
  const time_t before = time(nullptr);

  FSStatInfo st;
  ASSERT_EQ(FSStat(dir_.Path("sub dir/caf\xc3\xa9.txt"), &st, false), 0);
  EXPECT_TRUE(st.isExist);
  EXPECT_EQ(st.type, kRegular);
  EXPECT_EQ(st.size, 5u);
  EXPECT_THAT(st.path, EndsWith("\\Sub Dir\\Caf\xc3\xa9.TXT"));  // the names as stored
  EXPECT_EQ(st.path.substr(1, 2), ":\\");                       // drive first, no \\?\ prefix
  EXPECT_EQ(st.name, "Caf\xc3\xa9.TXT");
  EXPECT_NEAR(static_cast<double>(st.mtime), static_cast<double>(before), 120.0);
  EXPECT_EQ(st.uid + st.gid + st.mode, 0u);

  ASSERT_EQ(FSStat(dir_.Path("Sub Dir"), &st, true), 0);
  EXPECT_EQ(st.type, kDirectory);

  // Relative paths are taken from the current directory.
  fs::path cwd = fs::current_path();
  fs::current_path(dir_.path());
  int status = FSStat("Sub Dir/Caf\xc3\xa9.TXT", &st, true);
  fs::current_path(cwd);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(st.isExist);
  EXPECT_THAT(st.path, EndsWith("\\Sub Dir\\Caf\xc3\xa9.TXT"));

  CaptureStderr();
  EXPECT_EQ(FSStat(dir_.Path("sub dir/caf\xc3\xa9.txt"), &st, true), 0);  // wrong case
  EXPECT_FALSE(st.isExist);
  EXPECT_EQ(FSStat(dir_.Path("nothing"), &st, true), 0);
  EXPECT_FALSE(st.isExist);
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(FileOpWinTest, RemovesTreesBeyondTheClassicPathLimit) {
  // Nested so that the deepest path is far over MAX_PATH (260).
  std::string deep = dir_.Path("tree");
  ASSERT_TRUE(CreateDirectoryW(Wide(ToLongPath(deep)).c_str(), nullptr));
  for (int i = 0; i < 8; ++i) {
    deep += "/" + std::string(40, static_cast<char>('a' + i));
    ASSERT_TRUE(CreateDirectoryW(Wide(ToLongPath(deep)).c_str(), nullptr)) << deep;
  }
  ASSERT_GT(deep.size(), 300u);
  std::string leaf = deep + "/leaf.bin";
  HANDLE file = CreateFileW(Wide(ToLongPath(leaf)).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  CloseHandle(file);
  dir_.MakeFile("tree/top.txt");

  EXPECT_TRUE(FSExists(leaf, true));
  FSStatInfo st;
  ASSERT_EQ(FSStat(leaf, &st, true), 0);
  EXPECT_EQ(st.type, kRegular);
  EXPECT_THAT(st.path, EndsWith("\\leaf.bin"));

  EXPECT_EQ(FSRemove(leaf), 0);
  EXPECT_FALSE(FSExists(leaf, false));
  EXPECT_EQ(FSRemove(dir_.Path("tree")), 0);
  EXPECT_FALSE(Exists(dir_.Path("tree")));
  EXPECT_EQ(FSRemove(dir_.Path("tree")), 0);  // nothing there any more
  EXPECT_EQ(FSRemove(""), -1);
}

TEST_F(FileOpWinTest, LinksAreReportedAndNeverFollowed) {
  fs::create_directory(dir_.Path("outside"));
  std::string precious = dir_.MakeFile("outside/precious");
  fs::create_directory(dir_.Path("tree"));
  std::string link = dir_.Path("tree/to-outside");
  if (!CreateSymbolicLinkW(Wide(ToLongPath(link)).c_str(), Wide(ToLongPath(dir_.Path("outside"))).c_str(),
                           SYMBOLIC_LINK_FLAG_DIRECTORY | SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE) ||
      GetFileAttributesW(Wide(ToLongPath(link)).c_str()) == INVALID_FILE_ATTRIBUTES) {
    GTEST_SKIP() << "symbolic links cannot be made here (error " << GetLastError() << ")";
  }
  FSStatInfo st;
  CaptureStderr();
  ASSERT_EQ(FSStat(link, &st, true), 0);
  EXPECT_EQ(FSRemove(link), -1);
  std::string log = GetCapturedStderr();
  EXPECT_EQ(st.type, kSymlink);
  EXPECT_THAT(log, HasSubstr("[ERROR] file-op-win.cc("));
  EXPECT_THAT(log, HasSubstr("): FSStat (" + link + "): is symlink\n"));
  EXPECT_TRUE(Exists(link));

  EXPECT_EQ(RemoveDirectoryRecursive(dir_.Path("tree")), 0);
  EXPECT_FALSE(Exists(dir_.Path("tree")));
  EXPECT_TRUE(Exists(precious));
}

}  // namespace
}  // namespace file
}  // namespace tessera
