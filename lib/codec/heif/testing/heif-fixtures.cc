#include "lib/codec/heif/testing/heif-fixtures.h"

#include <libheif/heif.h>

#include <vector>

#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace testing {
namespace {

heif_image* MakeImage(int width, int height, int depth, const HeifPainter& paint) {
  heif_image* image = nullptr;
  const heif_chroma chroma = depth > 8 ? heif_chroma_interleaved_RRGGBB_LE : heif_chroma_interleaved_RGB;
  heif_image_create(width, height, heif_colorspace_RGB, chroma, &image);
  heif_image_add_plane(image, heif_channel_interleaved, width, height, depth);
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint16_t rgb[3] = {0, 0, 0};
      paint(x, y, rgb);
      for (int c = 0; c < 3; ++c) {
        if (depth > 8) {
          uint8_t* p = plane + y * stride + (x * 3 + c) * 2;
          p[0] = static_cast<uint8_t>(rgb[c]);
          p[1] = static_cast<uint8_t>(rgb[c] >> 8);
        } else {
          plane[y * stride + x * 3 + c] = static_cast<uint8_t>(rgb[c]);
        }
      }
    }
  }
  return image;
}

heif_error WriteToString(heif_context*, const void* data, size_t size, void* user) {
  static_cast<std::string*>(user)->append(static_cast<const char*>(data), size);
  return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

constexpr auto Be32 = ::tessera::testing::ReadBe32;
constexpr auto Put16 = ::tessera::testing::AppendBe16;
constexpr auto Put32 = ::tessera::testing::AppendBe32;

std::string MakeBox(const char* type, const std::string& payload) {
  std::string box;
  Put32(&box, static_cast<uint32_t>(8 + payload.size()));
  box.append(type, 4);
  return box + payload;
}

std::string FullBox(const char* type, int version, uint32_t flags, const std::string& payload) {
  std::string head;
  Put32(&head, static_cast<uint32_t>(version) << 24 | flags);
  return MakeBox(type, head + payload);
}

std::string Ispe(uint32_t width, uint32_t height) {
  std::string payload;
  Put32(&payload, width);
  Put32(&payload, height);
  return FullBox("ispe", 0, 0, payload);
}

std::string Infe(uint32_t id, const char* type, bool hidden) {
  std::string payload;
  Put16(&payload, id);
  Put16(&payload, 0);  // protection index
  payload.append(type, 4);
  payload.push_back('\0');  // name
  return FullBox("infe", 2, hidden ? 1 : 0, payload);
}

}  // namespace

HeifPainter SolidHeif(uint16_t r, uint16_t g, uint16_t b) {
  return [=](int, int, uint16_t* rgb) {
    rgb[0] = r;
    rgb[1] = g;
    rgb[2] = b;
  };
}

std::string EncodeHeif(const HeifFixture& fixture) {
  heif_context* context = heif_context_alloc();
  heif_encoder* encoder = nullptr;
  std::string out;
  if (heif_context_get_encoder_for_format(context, heif_compression_HEVC, &encoder).code == heif_error_Ok) {
    heif_encoder_set_lossy_quality(encoder, 95);
    heif_encoder_set_parameter_string(encoder, "chroma", "444");
    heif_image* image = MakeImage(fixture.width, fixture.height, fixture.bit_depth, fixture.paint);
    heif_color_profile_nclx* nclx = heif_nclx_color_profile_alloc();
    if (fixture.nclx_primaries != 0) {
      heif_nclx_color_profile_set_color_primaries(nclx, static_cast<uint16_t>(fixture.nclx_primaries));
      heif_nclx_color_profile_set_transfer_characteristics(nclx, static_cast<uint16_t>(fixture.nclx_transfer));
      heif_nclx_color_profile_set_matrix_coefficients(nclx, heif_matrix_coefficients_ITU_R_BT_601_6);
      nclx->full_range_flag = 1;
      heif_image_set_nclx_color_profile(image, nclx);
    }
    heif_encoding_options* options = heif_encoding_options_alloc();
    options->image_orientation = static_cast<heif_orientation>(fixture.orientation);
    options->output_nclx_profile = fixture.nclx_primaries != 0 ? nclx : nullptr;
    options->macOS_compatibility_workaround_no_nclx_profile = 0;
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(context, image, encoder, options, &handle);
    if (fixture.thumbnail_paint && handle != nullptr) {
      heif_image* thumb = MakeImage(fixture.width, fixture.height, fixture.bit_depth, fixture.thumbnail_paint);
      heif_context_encode_thumbnail(context, thumb, handle, encoder, options, 32, nullptr);
      heif_image_release(thumb);
    }
    heif_writer writer{1, WriteToString};
    heif_context_write(context, &writer, &out);
    if (handle != nullptr) heif_image_handle_release(handle);
    heif_encoding_options_free(options);
    heif_nclx_color_profile_free(nclx);
    heif_image_release(image);
    heif_encoder_release(encoder);
  }
  heif_context_free(context);
  return out;
}

bool ExtractCodedTile(const std::string& heif, int width, int height, CodedTile* out) {
  const size_t config = heif.find("hvcC");
  const size_t mdat = heif.find("mdat");
  if (config == std::string::npos || config < 4 || mdat == std::string::npos || mdat < 4) return false;
  const uint32_t config_size = Be32(heif, config - 4);
  const uint32_t mdat_size = Be32(heif, mdat - 4);
  if (config_size < 8 || config - 4 + config_size > heif.size() || mdat_size < 8 ||
      mdat - 4 + mdat_size > heif.size()) {
    return false;
  }
  out->width = width;
  out->height = height;
  out->config_box = heif.substr(config - 4, config_size);
  out->data = heif.substr(mdat + 4, mdat_size - 8);
  return true;
}

