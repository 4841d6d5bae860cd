// Media Foundation's source reader in asynchronous mode behind MediaSource.
//
// Frames leave as 32-bit BGRX. The reader is asked for RGB32 directly (with
// its video processing enabled); a reader that refuses RGB32 is asked for a
// YUV format instead (NV12, I420, YUY2), and the frame taken is then
// converted by the colour-converter DSP, which uses the stream's own matrix
// and range. Frames read only to be passed over are never converted or
// copied.
// Media Foundation is started once per process, on first use, and is never
// shut down: a reader that timed out may still hold work queues at exit.
#include <windows.h>
// Media Foundation declarations need the Windows types first.
#include <mfapi.h>
#include <mferror.h>
#include <mfidl.h>
#include <mfreadwrite.h>
#include <mftransform.h>
#include <propvarutil.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/video/media-buffer-win.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {
namespace {

// Defined here so that no import library has to provide them.
// {6d23f5c8-c5d7-4a9b-9971-5d11f8bca880}
constexpr GUID kSourceCharacteristics = {0x6d23f5c8, 0xc5d7, 0x4a9b, {0x99, 0x71, 0x5d, 0x11, 0xf8, 0xbc, 0xa8, 0x80}};
// {c380465d-2271-428c-9b83-ecea3b4a85c1}
constexpr GUID kVideoRotation = {0xc380465d, 0x2271, 0x428c, {0x9b, 0x83, 0xec, 0xea, 0x3b, 0x4a, 0x85, 0xc1}};
// {98230571-0087-4204-b020-3282538e57d3}
constexpr GUID kColorConverter = {0x98230571, 0x0087, 0x4204, {0xb0, 0x20, 0x32, 0x82, 0x53, 0x8e, 0x57, 0xd3}};

constexpr DWORD kFirstVideoStream = static_cast<DWORD>(MF_SOURCE_READER_FIRST_VIDEO_STREAM);
constexpr DWORD kMediaSourceStream = static_cast<DWORD>(MF_SOURCE_READER_MEDIASOURCE);
// Frames larger than this (in pixels) are refused rather than allocated.
constexpr uint64_t kMaxFramePixels = 1ull << 28;

template <typename Interface>
struct ComReleaser {
  void operator()(Interface* object) const {
    if (object != nullptr) object->Release();
  }
};
template <typename Interface>
using ComRef = std::unique_ptr<Interface, ComReleaser<Interface>>;

template <typename Interface>
ComRef<Interface> Share(Interface* object) {
  if (object != nullptr) object->AddRef();
  return ComRef<Interface>(object);
}

HRESULT StartMediaFoundation() {
  static const HRESULT started = MFStartup(MF_VERSION, MFSTARTUP_FULL);
  return started;
}

// Reads the size stored in a media type.
bool FrameSizeOf(IMFMediaType* type, uint32_t* width, uint32_t* height) {
  UINT64 packed = 0;
  if (FAILED(type->GetUINT64(MF_MT_FRAME_SIZE, &packed))) return false;
  *width = static_cast<uint32_t>(packed >> 32);
  *height = static_cast<uint32_t>(packed & 0xFFFFFFFFu);
  return *width > 0 && *height > 0 && static_cast<uint64_t>(*width) * *height <= kMaxFramePixels;
}

// The colour-converter DSP set up for one YUV input type and RGB32 output.
class ColorConverter {
 public:
  static HRESULT Create(IMFMediaType* input, uint32_t width, uint32_t height, std::unique_ptr<ColorConverter>* out) {
    IMFTransform* raw = nullptr;
    HRESULT hr = CoCreateInstance(kColorConverter, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&raw));
    if (FAILED(hr)) return hr;
    ComRef<IMFTransform> transform(raw);
    hr = transform->SetInputType(0, input, 0);
    if (FAILED(hr)) return hr;
    IMFMediaType* raw_output = nullptr;
    hr = MFCreateMediaType(&raw_output);
    if (FAILED(hr)) return hr;
    ComRef<IMFMediaType> output(raw_output);
    output->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
    output->SetGUID(MF_MT_SUBTYPE, MFVideoFormat_RGB32);
    output->SetUINT64(MF_MT_FRAME_SIZE, (static_cast<UINT64>(width) << 32) | height);
    output->SetUINT32(MF_MT_INTERLACE_MODE, MFVideoInterlace_Progressive);
    output->SetUINT64(MF_MT_PIXEL_ASPECT_RATIO, (1ull << 32) | 1);
    output->SetUINT32(MF_MT_DEFAULT_STRIDE, width * 4);
    hr = transform->SetOutputType(0, output.get(), 0);
    if (FAILED(hr)) return hr;
    transform->ProcessMessage(MFT_MESSAGE_NOTIFY_BEGIN_STREAMING, 0);
    out->reset(new ColorConverter(std::move(transform), width, height));
    return S_OK;
  }

