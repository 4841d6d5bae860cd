#include "lib/file/file-op.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#ifndef _WIN32
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "lib/file/unreported-files.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace file {
namespace {

namespace fs = std::filesystem;
using ::tessera::test::Exists;
using ::tessera::test::ReadAll;
using ::testing::ContainsRegex;
using ::testing::internal::CaptureStderr;
using ::testing::internal::GetCapturedStderr;

TEST(ToLongPathTest, PrefixesLongEnoughPathsAndTurnsSlashes) {
  EXPECT_EQ(ToLongPath("C:/a/b"), R"(\\?\C:\a\b)");
  EXPECT_EQ(ToLongPath("abc"), "abc");
  EXPECT_EQ(ToLongPath("a/b"), R"(a\b)");
  EXPECT_EQ(ToLongPath("abcd"), R"(\\?\abcd)");
  EXPECT_EQ(ToLongPath(R"(\\?\C:/x)"), R"(\\?\C:\x)");
  EXPECT_EQ(ToLongPath(R"(\\server\share)"), R"(\\?\\\server\share)");
}

TEST(FSStatInfoTest, TextForm) {
  FSStatInfo st{"/x/a b", "a b", kRegular, 4000000000u, 1ull << 40, true, 1000, 100, 0100644, 2049};
  EXPECT_EQ(st.ToString(),
            R"({"name": "a b", "path": "/x/a b", "type": 1, "mtime": 4000000000, "size": 1099511627776, )"
            R"("isExist": 1, "uid": 1000, "gid": 100, "mode": 33188, "dev_id": 2049})");
}

class FileOpTest : public ::testing::Test {
 protected:
  test::ScratchDir dir_;
};

// Links, FIFOs and stored paths the POSIX way; file-op-win-test.cc has the
// Windows counterparts.
#ifndef _WIN32
TEST_F(FileOpTest, ExistsAsksAboutTheLinkAndHonoursExactCase) {
  std::string file = dir_.MakeFile("readme.txt");
  EXPECT_TRUE(FSExists(file, true));
  EXPECT_FALSE(FSExists(dir_.Path("readme.TXT"), true));
  EXPECT_FALSE(FSExists(file + "/below", false));
  EXPECT_FALSE(FSExists("", false));
  ASSERT_EQ(symlink("nowhere", dir_.Path("dangling").c_str()), 0);
  EXPECT_TRUE(FSExists(dir_.Path("dangling"), true));
}

TEST_F(FileOpTest, StatFillsTheRecordWithTheStoredPath) {
  fs::create_directory(dir_.Path("real"));
  std::string file = dir_.MakeFile("real/f", "12345");
  ASSERT_EQ(symlink("real", dir_.Path("alias").c_str()), 0);
  struct stat expected;
  ASSERT_EQ(lstat(file.c_str(), &expected), 0);

  FSStatInfo st;
  ASSERT_EQ(FSStat(dir_.Path("alias/./f"), &st, true), 0);
  EXPECT_TRUE(st.isExist);
  EXPECT_EQ(st.type, kRegular);
  EXPECT_EQ(st.path, file);  // directories on the way resolved
  EXPECT_EQ(st.name, "f");
  EXPECT_EQ(st.size, 5u);
  EXPECT_EQ(st.mode, expected.st_mode);
  EXPECT_EQ(st.dev_id, static_cast<uint64_t>(expected.st_dev));

  ASSERT_EQ(FSStat(dir_.Path("real") + "//", &st, false), 0);
  EXPECT_EQ(st.type, kDirectory);
  EXPECT_EQ(st.path, dir_.Path("real"));

  fs::path cwd = fs::current_path();
  fs::current_path(dir_.path());
  int status = FSStat("real/f", &st, true);
  fs::current_path(cwd);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(st.path, file);  // relative made absolute

  CaptureStderr();
  EXPECT_EQ(FSStat(dir_.Path("missing/deeper"), &st, true), 0);
  EXPECT_FALSE(st.isExist);
  EXPECT_EQ(GetCapturedStderr(), "");
}

TEST_F(FileOpTest, StatReportsLinkItselfAndLogsIt) {
  fs::create_directory(dir_.Path("target"));
  std::string link = dir_.Path("link");
  ASSERT_EQ(symlink("target", link.c_str()), 0);
  for (const std::string& asked : {link, link + "/"}) {
    FSStatInfo st;
    CaptureStderr();
    EXPECT_EQ(FSStat(asked, &st, true), 0);
    EXPECT_THAT(GetCapturedStderr(), ContainsRegex("\\[ERROR\\] file-op-posix\\.cc\\([0-9]+\\): FSStat \\(" +
                                                   asked + "\\): is symlink\n"));
    EXPECT_EQ(st.type, kSymlink);
    EXPECT_EQ(st.path, link);  // named, not followed
  }
}

TEST_F(FileOpTest, RemoveLeavesLinksDevicesAndTheirTargetsAlone) {
  fs::create_directory(dir_.Path("target"));
  std::string inside = dir_.MakeFile("target/keep");
  ASSERT_EQ(symlink("target", dir_.Path("link").c_str()), 0);
  ASSERT_EQ(mkfifo(dir_.Path("pipe").c_str(), 0600), 0);
  CaptureStderr();
  EXPECT_EQ(FSRemove(dir_.Path("link")), -1);
  EXPECT_EQ(FSRemove(dir_.Path("link/")), -1);
  EXPECT_EQ(RemoveDirectoryRecursive(dir_.Path("link")), -1);
  EXPECT_EQ(FSRemove(dir_.Path("pipe")), -1);
  GetCapturedStderr();
  EXPECT_TRUE(Exists(dir_.Path("link")));
  EXPECT_TRUE(Exists(dir_.Path("pipe")));
  EXPECT_TRUE(Exists(inside));

  EXPECT_EQ(FSRemove(dir_.Path("no/such")), 0);
  EXPECT_EQ(FSRemove(""), -1);

  // Asked directly, a directory that is not there cannot be searched.
  CaptureStderr();
  EXPECT_EQ(RemoveDirectoryRecursive(dir_.Path("no/such")), -1);
  EXPECT_THAT(GetCapturedStderr(), ContainsRegex("\\[ERROR\\] file-op-posix\\.cc\\([0-9]+\\): "
                                                 "RemoveDirectoryRecursive: error code 2\n"));
}

TEST_F(FileOpTest, RemoveTreeUnlinksLinksWithoutFollowingThem) {
  fs::create_directory(dir_.Path("outside"));
  std::string outside = dir_.MakeFile("outside/precious");
  fs::create_directories(dir_.Path("tree/a/b/c"));
  fs::create_directories(dir_.Path("tree/empty"));
  dir_.MakeFile("tree/a/b/c/deep");
  std::string file = dir_.MakeFile("tree/a/.hidden");
  ASSERT_EQ(symlink(dir_.Path("outside").c_str(), dir_.Path("tree/a/to-outside").c_str()), 0);
  ASSERT_EQ(mkfifo(dir_.Path("tree/a/b/pipe").c_str(), 0600), 0);

  EXPECT_EQ(FSRemove(file), 0);
  EXPECT_FALSE(Exists(file));
  EXPECT_EQ(FSRemove(dir_.Path("tree")), 0);
  EXPECT_FALSE(Exists(dir_.Path("tree")));
  EXPECT_TRUE(Exists(outside));
}

// Whatever stands at the name beforehand, nothing outside the directory is
// created, emptied or written, and the call does not block.
TEST_F(FileOpTest, OpenForWritingRefusesLinksFifosAndDirectories) {
  fs::create_directory(dir_.Path("outside"));
  const std::string precious = dir_.MakeFile("outside/precious", "precious");
  const std::string unborn = dir_.Path("outside/unborn");
  int reader = -1;  // keeps one FIFO open for reading
  struct Case {
    const char* what;
    std::function<void(const std::string&)> place;
  };
  const Case cases[] = {
      {"symbolic link", [&](const std::string& at) { ASSERT_EQ(symlink(precious.c_str(), at.c_str()), 0); }},
      {"dangling link", [&](const std::string& at) { ASSERT_EQ(symlink(unborn.c_str(), at.c_str()), 0); }},
      {"hard link", [&](const std::string& at) { ASSERT_EQ(link(precious.c_str(), at.c_str()), 0); }},
      {"FIFO", [&](const std::string& at) { ASSERT_EQ(mkfifo(at.c_str(), 0600), 0); }},
      {"FIFO with a reader",
       [&](const std::string& at) {
         ASSERT_EQ(mkfifo(at.c_str(), 0600), 0);
         reader = open(at.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
         ASSERT_GE(reader, 0);
       }},
      {"directory", [&](const std::string& at) { ASSERT_TRUE(fs::create_directory(at)); }},
  };
  int i = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string at = dir_.Path("name" + std::to_string(i++));
    c.place(at);
    const fs::file_type before = fs::symlink_status(at).type();
    OpenFile file;
    EXPECT_EQ(FSOpenForWriting(at, &file), -1);
    EXPECT_FALSE(file.is_open());
    EXPECT_EQ(fs::symlink_status(at).type(), before);
    EXPECT_EQ(ReadAll(precious), "precious");
    EXPECT_FALSE(Exists(unborn));
  }
  if (reader >= 0) close(reader);
}

// Once open, the file is written through its descriptor: a name swapped for
// a link afterwards leads nowhere, and FSNamesOpenFile notices the swap.
TEST_F(FileOpTest, WritesGoToTheOpenedFileWhateverItsNameBecomes) {
  const std::string precious = dir_.MakeFile("precious", "precious");
  const std::string name = dir_.MakeFile("output", "old content");
  OpenFile file;
  ASSERT_EQ(FSOpenForWriting(name, &file), 0);
  EXPECT_EQ(fs::file_size(name), 0u);  // emptied, as "w" does
  EXPECT_TRUE(FSNamesOpenFile(name, file));

  const std::string parked = dir_.Path("parked");
  ASSERT_EQ(rename(name.c_str(), parked.c_str()), 0);
  ASSERT_EQ(symlink(precious.c_str(), name.c_str()), 0);
  EXPECT_EQ(write(file.descriptor(), "x", 1), 1);
  EXPECT_FALSE(FSNamesOpenFile(name, file));
  EXPECT_EQ(ReadAll(precious), "precious");
  EXPECT_EQ(ReadAll(parked), "x");

  OpenFile moved(std::move(file));
  EXPECT_FALSE(file.is_open());
  moved.Close();
  EXPECT_TRUE(FSNamesOpenFile(name, moved));  // nothing held, nothing to compare
}

#endif  // _WIN32

TEST_F(FileOpTest, RandomNamesAreDistinctAlphabetCharacters) {
  std::set<std::string> names;
  for (int i = 0; i < 2000; ++i) names.insert(RandomPath("p"));
  EXPECT_EQ(names.size(), 2000u);
  for (const std::string& path : names) {
    ASSERT_EQ(path.size(), 10u);
    ASSERT_EQ(path.find_first_not_of("0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_", 2),
              std::string::npos);
  }
  EXPECT_EQ(RandomPath("d/").substr(0, 3), "d//");
  EXPECT_EQ(RandomPath("").substr(0, 1), "/");

  std::string path = "in";
  ASSERT_EQ(FSMktemp(dir_.path(), &path), 0);
  EXPECT_EQ(fs::file_size(path), 0u);
  // Known to the termination handlers from its creation on.
  EXPECT_TRUE(IsUnreportedFile(path));
  ForgetUnreportedFile(path);
  std::string unchanged = "in";
  EXPECT_EQ(FSMktemp(dir_.Path("missing"), &unchanged), -1);
  EXPECT_EQ(unchanged, "in");
}

}  // namespace
}  // namespace file
}  // namespace tessera
