#include "lib/codec/byte-source.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace codec {
namespace {

TEST(FileSourceTest, ReadsRegularFilesAndRefusesEverythingElseAtOnce) {
  test::ScratchDir dir;
  const std::string path = dir.MakeFile("data", "0123456789");
  std::unique_ptr<ByteSource> source;
  ASSERT_TRUE(ByteSource::OpenFile(path, &source).ok());
  EXPECT_EQ(source->size(), 10u);
  char buf[8] = {};
  EXPECT_EQ(source->ReadAt(6, buf, 8), 4);
  EXPECT_EQ(std::string(buf, 4), "6789");
  EXPECT_EQ(source->ReadAt(10, buf, 8), 0);
  EXPECT_EQ(source->ReadAt(1000, buf, 8), 0);
  std::string all;
  EXPECT_TRUE(source->ReadAll(10, &all).ok());
  EXPECT_EQ(all, "0123456789");
  EXPECT_FALSE(source->ReadAll(9, &all).ok());
  // A duplicate reads the same file, and tells the same identity.
  std::unique_ptr<ByteSource> copy = source->Duplicate();
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->ReadAt(0, buf, 3), 3);
  EXPECT_EQ(std::string(buf, 3), "012");
  EXPECT_FALSE(source->ContentIdentity().empty());
  EXPECT_EQ(copy->ContentIdentity(), source->ContentIdentity());

  std::unique_ptr<ByteSource> other;
  EXPECT_EQ(ByteSource::OpenFile(dir.Path("missing"), &other).code(), Status::Code::kNotFound);
  EXPECT_EQ(ByteSource::OpenFile(dir.path(), &other).code(), Status::Code::kInvalidArgument);
#ifdef _WIN32
  EXPECT_EQ(ByteSource::OpenFile("NUL", &other).code(), Status::Code::kInvalidArgument);
#else
  // A FIFO without a writer would block a plain open() forever.
  ASSERT_EQ(mkfifo(dir.Path("fifo").c_str(), 0600), 0);
  EXPECT_EQ(ByteSource::OpenFile(dir.Path("fifo"), &other).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(ByteSource::OpenFile("/dev/null", &other).code(), Status::Code::kInvalidArgument);
#endif
  EXPECT_EQ(other, nullptr);

  // Another file at the same path is other content.
  source.reset();
  copy.reset();
  std::unique_ptr<ByteSource> before;
  ASSERT_TRUE(ByteSource::OpenFile(path, &before).ok());
  const std::string identity = before->ContentIdentity();
  before.reset();
  std::filesystem::remove(path);
  dir.MakeFile("data", "another content");
  ASSERT_TRUE(ByteSource::OpenFile(path, &source).ok());
  EXPECT_NE(source->ContentIdentity(), identity);
}

}  // namespace
}  // namespace codec
}  // namespace tessera
