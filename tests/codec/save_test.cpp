// Saving and encoding: format choice, preparation of the frame, writer parameters, round trips
// through the loader, hostile files of every written format, and every refusal with its message.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "codec_test_support.h"
#include "frame_test_support.h"
#include "plugin_test_support.h"

namespace {

using zarvel::test::decode;
using zarvel::test::drain;
using zarvel::test::LogCapture;
using zarvel::test::LogLines;
using zarvel::test::OwnedFrame;
using zarvel::test::read_file;
using zarvel::test::visible_bytes;
constexpr int32_t kJpeg = ZARVEL_IMAGE_JPEG, kBmp = ZARVEL_IMAGE_BMP, kPng = ZARVEL_IMAGE_PNG;

// A host frame with a smooth pattern (JPEG keeps it close) or a sharp one (every byte differs
// from its neighbours, so a lossless format must keep each one).
zarvel_frame_t* make_frame(uint32_t format, int32_t w, int32_t h, bool smooth = false) {
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0);
  const int32_t bpp = zarvel_frame_pixel_size(format);
  for (int32_t y = 0; y < h; ++y) {
    for (int32_t x = 0; x < w * bpp; ++x) {
      f->plane[0][int64_t{y} * f->stride[0] + x] =
          smooth ? static_cast<uint8_t>(40 + 2 * (x / bpp) + 3 * y + 50 * (x % bpp))
                 : static_cast<uint8_t>(y * 31 + x * 7 + (int64_t{x} * x) % 13);
    }
  }
  return f;
}

// The decoded image a lossless format must give back: the frame itself when it stays grey
// (PNG), otherwise its RGB24 conversion (grey repeated, BGR swapped, 4:2:0 converted).
std::vector<uint8_t> expected_decode(zarvel_frame_t* f, bool stays_grey) {
  if (stays_grey || f->format == ZARVEL_PIXFMT_RGB24) return visible_bytes(f);
  OwnedFrame rgb;
  EXPECT_EQ(zarvel_frame_cvt_color(f, &rgb.f, ZARVEL_PIXFMT_RGB24), 0);
  return visible_bytes(rgb.f);
}

std::vector<uint8_t> encode(zarvel_frame_t* f, int32_t format, int32_t want_status = 0) {
  zarvel_buffer_t* buffer = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  EXPECT_EQ(zarvel_frame_encode(f, format, buffer), want_status) << format;
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(buffer));
  std::vector<uint8_t> bytes(p, p + zarvel_buffer_size(buffer));
  zarvel_buffer_free(&buffer);
  return bytes;
}

// Messages at the failure level only: the encoder's progress notes do not count.
LogLines failures(LogCapture& log) {
  LogLines out;
  for (const std::string& line : drain(log))
    if (line.rfind("4 ", 0) == 0) out.push_back(line);
  return out;
}

constexpr uint32_t kPackedFormats[] = {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24,
                                       ZARVEL_PIXFMT_BGR24};

TEST(CodecSave, PngAndBmpRoundTripExactlyThroughBufferAndFile) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  LogCapture log;
  for (uint32_t format : kPackedFormats) {
    for (auto [w, h] : {std::pair{1, 1}, std::pair{3, 2}, std::pair{17, 9}, std::pair{64, 33}}) {
      for (int32_t image : {kBmp, kPng}) {
        SCOPED_TRACE(testing::Message() << format << " " << w << "x" << h << " image " << image);
        OwnedFrame src(make_frame(format, w, h));
        const std::vector<uint8_t> bytes = encode(src.f, image);
        const std::string path = dir.file(image == kPng ? "out.png" : "out.bmp");
        ASSERT_EQ(zarvel_frame_save(src.f, path.c_str()), 0);
        EXPECT_EQ(read_file(path), bytes);
        const bool grey_png = format == ZARVEL_PIXFMT_GREY && image == kPng;
        ASSERT_GT(bytes.size(), 29u);
        if (image == kPng) EXPECT_EQ(bytes[25], grey_png ? 0 : 2);           // IHDR colour type
        if (image == kBmp) EXPECT_TRUE(bytes[0] == 'B' && bytes[28] == 24);  // bits per pixel
        OwnedFrame back(decode(bytes));
        ASSERT_NE(back.f, nullptr);
        EXPECT_EQ(back.f->format, grey_png ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24);
        EXPECT_EQ(back.f->width, w);
        EXPECT_EQ(visible_bytes(back.f), expected_decode(src.f, grey_png));
      }
    }
  }
  EXPECT_EQ(failures(log), LogLines{});
}

