// JPEG decoding with libjpeg(-turbo): DCT scaling on load, scanlines streamed
// into the area reducers, colour conversion and EXIF orientation last.
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <algorithm>
#include <new>
#include <vector>

#include <jpeglib.h>
// jerror.h needs the types of jpeglib.h.
#include <jerror.h>

#include "lib/codec/decoders.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/image/exif-orientation.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

constexpr size_t kInputChunk = 64 * 1024;
// Progressive files can hold any number of scans, each a pass over the whole
// coefficient buffer; a hostile file with thousands of them would take
// minutes. Real encoders write about ten. A file is shown as the scans
// within both bounds make it: a little less refined, not refused.
constexpr int kMaxScans = 500;
// Blocks of coefficients all scans together may pass over (about 30 ns
// each): fifty scans of a 200-megapixel picture, forty of a 400-megapixel
// gray one, some ten seconds.
constexpr uint64_t kMaxScanBlockPasses = uint64_t{1} << 28;
constexpr int kExifMarker = JPEG_APP0 + 1;
constexpr int kIccMarker = JPEG_APP0 + 2;

struct ErrorManager {
  jpeg_error_mgr pub;
  std::jmp_buf jump;
  // The iMCU row being read when the entropy-coded data ended early (the
  // file is cut short or ends in an EOI marker) during a scan that covers
  // every component and is the first: nothing below that row has any data.
  // -1 when the data did not end so.
  int data_end_imcu_row;
};

struct SourceManager {
  jpeg_source_mgr pub;
  ByteSource* source;
  uint64_t offset;
  JOCTET buffer[kInputChunk];
};

struct ProgressManager {
  jpeg_progress_mgr pub;
};

void OnFatalError(j_common_ptr cinfo) {
  std::longjmp(reinterpret_cast<ErrorManager*>(cinfo->err)->jump, 1);
}

// Warnings about corrupt data are expected for damaged files, which we decode
// best-effort; nothing of the codec's chatter reaches standard error. The
// warning that the data ran into the end-of-image marker (the source inserts
// one when the file ends) is noted, so that decoding can stop rather than
// turn out blank rows to the declared height.
void OnMessage(j_common_ptr cinfo, int msg_level) {
  if (msg_level != -1 || !cinfo->is_decompressor || cinfo->err->msg_code != JWRN_HIT_MARKER) return;
  auto* dinfo = reinterpret_cast<j_decompress_ptr>(cinfo);
  auto* err = reinterpret_cast<ErrorManager*>(cinfo->err);
  if (err->data_end_imcu_row < 0 && dinfo->unread_marker == JPEG_EOI && dinfo->input_scan_number == 1 &&
      dinfo->comps_in_scan == dinfo->num_components) {
    err->data_end_imcu_row = static_cast<int>(dinfo->input_iMCU_row);
  }
}
void OnOutputMessage(j_common_ptr /*cinfo*/) {}

bool Cancelled(j_decompress_ptr cinfo) {
  return reinterpret_cast<SourceManager*>(cinfo->src)->source->cancelled();
}

// Called for every row read and every pass over the coefficients.
void OnProgress(j_common_ptr cinfo) {
  if (!cinfo->is_decompressor) return;
  auto* dinfo = reinterpret_cast<j_decompress_ptr>(cinfo);
  if (dinfo->input_scan_number > kMaxScans || Cancelled(dinfo)) OnFatalError(cinfo);
}

void InitSource(j_decompress_ptr /*cinfo*/) {}

// Like libjpeg's stdio source: at the end of the data a fake EOI marker is
// inserted, so a truncated file decodes with a grey remainder.
boolean FillInputBuffer(j_decompress_ptr cinfo) {
  auto* src = reinterpret_cast<SourceManager*>(cinfo->src);
  int64_t got = src->source->ReadAt(src->offset, src->buffer, kInputChunk);
  if (got <= 0) {
    src->buffer[0] = 0xFF;
    src->buffer[1] = JPEG_EOI;
    got = 2;
  } else {
    src->offset += static_cast<uint64_t>(got);
  }
  src->pub.next_input_byte = src->buffer;
  src->pub.bytes_in_buffer = static_cast<size_t>(got);
  return TRUE;
}

