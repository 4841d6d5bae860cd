#include "lib/file/file-op.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace tessera {
namespace file {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";

// A fresh scratch directory per test, removed with everything in it.
class FileOpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = std::getenv("TESSERA_TEST_TMPDIR");
    std::string root = base && *base ? base : "/tmp";
    fs::create_directories(root);
    std::string pattern = root + "/file-op-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = fs::canonical(pattern).string();
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string MakeFile(const std::string& name, const std::string& content = "data") const {
    std::ofstream(Path(name)) << content;
    return Path(name);
  }

  std::string dir_;
};

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

TEST(ToLongPathTest, PrefixesAndTurnsSlashes) {
  EXPECT_EQ(ToLongPath("C:/a/b"), "\\\\?\\C:\\a\\b");
  EXPECT_EQ(ToLongPath("abc"), "abc");
  EXPECT_EQ(ToLongPath("a/b"), "a\\b");
  EXPECT_EQ(ToLongPath(""), "");
  EXPECT_EQ(ToLongPath("abcd"), "\\\\?\\abcd");
  EXPECT_EQ(ToLongPath("\\\\?\\C:/x/y"), "\\\\?\\C:\\x\\y");
  EXPECT_EQ(ToLongPath("\\\\?\\"), "\\\\?\\");
  // No special case for relative or UNC paths.
  EXPECT_EQ(ToLongPath("dir/file"), "\\\\?\\dir\\file");
  EXPECT_EQ(ToLongPath("\\\\server\\share"), "\\\\?\\\\\\server\\share");
}

TEST(FSStatInfoTest, TextForm) {
  FSStatInfo st;
  st.path = "/x/a b";
  st.name = "a b";
  st.type = kRegular;
  st.mtime = 4000000000u;
  st.size = 1ull << 40;
  st.isExist = true;
  st.uid = 1000;
  st.gid = 100;
  st.mode = 0100644;
  st.dev_id = 2049;
  EXPECT_EQ(st.ToString(),
            "{\"name\": \"a b\", \"path\": \"/x/a b\", \"type\": 1, \"mtime\": 4000000000, "
            "\"size\": 1099511627776, \"isExist\": 1, \"uid\": 1000, \"gid\": 100, \"mode\": 33188, "
            "\"dev_id\": 2049}");
}

TEST_F(FileOpTest, ExistsSeesLinksAndHonoursExactCase) {
  std::string file = MakeFile("readme.txt");
  EXPECT_TRUE(FSExists(file, false));
  EXPECT_TRUE(FSExists(file, true));
  EXPECT_TRUE(FSExists(dir_ + "/", true));
  EXPECT_FALSE(FSExists(Path("readme.TXT"), true));
  EXPECT_FALSE(FSExists(Path("missing"), false));
  EXPECT_FALSE(FSExists(file + "/below", false));  // ENOTDIR is just absent
  EXPECT_FALSE(FSExists("", false));
  // A dangling link exists: it is the link that is asked about.
  ASSERT_EQ(symlink("nowhere", Path("dangling").c_str()), 0);
  EXPECT_TRUE(FSExists(Path("dangling"), true));
}

TEST_F(FileOpTest, StatOfFileAndDirectory) {
  std::string file = MakeFile("f.bin", "12345");
  fs::create_directory(Path("d"));
  struct stat expected;
  ASSERT_EQ(lstat(file.c_str(), &expected), 0);

  FSStatInfo st;
  ASSERT_EQ(FSStat(file, &st, true), 0);
  EXPECT_TRUE(st.isExist);
  EXPECT_EQ(st.type, kRegular);
  EXPECT_EQ(st.size, 5u);
  EXPECT_EQ(st.name, "f.bin");
  EXPECT_EQ(st.path, file);
  EXPECT_EQ(st.mtime, static_cast<uint32_t>(expected.st_mtime));
  EXPECT_EQ(st.mode, expected.st_mode);
  EXPECT_EQ(st.uid, expected.st_uid);
  EXPECT_EQ(st.dev_id, static_cast<uint64_t>(expected.st_dev));

  FSStatInfo dir;
  ASSERT_EQ(FSStat(Path("d") + "//", &dir, false), 0);
  EXPECT_EQ(dir.type, kDirectory);
  EXPECT_EQ(dir.size, 0u);
  EXPECT_EQ(dir.name, "d");
  EXPECT_EQ(dir.path, Path("d"));
}

TEST_F(FileOpTest, StatRewritesToAbsoluteStoredPath) {
  MakeFile("f");
  fs::create_directory(Path("real"));
  MakeFile("real/g");
  ASSERT_EQ(symlink("real", Path("alias").c_str()), 0);

  // Directories on the way are resolved ...
  FSStatInfo st;
  ASSERT_EQ(FSStat(Path("alias/./g"), &st, true), 0);
  EXPECT_EQ(st.path, Path("real/g"));

  // ... and a relative path becomes absolute.
  fs::path old_cwd = fs::current_path();
  fs::current_path(dir_);
  FSStatInfo rel;
  int status = FSStat("f", &rel, true);
  fs::current_path(old_cwd);
  ASSERT_EQ(status, 0);
  EXPECT_EQ(rel.path, Path("f"));
  EXPECT_EQ(rel.name, "f");
}

TEST_F(FileOpTest, StatReportsLinkItselfAndLogsIt) {
  fs::create_directory(Path("target"));
  std::string link = Path("link");
  ASSERT_EQ(symlink("target", link.c_str()), 0);

  for (const std::string& asked : {link, link + "/"}) {
    FSStatInfo st;
    testing::internal::CaptureStderr();
    int status = FSStat(asked, &st, true);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(st.type, kSymlink);
    EXPECT_EQ(st.path, link);  // named, not followed
    EXPECT_THAT(err, HasSubstr("[ERROR] "));
    EXPECT_THAT(err, HasSubstr("FSStat (" + asked + "): is symlink\n"));
  }
}