// Written at quality 100 (every entry of the quantisation tables after the DQT marker is 1);
// grey is written as three channels; the ending is matched in any case.
TEST(CodecSave, JpegAtQuality100RoundTripsWithinTolerance) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  for (uint32_t format : kPackedFormats) {
    SCOPED_TRACE(format);
    OwnedFrame src(make_frame(format, 37, 21, true));
    const std::string path = dir.file("Photo.JPEG");
    ASSERT_EQ(zarvel_frame_save(src.f, path.c_str()), 0);
    const auto bytes = read_file(path);
    EXPECT_EQ(encode(src.f, kJpeg), bytes);
    size_t dqt = 0;
    while (dqt + 5 + 129 < bytes.size() && !(bytes[dqt] == 0xFF && bytes[dqt + 1] == 0xDB)) ++dqt;
    ASSERT_LT(dqt + 5 + 129, bytes.size());
    for (size_t k = 0; k < 64; ++k)
      EXPECT_TRUE(bytes[dqt + 5 + k] == 1 && bytes[dqt + 70 + k] == 1);
    OwnedFrame back(zarvel_frame_load(path.c_str()));
    ASSERT_TRUE(back.f && back.f->format == ZARVEL_PIXFMT_RGB24 && back.f->width == 37);
    const auto want = expected_decode(src.f, false), got = visible_bytes(back.f);
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) ASSERT_LE(std::abs(want[i] - got[i]), 3) << i;
  }
}

TEST(CodecSave, FileNameEndingsChooseTheFormat) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  OwnedFrame src(make_frame(ZARVEL_PIXFMT_RGB24, 5, 4));
  const std::pair<const char*, uint8_t> good[] = {
      {"a.jpg", 0xFF}, {"b.Jpeg", 0xFF}, {"d.bMp", 'B'}, {"e.PNG", 0x89}, {".png", 0x89}};
  for (const auto& [name, magic] : good) {
    ASSERT_EQ(zarvel_frame_save(src.f, dir.file(name).c_str()), 0) << name;
    EXPECT_EQ(read_file(dir.file(name)).at(0), magic) << name;
  }
  LogCapture log;
  for (const char* name : {"f.gif", "g", "h.png.txt", "png", "i.jpgx", "k.jpe"}) {
    EXPECT_EQ(zarvel_frame_save(src.f, dir.file(name).c_str()), -1000) << name;
    EXPECT_EQ(failures(log),
              LogLines{"4 aux Unsuppported save format, only support jp[e]g/bmp/png!\n"});
    EXPECT_FALSE(std::filesystem::exists(dir.file(name))) << name;
  }
  EXPECT_EQ(zarvel_frame_save(src.f, nullptr), -1000);
  EXPECT_EQ(zarvel_frame_save(nullptr, nullptr), -1000);
  EXPECT_EQ(failures(log).size(), 2u);
  EXPECT_EQ(zarvel_frame_save(nullptr, dir.file("null.png").c_str()), -1);
  EXPECT_EQ(failures(log), LogLines{"4 aux Invalid input frame!\n"});
  EXPECT_FALSE(std::filesystem::exists(dir.file("null.png")));
}

