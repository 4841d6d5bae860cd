// A small result type for our own platform layers and decoders, where the
// system's outer interfaces (0/-1, ThumbnailError, bool, exceptions) do not
// reach. A Status is either OK or carries a code and a message.
#ifndef TESSERA_LIB_UTILITY_STATUS_H_
#define TESSERA_LIB_UTILITY_STATUS_H_

#include <string>
#include <utility>

namespace tessera {

class Status {
 public:
  // Only the codes that callers branch on.
  enum class Code {
    kOk = 0,
    kInvalidArgument,  // the input (file content, size, parameter) is unusable
    kNotFound,         // the file or item does not exist
    kNotSupported,     // no decoder for this content / feature not handled
    kIoError,          // reading or writing failed
    kTimeout,          // a deadline ran out
    kInternal,         // a library failed in a way that is not the input's fault
  };

  // OK.
  Status() = default;

  static Status OK() { return Status(); }
  static Status InvalidArgument(std::string msg) { return Status(Code::kInvalidArgument, std::move(msg)); }
  static Status NotFound(std::string msg) { return Status(Code::kNotFound, std::move(msg)); }
  static Status NotSupported(std::string msg) { return Status(Code::kNotSupported, std::move(msg)); }
  static Status IoError(std::string msg) { return Status(Code::kIoError, std::move(msg)); }
  static Status Timeout(std::string msg) { return Status(Code::kTimeout, std::move(msg)); }
  static Status Internal(std::string msg) { return Status(Code::kInternal, std::move(msg)); }

  bool ok() const { return code_ == Code::kOk; }
  Code code() const { return code_; }
  const std::string& message() const { return message_; }

  // "OK", or "<code name>: <message>".
  std::string ToString() const;

 private:
  Status(Code code, std::string message) : code_(code), message_(std::move(message)) {}

  Code code_ = Code::kOk;
  std::string message_;
};

}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_STATUS_H_