  // Converts one decoded frame into a sample of RGB32 rows (width * 4 bytes
  // apart, top down).
  HRESULT Convert(IMFSample* input, ComRef<IMFSample>* out) {
    HRESULT hr = transform_->ProcessInput(0, input, 0);
    if (FAILED(hr)) return hr;
    MFT_OUTPUT_STREAM_INFO info = {};
    hr = transform_->GetOutputStreamInfo(0, &info);
    if (FAILED(hr)) return hr;
    ComRef<IMFSample> output_sample;
    if (!(info.dwFlags & (MFT_OUTPUT_STREAM_PROVIDES_SAMPLES | MFT_OUTPUT_STREAM_CAN_PROVIDE_SAMPLES))) {
      IMFSample* raw_sample = nullptr;
      hr = MFCreateSample(&raw_sample);
      if (FAILED(hr)) return hr;
      output_sample.reset(raw_sample);
      IMFMediaBuffer* raw_buffer = nullptr;
      const DWORD bytes = std::max<DWORD>(info.cbSize, width_ * height_ * 4);
      hr = MFCreateMemoryBuffer(bytes, &raw_buffer);
      if (FAILED(hr)) return hr;
      ComRef<IMFMediaBuffer> buffer(raw_buffer);
      output_sample->AddBuffer(buffer.get());
    }
    MFT_OUTPUT_DATA_BUFFER data = {};
    data.dwStreamID = 0;
    data.pSample = output_sample.get();
    DWORD status = 0;
    hr = transform_->ProcessOutput(0, 1, &data, &status);
    if (data.pEvents != nullptr) data.pEvents->Release();
    if (FAILED(hr)) return hr;
    ComRef<IMFSample> produced = output_sample ? std::move(output_sample) : ComRef<IMFSample>(data.pSample);
    if (!produced) return E_UNEXPECTED;
    *out = std::move(produced);
    return S_OK;
  }

 private:
  ColorConverter(ComRef<IMFTransform> transform, uint32_t width, uint32_t height)
      : transform_(std::move(transform)), width_(width), height_(height) {}

  ComRef<IMFTransform> transform_;
  uint32_t width_;
  uint32_t height_;
};

// The colour converter of one YUV output format, made on the first frame
// that is converted and shared by the samples of that format.
class ConverterSlot {
 public:
  ConverterSlot(IMFMediaType* input, uint32_t width, uint32_t height)
      : input_(Share(input)), width_(width), height_(height) {}

  HRESULT Convert(IMFSample* sample, ComRef<IMFSample>* out) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!converter_) {
      HRESULT hr = ColorConverter::Create(input_.get(), width_, height_, &converter_);
      if (FAILED(hr)) return hr;
    }
    return converter_->Convert(sample, out);
  }

 private:
  std::mutex mutex_;
  ComRef<IMFMediaType> input_;
  uint32_t width_;
  uint32_t height_;
  std::unique_ptr<ColorConverter> converter_;
};

// What a delivered sample needs to become BGRX rows; set before the first
// read, fixed afterwards.
struct OutputFormat {
  uint32_t width = 0;
  uint32_t height = 0;
  LONG default_stride = 0;
  std::shared_ptr<ConverterSlot> converter;  // set when frames need the converter
};