TEST(CodecEncode, RefusesBadFormatsFramesAndBuffersAndReplacesWhatABufferHeld) {
  OwnedFrame src(make_frame(ZARVEL_PIXFMT_RGB24, 4, 4));
  zarvel_buffer_t* host = zarvel_buffer_alloc(7, ZARVEL_MEM_HOST);
  zarvel_buffer_t* device = zarvel_buffer_alloc(7, ZARVEL_MEM_DEVICE);
  zarvel_buffer_set(host, 0x5A);
  const std::string bad_format = "4 aux Unsupported save format, only support JPG/BMP/PNG\n";
  const std::string bad_buffer = "4 aux Invalid buffer, expect a zarvel_buffer with HOST memory!\n";
  const struct {
    zarvel_frame_t* frame;
    int32_t format;
    zarvel_buffer_t* buffer;
    int32_t status;
    std::string message;
  } cases[] = {{src.f, 0, host, -1000, bad_format},
               {src.f, 4, host, -1000, bad_format},
               {src.f, -1, host, -1000, bad_format},
               {nullptr, 0, nullptr, -1000, bad_format},  // the format is checked first
               {nullptr, kPng, host, -1, "4 aux Invalid input frame!\n"},
               {src.f, kPng, nullptr, -1, bad_buffer},
               {src.f, kJpeg, device, -1, bad_buffer}};
  LogCapture log;
  for (const auto& c : cases) {
    EXPECT_EQ(zarvel_frame_encode(c.frame, c.format, c.buffer), c.status) << c.message;
    EXPECT_EQ(failures(log), LogLines{c.message});
    EXPECT_EQ(zarvel_buffer_size(host), 7);
    EXPECT_EQ(*static_cast<uint8_t*>(zarvel_buffer_raw_pointer(host)), 0x5A);
  }
  for (int32_t image : {kJpeg, kBmp, kPng}) {
    const std::vector<uint8_t> fresh = encode(src.f, image);
    for (int64_t held : {int64_t{3}, int64_t{1} << 20}) {
      ASSERT_EQ(zarvel_buffer_resize(host, held), 0);
      ASSERT_EQ(zarvel_frame_encode(src.f, image, host), 0);
      const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(host));
      EXPECT_EQ(std::vector<uint8_t>(p, p + zarvel_buffer_size(host)), fresh) << image << held;
    }
  }
  zarvel_buffer_free(&host);
  zarvel_buffer_free(&device);
}

// Whole frames and region views (gaps between rows), in host and device memory: what is
// written is the frame as seen, and a device frame gives its host copy's bytes. 4:2:0 frames
// go through the colour conversion to RGB24.
TEST(CodecSave, WholeFramesViewsAndDeviceFramesAreWrittenAsSeen) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  LogCapture log;
  for (uint32_t format : zarvel::test::kAllFormats) {
    if (format == ZARVEL_PIXFMT_GREY16) continue;
    OwnedFrame host(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 30, 18, nullptr, 0)), device;
    zarvel::test::fill_pattern(host.f, 17);
    ASSERT_EQ(zarvel_frame_upload(host.f, &device.f), 0);
    // 4:2:0 regions start and end on even pixels; packed ones need not.
    const Area2D area = zarvel_frame_pixel_size(format) == 3 || format == ZARVEL_PIXFMT_GREY
                            ? Area2D{3, 5, 17, 11}
                            : Area2D{4, 2, 16, 10};
    OwnedFrame host_view(zarvel_frame_roi(host.f, area));
    OwnedFrame device_view(zarvel_frame_roi(device.f, area));
    ASSERT_FALSE(zarvel_frame_is_contiguous(host_view.f));
    for (auto [h, d] : {std::pair{host.f, device.f}, std::pair{host_view.f, device_view.f}}) {
      SCOPED_TRACE(testing::Message() << format << " " << h->width);
      for (int32_t image : {kJpeg, kBmp, kPng}) {
        const std::vector<uint8_t> bytes = encode(h, image);
        EXPECT_EQ(encode(d, image), bytes);
        if (image == kJpeg) continue;
        OwnedFrame back(decode(bytes));
        ASSERT_NE(back.f, nullptr);
        EXPECT_EQ(back.f->width, h->width);
        EXPECT_EQ(visible_bytes(back.f), expected_decode(h, back.f->format == ZARVEL_PIXFMT_GREY));
      }
      ASSERT_EQ(zarvel_frame_save(d, dir.file("device.png").c_str()), 0);
      EXPECT_EQ(read_file(dir.file("device.png")), encode(h, kPng));
    }
  }
  EXPECT_EQ(failures(log), LogLines{});
}

