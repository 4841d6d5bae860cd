// The process-wide logger: state, thresholds, the write path with its size
// accounting and rotation, and the level-config reader. Everything that
// touches the operating system is in log-platform.h.
#include "lib/log/log.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <sstream>

#include "lib/log/log-platform.h"

namespace tessera {
namespace log {
namespace {

constexpr int kDefaultThreshold = 4;
constexpr int64_t kRotationLimit = 0x500000;
constexpr size_t kTimeStampBufferSize = 1024;
constexpr size_t kLevelConfigLineSize = 8192;
constexpr char kDefaultComponent[] = "default_component";

using ThresholdMap = std::unordered_map<std::string, int>;

struct LoggerState {
  // Guards the configuration below (destination, paths, stream, mutex
  // pointer, counters): LogInit, LogDeinit and the reset hold it exclusively,
  // every writer holds it shared for the whole of its line. So a writer
  // never sees half a configuration, and LogDeinit closes the file only once
  // no writer is inside. Writers to one file are serialised by `mutex` on
  // top (lock_mode), which also guards the stream and counters that rotation
  // changes.
  std::shared_mutex config_lock;
  // Read by the level test of every log call, without any lock.
  std::atomic<bool> initialised{true};
  int destination = 1;
  std::string log_path;
  std::string level_config_path;
  int rotation_count = 50;
  int lock_mode = 1;
  // The path all file calls use; cleared for the standard-stream destinations.
  std::string file_path;
  FILE* stream = stderr;
  // The size and generation counters. They are only read in file mode, where
  // LogInit has set them.
  int32_t current_size = -1;
  uint64_t rotation_generation = 0;
  uint64_t generation_seen = 0;
  // Points at `mutex_storage` while a mutex is "created" (lock_mode 1 and
  // above in file mode).
  std::mutex* mutex = nullptr;
  std::mutex mutex_storage;
  // Replaced whole by LogInit and read without a lock by the level test of
  // every log call, so readers always see one complete map: access only
  // through LoadThresholds/StoreThresholds.
  std::shared_ptr<const ThresholdMap> thresholds = std::make_shared<const ThresholdMap>();
};

std::shared_ptr<const ThresholdMap> LoadThresholds(const LoggerState& state) {
  return std::atomic_load(&state.thresholds);
}

void StoreThresholds(LoggerState* state, ThresholdMap thresholds) {
  std::atomic_store(&state->thresholds,
                    std::shared_ptr<const ThresholdMap>(std::make_shared<ThresholdMap>(std::move(thresholds))));
}

// Never destroyed: threads that outlive main (an abandoned job) may still log
// while static destructors run.
LoggerState& State() {
  static LoggerState* state = new LoggerState();
  return *state;
}

int Threshold(const LoggerState& state, const char* component) {
  const std::shared_ptr<const ThresholdMap> thresholds = LoadThresholds(state);
  auto it = thresholds->find(component != nullptr ? component : "");
  return it == thresholds->end() ? kDefaultThreshold : it->second;
}

// Writes the time stamp (through the same stream lock as the message, so
// both stay on one line) and the message. Returns the printed character count.
int PrintStamped(FILE* stream, const char* format, va_list args) {
  char stamp[kTimeStampBufferSize];
  internal::FormatTimeStamp(stamp, sizeof stamp);
  internal::LockStream(stream);
  int stamp_count = internal::PrintText(stream, stamp);
  int message_count = internal::VPrintFormat(stream, format, args);
  fflush(stream);
  internal::UnlockStream(stream);
  return stamp_count + message_count;
}

// LogRaw for callers that hold the configuration lock already.
void RawLocked(const LoggerState& state, const char* format, ...) __attribute__((format(printf, 2, 3)));
void RawLocked(const LoggerState& state, const char* format, ...) {
  // Destination 0 has no stream of its own; its text goes to standard error.
  FILE* stream = state.stream != nullptr ? state.stream : stderr;
  va_list args;
  va_start(args, format);
  PrintStamped(stream, format, args);
  va_end(args);
}

void SetSizeFromDisk(LoggerState& state) {
  uint64_t size = 0;
  long error_code = 0;
  switch (internal::FileSize(state.file_path, &size, &error_code)) {
    case internal::FileSizeStep::kNone:
      // Only the low 32 bits count.
      state.current_size = static_cast<int32_t>(static_cast<uint32_t>(size & 0xffffffffu));
      return;
    case internal::FileSizeStep::kOpen:
      RawLocked(state, "CreateFile(%s): error code %ld\n", state.file_path.c_str(), error_code);
      break;
    case internal::FileSizeStep::kQuery:
      RawLocked(state, "GetFileSizeEx(%s): error code %ld\n", state.file_path.c_str(), error_code);
      break;
  }
  state.current_size = 0;
}

std::string OldFilePath(const LoggerState& state, int number) {
  return state.file_path + "_" + std::to_string(number);
}

// Rotates the live file. The order is deliberate: the chain of renames runs
// before the oldest file is deleted, and no rename replaces its target. So
// once every numbered file exists, the live file cannot be renamed and the
// logger stays silent (no stream) until the next LogInit.
int Rotate(LoggerState& state) {
  const int count = state.rotation_count;
  for (int i = count - 2; i >= 0; --i) {
    internal::RenameNoReplace(OldFilePath(state, i), OldFilePath(state, i + 1));
  }
  internal::RemoveFile(OldFilePath(state, count - 1));
  if (state.stream != nullptr) fclose(state.stream);
  state.stream = nullptr;
  if (!internal::RenameNoReplace(state.file_path, OldFilePath(state, 0))) return -1;
  state.stream = internal::OpenForAppend(state.file_path);
  if (state.stream == nullptr) return -1;
  ++state.rotation_generation;
  ++state.generation_seen;
  return 0;
}

// Another writer sharing the counters may have rotated: follow it to the new
// live file. With process-local counters this only happens after a rotation of
// our own, which already reopened.
void ReopenIfRotated(LoggerState& state) {
  if (state.rotation_generation == state.generation_seen) return;
  if (state.stream != nullptr) fclose(state.stream);
  state.stream = internal::OpenForAppend(state.file_path);
  if (state.stream == nullptr) return;
  SetSizeFromDisk(state);
  state.generation_seen = state.rotation_generation;
}

// Steps run under the mutex (when there is one): reopen check, write, size
// accounting and rotation.
void WriteMessage(LoggerState& state, const char* format, va_list args) {
  const int destination = state.destination;
  if (destination == 3 && state.lock_mode >= 2) ReopenIfRotated(state);

  int count = 0;
  if (destination >= 1 && destination <= 3) {
    if (state.stream == nullptr) return;  // a failed reopen leaves no stream
    count = PrintStamped(state.stream, format, args);
  } else {
    internal::VPrintFormat(stderr, format, args);
    fflush(stderr);
  }

  if (destination != 3 || count < 0) return;
  // Characters printed are added to a size that started in bytes: the limit
  // is approximate by design.
  int64_t size = static_cast<int64_t>(state.current_size) + count;
  if (size > kRotationLimit) {
    Rotate(state);
    size = 0;
  }
  state.current_size = static_cast<int32_t>(size);
}

// LogDeinit with the configuration lock held exclusively: no writer is
// inside, so the file can be closed.
void DeinitLocked(LoggerState& state) {
  state.initialised = false;
  // Every destination that opened the log file (3, and above 3, which opens
  // it alike) closes it here; closing only for 3 would leak the handle of the
  // others. Standard output then becomes the stream under destination 2, a
  // pairing that callers of LogRaw have always seen and that is kept.
  if (state.destination >= 3) {
    if (state.stream != nullptr && state.stream != stdout && state.stream != stderr) fclose(state.stream);
    state.stream = stdout;
    state.destination = 2;
    state.file_path.clear();
    state.rotation_count = 32;
  }
  state.current_size = -1;
  state.rotation_generation = 0;
  state.generation_seen = 0;
  state.mutex = nullptr;
}

bool IsBlank(unsigned char c) { return c == ' ' || (c >= 9 && c <= 13); }

bool IsKeyChar(unsigned char c) {
  return c == '-' || c == '.' || c == '_' || (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
         (c >= 'a' && c <= 'z');
}

// A value ends at any control character or DEL.
bool EndsValue(unsigned char c) { return c < 32 || c == 127; }

const unsigned char* SkipBlanks(const unsigned char* p) {
  while (IsBlank(*p)) ++p;
  return p;
}

enum class LineKind { kSkip, kPair, kBad };

// Parses one line as fgets returned it (with its line feed, if any).
LineKind ParseLevelConfigLine(char* line, bool keep_quotes, std::string* key, std::string* value) {
  // A line read in binary mode may still end in CR LF; treat it like LF.
  size_t length = strlen(line);
  if (length >= 2 && line[length - 2] == '\r' && line[length - 1] == '\n') {
    line[length - 2] = '\n';
    line[length - 1] = '\0';
  }

  const unsigned char* p = SkipBlanks(reinterpret_cast<const unsigned char*>(line));
  const unsigned char* key_begin = p;
  while (IsKeyChar(*p)) ++p;
  const unsigned char* key_end = p;
  // A line that ends right after its key (or has no key at all) is empty or a
  // comment.
  if (*p == '#' || *p == '\0' || *p == '\n') return LineKind::kSkip;

  p = SkipBlanks(p);
  if (*p != '=') return LineKind::kBad;
  p = SkipBlanks(p + 1);
  if (*p == '\0') return LineKind::kBad;

  const unsigned char* value_begin = p;
  const unsigned char* value_end;
  if (*p == '"' || *p == '\'') {
    const unsigned char quote = *p++;
    while (*p != quote && !EndsValue(*p)) ++p;
    if (*p != quote) return LineKind::kBad;
    ++p;
    if (keep_quotes) {
      value_end = p;
    } else {
      ++value_begin;
      value_end = p - 1;
    }
  } else {
    while (!IsBlank(*p) && !EndsValue(*p)) ++p;
    value_end = p;
  }

  p = SkipBlanks(p);
  if (*p != '\0' && *p != '#') return LineKind::kBad;

  key->assign(reinterpret_cast<const char*>(key_begin), key_end - key_begin);
  value->assign(reinterpret_cast<const char*>(value_begin), value_end - value_begin);
  return LineKind::kPair;
}

int ParseThreshold(const std::string& text) {
  int value = 0;
  std::istringstream stream(text);
  stream >> value;  // stays 0 when the text holds no number
  return value;
}

}  // namespace

int ReadLevelConfig(const std::string& path, std::unordered_map<std::string, std::string>* values,
                    bool keep_quotes) {
  FILE* file = internal::OpenForReading(path);
  if (file == nullptr) return -1;
  // Lines longer than the buffer arrive in pieces, each parsed as a line.
  char line[kLevelConfigLineSize];
  std::string key;
  std::string value;
  int result = 0;
  while (fgets(line, sizeof line, file) != nullptr) {
    LineKind kind = ParseLevelConfigLine(line, keep_quotes, &key, &value);
    if (kind == LineKind::kBad) {
      values->clear();
      result = -1;
      break;
    }
    if (kind == LineKind::kPair) (*values)[key] = value;
  }
  fclose(file);
  return result;
}

void LogDeinit() {
  LoggerState& state = State();
  // The flag falls first, so that no new writer queues up for the lock; the
  // lock then waits for the writers that got past their checks before.
  state.initialised = false;
  std::unique_lock<std::shared_mutex> lock(state.config_lock);
  DeinitLocked(state);
}

int LogInit(const LogConfig& config) {
  LoggerState& state = State();
  state.initialised = false;
  std::unique_lock<std::shared_mutex> lock(state.config_lock);
  DeinitLocked(state);
  state.destination = config.destination;
  state.log_path = config.log_path;
  state.level_config_path = config.level_config_path;
  state.rotation_count = config.rotation_count;
  state.lock_mode = config.lock_mode;
  state.file_path = config.log_path;
  if (state.destination != 3) state.lock_mode = 0;
  if (state.lock_mode >= 1 && state.mutex == nullptr) state.mutex = &state.mutex_storage;

  // Each initialisation starts from the default threshold alone.
  ThresholdMap thresholds;
  thresholds[kDefaultComponent] = kDefaultThreshold;
  if (!state.level_config_path.empty()) {
    std::unordered_map<std::string, std::string> values;
    ReadLevelConfig(state.level_config_path, &values);
    for (const auto& entry : values) thresholds[entry.first] = ParseThreshold(entry.second);
  }
  StoreThresholds(&state, std::move(thresholds));

  switch (state.destination) {
    case 0:
      state.stream = nullptr;
      break;
    case 1:
      state.stream = stdout;
      break;
    case 2:
      state.stream = stderr;
      break;
    default: {
      if (state.file_path.empty()) return -1;
      FILE* file = internal::OpenForAppend(state.file_path);
      if (file == nullptr) return -1;
      state.stream = file;
      state.rotation_generation = 0;
      state.generation_seen = 0;
      SetSizeFromDisk(state);
      state.initialised = true;
      return 0;
    }
  }
  state.file_path.clear();
  state.current_size = -1;
  state.rotation_generation = 0;
  state.generation_seen = 0;
  state.initialised = true;
  return 0;
}

void LogResetForTesting() {
  LoggerState& state = State();
  state.initialised = false;
  std::unique_lock<std::shared_mutex> lock(state.config_lock);
  DeinitLocked(state);
  state.destination = 1;
  state.log_path.clear();
  state.level_config_path.clear();
  state.rotation_count = 50;
  state.lock_mode = 1;
  state.file_path.clear();
  state.stream = stderr;
  StoreThresholds(&state, ThresholdMap());
  state.initialised = true;
}

bool LogIsEnabled(int level, const char* component) {
  const LoggerState& state = State();
  if (!state.initialised) return false;
  return level <= Threshold(state, component);
}

void LogPrintf(int level, const char* component, const char* format, ...) {
  LoggerState& state = State();
  if (!state.initialised) return;
  if (level > Threshold(state, component)) return;

  std::shared_lock<std::shared_mutex> config(state.config_lock);
  // LogDeinit may have run between the checks above and the lock.
  if (!state.initialised) return;
  std::unique_lock<std::mutex> lock;
  if (state.mutex != nullptr) lock = std::unique_lock<std::mutex>(*state.mutex);
  // A failed reopen after a rotation leaves no stream.
  if (state.destination != 0 && state.stream == nullptr) return;
  va_list args;
  va_start(args, format);
  WriteMessage(state, format, args);
  va_end(args);
}

void LogRaw(const char* format, ...) {
  LoggerState& state = State();
  std::shared_lock<std::shared_mutex> config(state.config_lock);
  // A rotation replaces the stream under the file's mutex.
  std::unique_lock<std::mutex> lock;
  if (state.mutex != nullptr) lock = std::unique_lock<std::mutex>(*state.mutex);
  // Destination 0 has no stream of its own; its text goes to standard error.
  FILE* stream = state.stream != nullptr ? state.stream : stderr;
  va_list args;
  va_start(args, format);
  PrintStamped(stream, format, args);
  va_end(args);
}

const char* BaseName(const char* file) {
  const char* base = file;
  for (const char* p = file; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace log
}  // namespace tessera
