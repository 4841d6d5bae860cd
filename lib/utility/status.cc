#include "lib/utility/status.h"

namespace tessera {

std::string Status::ToString() const {
  const char* name = "OK";
  switch (code_) {
    case Code::kOk: return name;
    case Code::kInvalidArgument: name = "Invalid argument"; break;
    case Code::kNotFound: name = "Not found"; break;
    case Code::kNotSupported: name = "Not supported"; break;
    case Code::kIoError: name = "IO error"; break;
    case Code::kTimeout: name = "Timeout"; break;
    case Code::kInternal: name = "Internal"; break;
  }
  return std::string(name) + ": " + message_;
}

}  // namespace tessera
