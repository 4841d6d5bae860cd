// Reading a frame that Media Foundation delivered as RGB32. Internal to the
// Media Foundation source (media-source-win.cc); declared here for its test.
#ifndef TESSERA_LIB_VIDEO_MEDIA_BUFFER_WIN_H_
#define TESSERA_LIB_VIDEO_MEDIA_BUFFER_WIN_H_

#include <windows.h>
// Media Foundation declarations need the Windows types first.
#include <mfobjects.h>

#include <cstddef>
#include <cstdint>

namespace tessera {
namespace thumbnail {

// Copies the RGB32 pixels of a contiguous buffer into `height` top-down
// BGRX rows of `out_stride` bytes at `out`. A 2D buffer is read with its
// own pitch (negative: bottom-up rows), a plain one with `default_stride`
// (the media type's; 0 means width * 4, negative bottom-up). The buffer's
// length is checked against stride x height first: after a change of media
// type a frame may be smaller than the size announced, and it is then
// refused with MF_E_BUFFERTOOSMALL, nothing copied, rather than read past.
HRESULT CopyRgb32(IMFMediaBuffer* buffer, uint32_t width, uint32_t height, LONG default_stride, uint8_t* out,
                  size_t out_stride);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_MEDIA_BUFFER_WIN_H_
