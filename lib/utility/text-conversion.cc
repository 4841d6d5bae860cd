#include "lib/utility/text-conversion.h"

#include <unicode/umachine.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <limits>
#include <memory>
#include <mutex>
#include <new>

namespace tessera {
namespace utility {
namespace {

static_assert(sizeof(UChar) == sizeof(char16_t), "ICU UChar must be a UTF-16 code unit");

// The line numbers are a fixed part of the warning texts that callers and
// log readers match on; they are printed as they are.
constexpr int kFromUTF8WarningLine = 120;
constexpr int kToUTF8WarningLine = 83;

// Element count for a buffer of length + 1 units. A count whose byte size
// would overflow becomes the largest count, so that the allocation throws
// std::bad_alloc instead of silently getting a short buffer.
template <typename T>
size_t BufferCount(int32_t length) {
  constexpr size_t kMaxCount = std::numeric_limits<size_t>::max() / sizeof(T);
  if (length < 0 || static_cast<uint64_t>(length) + 1 > kMaxCount) return std::numeric_limits<size_t>::max();
  return static_cast<size_t>(length) + 1;
}

template <typename T>
std::unique_ptr<T[]> Allocate(int32_t length) {
  return std::unique_ptr<T[]>(new T[BufferCount<T>(length)]);
}

void PrintWarning(const char* function, UErrorCode code, int line) {
  std::cerr << "Warning: " << function << ": error code " << static_cast<int>(code) << " at line " << line
            << std::endl;
}

// Converts in (up to its first NUL) into *out. Returns the ICU error code of
// the real conversion; *out is replaced only when that code is not a failure.
UErrorCode FromUTF8(const std::string& in, std::u16string* out) {
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  // Pre-flight: only the length is wanted, the (overflow) code is expected.
  u_strFromUTF8(nullptr, 0, &length, in.c_str(), -1, &error);
  std::unique_ptr<UChar[]> buffer = Allocate<UChar>(length);
  error = U_ZERO_ERROR;
  u_strFromUTF8(buffer.get(), length + 1, &length, in.c_str(), -1, &error);
  if (U_FAILURE(error)) return error;
  buffer[length] = 0;
  out->assign(reinterpret_cast<const char16_t*>(buffer.get()), static_cast<size_t>(length));
  return error;
}

UErrorCode ToUTF8(const std::u16string& in, std::string* out) {
  UErrorCode error = U_ZERO_ERROR;
  int32_t length = 0;
  const UChar* source = reinterpret_cast<const UChar*>(in.c_str());
  u_strToUTF8(nullptr, 0, &length, source, -1, &error);
  std::unique_ptr<char[]> buffer = Allocate<char>(length);
  error = U_ZERO_ERROR;
  u_strToUTF8(buffer.get(), length + 1, &length, source, -1, &error);
  if (U_FAILURE(error)) return error;
  buffer[length] = '\0';
  out->assign(buffer.get(), static_cast<size_t>(length));
  return error;
}

}  // namespace

int UTF8ToUTF16(const std::string& in, std::u16string* out) {
  UErrorCode error = FromUTF8(in, out);
  if (U_FAILURE(error)) {
    PrintWarning("u_strFromUTF8", error, kFromUTF8WarningLine);
    return -1;
  }
  return 0;
}

int UTF16ToUTF8(const std::u16string& in, std::string* out) {
  UErrorCode error = ToUTF8(in, out);
  if (U_FAILURE(error)) {
    PrintWarning("u_strToUTF8", error, kToUTF8WarningLine);
    return -1;
  }
  return 0;
}

std::u16string UTF8ToUTF16(const std::string& in) {
  std::u16string out;
  UTF8ToUTF16(in, &out);
  return out;
}

std::string UTF16ToUTF8(const std::u16string& in) {
  std::string out;
  UTF16ToUTF8(in, &out);
  return out;
}

// A validity test is a question, not a failure: it runs the same strict
// conversion but prints no warning.
bool IsValidUTF8(const std::string& in) {
  if (in.empty()) return true;
  std::u16string scratch;
  return FromUTF8(in, &scratch) != U_INVALID_CHAR_FOUND;
}

// The result may hold 127 UTF-16 units (a buffer of 128 wide characters with
// its terminator); one that does not fit, or an empty one, gives an empty
// string, as the wide strftime reports 0 for both. The narrow strftime writes
// UTF-8, so its buffer is sized for 3 bytes a unit (a surrogate pair, 2 units,
// takes 4 bytes) and the units are counted afterwards.
std::string FormatLocalTime(const std::string& format) {
  constexpr size_t kMaxUnits = 127;
  // A format that is not valid UTF-8 is refused like any other text.
  std::u16string checked;
  if (UTF8ToUTF16(format, &checked) != 0) return std::string();
  std::time_t now = std::time(nullptr);
  std::tm local = {};
  {
    // std::localtime shares one static result; copy it out under a lock.
    static std::mutex localtime_mutex;
    std::lock_guard<std::mutex> lock(localtime_mutex);
    const std::tm* shared = std::localtime(&now);
    if (shared == nullptr) return std::string();
    local = *shared;
  }
  char buffer[kMaxUnits * 3 + 1];
  size_t written = std::strftime(buffer, sizeof buffer, format.c_str(), &local);
  std::string result(buffer, written);
  std::u16string units;
  if (UTF8ToUTF16(result, &units) != 0 || units.size() > kMaxUnits) return std::string();
  return result;
}

}  // namespace utility
}  // namespace tessera