TEST_F(FileOpTest, StatOfMissingPathIsQuiet) {
  FSStatInfo st;
  st.isExist = true;
  testing::internal::CaptureStderr();
  EXPECT_EQ(FSStat(Path("missing"), &st, true), 0);
  EXPECT_EQ(FSStat(Path("missing/deeper"), &st, false), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_FALSE(st.isExist);
}

TEST_F(FileOpTest, StatOfFifoIsDevice) {
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  FSStatInfo st;
  ASSERT_EQ(FSStat(Path("pipe"), &st, true), 0);
  EXPECT_EQ(st.type, kDevice);
  EXPECT_EQ(FSRemove(Path("pipe")), -1);
  EXPECT_TRUE(Exists(Path("pipe")));
}

TEST_F(FileOpTest, RemoveFileAndMissingPaths) {
  std::string file = MakeFile("f");
  EXPECT_EQ(FSRemove(file), 0);
  EXPECT_FALSE(Exists(file));
  EXPECT_EQ(FSRemove(file), 0);
  EXPECT_EQ(FSRemove(Path("no/such/dir")), 0);
  EXPECT_EQ(FSRemove(""), -1);
  EXPECT_EQ(RemoveDirectoryRecursive(Path("missing")), 0);
}

TEST_F(FileOpTest, RemoveRefusesSymlinks) {
  fs::create_directory(Path("target"));
  std::string inside = MakeFile("target/keep");
  std::string file_target = MakeFile("file");
  ASSERT_EQ(symlink("target", Path("dir-link").c_str()), 0);
  ASSERT_EQ(symlink("file", Path("file-link").c_str()), 0);

  testing::internal::CaptureStderr();
  EXPECT_EQ(FSRemove(Path("dir-link")), -1);
  EXPECT_EQ(FSRemove(Path("dir-link/")), -1);
  EXPECT_EQ(FSRemove(Path("file-link")), -1);
  EXPECT_EQ(RemoveDirectoryRecursive(Path("dir-link")), -1);
  testing::internal::GetCapturedStderr();

  EXPECT_TRUE(Exists(Path("dir-link")));
  EXPECT_TRUE(Exists(Path("file-link")));
  EXPECT_TRUE(Exists(inside));
  EXPECT_TRUE(Exists(file_target));
}

TEST_F(FileOpTest, RemoveTreeUnlinksLinksWithoutFollowingThem) {
  fs::create_directory(Path("outside"));
  std::string outside_file = MakeFile("outside/precious");
  fs::create_directories(Path("tree/a/b/c"));
  fs::create_directories(Path("tree/empty"));
  MakeFile("tree/top");
  MakeFile("tree/a/b/c/deep");
  MakeFile("tree/a/.hidden");
  ASSERT_EQ(symlink(Path("outside").c_str(), Path("tree/a/to-outside").c_str()), 0);
  ASSERT_EQ(symlink("nowhere", Path("tree/dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(Path("tree/a/b/pipe").c_str(), 0600), 0);

  EXPECT_EQ(FSRemove(Path("tree")), 0);
  EXPECT_FALSE(Exists(Path("tree")));
  EXPECT_TRUE(Exists(outside_file));
}

TEST_F(FileOpTest, RemoveTreeGoesOnPastFailures) {
  if (geteuid() == 0) GTEST_SKIP() << "permissions do not bind root";
  fs::create_directories(Path("tree/locked"));
  MakeFile("tree/locked/stuck");
  MakeFile("tree/free");
  ASSERT_EQ(chmod(Path("tree/locked").c_str(), 0555), 0);

  testing::internal::CaptureStderr();
  int status = RemoveDirectoryRecursive(Path("tree"));
  std::string err = testing::internal::GetCapturedStderr();
  chmod(Path("tree/locked").c_str(), 0755);

  EXPECT_EQ(status, -1);
  EXPECT_FALSE(Exists(Path("tree/free")));
  EXPECT_TRUE(Exists(Path("tree/locked/stuck")));
  EXPECT_THAT(err, HasSubstr("DeleteFile: error code 13"));
  EXPECT_THAT(err, HasSubstr("RemoveDirectory: error code 39"));
}

TEST_F(FileOpTest, RandomPathShape) {
  for (const std::string& prefix : {dir_, std::string(), std::string("d/")}) {
    std::string path = RandomPath(prefix);
    ASSERT_EQ(path.size(), prefix.size() + 9);
    EXPECT_EQ(path.compare(0, prefix.size() + 1, prefix + "/"), 0);
    EXPECT_EQ(path.find_first_not_of(kAlphabet, prefix.size() + 1), std::string::npos) << path;
  }
}

TEST_F(FileOpTest, RandomPathsAreDistinctAcrossThreads) {
  std::mutex mutex;
  std::set<std::string> names;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        std::string name = RandomPath("p");
        std::lock_guard<std::mutex> lock(mutex);
        names.insert(name);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(names.size(), 2000u);
}

TEST_F(FileOpTest, MktempCreatesEmptyFileOrLeavesPathAlone) {
  std::string path = "in";
  ASSERT_EQ(FSMktemp(dir_, &path), 0);
  EXPECT_EQ(path.rfind(dir_ + "/", 0), 0u);
  EXPECT_EQ(fs::file_size(path), 0u);

  std::string unchanged = "in";
  EXPECT_EQ(FSMktemp(Path("missing"), &unchanged), -1);
  EXPECT_EQ(unchanged, "in");
}

}  // namespace
}  // namespace file
}  // namespace tessera
