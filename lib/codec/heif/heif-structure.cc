#include "lib/codec/heif/heif-structure.h"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lib/codec/image-decoder.h"

namespace tessera {
namespace codec {
namespace {

constexpr uint32_t FourCc(const char (&s)[5]) {
  return uint32_t{static_cast<uint8_t>(s[0])} << 24 | uint32_t{static_cast<uint8_t>(s[1])} << 16 |
         uint32_t{static_cast<uint8_t>(s[2])} << 8 | uint32_t{static_cast<uint8_t>(s[3])};
}

// How often the loops over boxes and entries look at the cancellation.
constexpr uint32_t kPollEvery = 4096;

// A bounds-checked big-endian reader over [pos, end) of the file.
class Reader {
 public:
  Reader(const uint8_t* data, size_t pos, size_t end) : data_(data), pos_(pos), end_(end) {}

  bool ok() const { return ok_; }
  size_t pos() const { return pos_; }
  size_t remaining() const { return ok_ ? end_ - pos_ : 0; }

  // An n-byte unsigned number (n of 0, 1, 2, 4 or 8); 0 once past the end.
  uint64_t Read(int n) {
    if (!ok_ || end_ - pos_ < static_cast<size_t>(n)) {
      ok_ = false;
      return 0;
    }
    uint64_t v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | data_[pos_++];
    return v;
  }
  uint32_t U8() { return static_cast<uint32_t>(Read(1)); }
  uint32_t U16() { return static_cast<uint32_t>(Read(2)); }
  uint32_t U32() { return static_cast<uint32_t>(Read(4)); }

 private:
  const uint8_t* data_;
  size_t pos_;
  size_t end_;
  bool ok_ = true;
};

struct Box {
  uint32_t type = 0;
  size_t payload = 0;  // first byte after the header
  size_t end = 0;      // one past the last byte
};

// The box starting at `offset`, which must end by `limit`.
bool ReadBox(const uint8_t* data, size_t offset, size_t limit, Box* box) {
  Reader r(data, offset, limit);
  uint64_t size = r.U32();
  box->type = r.U32();
  if (size == 1) {
    size = r.Read(8);
  } else if (size == 0) {
    size = limit - offset;
  }
  if (box->type == FourCc("uuid")) r.Read(16);
  if (!r.ok() || size < r.pos() - offset || size > limit - offset) return false;
  box->payload = r.pos();
  box->end = offset + static_cast<size_t>(size);
  return true;
}

struct Item {
  uint32_t type = 0;
  std::vector<uint32_t> derived_from;  // dimg references, in order
  // Where the item's data starts (grid items only need their first bytes).
  bool located = false;
  int construction_method = 0;
  uint64_t data_offset = 0;
  uint64_t data_length = 0;
  // The derivation walk: 0 unvisited, 1 on the path, 2 done.
  int state = 0;
  uint32_t cost = 0;
};

class Walker {
 public:
  Walker(const uint8_t* data, size_t size, const ByteSource& source) : data_(data), size_(size), source_(source) {}

  Status Run(HeifStructure* out) {
    Box meta;
    bool have_meta = false;
    Status status = Children(0, size_, [&](const Box& box) {
      if (box.type == FourCc("meta") && !have_meta) {
        meta = box;
        have_meta = true;
      }
      return Status::OK();
    });
    if (!status.ok()) return status;
    if (have_meta) {
      status = Meta(meta);
      if (!status.ok()) return status;
      status = CheckDerivations();
      if (!status.ok()) return status;
    }
    if (out != nullptr) {
      out->boxes = boxes_;
      out->items = static_cast<uint32_t>(items_.size());
      out->references = references_;
      out->largest_derivation = largest_derivation_;
    }
    return Status::OK();
  }

 private:
  // Calls `visit` for each box in [begin, end) until one fails; a box that
  // does not fit ends the walk quietly.
  template <typename Visit>
  Status Children(size_t begin, size_t end, Visit visit) {
    for (size_t offset = begin; offset < end;) {
      Box box;
      if (!ReadBox(data_, offset, end, &box)) break;
      if (++boxes_ > kMaxHeifBoxes) return Refuse("boxes", boxes_, kMaxHeifBoxes);
      if (boxes_ % kPollEvery == 0 && source_.cancelled()) return DecodeCancelledError();
      Status status = visit(box);
      if (!status.ok()) return status;
      offset = box.end;
    }
    return Status::OK();
  }

