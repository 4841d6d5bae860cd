// A bounded look at a HEIF file's item structure before libheif sees it.
//
// libheif (1.15, as Debian ships it) turns every box, item, reference and
// property of a file into objects of its own, with lookups that grow with
// the square of their number, and decodes every tile of a grid, each with a
// decoder of its own. A file of under a megabyte can declare tens of
// thousands of each and keep it busy for minutes. CheckHeifStructure walks
// the boxes itself, counting without allocating for what it counts, and
// refuses files beyond what cameras and phones write (a 48-megapixel grid
// has 100 to 200 tiles) before any of that work starts. Internal to
// lib/codec.
#ifndef TESSERA_LIB_CODEC_HEIF_HEIF_STRUCTURE_H_
#define TESSERA_LIB_CODEC_HEIF_HEIF_STRUCTURE_H_

#include <cstddef>
#include <cstdint>

#include "lib/codec/byte-source.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

// Boxes at the top level and inside the meta box, together.
constexpr uint32_t kMaxHeifBoxes = 1 << 16;
// Items (infe entries, iloc entries, ipma entries).
constexpr uint32_t kMaxHeifItems = 4096;
// Item references, counting every referenced item of every iref entry.
constexpr uint32_t kMaxHeifReferences = 8192;
// Extents of all iloc entries together.
constexpr uint32_t kMaxHeifExtents = 16384;
// Coded images that one derived image (grid, overlay, identity) is made
// of, nested derivations multiplied out, and the grid size a grid declares.
constexpr uint32_t kMaxHeifTiles = 1024;
// Derived images made of derived images, this many levels deep at most.
constexpr int kMaxHeifDerivationDepth = 4;

// What the walk counted.
struct HeifStructure {
  uint32_t boxes = 0;
  uint32_t items = 0;
  uint32_t references = 0;
  // The largest number of coded images behind one item (1 for a coded
  // image, the tile count for a grid of coded images).
  uint32_t largest_derivation = 0;
};

// Walks the top-level boxes and the first meta box of `data` and refuses
// (InvalidArgument) a file whose counts exceed the limits above, whose
// derivations form a cycle, or whose grid declares more tiles than allowed.
// Boxes it cannot make sense of end the walk without a refusal: libheif
// judges those itself. Gives up with Timeout once `source` is cancelled.
// `out` (may be null) receives the counts on success. Thread-safe.
Status CheckHeifStructure(const uint8_t* data, size_t size, const ByteSource& source, HeifStructure* out);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_HEIF_HEIF_STRUCTURE_H_
