// Files on Windows: one handle opened on the long path with every sharing
// mode (other programs may go on reading, writing, renaming or deleting the
// file), read at explicit offsets so that duplicates on other threads need no
// shared position.
#include "lib/codec/byte-source.h"

#include <windows.h>

#include <cstdio>
#include <new>
#include <string>

#include "lib/file/file-op.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace codec {
namespace {

Status WindowsError(const std::string& context, DWORD error) {
  const std::string message = context + ": Windows error " + std::to_string(error);
  if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_INVALID_NAME) {
    return Status::NotFound(message);
  }
  if (error == ERROR_ACCESS_DENIED) {
    // What opening a folder without backup semantics gives, among others.
    return Status::InvalidArgument(message);
  }
  return Status::IoError(message);
}

class FileSource : public ByteSource {
 public:
  FileSource(HANDLE handle, uint64_t size) : handle_(handle), size_(size) {}
  ~FileSource() override { CloseHandle(handle_); }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  // The same open file (not the path, which may name another file by now).
  std::unique_ptr<ByteSource> Duplicate() const override {
    HANDLE copy_handle = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), handle_, GetCurrentProcess(), &copy_handle, 0, FALSE,
                         DUPLICATE_SAME_ACCESS)) {
      return nullptr;
    }
    std::unique_ptr<ByteSource> copy(new (std::nothrow) FileSource(copy_handle, size_));
    if (!copy) {
      CloseHandle(copy_handle);
      return nullptr;
    }
    copy->set_cancellation(cancellation());
    return copy;
  }

  uint64_t size() const override { return size_; }

  std::string ContentIdentity() const override {
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(handle_, &info)) return std::string();
    char identity[160];
    std::snprintf(identity, sizeof(identity), "%lu:%lu.%lu:%lu.%lu:%lu.%lu", info.dwVolumeSerialNumber,
                  info.nFileIndexHigh, info.nFileIndexLow, info.nFileSizeHigh, info.nFileSizeLow,
                  info.ftLastWriteTime.dwHighDateTime, info.ftLastWriteTime.dwLowDateTime);
    return identity;
  }

  int64_t ReadAt(uint64_t offset, void* buf, size_t n) override {
    // Every decoder reads through here, so a cancelled decode stops at its
    // next read at the latest.
    if (cancelled()) return -1;
    if (offset >= size_) return 0;
    if (n > size_ - offset) n = static_cast<size_t>(size_ - offset);
    size_t done = 0;
    while (done < n) {
      // An explicit offset for every read: the handle's own position is
      // neither used nor relied on.
      OVERLAPPED at = {};
      const uint64_t position = offset + done;
      at.Offset = static_cast<DWORD>(position);
      at.OffsetHigh = static_cast<DWORD>(position >> 32);
      const size_t left = n - done;
      const DWORD want = left > 0x40000000 ? 0x40000000 : static_cast<DWORD>(left);
      DWORD got = 0;
      if (!ReadFile(handle_, static_cast<uint8_t*>(buf) + done, want, &got, &at)) {
        if (GetLastError() == ERROR_HANDLE_EOF) break;  // shrunk since it was opened
        return -1;
      }
      if (got == 0) break;
      done += got;
    }
    return static_cast<int64_t>(done);
  }

 private:
  const HANDLE handle_;
  const uint64_t size_;
};

}  // namespace

Status ByteSource::OpenFile(const std::string& utf8_path, std::unique_ptr<ByteSource>* out) {
  const std::u16string wide = utility::UTF8ToUTF16(file::ToNativePath(utf8_path));
  if (wide.empty()) return Status::InvalidArgument("'" + utf8_path + "' is not valid UTF-8");
  // Without FILE_FLAG_BACKUP_SEMANTICS a folder cannot be opened; a device
  // or pipe can, and is refused below by its type.
  HANDLE handle = CreateFileW(reinterpret_cast<const wchar_t*>(wide.c_str()), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL | FILE_FLAG_RANDOM_ACCESS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return WindowsError("open '" + utf8_path + "'", GetLastError());
  LARGE_INTEGER size;
  if (GetFileType(handle) != FILE_TYPE_DISK || !GetFileSizeEx(handle, &size) || size.QuadPart < 0) {
    CloseHandle(handle);
    return Status::InvalidArgument("'" + utf8_path + "' is not a regular file");
  }
  std::unique_ptr<ByteSource> source(new (std::nothrow) FileSource(handle, static_cast<uint64_t>(size.QuadPart)));
  if (!source) {
    CloseHandle(handle);
    return Status::Internal("out of memory");
  }
  *out = std::move(source);
  return Status::OK();
}

}  // namespace codec
}  // namespace tessera
