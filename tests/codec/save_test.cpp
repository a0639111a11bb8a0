// Saving and encoding: format choice, preparation of the frame, writer parameters, round trips
// through the loader, and every refusal with its message.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "codec_test_support.h"
#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::test::LogCapture;
using zarvel::test::ScratchDir;

struct Frame {
  zarvel_frame_t* f = nullptr;
  Frame() = default;
  explicit Frame(zarvel_frame_t* frame) : f(frame) {}
  Frame(const Frame&) = delete;
  ~Frame() { zarvel_frame_free(&f); }
};

struct Buffer {
  zarvel_buffer_t* b;
  explicit Buffer(int64_t size, uint32_t mem = ZARVEL_MEM_HOST)
      : b(zarvel_buffer_alloc(size, mem)) {}
  ~Buffer() { zarvel_buffer_free(&b); }
  std::vector<uint8_t> bytes() const {
    const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(b));
    return {p, p + zarvel_buffer_size(b)};
  }
};

// A host frame with a smooth pattern (JPEG keeps it close) or a sharp one (every byte differs
// from its neighbours, so a lossless format must keep each one).
zarvel_frame_t* make_frame(uint32_t format, int32_t w, int32_t h, bool smooth) {
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0);
  const int32_t bpp = zarvel_frame_pixel_size(format);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w * bpp; ++x) {
      const int c = x % bpp, px = x / bpp;
      f->plane[0][int64_t{y} * f->stride[0] + x] =
          smooth ? static_cast<uint8_t>(40 + 2 * px + 3 * y + 50 * c)
                 : static_cast<uint8_t>(y * 31 + x * 7 + (x * x) % 13);
    }
  }
  return f;
}

// The decoded image that a lossless format must give back: "GREY" stays one channel only for
// PNG, and everything is "RGB24" otherwise.
std::vector<uint8_t> expected_rgb(const zarvel_frame_t* f) {
  std::vector<uint8_t> out;
  for (int32_t y = 0; y < f->height; ++y) {
    const uint8_t* row = f->plane[0] + int64_t{y} * f->stride[0];
    for (int32_t x = 0; x < f->width; ++x) {
      if (f->format == ZARVEL_PIXFMT_GREY) out.insert(out.end(), 3, row[x]);
      if (f->format == ZARVEL_PIXFMT_RGB24) out.insert(out.end(), row + 3 * x, row + 3 * x + 3);
      if (f->format == ZARVEL_PIXFMT_BGR24) {
        out.insert(out.end(), {row[3 * x + 2], row[3 * x + 1], row[3 * x]});
      }
    }
  }
  return out;
}

int32_t encode(zarvel_frame_t* f, int32_t format, std::vector<uint8_t>* bytes) {
  Buffer buffer(0);
  const int32_t status = zarvel_frame_encode(f, format, buffer.b);
  *bytes = buffer.bytes();
  return status;
}

zarvel_frame_t* decode(const std::vector<uint8_t>& bytes) {
  return zarvel_frame_load_from_memory(bytes.data(), static_cast<int32_t>(bytes.size()));
}

std::vector<zarvel::test::LogMessage> failures(const LogCapture& log) {
  std::vector<zarvel::test::LogMessage> out;
  for (const auto& m : log.messages()) {
    if (m.level == ZARVEL_LOG_FAILURE) out.push_back(m);
  }
  return out;
}

void expect_one_failure(const LogCapture& log, const std::string& text) {
  const auto m = failures(log);
  ASSERT_EQ(m.size(), 1u) << text;
  EXPECT_EQ(m[0].tag, "aux");
  EXPECT_EQ(m[0].text, text);
}

constexpr uint32_t kPackedFormats[] = {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24,
                                       ZARVEL_PIXFMT_BGR24};