// A delivered frame, held as Media Foundation's sample until it is taken.
class MediaFoundationSample : public MediaSample {
 public:
  MediaFoundationSample(int64_t time_hns, const OutputFormat& format, IMFSample* sample)
      : MediaSample(time_hns, static_cast<int>(format.width), static_cast<int>(format.height)),
        format_(format),
        sample_(Share(sample)) {}

  int32_t ConvertToContiguousBuffer() override {
    ComRef<IMFSample> rgb32 = Share(sample_.get());
    stride_ = format_.default_stride;
    if (format_.converter) {
      HRESULT hr = format_.converter->Convert(sample_.get(), &rgb32);
      if (FAILED(hr)) return hr;
      stride_ = static_cast<LONG>(format_.width * 4);
    }
    IMFMediaBuffer* raw = nullptr;
    HRESULT hr = rgb32->ConvertToContiguousBuffer(&raw);
    if (FAILED(hr)) return hr;
    buffer_.reset(raw);
    sample_.reset();
    return S_OK;
  }

  int32_t LockBuffer(uint8_t* bgrx, size_t stride) override {
    if (!buffer_) return E_UNEXPECTED;
    return CopyRgb32(buffer_.get(), format_.width, format_.height, stride_, bgrx, stride);
  }

 private:
  OutputFormat format_;
  ComRef<IMFSample> sample_;       // until made contiguous
  ComRef<IMFMediaBuffer> buffer_;  // afterwards
  LONG stride_ = 0;
};

// The COM face of MediaSourceCallback: Media Foundation calls it on its work
// queue threads.
class ReaderCallback final : public IMFSourceReaderCallback {
 public:
  explicit ReaderCallback(MediaSourceCallback* target) : target_(target) { target_->AddRef(); }

  void SetFormat(const OutputFormat& format) {
    std::lock_guard<std::mutex> lock(mutex_);
    format_ = format;
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
    if (object == nullptr) return E_POINTER;
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IMFSourceReaderCallback)) {
      *object = static_cast<IMFSourceReaderCallback*>(this);
      AddRef();
      return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  // The frame is only wrapped here: it is converted if and when it is taken.
  STDMETHODIMP OnReadSample(HRESULT status, DWORD stream_index, DWORD flags, LONGLONG timestamp,
                            IMFSample* sample) override {
    std::shared_ptr<MediaSample> frame;
    if (SUCCEEDED(status) && sample != nullptr) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (format_.width == 0 || format_.height == 0) {
        status = MF_E_INVALIDMEDIATYPE;
      } else {
        LONGLONG time = 0;
        const int64_t sample_time = SUCCEEDED(sample->GetSampleTime(&time)) ? time : MediaSample::kNoTime;
        frame = std::make_shared<MediaFoundationSample>(sample_time, format_, sample);
      }
    }
    return target_->OnReadSample(static_cast<int32_t>(status), stream_index, flags, timestamp, std::move(frame));
  }
  STDMETHODIMP OnFlush(DWORD stream_index) override { return target_->OnFlush(stream_index); }
  STDMETHODIMP OnEvent(DWORD stream_index, IMFMediaEvent*) override { return target_->OnEvent(stream_index); }

 private:
  ~ReaderCallback() { target_->Release(); }

  std::atomic<ULONG> references_{1};
  MediaSourceCallback* target_;  // one reference held
  std::mutex mutex_;
  OutputFormat format_;
};

// A PROPVARIANT that clears itself.
struct ScopedPropVariant {
  ScopedPropVariant() { PropVariantInit(&value); }
  ~ScopedPropVariant() { PropVariantClear(&value); }
  ScopedPropVariant(const ScopedPropVariant&) = delete;
  ScopedPropVariant& operator=(const ScopedPropVariant&) = delete;
  PROPVARIANT value;
};

class MediaFoundationSource : public MediaSource {
 public:
  ~MediaFoundationSource() override {
    reader_.reset();
    if (callback_ != nullptr) callback_->Release();
  }

