// Ending the process at once, whatever its other threads are doing.
#ifndef TESSERA_LIB_UTILITY_PROCESS_EXIT_H_
#define TESSERA_LIB_UTILITY_PROCESS_EXIT_H_

namespace tessera {
namespace utility {

// Ends the process with `status`, running no destructors and no exit
// handlers, and on Windows no library's detach code either: a library that
// another thread is still inside (a media reader stuck on a broken file) may
// crash in it and turn a clean exit into a crash. Buffered output is the
// caller's to flush first.
[[noreturn]] void EndProcessNow(int status);

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_PROCESS_EXIT_H_