TEST(CodecSave, PngAndBmpRoundTripExactlyThroughBufferAndFile) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  for (uint32_t format : kPackedFormats) {
    for (auto [w, h] : {std::pair{1, 1}, std::pair{3, 2}, std::pair{17, 9}, std::pair{64, 33}}) {
      for (int32_t image : {ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG}) {
        SCOPED_TRACE(testing::Message() << zarvel_frame_pixfmt_to_string(format) << " " << w << "x"
                                        << h << " image " << image);
        Frame src(make_frame(format, w, h, false));
        LogCapture log;
        std::vector<uint8_t> bytes;
        ASSERT_EQ(encode(src.f, image, &bytes), 0);
        const std::string path = dir.file(image == ZARVEL_IMAGE_PNG ? "out.png" : "out.bmp");
        ASSERT_EQ(zarvel_frame_save(src.f, path.c_str()), 0);
        EXPECT_EQ(zarvel::test::read_file(path), bytes);
        EXPECT_TRUE(failures(log).empty());

        const bool grey_png = format == ZARVEL_PIXFMT_GREY && image == ZARVEL_IMAGE_PNG;
        if (image == ZARVEL_IMAGE_PNG) {
          ASSERT_GT(bytes.size(), 26u);
          EXPECT_EQ(bytes[25], grey_png ? 0 : 2);  // IHDR colour type: grey or truecolour
        } else {
          ASSERT_GT(bytes.size(), 29u);
          EXPECT_EQ(bytes[0], 'B');
          EXPECT_EQ(bytes[28], 24);  // bits per pixel
        }
        Frame back(decode(bytes));
        ASSERT_NE(back.f, nullptr);
        EXPECT_EQ(back.f->width, w);
        EXPECT_EQ(back.f->format, grey_png ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24);
        EXPECT_EQ(zarvel::test::visible_bytes(back.f),
                  grey_png ? zarvel::test::visible_bytes(src.f) : expected_rgb(src.f));
      }
    }
  }
}

// The luma quantisation table follows the DQT marker; at quality 100 every entry is 1.
bool has_quality_100_tables(const std::vector<uint8_t>& jpeg) {
  for (size_t i = 0; i + 5 + 129 < jpeg.size(); ++i) {
    if (jpeg[i] == 0xFF && jpeg[i + 1] == 0xDB) {
      for (size_t k = 0; k < 64; ++k) {
        if (jpeg[i + 5 + k] != 1 || jpeg[i + 5 + 65 + k] != 1) return false;
      }
      return true;
    }
  }
  return false;
}

TEST(CodecSave, JpegAtQuality100RoundTripsWithinTolerance) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  for (uint32_t format : kPackedFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    Frame src(make_frame(format, 37, 21, true));
    const std::string path = dir.file("Photo.JPEG");
    ASSERT_EQ(zarvel_frame_save(src.f, path.c_str()), 0);
    const auto bytes = zarvel::test::read_file(path);
    EXPECT_TRUE(has_quality_100_tables(bytes));
    std::vector<uint8_t> encoded;
    ASSERT_EQ(encode(src.f, ZARVEL_IMAGE_JPEG, &encoded), 0);
    EXPECT_EQ(encoded, bytes);

    Frame back(zarvel_frame_load(path.c_str()));
    ASSERT_NE(back.f, nullptr);
    EXPECT_EQ(back.f->format, ZARVEL_PIXFMT_RGB24);  // grey is written as three channels
    ASSERT_EQ(back.f->width, 37);
    const auto want = expected_rgb(src.f), got = zarvel::test::visible_bytes(back.f);
    ASSERT_EQ(got.size(), want.size());
    int worst = 0;
    for (size_t i = 0; i < want.size(); ++i) worst = std::max(worst, std::abs(want[i] - got[i]));
    EXPECT_LE(worst, 3);
  }
}

