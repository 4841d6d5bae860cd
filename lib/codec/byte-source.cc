#include "lib/codec/byte-source.h"

#include <cstring>
#include <new>

namespace tessera {
namespace codec {
namespace {

class MemorySource : public ByteSource {
 public:
  MemorySource(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint64_t size() const override { return size_; }

  int64_t ReadAt(uint64_t offset, void* buf, size_t n) override {
    if (offset >= size_) return 0;
    if (n > size_ - offset) n = static_cast<size_t>(size_ - offset);
    std::memcpy(buf, data_ + offset, n);
    return static_cast<int64_t>(n);
  }

  const uint8_t* contiguous_data() const override { return data_; }

 private:
  const uint8_t* data_;
  const size_t size_;
};

}  // namespace

Status ByteSource::ReadAll(size_t max_bytes, std::string* out) {
  const uint64_t total = size();
  if (total > max_bytes) {
    return Status::InvalidArgument("source of " + std::to_string(total) + " bytes exceeds " +
                                   std::to_string(max_bytes));
  }
  std::string data;
  try {
    data.resize(static_cast<size_t>(total));
  } catch (const std::bad_alloc&) {
    return Status::Internal("out of memory reading " + std::to_string(total) + " bytes");
  }
  if (total > 0) {
    const int64_t got = ReadAt(0, &data[0], data.size());
    if (got < 0) return Status::IoError("read failed");
    data.resize(static_cast<size_t>(got));
  }
  *out = std::move(data);
  return Status::OK();
}

std::unique_ptr<ByteSource> ByteSource::FromMemory(const uint8_t* data, size_t size) {
  return std::unique_ptr<ByteSource>(new MemorySource(data, size));
}

}  // namespace codec
}  // namespace tessera
