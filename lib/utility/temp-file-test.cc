#include "lib/utility/temp-file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#ifndef _WIN32
#include <unistd.h>
#endif

#include <memory>
#include <string>

#include "lib/file/file-op.h"
#include "lib/file/unreported-files.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace utility {
namespace {

using ::tessera::test::Exists;
using ::tessera::test::ReadAll;

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
    EXPECT_FALSE(file::IsUnreportedFile(kept));
    EXPECT_TRUE(b.GetPath().empty());
    EXPECT_FALSE(b.GetFile().is_open());
    ASSERT_EQ(b.Create(), 0);
    kept = b.GetPath();
    b.Keep();
    EXPECT_TRUE(file::IsUnreportedFile(dropped));
  }
  EXPECT_FALSE(Exists(dropped));
  EXPECT_FALSE(file::IsUnreportedFile(dropped));
  EXPECT_TRUE(Exists(kept));
  // Kept is not reported yet: a termination would still remove it.
  EXPECT_TRUE(file::IsUnreportedFile(kept));
  file::ForgetUnreportedFile(kept);
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

#ifndef _WIN32
// Someone who can write into the directory swaps the file for a link to a
// file elsewhere while it is being filled: the writes still land in the file
// that was created, and its removal takes the name only, never a target.
TEST_F(TempFileTest, ALinkPutInPlaceOfTheFileIsNeverWrittenThrough) {
  const std::string precious = dir_.MakeFile("precious", "precious");
  for (const bool hard : {false, true}) {
    SCOPED_TRACE(hard ? "hard link" : "symbolic link");
    std::string path;
    {
      TempFile t(dir_.path());
      ASSERT_EQ(t.Create(), 0);
      path = t.GetPath();
      TempFile copy(t);  // copies share the open file
      EXPECT_EQ(&copy.GetFile(), &t.GetFile());
      ASSERT_TRUE(t.GetFile().is_open());
      ASSERT_EQ(unlink(path.c_str()), 0);
      ASSERT_EQ(hard ? link(precious.c_str(), path.c_str()) : symlink(precious.c_str(), path.c_str()), 0);
      EXPECT_EQ(write(t.GetFile().descriptor(), "thumbnail", 9), 9);
      EXPECT_FALSE(file::FSNamesOpenFile(path, t.GetFile()));
    }
    EXPECT_EQ(ReadAll(precious), "precious");
    // A hard link is a name like any other and goes; a symbolic link is left
    // alone by the file layer, its target untouched either way.
    EXPECT_EQ(Exists(path), !hard);
    unlink(path.c_str());
  }
}
#endif  // _WIN32

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
