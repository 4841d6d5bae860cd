#include "lib/codec/heif/heif-structure.h"

#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/heif/testing/heif-fixtures.h"
#include "lib/utility/cancellation.h"

namespace tessera {
namespace codec {
namespace {

using testing::BuildHeifGrid;
using testing::BuildHeifItemGraph;
using testing::HeifGrid;
using testing::HeifItemGraph;

Status Check(const std::string& bytes, HeifStructure* out = nullptr, bool cancelled = false) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  if (cancelled) {
    auto cancellation = std::make_shared<utility::Cancellation>();
    cancellation->Cancel();
    source->set_cancellation(cancellation);
  }
  return CheckHeifStructure(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), *source, out);
}

// The walk never decodes: a stand-in tile will do.
std::string Grid(int rows, int columns, uint32_t tile_items = 0) {
  HeifGrid grid;
  grid.tile.width = 64;
  grid.tile.height = 64;
  grid.tile.config_box = std::string("\0\0\0\x0chvcC\1\2\3\4", 12);
  grid.tile.data = "coded";
  grid.rows = rows;
  grid.columns = columns;
  grid.tile_items = tile_items;
  return BuildHeifGrid(grid);
}

TEST(HeifStructureTest, CountsARealisticGrid) {
  HeifStructure counts;
  ASSERT_TRUE(Check(Grid(12, 16), &counts).ok());
  EXPECT_EQ(counts.items, 193u);
  EXPECT_EQ(counts.references, 192u);
  EXPECT_EQ(counts.largest_derivation, 192u);
  // ftyp, meta and mdat; in meta hdlr, pitm, iloc, iinf, iref, iprp and
  // idat; the infe boxes, one dimg, ipco and ipma, three properties.
  EXPECT_EQ(counts.boxes, 3u + 7u + 193u + 1u + 2u + 3u);
}

TEST(HeifStructureTest, RefusesWhatRealFilesNeverHold) {
  HeifItemGraph nested;  // a grid of two grids of 600 tiles each
  nested.types = {"grid", "grid", "grid"};
  nested.derivations = {{1, 2, 3}, {2}, {3}};
  for (uint32_t i = 0; i < 600; ++i) {
    nested.types.push_back("hvc1");
    nested.derivations[1].push_back(4 + i);
    nested.derivations[2].push_back(4 + i);
  }
  HeifItemGraph cycle;
  cycle.types = {"iden", "iden"};
  cycle.derivations = {{1, 2}, {2, 1}};
  HeifItemGraph deep;
  deep.types = {"iden", "iden", "iden", "iden", "iden", "hvc1"};
  deep.derivations = {{1, 2}, {2, 3}, {3, 4}, {4, 5}, {5, 6}};
  // A small grid whose ipma says it has a million entries.
  std::string associations = Grid(1, 1);
  const size_t ipma = associations.find("ipma");
  associations.replace(ipma + 8, 4, std::string("\0\x0f\x42\x40", 4));
  // A 2x2 grid of 64x64 tiles that declares itself 200 wide.
  std::string uncovered = Grid(2, 2);
  const size_t grid_data = uncovered.find("idat") + 4;
  uncovered[grid_data + 4] = 0;
  uncovered[grid_data + 5] = static_cast<char>(200);
  std::string many_boxes = Grid(1, 1);
  for (uint32_t i = 0; i < kMaxHeifBoxes; ++i) many_boxes += std::string("\0\0\0\x08" "free", 8);

  struct Case {
    const char* name;
    std::string bytes;
    const char* reason;
  };
  const Case cases[] = {
      {"19881 tile items", Grid(141, 141), "items"},
      {"65280 references over 1000 items", Grid(255, 256, 1000), "item references"},
      {"1600 tiles over 100 items", Grid(40, 40, 100), "grid tiles"},
      {"a grid of grids", BuildHeifItemGraph(nested), "coded images in one derived image"},
      {"a cycle", BuildHeifItemGraph(cycle), "derived from itself"},
      {"a deep chain", BuildHeifItemGraph(deep), "nested deeper"},
      {"boxes", many_boxes, "boxes"},
      {"property associations", associations, "property association entries"},
      {"a grid larger than its tiles", uncovered, "do not cover"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Status status = Check(c.bytes);
    EXPECT_EQ(status.code(), Status::Code::kInvalidArgument);
    EXPECT_NE(status.message().find(c.reason), std::string::npos) << status.message();
  }

  // Just within the limits.
  EXPECT_TRUE(Check(Grid(32, 32)).ok());
  deep.derivations.pop_back();
  EXPECT_TRUE(Check(BuildHeifItemGraph(deep)).ok());
}

TEST(HeifStructureTest, LeavesWhatItCannotReadToLibheif) {
  const std::string grid = Grid(2, 2);
  for (size_t n = 0; n < grid.size(); n += 5) EXPECT_TRUE(Check(grid.substr(0, n)).ok()) << n;
  EXPECT_TRUE(Check(std::string("\0\0\0\x01" "meta", 8)).ok());  // 64-bit size cut off
  EXPECT_TRUE(Check(std::string(100, '\xff')).ok());
  std::string no_meta = std::string("\0\0\0\x10" "ftypheic\0\0\0\0", 16);
  EXPECT_TRUE(Check(no_meta).ok());
}

TEST(HeifStructureTest, StopsWhenCancelled) {
  std::string boxes;
  for (uint32_t i = 0; i < 2 * 4096; ++i) boxes += std::string("\0\0\0\x08" "free", 8);
  EXPECT_EQ(Check(boxes, nullptr, true).code(), Status::Code::kTimeout);
  EXPECT_TRUE(Check(boxes).ok());
}

}  // namespace
}  // namespace codec
}  // namespace tessera
