#include "lib/color/icc-profile-check.h"

namespace tessera {
namespace color {
namespace {

constexpr size_t kHeaderBytes = 128;
constexpr size_t kTagEntryBytes = 12;

uint32_t Be32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}

uint16_t Be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

constexpr uint32_t Signature(const char (&s)[5]) {
  return static_cast<uint32_t>(static_cast<uint8_t>(s[0])) << 24 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[1])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[2])) << 8 | static_cast<uint32_t>(static_cast<uint8_t>(s[3]));
}

// A byte range of the profile, with bounds-checked reads: every read outside
// it makes the range (and so the profile) unacceptable.
class Span {
 public:
  Span(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  size_t size() const { return size_; }
  bool Has(size_t offset, size_t length) const { return offset <= size_ && length <= size_ - offset; }
  uint32_t U32(size_t offset) const { return Has(offset, 4) ? Be32(data_ + offset) : 0; }
  uint16_t U16(size_t offset) const { return Has(offset, 2) ? Be16(data_ + offset) : 0; }
  uint8_t U8(size_t offset) const { return Has(offset, 1) ? data_[offset] : 0; }
  // The sub-range [offset, offset + length), or an empty span when it does
  // not lie within this one.
  Span Sub(size_t offset, size_t length) const {
    return Has(offset, length) ? Span(data_ + offset, length) : Span(nullptr, 0);
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

// Entries of a colour lookup table with `inputs` grid dimensions read from
// `grid` (one byte each) and `outputs` channels, or 0 when the product
// exceeds `limit` (it is compared with the bytes that hold it, so it never
// needs to be larger than the profile).
uint64_t TableEntries(const Span& grid_span, size_t grid_offset, unsigned inputs, unsigned outputs,
                      uint64_t limit) {
  uint64_t entries = outputs;
  for (unsigned i = 0; i < inputs; ++i) {
    entries *= grid_span.U8(grid_offset + i);
    if (entries > limit) return 0;
  }
  return entries;
}

// lut8Type / lut16Type: one grid size for every input.
bool LutFits(const Span& tag, bool sixteen_bit) {
  const unsigned inputs = tag.U8(8);
  const unsigned outputs = tag.U8(9);
  const uint64_t grid = tag.U8(10);
  if (inputs == 0 || inputs > 15 || outputs == 0 || outputs > 15) return false;
  uint64_t clut = outputs;
  for (unsigned i = 0; i < inputs; ++i) {
    clut *= grid;
    if (clut > tag.size()) return false;
  }
  const uint64_t in_entries = sixteen_bit ? tag.U16(48) : 256;
  const uint64_t out_entries = sixteen_bit ? tag.U16(50) : 256;
  const uint64_t sample = sixteen_bit ? 2 : 1;
  const uint64_t header = sixteen_bit ? 52 : 48;
  const uint64_t bytes = header + (in_entries * inputs + clut + out_entries * outputs) * sample;
  return bytes <= tag.size();
}

// lutAtoBType / lutBtoAType: the table, when there is one, has its own grid
// sizes and precision.
bool LutAbFits(const Span& tag) {
  const unsigned inputs = tag.U8(8);
  const unsigned outputs = tag.U8(9);
  if (inputs == 0 || inputs > 15 || outputs == 0 || outputs > 15) return false;
  for (size_t field = 12; field <= 28; field += 4) {
    if (tag.U32(field) >= tag.size()) return false;
  }
  const uint32_t clut_offset = tag.U32(24);
  if (clut_offset == 0) return true;
  if (!tag.Has(clut_offset, 20)) return false;
  const unsigned precision = tag.U8(clut_offset + 16);
  if (precision != 1 && precision != 2) return false;
  const uint64_t entries = TableEntries(tag, clut_offset, inputs, outputs, tag.size());
  return entries != 0 && clut_offset + 20 + entries * precision <= tag.size();
}

bool CurveSetFits(const Span& element) {
  const unsigned channels = element.U16(8);
  if (channels == 0 || channels > 15 || !element.Has(12, size_t{8} * channels)) return false;
  for (unsigned i = 0; i < channels; ++i) {
    const Span curve = element.Sub(element.U32(12 + 8 * i), element.U32(16 + 8 * i));
    // A segmented curve: 'curf', reserved, segment count.
    if (curve.U32(0) != Signature("curf")) return false;
    const unsigned segments = curve.U16(8);
    if (segments == 0 || segments > kMaxIccCurveSegments) return false;
  }
  return true;
}

bool MultiProcessFits(const Span& tag) {
  const unsigned inputs = tag.U16(8);
  const unsigned outputs = tag.U16(10);
  const uint32_t elements = tag.U32(12);
  if (inputs == 0 || inputs > 15 || outputs == 0 || outputs > 15) return false;
  if (elements == 0 || elements > kMaxIccProcessingElements || !tag.Has(16, size_t{8} * elements)) return false;
  for (uint32_t i = 0; i < elements; ++i) {
    const Span element = tag.Sub(tag.U32(16 + 8 * i), tag.U32(20 + 8 * i));
    if (element.size() < 12) return false;
    const uint32_t type = element.U32(0);
    if (type == Signature("cvst")) {
      if (!CurveSetFits(element)) return false;
    } else if (type == Signature("clut")) {
      const unsigned in = element.U16(8);
      const unsigned out = element.U16(10);
      if (in == 0 || in > 15 || out == 0 || out > 15) return false;
      const uint64_t entries = TableEntries(element, 12, in, out, element.size());
      if (entries == 0 || 28 + entries * 4 > element.size()) return false;
    }
  }
  return true;
}

bool TagFits(const Span& tag) {
  if (tag.size() < 8) return false;
  const uint32_t type = tag.U32(0);
  if (type == Signature("mft1")) return LutFits(tag, false);
  if (type == Signature("mft2")) return LutFits(tag, true);
  if (type == Signature("mAB ") || type == Signature("mBA ")) return LutAbFits(tag);
  if (type == Signature("mpet")) return MultiProcessFits(tag);
  return true;
}

}  // namespace

bool IccProfileIsAffordable(const uint8_t* icc, size_t size) {
  if (icc == nullptr || size < kHeaderBytes + 4 || size > kMaxIccProfileBytes) return false;
  const uint32_t declared = Be32(icc);
  if (declared < kHeaderBytes + 4 || declared > size) return false;
  const Span profile(icc, declared);
  const uint32_t tags = profile.U32(kHeaderBytes);
  if (tags > kMaxIccTags || !profile.Has(kHeaderBytes + 4, kTagEntryBytes * tags)) return false;
  for (uint32_t i = 0; i < tags; ++i) {
    const size_t entry = kHeaderBytes + 4 + kTagEntryBytes * i;
    const uint32_t offset = profile.U32(entry + 4);
    const uint32_t length = profile.U32(entry + 8);
    if (!profile.Has(offset, length) || !TagFits(profile.Sub(offset, length))) return false;
  }
  return true;
}

}  // namespace color
}  // namespace tessera
