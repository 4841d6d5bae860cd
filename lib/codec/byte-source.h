// Random-access reading of a source's bytes, from a file or from memory, so
// that decoders (and fuzzers) need not know where the bytes live and large
// files are never read whole into memory.
#ifndef TESSERA_LIB_CODEC_BYTE_SOURCE_H_
#define TESSERA_LIB_CODEC_BYTE_SOURCE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "lib/utility/cancellation.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

class ByteSource {
 public:
  virtual ~ByteSource() = default;

  // Total size in bytes.
  virtual uint64_t size() const = 0;

  // Copies up to n bytes from offset into buf. Returns the number copied
  // (less than n only at the end), or -1 on a read error.
  virtual int64_t ReadAt(uint64_t offset, void* buf, size_t n) = 0;

  // The whole content as one block when it is already in memory (memory
  // sources), else nullptr. Decoders that need a contiguous buffer use
  // ReadAll(), which falls back to reading.
  virtual const uint8_t* contiguous_data() const { return nullptr; }

  // What tells this content apart from other content, for caches keyed by
  // it: for a file the identity of the open file (device, file id, size and
  // times), so that another file at the same path, or this one changed,
  // never matches; empty when there is none (memory sources).
  virtual std::string ContentIdentity() const { return std::string(); }

  // A second, independent source on the same bytes, for reading on another
  // thread after this one is gone; nullptr when the bytes cannot outlive
  // this source (memory views).
  virtual std::unique_ptr<ByteSource> Duplicate() const { return nullptr; }
  // Stops the work on this source's bytes once `cancellation` is
  // cancelled: file reads fail from then on, and decoders poll cancelled()
  // in loops that read nothing. Duplicates share it.
  void set_cancellation(std::shared_ptr<const utility::Cancellation> cancellation) {
    cancellation_ = std::move(cancellation);
  }
  const std::shared_ptr<const utility::Cancellation>& cancellation() const { return cancellation_; }
  bool cancelled() const { return cancellation_ && cancellation_->IsCancelled(); }
  // Reads the whole content into *out (at most max_bytes, else
  // InvalidArgument).
  Status ReadAll(size_t max_bytes, std::string* out);

  // Opens a regular file for reading without blocking: FIFOs, devices and
  // directories fail at once (InvalidArgument), a missing file is NotFound.
  // Other processes may read, write, rename or delete the file meanwhile.
  // One definition per platform (byte-source-posix.cc, byte-source-win.cc).
  static Status OpenFile(const std::string& utf8_path, std::unique_ptr<ByteSource>* out);

  // A view of memory the caller keeps alive for the source's lifetime.
  static std::unique_ptr<ByteSource> FromMemory(const uint8_t* data, size_t size);

 private:
  std::shared_ptr<const utility::Cancellation> cancellation_;
};

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_BYTE_SOURCE_H_
