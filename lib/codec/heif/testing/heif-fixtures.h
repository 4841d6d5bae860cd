// HEIF files made on the fly for tests: single images coded with libheif's
// own HEVC encoder (8 or 10 bits, with an nclx colour description, a
// thumbnail, a container rotation), and grids assembled box by box around
// one coded tile, which can take the shapes real encoders never write
// (tens of thousands of tiles, tiles referenced many times over).
// Test-only.
#ifndef TESSERA_LIB_CODEC_HEIF_TESTING_HEIF_FIXTURES_H_
#define TESSERA_LIB_CODEC_HEIF_TESTING_HEIF_FIXTURES_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tessera {
namespace codec {
namespace testing {

// Writes the R, G and B samples (of the fixture's bit depth) of pixel x, y.
using HeifPainter = std::function<void(int x, int y, uint16_t* rgb)>;

struct HeifFixture {
  int width = 64;
  int height = 32;
  int bit_depth = 8;  // 8 or 10
  HeifPainter paint;
  int orientation = 1;  // EXIF numbering, applied by the container (irot, imir)
  // An nclx colour description when primaries are not 0.
  int nclx_primaries = 0;
  int nclx_transfer = 13;  // sRGB
  HeifPainter thumbnail_paint;  // encoded as a thumbnail of bounding box 32 when set
};

// An HEVC-coded HEIF; empty when libheif has no HEVC encoder.
std::string EncodeHeif(const HeifFixture& fixture);

// Every sample of the fixture's depth the same.
HeifPainter SolidHeif(uint16_t r, uint16_t g, uint16_t b);

// A coded image that a grid can repeat: its decoder configuration box
// (hvcC, header included) and its coded data.
struct CodedTile {
  int width = 0;
  int height = 0;
  std::string config_box;
  std::string data;
};

// The coded image of a file EncodeHeif made without a thumbnail; false
// when it is not found.
bool ExtractCodedTile(const std::string& heif, int width, int height, CodedTile* out);

struct HeifGrid {
  CodedTile tile;
  int rows = 2;
  int columns = 2;
  // Distinct tile items; the grid's rows x columns references cycle over
  // them. 0: one item per grid cell.
  uint32_t tile_items = 0;
};

// A HEIF whose primary image is the grid (item 1) and whose tile items all
// point at the one coded tile. Item ids are 16-bit: at most 65534 tiles.
std::string BuildHeifGrid(const HeifGrid& grid);

// Items without data, for tests of the structure walk: item i + 1 has
// types[i]; each derivation makes its first item a derived image of the
// others (dimg references). Ids are 16-bit.
struct HeifItemGraph {
  std::vector<std::string> types;
  std::vector<std::vector<uint32_t>> derivations;
};
std::string BuildHeifItemGraph(const HeifItemGraph& graph);

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_HEIF_TESTING_HEIF_FIXTURES_H_
