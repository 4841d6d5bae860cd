// Operating-system limits on what one run of the tool may take, as a backstop
// behind the decoders' own size checks: if a decoder or a library under it
// misjudges a hostile file, the allocation fails (and the thumbnail with it)
// instead of the machine running out of memory, and no output file can grow
// without bound.
#ifndef TESSERA_TOOL_THUMBNAIL_TOOL_PROCESS_LIMITS_H_
#define TESSERA_TOOL_THUMBNAIL_TOOL_PROCESS_LIMITS_H_

#include <cstdint>

namespace tessera {
namespace tool {

// Largest file the process may write (each thumbnail is far smaller).
constexpr uint64_t kMaxOutputFileBytes = uint64_t{64} << 20;

// Address space for the whole process: enough for a 200-megapixel photo
// decoded whole plus its working copies, and a share per hardware thread for
// thread stacks and allocator arenas of the video decoders.
constexpr uint64_t kBaseAddressSpaceBytes = uint64_t{3} << 30;
constexpr uint64_t kAddressSpacePerThreadBytes = uint64_t{64} << 20;

// Lowers the process's limits (never raises one that is already lower):
// file size to kMaxOutputFileBytes, with the over-size signal ignored so that
// a write past it fails with EFBIG instead of ending the process; and, where
// the platform has it and no address sanitizer is built in (it reserves far
// more address space than it uses), the address space. Best effort: a limit
// that cannot be set is left as it is. Call once, early in main, before any
// thread starts; not thread-safe.
void ApplyProcessLimits();

// The address-space limit ApplyProcessLimits sets on this machine, 0 when it
// sets none.
uint64_t AddressSpaceLimit();

}  // namespace tool
}  // namespace tessera

#endif  // TESSERA_TOOL_THUMBNAIL_TOOL_PROCESS_LIMITS_H_