TEST(CodecSave, WriterFailuresReturnMinus4AndLeaveNothingBehind) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  LogCapture log;
  OwnedFrame small(make_frame(ZARVEL_PIXFMT_RGB24, 4, 4));
  EXPECT_EQ(zarvel_frame_save(small.f, dir.file("missing/dir/x.png").c_str()), -4);
  EXPECT_EQ(failures(log), LogLines{});
  // Frames the writer cannot take: 16-bit grey has no conversion to RGB24; JPEG stores each
  // side in 16 bits.
  OwnedFrame grey16(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  OwnedFrame long_row(make_frame(ZARVEL_PIXFMT_GREY, 65536, 1));
  for (auto [frame, image] :
       {std::pair{grey16.f, kPng}, std::pair{grey16.f, kJpeg}, std::pair{long_row.f, kJpeg}}) {
    EXPECT_TRUE(encode(frame, image, -4).empty());
    const LogLines m = failures(log);
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back(), "4 aux Monochrome frame serialize failed error!\n");
    const std::string path = dir.file(image == kPng ? "refused.png" : "refused.jpg");
    EXPECT_EQ(zarvel_frame_save(frame, path.c_str()), -4);
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  // The same long row is fine as a one-channel PNG (IHDR width 65536, big-endian).
  const std::vector<uint8_t> png = encode(long_row.f, kPng);
  ASSERT_GT(png.size(), 26u);
  EXPECT_EQ(std::vector<uint8_t>(&png[16], &png[20]), (std::vector<uint8_t>{0, 1, 0, 0}));
  EXPECT_EQ(png[25], 0);
}

// Truncated and corrupted files of every written format give null or a frame of the written
// size; the sanitizer build checks that no byte outside the data is read. A PNG may lack only
// its closing 12-byte IEND chunk.
TEST(CodecLoad, TruncatedAndCorruptedFilesOfEveryFormat) {
  OwnedFrame src(make_frame(ZARVEL_PIXFMT_RGB24, 13, 11, true));
  for (int32_t image : {kJpeg, kBmp, kPng}) {
    SCOPED_TRACE(image);
    const std::vector<uint8_t> bytes = encode(src.f, image);
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 64) {
      OwnedFrame f(decode(std::vector<uint8_t>(bytes.begin(), bytes.begin() + n)));
      if (image == kPng && n < bytes.size() - 12) EXPECT_EQ(f.f, nullptr) << n;
      if (f.f) EXPECT_TRUE(f.f->width == 13 && f.f->height == 11) << n;
    }
    uint32_t rng = 777u + image;
    for (int trial = 0; trial < 300; ++trial) {
      auto bad = bytes;
      for (int k = 0; k < 1 + trial % 3; ++k) {
        rng = rng * 1664525u + 1013904223u;
        bad[(rng >> 8) % bad.size()] = static_cast<uint8_t>(rng >> 24);
      }
      OwnedFrame f(decode(bad));
      if (f.f) EXPECT_LE(int64_t{f.f->width} * f.f->height, int64_t{1} << 26);
    }
  }
}

// A Huffman table declaring more than 256 symbols would make the decoder write past its tables.
TEST(CodecLoad, JpegHuffmanTableWithTooManySymbolsIsRefused) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  OwnedFrame src(make_frame(ZARVEL_PIXFMT_RGB24, 16, 16, true));
  const std::vector<uint8_t> jpeg = encode(src.f, kJpeg);
  size_t dht = 0;
  while (dht + 21 < jpeg.size() && !(jpeg[dht] == 0xFF && jpeg[dht + 1] == 0xC4)) ++dht;
  ASSERT_LT(dht + 21, jpeg.size());
  for (int count : {0, 200}) {
    auto bad = jpeg;
    bad[dht + 5 + 15] = 255;  // symbols of length 16 in the first table
    bad[dht + 5 + 14] = static_cast<uint8_t>(count);
    zarvel::test::write_file(dir.file("dht.jpg"), bad);
    EXPECT_EQ(OwnedFrame(decode(bad)).f, nullptr);
    EXPECT_EQ(OwnedFrame(zarvel_frame_load(dir.file("dht.jpg").c_str())).f, nullptr);
  }
  EXPECT_NE(OwnedFrame(decode(jpeg)).f, nullptr);  // the untouched stream still loads
}

}  // namespace
