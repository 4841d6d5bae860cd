// Provisional start-up-state logger; replaced by the full implementation.
#include "lib/log/log.h"

#include <unistd.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace tessera {
namespace log {

int LogInit(const LogConfig&) { return 0; }
void LogDeinit() {}
bool LogIsEnabled(int level, const char*) { return level <= 4; }

void LogPrintf(int, const char*, const char* format, ...) {
  char stamp[64];
  time_t now = time(nullptr);
  struct tm tm_now;
  localtime_r(&now, &tm_now);
  strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S ", &tm_now);
  fputs(stamp, stderr);
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fflush(stderr);
}

void LogRaw(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
}

int ReadLevelConfig(const std::string&, std::unordered_map<std::string, std::string>*, bool) { return -1; }
int ProcessId() { return static_cast<int>(getpid()); }
unsigned long ThreadId() { return static_cast<unsigned long>(syscall(SYS_gettid)); }
const char* BaseName(const char* file) {
  const char* base = file;
  for (const char* p = file; *p; ++p)
    if (*p == '/' || *p == '\\') base = p + 1;
  return base;
}

}  // namespace log
}  // namespace tessera