TEST(CodecSave, FileNameEndingsChooseTheFormatInAnyCase) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  Frame src(make_frame(ZARVEL_PIXFMT_RGB24, 5, 4, false));
  const struct {
    const char* name;
    uint8_t magic0, magic1;
  } good[] = {{"a.jpg", 0xFF, 0xD8},
              {"b.Jpeg", 0xFF, 0xD8},
              {"d.bMp", 'B', 'M'},
              {"e.PNG", 0x89, 'P'},
              {".png", 0x89, 'P'}};
  for (const auto& g : good) {
    const std::string path = dir.file(g.name);
    ASSERT_EQ(zarvel_frame_save(src.f, path.c_str()), 0) << g.name;
    const auto bytes = zarvel::test::read_file(path);
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_EQ(bytes[0], g.magic0) << g.name;
    EXPECT_EQ(bytes[1], g.magic1) << g.name;
  }
  for (const char* name : {"f.gif", "g", "h.png.txt", "png", "i.jpgx", "k.jpe"}) {
    LogCapture log;
    const std::string path = dir.file(name);
    EXPECT_EQ(zarvel_frame_save(src.f, path.c_str()), -1000) << name;
    expect_one_failure(log, "Unsuppported save format, only support jp[e]g/bmp/png!\n");
    EXPECT_FALSE(std::filesystem::exists(path)) << name;
  }
  LogCapture log;
  EXPECT_EQ(zarvel_frame_save(src.f, nullptr), -1000);
  EXPECT_EQ(zarvel_frame_save(nullptr, nullptr), -1000);
  EXPECT_EQ(log.messages().size(), 2u);
  log.clear();
  EXPECT_EQ(zarvel_frame_save(nullptr, dir.file("null.png").c_str()), -1);
  expect_one_failure(log, "Invalid input frame!\n");
  EXPECT_FALSE(std::filesystem::exists(dir.file("null.png")));
}

TEST(CodecEncode, RefusesBadFormatsFramesAndBuffersWithMessages) {
  Frame src(make_frame(ZARVEL_PIXFMT_RGB24, 4, 4, false));
  Buffer host(7), device(7, ZARVEL_MEM_DEVICE);
  zarvel_buffer_set(host.b, 0x5A);
  const auto before = host.bytes();
  const std::string bad_format = "Unsupported save format, only support JPG/BMP/PNG\n";
  const std::string bad_buffer = "Invalid buffer, expect a zarvel_buffer with HOST memory!\n";
  const struct {
    zarvel_frame_t* frame;
    int32_t format;
    zarvel_buffer_t* buffer;
    int32_t status;
    std::string message;
  } cases[] = {{src.f, 0, host.b, -1000, bad_format},
               {src.f, 4, host.b, -1000, bad_format},
               {src.f, -1, host.b, -1000, bad_format},
               {nullptr, 0, nullptr, -1000, bad_format},  // the format is checked first
               {nullptr, ZARVEL_IMAGE_PNG, host.b, -1, "Invalid input frame!\n"},
               {src.f, ZARVEL_IMAGE_PNG, nullptr, -1, bad_buffer},
               {src.f, ZARVEL_IMAGE_JPEG, device.b, -1, bad_buffer}};
  for (const auto& c : cases) {
    LogCapture log;
    EXPECT_EQ(zarvel_frame_encode(c.frame, c.format, c.buffer), c.status) << c.message;
    expect_one_failure(log, c.message);
    EXPECT_EQ(host.bytes(), before);
  }
}

TEST(CodecEncode, ReplacesWhatTheBufferHeld) {
  Frame src(make_frame(ZARVEL_PIXFMT_GREY, 9, 8, false));
  std::vector<uint8_t> fresh;
  for (int32_t image : {ZARVEL_IMAGE_JPEG, ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG}) {
    ASSERT_EQ(encode(src.f, image, &fresh), 0);
    for (int64_t held : {int64_t{3}, int64_t{1} << 20}) {
      Buffer buffer(held);
      zarvel_buffer_set(buffer.b, 0xAB);
      ASSERT_EQ(zarvel_frame_encode(src.f, image, buffer.b), 0);
      EXPECT_EQ(buffer.bytes(), fresh) << image << " " << held;
    }
  }
}