void SkipInputData(j_decompress_ptr cinfo, long num_bytes) {
  if (num_bytes <= 0) return;
  auto* src = reinterpret_cast<SourceManager*>(cinfo->src);
  const size_t skip = static_cast<size_t>(num_bytes);
  if (skip <= src->pub.bytes_in_buffer) {
    src->pub.next_input_byte += skip;
    src->pub.bytes_in_buffer -= skip;
    return;
  }
  src->offset += skip - src->pub.bytes_in_buffer;
  src->pub.bytes_in_buffer = 0;
  src->pub.next_input_byte = src->buffer;
}

void TermSource(j_decompress_ptr /*cinfo*/) {}

// Owns one libjpeg decompressor. Every libjpeg call goes through Run(), the
// only place with a setjmp; the steps it runs keep only trivially
// destructible locals, so the error longjmp skips no destructor.
class JpegReader {
 public:
  explicit JpegReader(ByteSource* source) {
    std::memset(&cinfo_, 0, sizeof(cinfo_));
    cinfo_.err = jpeg_std_error(&err_.pub);
    err_.pub.error_exit = OnFatalError;
    err_.pub.emit_message = OnMessage;
    err_.pub.output_message = OnOutputMessage;
    err_.data_end_imcu_row = -1;
    src_.pub.init_source = InitSource;
    src_.pub.fill_input_buffer = FillInputBuffer;
    src_.pub.skip_input_data = SkipInputData;
    src_.pub.resync_to_restart = jpeg_resync_to_restart;
    src_.pub.term_source = TermSource;
    src_.pub.next_input_byte = nullptr;
    src_.pub.bytes_in_buffer = 0;
    src_.source = source;
    src_.offset = 0;
    progress_.pub.progress_monitor = OnProgress;
  }
  ~JpegReader() {
    if (icc_ != nullptr) std::free(icc_);
    if (created_) jpeg_destroy_decompress(&cinfo_);
  }
  JpegReader(const JpegReader&) = delete;
  JpegReader& operator=(const JpegReader&) = delete;

  jpeg_decompress_struct* cinfo() { return &cinfo_; }
  const JOCTET* icc() const { return icc_; }
  unsigned icc_size() const { return icc_size_; }

  bool Create() { return Run(&JpegReader::DoCreate); }
  bool ReadHeader() { return Run(&JpegReader::DoReadHeader); }
  bool CalcOutputDimensions() { return Run(&JpegReader::DoCalcOutputDimensions); }
  // Starts decompression. Multi-scan files are read in buffered-image mode
  // so that reading stops where the data ended in the first scan, without
  // passing over the never-filled rest of the coefficient buffer, or after
  // the last whole scan within kMaxScans and kMaxScanBlockPasses.
  bool Start() { return Run(&JpegReader::DoStart); }
  // The number of output rows that can hold decoded data: the declared
  // height, or for data that ended early, up to the end of the iMCU row
  // after the one being read then (its rows may still depend on that one).
  int RowsWithData() const {
    const int height = static_cast<int>(cinfo_.output_height);
    if (err_.data_end_imcu_row < 0) return height;
#if JPEG_LIB_VERSION >= 70
    const int scaled = cinfo_.min_DCT_v_scaled_size;
#else
    const int scaled = cinfo_.min_DCT_scaled_size;
#endif
    const int64_t rows = (int64_t{err_.data_end_imcu_row} + 2) * cinfo_.max_v_samp_factor * scaled;
    return rows < height ? static_cast<int>(rows) : height;
  }
  // Reads the next scanline into row.
  bool ReadRow(JSAMPROW row) {
    row_ = row;
    return Run(&JpegReader::DoReadRow);
  }

 private:
  bool Run(void (JpegReader::*step)()) {
    if (setjmp(err_.jump)) return false;
    (this->*step)();
    return true;
  }