  // Counts the boxes inside a container without looking at them.
  Status CountChildren(size_t begin, size_t end) {
    return Children(begin, end, [](const Box&) { return Status::OK(); });
  }

  static Status Refuse(const char* what, uint64_t count, uint64_t limit) {
    return Status::InvalidArgument("HEIF with more than " + std::to_string(limit) + " " + what + " (" +
                                   std::to_string(count) + " or more)");
  }

  Status Meta(const Box& meta) {
    // A full box: version and flags first.
    const size_t begin = meta.payload + 4;
    if (begin > meta.end) return Status::OK();
    Box iloc;
    bool have_iloc = false;
    Status status = Children(begin, meta.end, [&](const Box& box) {
      switch (box.type) {
        case FourCc("iinf"):
          return Iinf(box);
        case FourCc("iref"):
          return Iref(box);
        case FourCc("iloc"):
          iloc = box;
          have_iloc = true;
          return Status::OK();
        case FourCc("idat"):
          idat_ = box;
          have_idat_ = true;
          return Status::OK();
        case FourCc("iprp"):
          return Iprp(box);
        case FourCc("dinf"):
        case FourCc("grpl"):
          return CountChildren(box.payload, box.end);
        default:
          return Status::OK();
      }
    });
    if (!status.ok()) return status;
    // Locations only matter for items that iinf declared.
    return have_iloc ? Iloc(iloc) : Status::OK();
  }

  Item* ItemFor(uint32_t id) {
    auto it = index_.find(id);
    return it == index_.end() ? nullptr : &items_[it->second];
  }

  Status Iinf(const Box& box) {
    Reader r(data_, box.payload, box.end);
    const int version = static_cast<int>(r.U8());
    r.Read(3);
    const uint32_t declared = version == 0 ? r.U16() : r.U32();
    if (!r.ok()) return Status::OK();
    if (declared > kMaxHeifItems) return Refuse("items", declared, kMaxHeifItems);
    return Children(r.pos(), box.end, [&](const Box& infe) {
      if (infe.type != FourCc("infe")) return Status::OK();
      Reader e(data_, infe.payload, infe.end);
      const int infe_version = static_cast<int>(e.U8());
      e.Read(3);
      uint32_t id = 0;
      uint32_t type = 0;
      if (infe_version >= 2) {
        id = infe_version == 2 ? e.U16() : e.U32();
        e.U16();  // protection index
        type = e.U32();
      } else {
        id = e.U16();
      }
      if (!e.ok()) return Status::OK();
      if (items_.size() >= kMaxHeifItems) return Refuse("items", items_.size() + 1, kMaxHeifItems);
      if (index_.count(id) == 0) {
        index_[id] = items_.size();
        items_.emplace_back();
        items_.back().type = type;
      }
      return Status::OK();
    });
  }

  // The properties (ipco) before their associations (ipma), wherever each
  // box sits in iprp.
  Status Iprp(const Box& box) {
    Status status = Children(box.payload, box.end, [&](const Box& child) {
      if (child.type != FourCc("ipco") || have_ipco_) return Status::OK();
      have_ipco_ = true;
      return Children(child.payload, child.end, [&](const Box& property) {
        ++properties_;
        if (property.type == FourCc("ispe")) {
          Reader e(data_, property.payload, property.end);
          e.Read(4);  // version and flags
          const uint32_t width = e.U32();
          const uint32_t height = e.U32();
          if (e.ok()) extents_[properties_] = {width, height};
        }
        return Status::OK();
      });
    });
    if (!status.ok()) return status;
    // Boxes were counted on the first pass.
    for (size_t offset = box.payload; offset < box.end;) {
      Box child;
      if (!ReadBox(data_, offset, box.end, &child)) break;
      if (child.type == FourCc("ipma")) return Ipma(child);
      offset = child.end;
    }
    return Status::OK();
  }

  // Property associations: one entry per item. Keeps each item's image
  // extent (ispe).
  Status Ipma(const Box& box) {
    Reader r(data_, box.payload, box.end);
    const int version = static_cast<int>(r.U8());
    const bool wide_indices = (r.Read(3) & 1) != 0;
    const uint32_t entries = r.U32();
    if (!r.ok()) return Status::OK();
    if (entries > kMaxHeifItems) return Refuse("property association entries", entries, kMaxHeifItems);
    for (uint32_t i = 0; i < entries; ++i) {
      const uint32_t id = version < 1 ? r.U16() : r.U32();
      const uint32_t count = r.U8();
      for (uint32_t a = 0; a < count; ++a) {
        const uint32_t index = wide_indices ? r.U16() & 0x7fff : r.U8() & 0x7f;
        auto extent = extents_.find(index);
        if (r.ok() && extent != extents_.end()) item_extents_.emplace(id, extent->second);
      }
      if (!r.ok()) break;
    }
    return Status::OK();
  }

  Status Iref(const Box& box) {
    Reader r(data_, box.payload, box.end);
    const int version = static_cast<int>(r.U8());
    r.Read(3);
    if (!r.ok()) return Status::OK();
    const int id_bytes = version == 0 ? 2 : 4;
    return Children(r.pos(), box.end, [&](const Box& ref) {
      Reader e(data_, ref.payload, ref.end);
      const uint32_t from = static_cast<uint32_t>(e.Read(id_bytes));
      const uint32_t count = e.U16();
      if (!e.ok()) return Status::OK();
      references_ += count;
      if (references_ > kMaxHeifReferences) return Refuse("item references", references_, kMaxHeifReferences);
      if (ref.type != FourCc("dimg")) return Status::OK();
      std::vector<uint32_t>& to = dimg_[from];
      for (uint32_t i = 0; i < count; ++i) {
        const uint32_t id = static_cast<uint32_t>(e.Read(id_bytes));
        if (!e.ok()) break;
        to.push_back(id);
      }
      return Status::OK();
    });
  }

  Status Iloc(const Box& box) {
    Reader r(data_, box.payload, box.end);
    const int version = static_cast<int>(r.U8());
    r.Read(3);
    const uint32_t sizes = r.U16();
    const int offset_size = static_cast<int>(sizes >> 12);
    const int length_size = static_cast<int>(sizes >> 8 & 15);
    const int base_offset_size = static_cast<int>(sizes >> 4 & 15);
    const int index_size = version == 1 || version == 2 ? static_cast<int>(sizes & 15) : 0;
    const uint32_t count = version < 2 ? r.U16() : r.U32();
    if (!r.ok()) return Status::OK();
    if (count > kMaxHeifItems) return Refuse("item locations", count, kMaxHeifItems);
    auto valid = [](int n) { return n == 0 || n == 4 || n == 8; };
    if (!valid(offset_size) || !valid(length_size) || !valid(base_offset_size) || !valid(index_size)) {
      return Status::OK();
    }
    uint32_t extents = 0;
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t id = version < 2 ? r.U16() : r.U32();
      const int method = version == 1 || version == 2 ? static_cast<int>(r.U16() & 15) : 0;
      r.U16();  // data reference index
      const uint64_t base = r.Read(base_offset_size);
      const uint32_t extent_count = r.U16();
      if (!r.ok()) return Status::OK();
      extents += extent_count;
      if (extents > kMaxHeifExtents) return Refuse("extents", extents, kMaxHeifExtents);
      for (uint32_t e = 0; e < extent_count; ++e) {
        r.Read(index_size);
        const uint64_t offset = r.Read(offset_size);
        const uint64_t length = r.Read(length_size);
        if (!r.ok()) return Status::OK();
        Item* item = e == 0 ? ItemFor(id) : nullptr;
        if (item != nullptr && !item->located) {
          item->located = true;
          item->construction_method = method;
          item->data_offset = base + offset;
          item->data_length = length;
        }
      }
    }
    return Status::OK();
  }

  // What a grid item's data declares.
  struct GridLayout {
    uint32_t rows = 0;
    uint32_t columns = 0;
    uint32_t width = 0;
    uint32_t height = 0;
  };

  // The grid size a grid item's data declares; 0 when it cannot be read.
  uint64_t GridTiles(const Item& item) const {
    GridLayout layout;
    return ReadGrid(item, &layout) ? uint64_t{layout.rows} * layout.columns : 0;
  }

  bool ReadGrid(const Item& item, GridLayout* layout) const {
    if (!item.located) return false;
    size_t begin = 0;
    size_t end = 0;
    if (item.construction_method == 0) {
      begin = 0;
      end = size_;
    } else if (item.construction_method == 1 && have_idat_) {
      begin = idat_.payload;
      end = idat_.end;
    } else {
      return false;
    }
    if (item.data_offset > end - begin) return false;
    Reader r(data_, begin + static_cast<size_t>(item.data_offset), end);
    r.U8();  // version
    const int size_bytes = (r.U8() & 1) != 0 ? 4 : 2;
    layout->rows = r.U8() + 1;
    layout->columns = r.U8() + 1;
    layout->width = static_cast<uint32_t>(r.Read(size_bytes));
    layout->height = static_cast<uint32_t>(r.Read(size_bytes));
    return r.ok();
  }

