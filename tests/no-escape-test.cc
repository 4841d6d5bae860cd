// Media files can name other files and URLs (playlists, concat lists). The
// tool must read only the file it is given: a source that is really such a
// list must not make it open the files the list names or connect anywhere.
// Opens are watched with inotify, connections with a listening socket on the
// loopback interface.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <netinet/in.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "lib/utility/testing/scratch-dir.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using test::ScratchDir;
using testing::ProcessResult;
using testing::RunProcess;
using testing::RunTool;

// A TCP socket listening on 127.0.0.1 at a free port.
class LoopbackListener {
 public:
  LoopbackListener() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        listen(fd_, 16) != 0 || getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      return;
    }
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackListener() {
    if (fd_ >= 0) close(fd_);
  }

  int port() const { return port_; }

  // Whether a connection arrived (the kernel completes it without accept).
  bool WasConnected() {
    const int client = accept(fd_, nullptr, nullptr);
    if (client < 0) return false;
    close(client);
    return true;
  }

 private:
  int fd_ = -1;
  int port_ = 0;
};

// Counts opens and reads of one file.
class OpenWatch {
 public:
  explicit OpenWatch(const std::string& path) {
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ >= 0) watch_ = inotify_add_watch(fd_, path.c_str(), IN_OPEN | IN_ACCESS);
  }
  ~OpenWatch() {
    if (fd_ >= 0) close(fd_);
  }

  bool ok() const { return fd_ >= 0 && watch_ >= 0; }

  int Events() {
    int count = 0;
    alignas(inotify_event) char buffer[4096];
    ssize_t n;
    while ((n = read(fd_, buffer, sizeof buffer)) > 0) {
      for (char* p = buffer; p < buffer + n;) {
        const auto* event = reinterpret_cast<const inotify_event*>(p);
        ++count;
        p += sizeof(inotify_event) + event->len;
      }
    }
    return count;
  }

 private:
  int fd_ = -1;
  int watch_ = -1;
};

TEST(NoEscapeTest, ListsOfOtherFilesAndUrlsAreNeverFollowed) {
  ScratchDir scratch;
  ASSERT_FALSE(scratch.path().empty());
  const std::string out = scratch.Path("out");
  ASSERT_EQ(mkdir(out.c_str(), 0755), 0);

  // A playable local clip that a list could point at.
  const std::string secret = scratch.Path("secret.ts");
  const ProcessResult made = RunProcess(
      "ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=160x120:rate=10", "-t", "2", "-c:v",
                 "mpeg2video", secret});
  ASSERT_TRUE(made.exited && made.status == 0) << made.err;

  LoopbackListener listener;
  ASSERT_NE(listener.port(), 0);
  const std::string url = "http://127.0.0.1:" + std::to_string(listener.port());

  const std::string playlist = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:2\n#EXTINF:2.0,\nfile://" +
                               secret + "\n#EXTINF:2.0,\n" + url + "/segment.ts\n#EXT-X-ENDLIST\n";
  const std::string concat = "ffconcat version 1.0\nfile '" + secret + "'\nfile '" + url + "/b.ts'\n";
  struct Case {
    const char* name;
    std::string content;
  };
  const Case cases[] = {
      {"playlist.avi", playlist},
      {"playlist.mp4", playlist},
      {"playlist.mkv", playlist},
      {"list.mov", concat},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string src = scratch.Path(c.name);
    std::ofstream(src, std::ios::binary) << c.content;
    OpenWatch watch(secret);
    ASSERT_TRUE(watch.ok());

    const ProcessResult run = RunTool({"--output_dir", out, "--src", src});
    EXPECT_TRUE(run.exited && run.status == 0) << run.err;
    EXPECT_EQ(run.out, "null\n\n");
    EXPECT_EQ(watch.Events(), 0) << "the listed local file was opened";
    EXPECT_FALSE(listener.WasConnected()) << "the tool connected to the listed URL";
  }

  // A URL as the source is not a file either.
  const ProcessResult run = RunTool({"--output_dir", out, "--src", url + "/clip.mp4"});
  EXPECT_TRUE(run.exited && run.status == 0) << run.err;
  EXPECT_EQ(run.out, "null\n\n");
  EXPECT_FALSE(listener.WasConnected());
}

}  // namespace
}  // namespace tessera