  void DoCreate() {
    jpeg_create_decompress(&cinfo_);
    created_ = true;
    cinfo_.src = &src_.pub;
    cinfo_.progress = &progress_.pub;
    cinfo_.mem->max_memory_to_use = static_cast<long>(image::kMaxDecodeBytes);
  }
  void DoReadHeader() {
    jpeg_save_markers(&cinfo_, kExifMarker, 0xFFFF);
    jpeg_save_markers(&cinfo_, kIccMarker, 0xFFFF);
    jpeg_read_header(&cinfo_, TRUE);
    jpeg_read_icc_profile(&cinfo_, &icc_, &icc_size_);
  }
  void DoCalcOutputDimensions() { jpeg_calc_output_dimensions(&cinfo_); }
  void DoStart() {
    cinfo_.buffered_image = jpeg_has_multiple_scans(&cinfo_);
    jpeg_start_decompress(&cinfo_);
    if (!cinfo_.buffered_image) return;
    uint64_t blocks = 0;
    for (int i = 0; i < cinfo_.num_components; ++i) {
      blocks += uint64_t{cinfo_.comp_info[i].width_in_blocks} * cinfo_.comp_info[i].height_in_blocks;
    }
    for (;;) {
      if (Cancelled(&cinfo_)) OnFatalError(reinterpret_cast<j_common_ptr>(&cinfo_));
      const int result = jpeg_consume_input(&cinfo_);
      if (result == JPEG_REACHED_EOI || result == JPEG_SUSPENDED || err_.data_end_imcu_row >= 0) break;
      if (result == JPEG_SCAN_COMPLETED &&
          (cinfo_.input_scan_number >= kMaxScans ||
           blocks * static_cast<uint64_t>(cinfo_.input_scan_number + 1) > kMaxScanBlockPasses)) {
        break;
      }
    }
    jpeg_start_output(&cinfo_, cinfo_.input_scan_number);
  }
  void DoReadRow() {
    JSAMPROW rows[1] = {row_};
    if (jpeg_read_scanlines(&cinfo_, rows, 1) != 1) {
      // Cannot happen with a source that never suspends; treat as an error.
      std::longjmp(err_.jump, 1);
    }
  }

  jpeg_decompress_struct cinfo_;
  ErrorManager err_;
  SourceManager src_;
  ProgressManager progress_;
  bool created_ = false;
  JOCTET* icc_ = nullptr;
  unsigned icc_size_ = 0;
  JSAMPROW row_ = nullptr;
};

int OrientationFromMarkers(jpeg_decompress_struct* cinfo) {
  for (jpeg_saved_marker_ptr m = cinfo->marker_list; m != nullptr; m = m->next) {
    if (m->marker == kExifMarker && m->data_length >= 6 &&
        std::memcmp(m->data, "Exif\0\0", 6) == 0) {
      return image::ExifOrientation(m->data, m->data_length);
    }
  }
  return 1;
}

// Memory libjpeg will need beyond its small fixed tables: the whole
// coefficient buffer for progressive (multi-scan) files, plus a few rows.
uint64_t EstimateDecodeBytes(const jpeg_decompress_struct& cinfo) {
  uint64_t bytes = 0;
  for (int i = 0; i < cinfo.num_components; ++i) {
    const jpeg_component_info& comp = cinfo.comp_info[i];
    const uint64_t blocks_wide = comp.width_in_blocks + static_cast<uint64_t>(comp.h_samp_factor);
    const uint64_t blocks_high = comp.height_in_blocks + static_cast<uint64_t>(comp.v_samp_factor);
    if (jpeg_has_multiple_scans(const_cast<jpeg_decompress_struct*>(&cinfo))) {
      bytes += blocks_wide * blocks_high * sizeof(JBLOCK);
    }
    // Sample rows of the IDCT output and the upsampler.
    bytes += blocks_wide * DCTSIZE * DCTSIZE * 4;
  }
  return bytes + static_cast<uint64_t>(cinfo.image_width) * 4 * 2;
}