TEST(CodecSave, DeviceFramesAreWrittenLikeTheirHostCopies) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  for (uint32_t format : kPackedFormats) {
    Frame host(make_frame(format, 23, 14, false));
    Frame device;
    ASSERT_EQ(zarvel_frame_upload(host.f, &device.f), 0);
    ASSERT_EQ(zarvel_frame_mem_type(device.f), ZARVEL_MEM_DEVICE);
    Frame host_view(zarvel_frame_roi(host.f, {2, 1, 9, 7}));
    Frame device_view(zarvel_frame_roi(device.f, {2, 1, 9, 7}));
    const std::pair<zarvel_frame_t*, zarvel_frame_t*> pairs[] = {{host.f, device.f},
                                                                 {host_view.f, device_view.f}};
    for (auto [h, d] : pairs) {
      for (int32_t image : {ZARVEL_IMAGE_JPEG, ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG}) {
        LogCapture log;
        std::vector<uint8_t> from_host, from_device;
        ASSERT_EQ(encode(h, image, &from_host), 0);
        ASSERT_EQ(encode(d, image, &from_device), 0);
        EXPECT_EQ(from_device, from_host);
        EXPECT_TRUE(failures(log).empty());
      }
      const std::string path = dir.file("device.png");
      ASSERT_EQ(zarvel_frame_save(d, path.c_str()), 0);
      std::vector<uint8_t> png;
      ASSERT_EQ(encode(h, ZARVEL_IMAGE_PNG, &png), 0);
      EXPECT_EQ(zarvel::test::read_file(path), png);
    }
  }
}

// Region views have gaps between their rows; what is written is the region as seen. YUV
// frames go through the colour conversion to RGB24 and are written as exactly that frame.
TEST(CodecSave, WholeFramesAndRegionViewsAreWrittenAsSeen) {
  for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                          ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
    Frame whole(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 30, 18, nullptr, 0));
    ASSERT_NE(whole.f, nullptr);
    zarvel::test::fill_pattern(whole.f, 17);
    const bool yuv = format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21 ||
                     format == ZARVEL_PIXFMT_YU12;
    // 4:2:0 regions start and end on even pixels; packed ones need not.
    Frame view(zarvel_frame_roi(whole.f, yuv ? Area2D{4, 2, 16, 10} : Area2D{3, 5, 17, 11}));
    ASSERT_NE(view.f, nullptr);
    ASSERT_FALSE(zarvel_frame_is_contiguous(view.f));
    for (zarvel_frame_t* f : {whole.f, view.f}) {
      SCOPED_TRACE(testing::Message() << zarvel_frame_pixfmt_to_string(format) << " " << f->width);
      Frame rgb;
      if (yuv) {
        ASSERT_EQ(zarvel_frame_cvt_color(f, &rgb.f, ZARVEL_PIXFMT_RGB24), 0);
      }
      for (int32_t image : {ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG}) {
        LogCapture log;
        std::vector<uint8_t> bytes;
        ASSERT_EQ(encode(f, image, &bytes), 0);
        EXPECT_TRUE(failures(log).empty());
        Frame back(decode(bytes));
        ASSERT_NE(back.f, nullptr);
        EXPECT_EQ(back.f->width, f->width);
        const auto got = zarvel::test::visible_bytes(back.f);
        if (yuv) {
          EXPECT_EQ(got, zarvel::test::visible_bytes(rgb.f));
        } else {
          EXPECT_EQ(got, back.f->format == ZARVEL_PIXFMT_GREY ? zarvel::test::visible_bytes(f)
                                                              : expected_rgb(f));
        }
      }
    }
  }
}

