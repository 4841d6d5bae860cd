// Windows primitives of the logger. Files are named in UTF-16; the log file
// is a wide stream that the runtime encodes as UTF-8 ("ccs=UTF-8"), so every
// message is widened (leniently, like the rest of the logger's conversions)
// before it is written there. The standard streams get the UTF-8 bytes
// themselves, as on POSIX: they are byte streams, and the runtime's wide
// output to them would depend on the C locale.
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "lib/log/log-platform.h"
#include "lib/log/log.h"

namespace tessera {
namespace log {

int ProcessId() { return _getpid(); }

unsigned long ThreadId() { return static_cast<unsigned long>(GetCurrentThreadId()); }

namespace internal {
namespace {

// UTF-8 to UTF-16 with MultiByteToWideChar (invalid bytes become U+FFFD).
std::wstring Widen(const char* text, int length = -1) {
  if (length == 0) return std::wstring();
  int needed = MultiByteToWideChar(CP_UTF8, 0, text, length, nullptr, 0);
  if (needed <= 0) return std::wstring();
  std::wstring wide(static_cast<size_t>(needed), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text, length, &wide[0], needed);
  if (length < 0) wide.resize(static_cast<size_t>(needed) - 1);  // drop the counted NUL
  return wide;
}

bool IsStandardStream(FILE* stream) { return stream == stdout || stream == stderr; }

void DisallowInheritance(FILE* stream) {
  intptr_t os_handle = _get_osfhandle(_fileno(stream));
  if (os_handle != -1) SetHandleInformation(reinterpret_cast<HANDLE>(os_handle), HANDLE_FLAG_INHERIT, 0);
}

// Writes finished UTF-8 text; returns the number of characters written (wide
// characters for a file stream), negative on an output error.
int WriteText(FILE* stream, const char* text, size_t length) {
  if (IsStandardStream(stream)) {
    if (length != 0 && fwrite(text, 1, length, stream) != length) return -1;
    return static_cast<int>(length);
  }
  std::wstring wide = Widen(text, static_cast<int>(length));
  if (!wide.empty() && fputws(wide.c_str(), stream) < 0) return -1;
  return static_cast<int>(wide.size());
}

}  // namespace

FILE* OpenForAppend(const std::string& path) {
  std::wstring wide = Widen(path.c_str());
  if (wide.empty()) return nullptr;
  FILE* stream = _wfopen(wide.c_str(), L"a,ccs=UTF-8");
  if (stream != nullptr) DisallowInheritance(stream);
  return stream;
}

FILE* OpenForReading(const std::string& path) {
  std::wstring wide = Widen(path.c_str());
  if (wide.empty()) return nullptr;
  return _wfopen(wide.c_str(), L"r");
}

bool RenameNoReplace(const std::string& from, const std::string& to) {
  // Without MOVEFILE_REPLACE_EXISTING the move fails when `to` exists.
  return MoveFileExW(Widen(from.c_str()).c_str(), Widen(to.c_str()).c_str(), 0) != 0;
}

bool RemoveFile(const std::string& path) { return DeleteFileW(Widen(path.c_str()).c_str()) != 0; }

FileSizeStep FileSize(const std::string& path, uint64_t* size, long* error_code) {
  HANDLE file = CreateFileW(Widen(path.c_str()).c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    *error_code = static_cast<long>(GetLastError());
    return FileSizeStep::kOpen;
  }
  LARGE_INTEGER bytes;
  BOOL ok = GetFileSizeEx(file, &bytes);
  long error = ok ? 0 : static_cast<long>(GetLastError());
  CloseHandle(file);
  if (!ok) {
    *error_code = error;
    return FileSizeStep::kQuery;
  }
  *size = static_cast<uint64_t>(bytes.QuadPart);
  return FileSizeStep::kNone;
}

void FormatTimeStamp(char* buffer, size_t buffer_size) {
  if (buffer_size == 0) return;
  buffer[0] = '\0';
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_s(&local, &now) != 0) return;
  if (strftime(buffer, buffer_size, "%Y-%m-%dT%H:%M:%S ", &local) == 0) buffer[0] = '\0';
}

int PrintText(FILE* stream, const char* text) { return WriteText(stream, text, strlen(text)); }

int VPrintFormat(FILE* stream, const char* format, va_list args) {
  va_list measure;
  va_copy(measure, args);
  int length = vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) return -1;
  std::vector<char> text(static_cast<size_t>(length) + 1);
  vsnprintf(text.data(), text.size(), format, args);
  return WriteText(stream, text.data(), static_cast<size_t>(length));
}

void LockStream(FILE* stream) { _lock_file(stream); }

void UnlockStream(FILE* stream) { _unlock_file(stream); }

}  // namespace internal
}  // namespace log
}  // namespace tessera
