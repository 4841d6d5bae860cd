// Media Foundation's source reader in asynchronous mode behind MediaSource.
//
// Frames leave as 32-bit BGRX. The reader is asked for RGB32 directly (with
// its video processing enabled); a reader that refuses RGB32 is asked for a
// YUV format instead (NV12, I420, YUY2), and each frame is then converted by
// the colour-converter DSP, which uses the stream's own matrix and range.
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

// Copies the RGB32 pixels of a sample into tightly packed top-down BGRX rows.
// A negative pitch (bottom-up rows) is honoured.
HRESULT CopyRgb32(IMFSample* sample, uint32_t width, uint32_t height, LONG default_stride,
                  std::vector<uint8_t>* out) {
  IMFMediaBuffer* raw_buffer = nullptr;
  HRESULT hr = sample->ConvertToContiguousBuffer(&raw_buffer);
  if (FAILED(hr)) return hr;
  ComRef<IMFMediaBuffer> buffer(raw_buffer);
  const size_t row_bytes = static_cast<size_t>(width) * 4;
  out->assign(row_bytes * height, 0);

  IMF2DBuffer* raw_2d = nullptr;
  if (SUCCEEDED(buffer->QueryInterface(IID_PPV_ARGS(&raw_2d)))) {
    ComRef<IMF2DBuffer> buffer_2d(raw_2d);
    BYTE* scan0 = nullptr;
    LONG pitch = 0;
    hr = buffer_2d->Lock2D(&scan0, &pitch);
    if (FAILED(hr)) return hr;
    const size_t pitch_bytes = static_cast<size_t>(pitch < 0 ? -pitch : pitch);
    if (pitch_bytes < row_bytes) {
      buffer_2d->Unlock2D();
      return MF_E_BUFFERTOOSMALL;
    }
    for (uint32_t y = 0; y < height; ++y) {
      std::memcpy(out->data() + row_bytes * y, scan0 + static_cast<ptrdiff_t>(pitch) * y, row_bytes);
    }
    buffer_2d->Unlock2D();
    return S_OK;
  }

  BYTE* bytes = nullptr;
  DWORD length = 0;
  hr = buffer->Lock(&bytes, nullptr, &length);
  if (FAILED(hr)) return hr;
  const size_t stride = default_stride != 0 ? static_cast<size_t>(default_stride < 0 ? -default_stride : default_stride)
                                            : row_bytes;
  if (stride < row_bytes || static_cast<uint64_t>(stride) * height > length) {
    buffer->Unlock();
    return MF_E_BUFFERTOOSMALL;
  }
  for (uint32_t y = 0; y < height; ++y) {
    const uint32_t source_row = default_stride < 0 ? height - 1 - y : y;
    std::memcpy(out->data() + row_bytes * y, bytes + stride * source_row, row_bytes);
  }
  buffer->Unlock();
  return S_OK;
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

  // Converts one decoded frame into BGRX rows.
  HRESULT Convert(IMFSample* input, std::vector<uint8_t>* out) {
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
    return CopyRgb32(produced.get(), width_, height_, static_cast<LONG>(width_ * 4), out);
  }

 private:
  ColorConverter(ComRef<IMFTransform> transform, uint32_t width, uint32_t height)
      : transform_(std::move(transform)), width_(width), height_(height) {}

  ComRef<IMFTransform> transform_;
  uint32_t width_;
  uint32_t height_;
};

// What the callback needs to turn a delivered sample into BGRX rows; set
// before the first read, fixed afterwards.
struct OutputFormat {
  uint32_t width = 0;
  uint32_t height = 0;
  LONG default_stride = 0;
  IMFMediaType* converter_input = nullptr;  // set when frames need the converter
};

// The COM face of MediaSourceCallback: Media Foundation calls it on its work
// queue threads.
class ReaderCallback final : public IMFSourceReaderCallback {
 public:
  explicit ReaderCallback(MediaSourceCallback* target) : target_(target) { target_->AddRef(); }