  int32_t CreateAttributes() override {
    HRESULT hr = StartMediaFoundation();
    if (FAILED(hr)) return hr;
    IMFAttributes* raw_attributes = nullptr;
    hr = MFCreateAttributes(&raw_attributes, 2);
    if (FAILED(hr)) return hr;
    attributes_.reset(raw_attributes);
    return S_OK;
  }

  int32_t EnableVideoProcessing() override {
    if (!attributes_) return E_UNEXPECTED;
    return attributes_->SetUINT32(MF_SOURCE_READER_ENABLE_VIDEO_PROCESSING, TRUE);
  }

  int32_t SetAsyncCallback(MediaSourceCallback* callback) override {
    if (!attributes_) return E_UNEXPECTED;
    if (callback == nullptr || callback_ != nullptr) return E_INVALIDARG;
    callback_ = new ReaderCallback(callback);
    return attributes_->SetUnknown(MF_SOURCE_READER_ASYNC_CALLBACK, callback_);
  }

  int32_t CreateSourceReader(const std::u16string& path) override {
    if (!attributes_) return E_UNEXPECTED;
    IMFSourceReader* raw_reader = nullptr;
    HRESULT hr =
        MFCreateSourceReaderFromURL(reinterpret_cast<const wchar_t*>(path.c_str()), attributes_.get(), &raw_reader);
    if (FAILED(hr)) return hr;
    reader_.reset(raw_reader);
    attributes_.reset();
    return S_OK;
  }

  int32_t GetCurrentMediaType(NativeVideoType* out) override {
    if (!reader_) return E_UNEXPECTED;
    // The stream's own (compressed) type; before an output type is set it is
    // also the current type, which some readers report already decoded.
    IMFMediaType* raw_type = nullptr;
    HRESULT hr = reader_->GetNativeMediaType(kFirstVideoStream, 0, &raw_type);
    ComRef<IMFMediaType> type(raw_type);
    if (FAILED(hr)) hr = CurrentType(&type);
    if (FAILED(hr)) return hr;
    NativeVideoType native;
    GUID subtype = GUID_NULL;
    if (SUCCEEDED(type->GetGUID(MF_MT_SUBTYPE, &subtype))) {
      native.codec = subtype == MFVideoFormat_HEVC   ? VideoCodec::kHevc
                     : subtype == MFVideoFormat_H264 ? VideoCodec::kH264
                                                     : VideoCodec::kOther;
    }
    UINT32 value = 0;
    if (SUCCEEDED(type->GetUINT32(MF_MT_VIDEO_PRIMARIES, &value))) {
      native.has_primaries = true;
      native.primaries = value;
    }
    if (SUCCEEDED(type->GetUINT32(MF_MT_YUV_MATRIX, &value))) {
      native.has_matrix = true;
      native.matrix = value;
    }
    native_type_ = std::move(type);
    *out = native;
    return S_OK;
  }

  int32_t GetMajorType(bool* is_video) override {
    if (!native_type_) return E_UNEXPECTED;
    GUID major = GUID_NULL;
    HRESULT hr = native_type_->GetMajorType(&major);
    if (FAILED(hr)) return hr;
    *is_video = major == MFMediaType_Video;
    return S_OK;
  }

  int32_t CreateMediaType() override {
    IMFMediaType* raw = nullptr;
    HRESULT hr = MFCreateMediaType(&raw);
    if (FAILED(hr)) return hr;
    output_type_.reset(raw);
    return S_OK;
  }

  int32_t SetMajorTypeVideo() override {
    if (!output_type_) return E_UNEXPECTED;
    return output_type_->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
  }

  int32_t SetSubtypeRgb32() override {
    if (!output_type_) return E_UNEXPECTED;
    return output_type_->SetGUID(MF_MT_SUBTYPE, MFVideoFormat_RGB32);
  }

