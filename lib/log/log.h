// The process-wide logger.
//
// Every module logs under a named component ("thumbnail_debug",
// "utility_debug", "file_op_debug", ...). A message is written when its level
// does not exceed the component's threshold; a component without an entry has
// threshold 4, so errors and warnings pass and info and debug are dropped.
//
// Without LogInit the logger is in its start-up state: initialised, writing to
// standard error with a time stamp. Standard output is never written unless a
// caller asks for destination 1 explicitly.
//
// Formats and string arguments are UTF-8 (printf style). The Windows layer
// widens the finished text at the edge; the POSIX layer writes the bytes.
//
// Thread-safety: every function may be called from any thread. LogInit and
// LogDeinit must not race with each other.
#ifndef TESSERA_LIB_LOG_LOG_H_
#define TESSERA_LIB_LOG_LOG_H_

#include <string>
#include <unordered_map>

namespace tessera {
namespace log {

// syslog numbering; only these four are used.
enum Level : int {
  kError = 3,
  kWarning = 4,
  kInfo = 6,
  kDebug = 7,
};

// Destinations: 0 = raw to standard error (no time stamp), 1 = standard
// output, 2 = standard error, 3 (or above) = the log file, rotated by size.
struct LogConfig {
  int destination = 1;
  std::string log_path;           // UTF-8; used for destination 3
  std::string level_config_path;  // UTF-8; optional "component = level" file
  int rotation_count = 50;        // numbered old files kept by rotation
  int lock_mode = 1;              // 0 none, 1 mutex, 2+ mutex and reopen check
};

// (Re)initialises the logger. Returns 0, or -1 when the log file cannot be
// opened or the state cannot be allocated.
int LogInit(const LogConfig& config);

// Returns the logger to the uninitialised state: every later call is ignored
// until the next LogInit.
void LogDeinit();

// For tests only: closes a log file and returns the logger to its start-up
// state (initialised, destination 1 on standard error, no configured
// component, no counters, no mutex), which no LogInit call can reproduce.
// Must not race with any other logger call.
void LogResetForTesting();

// True when initialised and level <= threshold(component). Call sites test
// this before they build any argument.
bool LogIsEnabled(int level, const char* component);

// Writes one message (format already carries its prefix and line feed).
void LogPrintf(int level, const char* component, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Writes straight to the current stream with a time stamp, without level test
// or prefix. For the logger's own errors.
void LogRaw(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Reads a level-config file ("key = value" lines, '#' comments, quoted
// values) into *values. On a bad line *values is emptied and -1 is returned;
// on an unopenable file -1 is returned and *values is untouched.
// keep_quotes keeps the quotes around a quoted value.
int ReadLevelConfig(const std::string& path, std::unordered_map<std::string, std::string>* values,
                    bool keep_quotes = false);

// Pieces of the line prefix "(%5d:%5d) [LEVEL] %s(%d): ".
int ProcessId();
unsigned long ThreadId();  // the OS thread id, whole; the macros take it % 100000
// The file name after the last '/' or '\\' of a compile-time path.
const char* BaseName(const char* file);

}  // namespace log
}  // namespace tessera

// Logs one line with the fixed prefix at an explicit source line. The
// arguments are not evaluated unless the level is enabled for the component.
#define TESSERA_LOG_AT(level, tag, component, line, format, ...)                                   \
  do {                                                                                             \
    if (::tessera::log::LogIsEnabled((level), (component))) {                                      \
      ::tessera::log::LogPrintf((level), (component), "(%5d:%5d) [" tag "] %s(%d): " format "\n", \
                                ::tessera::log::ProcessId(),                                       \
                                static_cast<int>(::tessera::log::ThreadId() % 100000),             \
                                ::tessera::log::BaseName(__FILE__), (line), ##__VA_ARGS__);        \
    }                                                                                              \
  } while (0)

#define LOG_ERROR(component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kError, "ERROR", component, __LINE__, format, ##__VA_ARGS__)
#define LOG_WARNING(component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kWarning, "WARNING", component, __LINE__, format, ##__VA_ARGS__)
#define LOG_INFO(component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kInfo, "INFO", component, __LINE__, format, ##__VA_ARGS__)
#define LOG_DEBUG(component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kDebug, "DEBUG", component, __LINE__, format, ##__VA_ARGS__)

// The same with the source line given explicitly, for messages whose line
// number is part of the system's documented output.
#define LOG_ERROR_AT(line, component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kError, "ERROR", component, line, format, ##__VA_ARGS__)
#define LOG_WARNING_AT(line, component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kWarning, "WARNING", component, line, format, ##__VA_ARGS__)
#define LOG_INFO_AT(line, component, format, ...) \
  TESSERA_LOG_AT(::tessera::log::kInfo, "INFO", component, line, format, ##__VA_ARGS__)

#endif  // TESSERA_LIB_LOG_LOG_H_