// Decodes at the DCT scale that the largest request of the run needs and
// reduces the rows to every size the run asks for (ReducingSink::FanOut): a
// second decode at a smaller scale costs as much entropy decoding as the
// first, and for a progressive file a pass over all its scans, while one
// more reduction of rows already decoded costs a few milliseconds on the
// second core. Colour is converted after the reduction.
class JpegDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    std::unique_ptr<JpegReader> reader(new (std::nothrow) JpegReader(source));
    if (!reader) return Status::Internal("out of memory");
    if (!reader->Create()) return Status::Internal("cannot create a JPEG decompressor");
    if (!reader->ReadHeader()) return Status::InvalidArgument("unreadable JPEG header");
    jpeg_decompress_struct* cinfo = reader->cinfo();
    if (!image::WithinPixelLimits(cinfo->image_width, cinfo->image_height)) {
      return ImageTooLargeError(cinfo->image_width, cinfo->image_height);
    }
    const uint64_t planned_bytes = EstimateDecodeBytes(*cinfo);
    if (planned_bytes > image::kMaxDecodeBytes) return ImageTooLargeError(cinfo->image_width, cinfo->image_height);

    // Rows reach the sink in the layout of the colour transform that
    // follows the reduction: BGRA, CMYK, or gray expanded to BGRA.
    color::PixelLayout layout = color::PixelLayout::kBgra8;
    bool invert_cmyk = false;
    if (cinfo->jpeg_color_space == JCS_CMYK || cinfo->jpeg_color_space == JCS_YCCK) {
      cinfo->out_color_space = JCS_CMYK;
      layout = color::PixelLayout::kCmyk8;
      // Adobe applications write CMYK with 0 meaning full ink.
      invert_cmyk = cinfo->saw_Adobe_marker;
    } else {
      // Only a gray profile can describe gray samples.
      if (cinfo->jpeg_color_space == JCS_GRAYSCALE && reader->icc() != nullptr) layout = color::PixelLayout::kGrayBgra8;
      cinfo->out_color_space = JCS_EXT_BGRA;
    }
    cinfo->scale_num = 1;
    cinfo->scale_denom = ScaleDenominator(cinfo->image_width, cinfo->image_height, cx);
    // The area reduction that follows hides the difference.
    if (cinfo->scale_denom > 1) cinfo->do_fancy_upsampling = FALSE;
    if (!reader->CalcOutputDimensions()) return Status::InvalidArgument("bad JPEG parameters");

    const int width = static_cast<int>(cinfo->output_width);
    const int height = static_cast<int>(cinfo->output_height);
    ReducingSink sink;
    Status status = sink.Init(static_cast<uint64_t>(width), static_cast<uint64_t>(height), cx);
    if (!status.ok()) return status;
    sink.FanOut(AnticipatedRequests(), planned_bytes);
    sink.SetColorTransform(color::ColorTransform::SharedFromIcc(reader->icc(), reader->icc_size(), layout));

    if (!reader->Start()) return Status::InvalidArgument("corrupt JPEG data");
    const size_t row_bytes = static_cast<size_t>(width) * 4;
    for (int y = 0; y < height; ++y) {
      // Rows past the end of the data are left to the reducer, which shows
      // them grey as libjpeg would, without decoding them.
      if (y >= reader->RowsWithData()) break;
      uint8_t* row = sink.NextRow();
      if (row == nullptr) break;  // Finish reports why
      if (!reader->ReadRow(row)) return Status::InvalidArgument("corrupt JPEG data");
      if (invert_cmyk) {
        for (size_t i = 0; i < row_bytes; ++i) row[i] = static_cast<uint8_t>(255 - row[i]);
      }
      sink.CommitRow();
    }
    return sink.Finish(OrientationFromMarkers(cinfo), out);
  }

 private:
  // The DCT scale of this decode: the smallest picture that still covers
  // every result it makes, this request's and, when the run is told, those
  // of the run's other requests, which it serves too.
  unsigned ScaleDenominator(uint32_t width, uint32_t height, uint32_t cx) const {
    const FanOutRequest run = AnticipatedRequests();
    std::vector<uint32_t> requests = {cx};
    if (!run.key.empty()) requests.insert(requests.end(), run.cx_values.begin(), run.cx_values.end());
    int need_width = 0;
    int need_height = 0;
    for (uint32_t request : requests) {
      int w = 0;
      int h = 0;
      RequestedSize(static_cast<int>(width), static_cast<int>(height), request, run.edge_divisor, &w, &h);
      need_width = std::max(need_width, w);
      need_height = std::max(need_height, h);
    }
    return static_cast<unsigned>(JpegScaleDenominator(width, height, need_width, need_height));
  }
};

}  // namespace

int JpegScaleDenominator(uint32_t width, uint32_t height, int need_width, int need_height) {
  for (uint64_t denom : {8, 4, 2}) {
    if ((width + denom - 1) / denom >= static_cast<uint64_t>(std::max(need_width, 0)) &&
        (height + denom - 1) / denom >= static_cast<uint64_t>(std::max(need_height, 0))) {
      return static_cast<int>(denom);
    }
  }
  return 1;
}

std::unique_ptr<ImageDecoder> CreateJpegDecoder() {
  return std::unique_ptr<ImageDecoder>(new JpegDecoder());
}

}  // namespace codec
}  // namespace tessera