  void SetFormat(const OutputFormat& format) {
    std::lock_guard<std::mutex> lock(mutex_);
    format_ = format;
    converter_input_ = Share(format.converter_input);
    format_.converter_input = nullptr;
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

  STDMETHODIMP OnReadSample(HRESULT status, DWORD stream_index, DWORD flags, LONGLONG timestamp,
                            IMFSample* sample) override {
    std::shared_ptr<MediaSample> frame;
    if (SUCCEEDED(status) && sample != nullptr) {
      HRESULT hr = ToMediaSample(sample, &frame);
      if (FAILED(hr)) {
        status = hr;
        frame.reset();
      }
    }
    return target_->OnReadSample(static_cast<int32_t>(status), stream_index, flags, timestamp, std::move(frame));
  }
  STDMETHODIMP OnFlush(DWORD stream_index) override { return target_->OnFlush(stream_index); }
  STDMETHODIMP OnEvent(DWORD stream_index, IMFMediaEvent*) override { return target_->OnEvent(stream_index); }

 private:
  ~ReaderCallback() { target_->Release(); }

  HRESULT ToMediaSample(IMFSample* sample, std::shared_ptr<MediaSample>* out) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (format_.width == 0 || format_.height == 0) return MF_E_INVALIDMEDIATYPE;
    std::vector<uint8_t> pixels;
    HRESULT hr;
    if (converter_input_) {
      // Created on the first frame, on this (multithreaded) work queue thread.
      if (!converter_) {
        hr = ColorConverter::Create(converter_input_.get(), format_.width, format_.height, &converter_);
        if (FAILED(hr)) return hr;
      }
      hr = converter_->Convert(sample, &pixels);
    } else {
      hr = CopyRgb32(sample, format_.width, format_.height, format_.default_stride, &pixels);
    }
    if (FAILED(hr)) return hr;
    LONGLONG time = 0;
    const int64_t sample_time = SUCCEEDED(sample->GetSampleTime(&time)) ? time : MediaSample::kNoTime;
    *out = std::make_shared<MediaSample>(sample_time, static_cast<int>(format_.width),
                                         static_cast<int>(format_.height), std::move(pixels));
    return S_OK;
  }

  std::atomic<ULONG> references_{1};
  MediaSourceCallback* target_;  // one reference held
  std::mutex mutex_;
  OutputFormat format_;
  ComRef<IMFMediaType> converter_input_;
  std::unique_ptr<ColorConverter> converter_;
};

class MediaFoundationSource : public MediaSource {
 public:
  ~MediaFoundationSource() override {
    reader_.reset();
    if (callback_ != nullptr) callback_->Release();
  }

  int32_t Open(const std::u16string& path, MediaSourceCallback* callback) override {
    if (callback == nullptr || callback_ != nullptr) return E_INVALIDARG;
    HRESULT hr = StartMediaFoundation();
    if (FAILED(hr)) return hr;
    IMFAttributes* raw_attributes = nullptr;
    hr = MFCreateAttributes(&raw_attributes, 1);
    if (FAILED(hr)) return hr;
    ComRef<IMFAttributes> attributes(raw_attributes);
    hr = attributes->SetUINT32(MF_SOURCE_READER_ENABLE_VIDEO_PROCESSING, TRUE);
    if (FAILED(hr)) return hr;
    callback_ = new ReaderCallback(callback);
    hr = attributes->SetUnknown(MF_SOURCE_READER_ASYNC_CALLBACK, callback_);
    if (FAILED(hr)) return hr;
    IMFSourceReader* raw_reader = nullptr;
    hr = MFCreateSourceReaderFromURL(reinterpret_cast<const wchar_t*>(path.c_str()), attributes.get(), &raw_reader);
    if (FAILED(hr)) return hr;
    reader_.reset(raw_reader);
    return S_OK;
  }

  int32_t GetNativeVideoType(NativeVideoType* out) override {
    if (!reader_) return E_UNEXPECTED;
    // The stream's own (compressed) type; before an output type is set it is
    // also the current type, which some readers report already decoded.
    IMFMediaType* raw_type = nullptr;
    HRESULT hr = reader_->GetNativeMediaType(kFirstVideoStream, 0, &raw_type);
    ComRef<IMFMediaType> type(raw_type);
    if (FAILED(hr)) hr = CurrentType(&type);
    if (FAILED(hr)) return hr;
    NativeVideoType native;
    GUID major = GUID_NULL;
    hr = type->GetMajorType(&major);
    if (FAILED(hr)) return hr;
    native.is_video = major == MFMediaType_Video;
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
    *out = native;
    return S_OK;
  }

  int32_t SetFirstVideoOutputBgrx() override {
    if (!reader_) return E_UNEXPECTED;
    HRESULT hr = SetOutputSubtype(MFVideoFormat_RGB32);
    if (SUCCEEDED(hr)) return UpdateFormat(false);
    // RGB32 refused: take a YUV format and convert each frame ourselves.
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

  int32_t GetCharacteristics(uint32_t* characteristics) override {
    if (!reader_) return E_UNEXPECTED;
    PROPVARIANT value;
    PropVariantInit(&value);
    HRESULT hr = reader_->GetPresentationAttribute(kMediaSourceStream, kSourceCharacteristics, &value);
    if (FAILED(hr)) return hr;
    ULONG converted = 0;
    hr = PropVariantToUInt32(value, &converted);
    PropVariantClear(&value);
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
    if (needs_converter) format.converter_input = type.get();
    callback_->SetFormat(format);
    return S_OK;
  }

  ReaderCallback* callback_ = nullptr;  // one reference held
  ComRef<IMFSourceReader> reader_;
};

}  // namespace

std::unique_ptr<MediaSource> MediaSource::Create() { return std::make_unique<MediaFoundationSource>(); }

}  // namespace thumbnail
}  // namespace tessera
