// Strict UTF-8 <-> UTF-16 conversion and local-time formatting.
//
// Wide text is std::u16string on every platform (the Windows layer hands it to
// Win32 as wchar_t*). Invalid input is refused: the status forms print one
// warning line on standard error and leave *out unchanged; the value forms
// return an empty string. Input is read up to its first NUL.
//
// Thread-safety: stateless, callable from any thread.
#ifndef TESSERA_LIB_UTILITY_TEXT_CONVERSION_H_
#define TESSERA_LIB_UTILITY_TEXT_CONVERSION_H_

#include <string>

namespace tessera {
namespace utility {

// 0 on success (*out replaced); -1 on invalid input (*out unchanged), after
// "Warning: u_strFromUTF8: error code <n> at line 120" on standard error.
int UTF8ToUTF16(const std::string& in, std::u16string* out);
// 0 on success; -1 after "Warning: u_strToUTF8: error code <n> at line 83".
int UTF16ToUTF8(const std::u16string& in, std::string* out);

// Value forms: empty on failure.
std::u16string UTF8ToUTF16(const std::string& in);
std::string UTF16ToUTF8(const std::u16string& in);

// True for the empty string; false only when the text holds an invalid
// UTF-8 sequence.
bool IsValidUTF8(const std::string& in);

// The current local time formatted with a strftime format (UTF-8); empty
// when the result is longer than 127 UTF-16 units, is empty, or the format
// is not valid UTF-8. Thread-safe.
std::string FormatLocalTime(const std::string& format);

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TEXT_CONVERSION_H_