  int32_t SetCurrentMediaType() override {
    if (!reader_ || !output_type_) return E_UNEXPECTED;
    HRESULT hr = reader_->SetCurrentMediaType(kFirstVideoStream, nullptr, output_type_.get());
    if (SUCCEEDED(hr)) return UpdateFormat(false);
    // RGB32 refused: take a YUV format and convert each frame taken ourselves.
    for (const GUID& subtype : {MFVideoFormat_NV12, MFVideoFormat_I420, MFVideoFormat_YUY2}) {
      if (SUCCEEDED(SetOutputSubtype(subtype))) return UpdateFormat(true);
    }
    return hr;
  }

  int32_t SelectFirstVideoStream() override {
    if (!reader_) return E_UNEXPECTED;
    return reader_->SetStreamSelection(kFirstVideoStream, TRUE);
  }

  int32_t GetFrameSize(uint32_t* width, uint32_t* height) override {
    if (!reader_) return E_UNEXPECTED;
    ComRef<IMFMediaType> type;
    HRESULT hr = CurrentType(&type);
    if (FAILED(hr)) return hr;
    return FrameSizeOf(type.get(), width, height) ? S_OK : MF_E_INVALIDMEDIATYPE;
  }

  int32_t GetRotation(uint32_t* degrees) override {
    if (!reader_) return E_UNEXPECTED;
    ComRef<IMFMediaType> type;
    HRESULT hr = CurrentType(&type);
    if (FAILED(hr)) return hr;
    UINT32 rotation = 0;
    hr = type->GetUINT32(kVideoRotation, &rotation);
    if (FAILED(hr)) return hr;
    *degrees = rotation;
    return S_OK;
  }

  int32_t GetPresentationAttribute() override {
    if (!reader_) return E_UNEXPECTED;
    characteristics_ = std::make_unique<ScopedPropVariant>();
    return reader_->GetPresentationAttribute(kMediaSourceStream, kSourceCharacteristics, &characteristics_->value);
  }

  int32_t ConvertPresentationAttribute(uint32_t* characteristics) override {
    if (!characteristics_) return E_UNEXPECTED;
    ULONG converted = 0;
    HRESULT hr = PropVariantToUInt32(characteristics_->value, &converted);
    if (FAILED(hr)) return hr;
    *characteristics = converted;
    return S_OK;
  }

  int32_t SetCurrentPosition(int64_t position_hns) override {
    if (!reader_) return E_UNEXPECTED;
    PROPVARIANT position;
    PropVariantInit(&position);
    position.vt = VT_I8;
    position.hVal.QuadPart = position_hns;
    HRESULT hr = reader_->SetCurrentPosition(GUID_NULL, position);
    PropVariantClear(&position);
    return hr;
  }

  int32_t ReadSample() override {
    if (!reader_) return E_UNEXPECTED;
    // Asynchronous mode: no output arguments; the answer goes to the callback.
    return reader_->ReadSample(kFirstVideoStream, 0, nullptr, nullptr, nullptr, nullptr);
  }

 private:
  HRESULT CurrentType(ComRef<IMFMediaType>* out) {
    IMFMediaType* raw = nullptr;
    HRESULT hr = reader_->GetCurrentMediaType(kFirstVideoStream, &raw);
    if (FAILED(hr)) return hr;
    out->reset(raw);
    return S_OK;
  }

  HRESULT SetOutputSubtype(const GUID& subtype) {
    IMFMediaType* raw = nullptr;
    HRESULT hr = MFCreateMediaType(&raw);
    if (FAILED(hr)) return hr;
    ComRef<IMFMediaType> type(raw);
    hr = type->SetGUID(MF_MT_MAJOR_TYPE, MFMediaType_Video);
    if (FAILED(hr)) return hr;
    hr = type->SetGUID(MF_MT_SUBTYPE, subtype);
    if (FAILED(hr)) return hr;
    return reader_->SetCurrentMediaType(kFirstVideoStream, nullptr, type.get());
  }