  // Whether the tiles of a grid cover its whole picture. libheif (1.15)
  // places each tile after the ones before it by their declared extents and
  // leaves what no tile covers as the allocator left it: a thumbnail of
  // such a file would show memory, different on every decode. A grid whose
  // references do not match its size is libheif's to refuse.
  bool Covered(const Item& grid, const GridLayout& layout) const {
    if (grid.derived_from.size() != uint64_t{layout.rows} * layout.columns) return true;
    uint64_t covered_height = 0;
    size_t next = 0;
    for (uint32_t row = 0; row < layout.rows; ++row) {
      uint64_t covered_width = 0;
      uint32_t row_height = 0;
      for (uint32_t column = 0; column < layout.columns; ++column) {
        auto extent = item_extents_.find(grid.derived_from[next++]);
        if (extent == item_extents_.end()) return false;
        covered_width += extent->second.first;
        row_height = extent->second.second;  // the last tile's, as libheif takes it
      }
      if (covered_width < layout.width) return false;
      covered_height += row_height;
    }
    return covered_height >= layout.height;
  }

  Status CheckDerivations() {
    for (auto& entry : dimg_) {
      Item* item = ItemFor(entry.first);
      if (item != nullptr) item->derived_from = std::move(entry.second);
    }
    dimg_.clear();
    for (Item& item : items_) {
      if (item.type == FourCc("grid")) {
        const uint64_t tiles = GridTiles(item);
        if (tiles > kMaxHeifTiles) return Refuse("grid tiles", tiles, kMaxHeifTiles);
        GridLayout layout;
        if (ReadGrid(item, &layout) && !Covered(item, layout)) {
          return Status::InvalidArgument("HEIF grid whose tiles do not cover it");
        }
      }
    }
    for (Item& item : items_) {
      Status status = Cost(&item, 0);
      if (!status.ok()) return status;
      if (item.cost > largest_derivation_) largest_derivation_ = item.cost;
    }
    return Status::OK();
  }

  // The coded images behind `item`, into item->cost.
  Status Cost(Item* item, int depth) {
    if (item->state == 2) return Status::OK();
    if (item->state == 1) return Status::InvalidArgument("HEIF item derived from itself");
    if (item->derived_from.empty()) {
      item->cost = 1;
      item->state = 2;
      return Status::OK();
    }
    if (depth >= kMaxHeifDerivationDepth) {
      return Status::InvalidArgument("HEIF derivations nested deeper than " +
                                     std::to_string(kMaxHeifDerivationDepth));
    }
    item->state = 1;
    uint64_t cost = 0;
    for (uint32_t id : item->derived_from) {
      Item* from = ItemFor(id);
      if (from == nullptr) continue;  // libheif refuses a missing tile itself
      Status status = Cost(from, depth + 1);
      if (!status.ok()) return status;
      cost += from->cost;
      if (cost > kMaxHeifTiles) return Refuse("coded images in one derived image", cost, kMaxHeifTiles);
    }
    item->cost = static_cast<uint32_t>(cost);
    item->state = 2;
    return Status::OK();
  }

  const uint8_t* data_;
  size_t size_;
  const ByteSource& source_;
  uint32_t boxes_ = 0;
  uint32_t references_ = 0;
  uint32_t largest_derivation_ = 0;
  std::vector<Item> items_;
  std::unordered_map<uint32_t, size_t> index_;
  std::unordered_map<uint32_t, std::vector<uint32_t>> dimg_;
  Box idat_;
  bool have_idat_ = false;
  bool have_ipco_ = false;
  uint32_t properties_ = 0;
  // Image extents (width, height): of the ispe properties by their 1-based
  // index, and of the items associated with one (the first association).
  std::unordered_map<uint32_t, std::pair<uint32_t, uint32_t>> extents_;
  std::unordered_map<uint32_t, std::pair<uint32_t, uint32_t>> item_extents_;
};

}  // namespace

Status CheckHeifStructure(const uint8_t* data, size_t size, const ByteSource& source, HeifStructure* out) {
  if (data == nullptr) size = 0;
  return Walker(data, size, source).Run(out);
}

}  // namespace codec
}  // namespace tessera
