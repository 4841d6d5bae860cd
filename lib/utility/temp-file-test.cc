#include "lib/utility/temp-file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace utility {
namespace {

using ::tessera::test::Exists;

class TempFileTest : public ::testing::Test {
 protected:
  void TearDown() override { TempFile::SetDefaultTempDir(""); }
  test::ScratchDir dir_;
};

TEST_F(TempFileTest, CreateOnceRemoveAndDeleteUnlessKept) {
  std::string dropped, kept;
  {
    TempFile a(dir_.path());
    TempFile b(dir_.path());
    ASSERT_EQ(a.Create(), 0);
    ASSERT_EQ(b.Create(), 0);
    dropped = a.GetPath();
    kept = b.GetPath();
    EXPECT_NE(dropped, kept);
    EXPECT_EQ(dropped.rfind(dir_.path() + "/", 0), 0u);
    EXPECT_EQ(a.Create(), -1);  // already has a file; the first one stays
    EXPECT_EQ(a.GetPath(), dropped);

    b.Remove();
    EXPECT_FALSE(Exists(kept));
    EXPECT_TRUE(b.GetPath().empty());
    ASSERT_EQ(b.Create(), 0);
    kept = b.GetPath();
    b.Keep();
  }
  EXPECT_FALSE(Exists(dropped));
  EXPECT_TRUE(Exists(kept));
}

TEST_F(TempFileTest, CopiesShareTheFileUntilTheLastGoes) {
  std::string path;
  {
    auto original = std::make_unique<TempFile>(dir_.path());
    ASSERT_EQ(original->Create(), 0);
    path = original->GetPath();
    TempFile constructed(*original);
    {
      TempFile assigned(dir_.path());
      ASSERT_EQ(assigned.Create(), 0);
      std::string replaced = assigned.GetPath();
      assigned = constructed;  // a sole owner lets its own file go first
      EXPECT_FALSE(Exists(replaced));
      original.reset();
    }
    EXPECT_TRUE(Exists(path));
  }
  EXPECT_FALSE(Exists(path));
}

TEST_F(TempFileTest, CopiesThatLetGoDoNotStrandTheOthers) {
  // A copy that is removed or reassigned must neither free the shared count
  // twice (the sanitizer build catches that) nor keep the file alive.
  std::string path;
  {
    TempFile a(dir_.path());
    ASSERT_EQ(a.Create(), 0);
    path = a.GetPath();
    TempFile b(a);
    TempFile c(a);
    c = TempFile(dir_.path());
    b.Remove();
    EXPECT_FALSE(Exists(path));
    ASSERT_EQ(b.Create(), 0);
    path = b.GetPath();
  }
  EXPECT_FALSE(Exists(path));
}

TEST_F(TempFileTest, DefaultDirectoryAndFailureToCreate) {
  TempFile::SetDefaultTempDir(dir_.path());
  TempFile t;  // takes the default as it is now
  TempFile::SetDefaultTempDir(dir_.Path("missing"));
  ASSERT_EQ(t.Create(), 0);
  EXPECT_EQ(t.GetPath().rfind(dir_.path() + "/", 0), 0u);

  TempFile u;
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(u.Create(), -1);
  EXPECT_THAT(::testing::internal::GetCapturedStderr(),
              ::testing::ContainsRegex("\\[ERROR\\] temp-file\\.cc\\(.+\\): failed to create TempFile \\.\\.\\.\n"));
  EXPECT_TRUE(u.GetPath().empty());
}

}  // namespace
}  // namespace utility
}  // namespace tessera