  // Hands the chosen output format to the callback.
  HRESULT UpdateFormat(bool needs_converter) {
    ComRef<IMFMediaType> type;
    HRESULT hr = CurrentType(&type);
    if (FAILED(hr)) return hr;
    OutputFormat format;
    if (!FrameSizeOf(type.get(), &format.width, &format.height)) return MF_E_INVALIDMEDIATYPE;
    UINT32 stride = 0;
    if (SUCCEEDED(type->GetUINT32(MF_MT_DEFAULT_STRIDE, &stride))) format.default_stride = static_cast<INT32>(stride);
    if (needs_converter) format.converter = std::make_shared<ConverterSlot>(type.get(), format.width, format.height);
    callback_->SetFormat(format);
    return S_OK;
  }

  ComRef<IMFAttributes> attributes_;  // until the reader is made with them
  ReaderCallback* callback_ = nullptr;  // one reference held
  ComRef<IMFSourceReader> reader_;
  ComRef<IMFMediaType> native_type_;
  ComRef<IMFMediaType> output_type_;
  std::unique_ptr<ScopedPropVariant> characteristics_;
};

}  // namespace

HRESULT CopyRgb32(IMFMediaBuffer* buffer, uint32_t width, uint32_t height, LONG default_stride, uint8_t* out,
                  size_t out_stride) {
  const size_t row_bytes = static_cast<size_t>(width) * 4;
  if (width == 0 || height == 0 || out_stride < row_bytes) return E_INVALIDARG;

  IMF2DBuffer2* raw_2d = nullptr;
  if (SUCCEEDED(buffer->QueryInterface(IID_PPV_ARGS(&raw_2d)))) {
    ComRef<IMF2DBuffer2> buffer_2d(raw_2d);
    BYTE* scan0 = nullptr;
    LONG pitch = 0;
    BYTE* start = nullptr;
    DWORD length = 0;
    HRESULT hr = buffer_2d->Lock2DSize(MF2DBuffer_LockFlags_Read, &scan0, &pitch, &start, &length);
    if (SUCCEEDED(hr)) {
      const uint64_t pitch_bytes = static_cast<uint64_t>(pitch < 0 ? -static_cast<int64_t>(pitch) : pitch);
      // Offset of the lowest row in memory from the buffer's start.
      const uint64_t scan0_offset = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(scan0) -
                                                          reinterpret_cast<uintptr_t>(start));
      const uint64_t rows_below_scan0 = pitch < 0 ? pitch_bytes * (height - 1) : 0;
      const bool fits = scan0 >= start && pitch_bytes >= row_bytes && scan0_offset >= rows_below_scan0 &&
                        scan0_offset - rows_below_scan0 + pitch_bytes * height <= length;
      if (fits) {
        for (uint32_t y = 0; y < height; ++y) {
          std::memcpy(out + out_stride * y, scan0 + static_cast<ptrdiff_t>(pitch) * y, row_bytes);
        }
      }
      buffer_2d->Unlock2D();
      return fits ? S_OK : MF_E_BUFFERTOOSMALL;
    }
    if (hr != E_NOTIMPL) return hr;
  }

  BYTE* bytes = nullptr;
  DWORD length = 0;
  HRESULT hr = buffer->Lock(&bytes, nullptr, &length);
  if (FAILED(hr)) return hr;
  const uint64_t stride = default_stride != 0
                              ? static_cast<uint64_t>(default_stride < 0 ? -static_cast<int64_t>(default_stride)
                                                                         : default_stride)
                              : row_bytes;
  if (stride < row_bytes || stride * height > length) {
    buffer->Unlock();
    return MF_E_BUFFERTOOSMALL;
  }
  for (uint32_t y = 0; y < height; ++y) {
    const uint32_t source_row = default_stride < 0 ? height - 1 - y : y;
    std::memcpy(out + out_stride * y, bytes + stride * source_row, row_bytes);
  }
  buffer->Unlock();
  return S_OK;
}

std::unique_ptr<MediaSource> MediaSource::Create() { return std::make_unique<MediaFoundationSource>(); }

}  // namespace thumbnail
}  // namespace tessera