TEST(CodecSave, WriterFailuresReturnMinus4AndLeaveNothingBehind) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  Frame small(make_frame(ZARVEL_PIXFMT_RGB24, 4, 4, false));
  {
    LogCapture log;
    const std::string path = dir.file("missing/dir/x.png");
    EXPECT_EQ(zarvel_frame_save(small.f, path.c_str()), -4);
    EXPECT_TRUE(failures(log).empty());
  }
  // Frames the writer cannot take: 16-bit grey has no conversion to RGB24; JPEG stores each
  // side in 16 bits.
  Frame grey16(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  Frame long_row(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 65536, 1, nullptr, 0));
  ASSERT_NE(grey16.f, nullptr);
  ASSERT_NE(long_row.f, nullptr);
  zarvel_frame_reset(long_row.f, 7);
  const std::pair<zarvel_frame_t*, int32_t> refused[] = {
      {grey16.f, ZARVEL_IMAGE_PNG}, {grey16.f, ZARVEL_IMAGE_JPEG}, {long_row.f, ZARVEL_IMAGE_JPEG}};
  for (auto [frame, image] : refused) {
    LogCapture log;
    Buffer buffer(100);
    EXPECT_EQ(zarvel_frame_encode(frame, image, buffer.b), -4);
    const auto m = failures(log);
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back().tag, "aux");
    EXPECT_EQ(m.back().text, "Monochrome frame serialize failed error!\n");
    EXPECT_EQ(zarvel_buffer_size(buffer.b), 0);

    const std::string path = dir.file(image == ZARVEL_IMAGE_PNG ? "refused.png" : "refused.jpg");
    EXPECT_EQ(zarvel_frame_save(frame, path.c_str()), -4);
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  // The same long row is fine as a one-channel PNG (IHDR width 65536, big-endian).
  std::vector<uint8_t> png;
  ASSERT_EQ(encode(long_row.f, ZARVEL_IMAGE_PNG, &png), 0);
  ASSERT_GT(png.size(), 26u);
  EXPECT_EQ(std::vector<uint8_t>(&png[16], &png[20]), (std::vector<uint8_t>{0, 1, 0, 0}));
  EXPECT_EQ(png[25], 0);
}

// Truncated and corrupted files of every written format give null or a frame of the written
// size; the sanitizer build checks that no byte outside the data is read.
TEST(CodecLoad, TruncatedAndCorruptedFilesOfEveryFormat) {
  Frame src(make_frame(ZARVEL_PIXFMT_RGB24, 13, 11, true));
  for (int32_t image : {ZARVEL_IMAGE_JPEG, ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG}) {
    SCOPED_TRACE(image);
    std::vector<uint8_t> bytes;
    ASSERT_EQ(encode(src.f, image, &bytes), 0);
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 64) {
      std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + n);  // exact-size copy
      Frame f(decode(cut));
      if (image == ZARVEL_IMAGE_PNG && n < bytes.size() - 12) {
        EXPECT_EQ(f.f, nullptr) << n;  // only the closing IEND chunk may be missing
      }
      if (f.f) {
        EXPECT_EQ(f.f->width, 13) << n;
        EXPECT_EQ(f.f->height, 11) << n;
      }
    }
    uint32_t rng = 777u + image;
    for (int trial = 0; trial < 300; ++trial) {
      auto bad = bytes;
      for (int k = 0; k < 1 + trial % 3; ++k) {
        rng = rng * 1664525u + 1013904223u;
        bad[(rng >> 8) % bad.size()] = static_cast<uint8_t>(rng >> 24);
      }
      Frame f(decode(bad));
      if (f.f) {
        EXPECT_LE(int64_t{f.f->width} * f.f->height, int64_t{1} << 26);
      }
    }
  }
}

// A Huffman table declaring more than 256 symbols would make the decoder write past its tables.
TEST(CodecLoad, JpegHuffmanTableWithTooManySymbolsIsRefused) {
  ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  Frame src(make_frame(ZARVEL_PIXFMT_RGB24, 16, 16, true));
  std::vector<uint8_t> jpeg;
  ASSERT_EQ(encode(src.f, ZARVEL_IMAGE_JPEG, &jpeg), 0);
  size_t dht = 0;
  while (dht + 21 < jpeg.size() && !(jpeg[dht] == 0xFF && jpeg[dht + 1] == 0xC4)) ++dht;
  ASSERT_LT(dht + 21, jpeg.size());
  for (int count : {0, 200}) {
    auto bad = jpeg;
    bad[dht + 5 + 15] = 255;  // symbols of length 16 in the first table
    bad[dht + 5 + 14] = static_cast<uint8_t>(count);
    Frame from_memory(decode(bad));
    const std::string path = dir.file("dht.jpg");
    zarvel::test::write_file(path, bad);
    Frame from_file(zarvel_frame_load(path.c_str()));
    EXPECT_EQ(from_memory.f, nullptr);
    EXPECT_EQ(from_file.f, nullptr);
  }
  // The untouched stream still loads from both.
  Frame good(decode(jpeg));
  EXPECT_NE(good.f, nullptr);
}

}  // namespace