std::string BuildHeifGrid(const HeifGrid& grid) {
  const uint32_t cells = static_cast<uint32_t>(grid.rows) * static_cast<uint32_t>(grid.columns);
  const uint32_t tiles = grid.tile_items != 0 ? grid.tile_items : cells;
  const uint32_t grid_width = static_cast<uint32_t>(grid.columns * grid.tile.width);
  const uint32_t grid_height = static_cast<uint32_t>(grid.rows * grid.tile.height);

  std::string ftyp;
  ftyp += "heic";
  Put32(&ftyp, 0);
  ftyp += "mif1heic";
  ftyp = MakeBox("ftyp", ftyp);

  std::string hdlr;
  Put32(&hdlr, 0);
  hdlr += "pict";
  hdlr += std::string(12, '\0');
  hdlr.push_back('\0');
  hdlr = FullBox("hdlr", 0, 0, hdlr);

  std::string pitm;
  Put16(&pitm, 1);
  pitm = FullBox("pitm", 0, 0, pitm);

  std::string iinf;
  Put32(&iinf, tiles + 1);
  iinf += Infe(1, "grid", false);
  for (uint32_t i = 0; i < tiles; ++i) iinf += Infe(2 + i, "hvc1", true);
  iinf = FullBox("iinf", 1, 0, iinf);

  std::string dimg;
  Put16(&dimg, 1);
  Put16(&dimg, cells);
  for (uint32_t i = 0; i < cells; ++i) Put16(&dimg, 2 + i % tiles);
  const std::string iref = FullBox("iref", 0, 0, MakeBox("dimg", dimg));

  // Properties 1: the tile's decoder configuration, 2: the tile size, 3:
  // the grid size.
  const std::string ipco = MakeBox(
      "ipco", grid.tile.config_box + Ispe(grid.tile.width, grid.tile.height) + Ispe(grid_width, grid_height));
  std::string ipma;
  Put32(&ipma, tiles + 1);
  Put16(&ipma, 1);
  ipma.push_back(1);
  ipma.push_back(3);
  for (uint32_t i = 0; i < tiles; ++i) {
    Put16(&ipma, 2 + i);
    ipma.push_back(2);
    ipma.push_back(static_cast<char>(0x81));  // essential
    ipma.push_back(2);
  }
  const std::string iprp = MakeBox("iprp", ipco + FullBox("ipma", 0, 0, ipma));

  std::string grid_data;
  grid_data.push_back(0);  // version
  grid_data.push_back(0);  // flags: 16-bit sizes
  grid_data.push_back(static_cast<char>(grid.rows - 1));
  grid_data.push_back(static_cast<char>(grid.columns - 1));
  Put16(&grid_data, grid_width);
  Put16(&grid_data, grid_height);
  const std::string idat = MakeBox("idat", grid_data);

  // Every tile points at the one coded tile in mdat, whose offset is known
  // once the meta box is: its size does not depend on the offset.
  auto iloc = [&](uint32_t data_offset) {
    std::string payload;
    Put16(&payload, 0x4400);  // 4-byte offsets and lengths, no base offset, no index
    Put16(&payload, tiles + 1);
    Put16(&payload, 1);
    Put16(&payload, 1);  // construction method 1: idat
    Put16(&payload, 0);
    Put16(&payload, 1);
    Put32(&payload, 0);
    Put32(&payload, static_cast<uint32_t>(grid_data.size()));
    for (uint32_t i = 0; i < tiles; ++i) {
      Put16(&payload, 2 + i);
      Put16(&payload, 0);  // construction method 0: file offset
      Put16(&payload, 0);
      Put16(&payload, 1);
      Put32(&payload, data_offset);
      Put32(&payload, static_cast<uint32_t>(grid.tile.data.size()));
    }
    return FullBox("iloc", 1, 0, payload);
  };
  auto meta = [&](uint32_t data_offset) {
    return FullBox("meta", 0, 0, hdlr + pitm + iloc(data_offset) + iinf + iref + iprp + idat);
  };
  const uint32_t data_offset = static_cast<uint32_t>(ftyp.size() + meta(0).size() + 8);
  return ftyp + meta(data_offset) + MakeBox("mdat", grid.tile.data);
}

std::string BuildHeifItemGraph(const HeifItemGraph& graph) {
  std::string ftyp = "heic";
  Put32(&ftyp, 0);
  ftyp += "mif1heic";
  std::string pitm;
  Put16(&pitm, 1);
  std::string iinf;
  Put16(&iinf, static_cast<uint32_t>(graph.types.size()));
  for (size_t i = 0; i < graph.types.size(); ++i) {
    iinf += Infe(static_cast<uint32_t>(i + 1), graph.types[i].c_str(), false);
  }
  std::string refs;
  for (const std::vector<uint32_t>& derivation : graph.derivations) {
    if (derivation.empty()) continue;
    std::string dimg;
    Put16(&dimg, derivation[0]);
    Put16(&dimg, static_cast<uint32_t>(derivation.size() - 1));
    for (size_t i = 1; i < derivation.size(); ++i) Put16(&dimg, derivation[i]);
    refs += MakeBox("dimg", dimg);
  }
  return MakeBox("ftyp", ftyp) + FullBox("meta", 0, 0,
                                         FullBox("pitm", 0, 0, pitm) + FullBox("iinf", 0, 0, iinf) +
                                             FullBox("iref", 0, 0, refs));
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera
