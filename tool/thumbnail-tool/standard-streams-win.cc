// Standard output and standard error in binary mode, set before main runs:
// the report and the messages are written with "\n" line ends, byte for byte
// as on every other platform, instead of the runtime's "\r\n" translation.
#include <fcntl.h>
#include <io.h>

#include <cstdio>

namespace {

struct BinaryStandardStreams {
  BinaryStandardStreams() {
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
  }
};

const BinaryStandardStreams binary_standard_streams;

}  // namespace
