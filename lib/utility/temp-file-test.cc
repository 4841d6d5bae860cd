#include "lib/utility/temp-file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace tessera {
namespace utility {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

constexpr char kAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";

bool Exists(const std::string& path) {
  struct stat st;
  return !path.empty() && lstat(path.c_str(), &st) == 0;
}

class TempFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = std::getenv("TESSERA_TEST_TMPDIR");
    std::string root = base && *base ? base : "/tmp";
    fs::create_directories(root);
    std::string pattern = root + "/temp-file-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    TempFile::SetDefaultTempDir("");
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string dir_;
};

TEST_F(TempFileTest, NamesAreRandomAndDistinct) {
  TempFile a(dir_);
  TempFile b(dir_);
  ASSERT_EQ(a.Create(), 0);
  ASSERT_EQ(b.Create(), 0);
  EXPECT_NE(a.GetPath(), b.GetPath());
  for (const TempFile* t : {&a, &b}) {
    const std::string& path = t->GetPath();
    EXPECT_TRUE(Exists(path));
    ASSERT_EQ(path.size(), dir_.size() + 9);
    EXPECT_EQ(path.substr(0, dir_.size() + 1), dir_ + "/");
    EXPECT_EQ(path.find_first_not_of(kAlphabet, dir_.size() + 1), std::string::npos) << path;
  }
}

TEST_F(TempFileTest, SecondCreateFailsAndKeepsFirstFile) {
  TempFile t(dir_);
  EXPECT_TRUE(t.GetPath().empty());
  ASSERT_EQ(t.Create(), 0);
  std::string first = t.GetPath();
  EXPECT_EQ(t.Create(), -1);
  EXPECT_EQ(t.GetPath(), first);
  EXPECT_TRUE(Exists(first));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
}

TEST_F(TempFileTest, DestructorDeletesUnlessKept) {
  std::string dropped;
  std::string kept;
  {
    TempFile a(dir_);
    TempFile b(dir_);
    ASSERT_EQ(a.Create(), 0);
    ASSERT_EQ(b.Create(), 0);
    b.Keep();
    dropped = a.GetPath();
    kept = b.GetPath();
  }
  EXPECT_FALSE(Exists(dropped));
  EXPECT_TRUE(Exists(kept));
}

TEST_F(TempFileTest, RemoveDeletesNowAndAllowsCreateAgain) {
  TempFile t(dir_);
  ASSERT_EQ(t.Create(), 0);
  std::string first = t.GetPath();
  t.Remove();
  EXPECT_FALSE(Exists(first));
  EXPECT_TRUE(t.GetPath().empty());
  ASSERT_EQ(t.Create(), 0);
  EXPECT_TRUE(Exists(t.GetPath()));
}

TEST_F(TempFileTest, CopiesShareTheFileUntilTheLastGoes) {
  std::string path;
  {
    auto original = std::make_unique<TempFile>(dir_);
    ASSERT_EQ(original->Create(), 0);
    path = original->GetPath();
    TempFile constructed(*original);
    {
      TempFile assigned(dir_);
      assigned = constructed;
      EXPECT_EQ(assigned.GetPath(), path);
      original.reset();
      EXPECT_TRUE(Exists(path));
    }
    EXPECT_TRUE(Exists(path));
    // A copy already has the file: it cannot create another.
    EXPECT_EQ(constructed.Create(), -1);
  }
  EXPECT_FALSE(Exists(path));

  // Shared pointers (the way jobs hold them) give the same result.
  std::vector<std::shared_ptr<TempFile>> held{std::make_shared<TempFile>(dir_)};
  ASSERT_EQ(held[0]->Create(), 0);
  path = held[0]->GetPath();
  std::shared_ptr<TempFile> other = held[0];
  held.clear();
  EXPECT_TRUE(Exists(path));
  other.reset();
  EXPECT_FALSE(Exists(path));
}

TEST_F(TempFileTest, AssignmentReplacesASoleOwnersFile) {
  TempFile target(dir_);
  TempFile source(dir_);
  ASSERT_EQ(target.Create(), 0);
  ASSERT_EQ(source.Create(), 0);
  std::string old_path = target.GetPath();
  target = source;
  EXPECT_FALSE(Exists(old_path));
  EXPECT_EQ(target.GetPath(), source.GetPath());
}

TEST_F(TempFileTest, CopiesSurviveRemoveAndReassignment) {
  // Removing or reassigning one copy must neither free the shared count
  // twice nor stop the remaining copies from deleting their file.
  std::string path;
  {
    TempFile a(dir_);
    ASSERT_EQ(a.Create(), 0);
    TempFile b(a);
    TempFile c(a);
    b.Remove();
    EXPECT_FALSE(Exists(a.GetPath()));
    c = TempFile(dir_);
    EXPECT_TRUE(c.GetPath().empty());
    EXPECT_EQ(c.Create(), 0);
    path = c.GetPath();
  }
  EXPECT_FALSE(Exists(path));

  {
    TempFile a(dir_);
    ASSERT_EQ(a.Create(), 0);
    path = a.GetPath();
    TempFile b(a);
    b = TempFile(dir_);  // b lets go of its share
  }
  EXPECT_FALSE(Exists(path));
}

TEST_F(TempFileTest, AdoptTakesOverAnExistingFile) {
  std::string adopted = dir_ + "/adopted";
  { std::ofstream(adopted) << "x"; }
  std::string created;
  {
    TempFile t(dir_);
    ASSERT_EQ(t.Create(), 0);
    created = t.GetPath();
    t.Adopt(adopted);
    EXPECT_FALSE(Exists(created));
    EXPECT_EQ(t.GetPath(), adopted);
    EXPECT_EQ(t.Create(), -1);
  }
  EXPECT_FALSE(Exists(adopted));
}

TEST_F(TempFileTest, DefaultDirectoryIsTakenAtConstruction) {
  TempFile::SetDefaultTempDir(dir_);
  TempFile t;
  TempFile::SetDefaultTempDir(dir_ + "/elsewhere");
  ASSERT_EQ(t.Create(), 0);
  EXPECT_EQ(t.GetPath().substr(0, dir_.size() + 1), dir_ + "/");
}

TEST_F(TempFileTest, MissingDirectoryFailsWithLogLine) {
  TempFile t(dir_ + "/missing");
  testing::internal::CaptureStderr();
  int status = t.Create();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, -1);
  EXPECT_TRUE(t.GetPath().empty());
  EXPECT_THAT(err, HasSubstr("[ERROR] "));
  EXPECT_THAT(err, HasSubstr("failed to create TempFile ...\n"));
}

}  // namespace
}  // namespace utility
}  // namespace tessera
