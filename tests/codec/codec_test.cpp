// Loading: the channel table from memory and from files, adoption of the decoder's block,
// missing and unreadable input, size limits. Saving and encoding: round trips of every format
// through the buffer, the file and the loader, from host and device memory, whole frames and
// views; file name endings; refusals with their messages; writer failures. Then truncated,
// corrupted and hostile files of every written format.
#include "codec/codec.h"

#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "codec_test_support.h"
#include "frame_test_support.h"
#include "op_test_support.h"
#include "plugin_test_support.h"

namespace {

namespace za = zarvel::aux;
using za::FramePtr;
using namespace zarvel::test;
constexpr int32_t kJpeg = ZARVEL_IMAGE_JPEG, kBmp = ZARVEL_IMAGE_BMP, kPng = ZARVEL_IMAGE_PNG;

std::vector<uint8_t> samples(size_t n, int seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + 37 * i + (i * i) / 7);
  return v;
}

// Grey, grey + alpha, RGB, RGBA and 16-bit RGB: alpha is dropped, 16-bit samples keep their
// high bytes.
TEST(CodecLoad, ChannelTableFromMemoryAndFile) {
  ScratchDir dir;
  // PNG colour type, channels, bit depth, frame format.
  for (const auto [type, channels, depth, format] :
       {std::array<uint32_t, 4>{0, 1, 8, ZARVEL_PIXFMT_GREY},
        {4, 2, 8, ZARVEL_PIXFMT_GREY},
        {2, 3, 8, ZARVEL_PIXFMT_RGB24},
        {6, 4, 8, ZARVEL_PIXFMT_RGB24},
        {2, 3, 16, ZARVEL_PIXFMT_RGB24}}) {
    const int keep = format == ZARVEL_PIXFMT_GREY ? 1 : 3, bytes = depth / 8;
    for (auto [w, h] : {std::pair{1, 1}, std::pair{7, 5}, std::pair{33, 2}}) {
      SCOPED_TRACE(testing::Message() << channels << "x" << depth << " " << w << "x" << h);
      const auto s = samples(size_t(w) * h * channels * bytes, channels * 10 + w);
      std::vector<uint8_t> want;
      for (size_t i = 0; i < s.size(); i += channels * bytes)
        for (int k = 0; k < keep; ++k) want.push_back(s[i + k * bytes]);
      const auto png = make_png(w, h, type, depth, s);
      write_file(dir.file("in.png"), png);
      LogCapture log;
      const FramePtr frames[] = {decode(png),
                                 FramePtr(zarvel_frame_load(dir.file("in.png").c_str()))};
      for (const FramePtr& f : frames) {
        ASSERT_NE(f, nullptr);
        EXPECT_TRUE(f->format == format && f->width == w && f->stride[0] == w * keep);
        EXPECT_EQ(visible_bytes(f.get()), want);
      }
      EXPECT_EQ(drain(log), LogLines{});
    }
  }
}

// One- and three-channel blocks become the frame's pixels and are released with the frame;
// two- and four-channel blocks are copied and released at once. Other counts are refused with
// a message that names the file when there is one.
TEST(CodecLoad, AdoptsOneAndThreeChannelBlocksAndReleasesCopiedOnes) {
  static void* released;
  static int calls;
  const auto release = [](void* block) {
    released = block;
    ++calls;
    std::free(block);
  };
  for (int channels = 1; channels <= 4; ++channels) {
    auto* block = static_cast<uint8_t*>(std::calloc(5 * 3, channels));
    calls = 0;
    zarvel_frame_t* f = zarvel::aux::codec::frame_from_pixels(block, 5, 3, channels, release, "");
    const bool adopted = channels == 1 || channels == 3;
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE((f->plane[0] == block) == adopted && calls == (adopted ? 0 : 1)) << channels;
    zarvel_frame_free(&f);
    EXPECT_TRUE(calls == 1 && released == block) << channels;
  }
  LogCapture log;
  for (const char* path : {"pic.psd", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(zarvel::aux::codec::frame_from_pixels(static_cast<uint8_t*>(std::malloc(64)), 2, 2, 5,
                                                    &std::free, path),
              nullptr);
  }
  EXPECT_EQ(drain(log), (LogLines{"4 aux Can not load image [pic.psd] of which channel is [5]!\n",
                                  "4 aux Can not load image of which channel is [5]!\n"}));
}

TEST(CodecLoad, MissingOrUnreadableInputGivesNull) {
  ScratchDir dir;
  LogCapture log;
  EXPECT_EQ(zarvel_frame_load(nullptr), nullptr);
  EXPECT_EQ(drain(log), LogLines{"4 aux Load frame but no file name specified!\n"});
  EXPECT_EQ(zarvel_frame_load(dir.file("missing.png").c_str()), nullptr);
  EXPECT_STREQ(zarvel::aux::codec::decoder_failure_reason(), "can't fopen");
  write_file(dir.file("empty.png"), {});
  write_file(dir.file("text.jpg"), {'h', 'e', 'l', 'l', 'o'});
  for (const char* name : {"empty.png", "text.jpg", ""})  // "": the directory itself
    EXPECT_EQ(zarvel_frame_load(dir.file(name).c_str()), nullptr) << name;
  const uint8_t junk[] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (int32_t size : {8, 0, -8}) EXPECT_EQ(zarvel_frame_load_from_memory(junk, size), nullptr);
  EXPECT_EQ(zarvel_frame_load_from_memory(nullptr, 100), nullptr);
  EXPECT_EQ(drain(log), LogLines{});  // the decoder's failures are quiet
}

// Sides up to 32768 pixels load, one more is refused; headers claiming big images over a few
// bytes of data are refused (the total-pixel limit, or data that cannot fill them), also
// through a binary PGM header.
TEST(CodecLoad, RefusesHeadersBeyondTheLimitsBeforeDecoding) {
  FramePtr wide = decode(make_png(32768, 1, 0, 8, samples(32768, 1)));
  EXPECT_TRUE(wide && wide->width == 32768);
  EXPECT_EQ(decode(make_png(32769, 1, 0, 8, samples(32769, 1))), nullptr);
  EXPECT_EQ(decode(make_png(1, 32769, 0, 8, samples(32769, 1))), nullptr);
  for (auto [w, h] : {std::pair{16384u, 16384u}, std::pair{32768u, 32768u}, std::pair{8192u, 8192u},
                      std::pair{0x7fffffffu, 2u}, std::pair{0u, 4u}}) {
    EXPECT_EQ(decode(make_png(w, h, 0, 8, samples(16, 3))), nullptr) << w << "x" << h;
  }
  for (const char* header : {"P5\n40000 1\n255\n", "P5\n1 40000\n255\n", "P5\n8193 8193\n255\n",
                             "P5\n2147483647 2147483647\n255\n", "P5\n-1 4\n255\n"}) {
    std::vector<uint8_t> file(header, header + std::strlen(header));
    file.resize(file.size() + 64, 7);
    EXPECT_EQ(decode(file), nullptr) << header;
  }
}

// A host frame with a smooth pattern, which JPEG keeps close; neighbouring bytes still differ,
// so a lossless format must keep each one.
FramePtr make_frame(uint32_t format, int32_t w, int32_t h) {
  FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  for_each_row(f.get(), [](uint8_t* row, int64_t n, int plane, int64_t y) {
    for (int64_t x = 0; x < n; ++x) row[x] = static_cast<uint8_t>(20 + 30 * plane + 2 * y + x);
  });
  return f;
}

// The decoded image a format must give back: the frame itself when it stays grey (PNG),
// otherwise its RGB24 conversion (grey repeated, BGR swapped, 4:2:0 converted).
std::vector<uint8_t> expected_decode(zarvel_frame_t* f, bool stays_grey) {
  if (stays_grey || f->format == ZARVEL_PIXFMT_RGB24) return visible_bytes(f);
  zarvel_frame_t* rgb = nullptr;
  EXPECT_EQ(zarvel_frame_cvt_color(f, &rgb, ZARVEL_PIXFMT_RGB24), 0);
  return visible_bytes(FramePtr(rgb).get());
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

// Every format but GREY16, whole and as a region view (gaps between rows), from host and
// device memory: the device frame and the saved file give the buffer's bytes; PNG and BMP
// decode to the frame exactly (GREY stays one channel in PNG and takes three in BMP), JPEG
// (quality 100: every quantiser is 1) within 3.
TEST(CodecSave, EveryFormatRoundTripsFromHostAndDeviceWholeAndAsAView) {
  ScratchDir dir;
  LogCapture log;
  // The file name endings choose the format, in any case.
  const char* names[2][3] = {{"a.jpg", "a.bmp", "a.png"}, {"b.JPEG", "b.bMp", ".PNG"}};
  for (uint32_t format : kAllFormats) {
    if (format == ZARVEL_PIXFMT_GREY16) continue;
    FramePtr host = make_frame(format, 30, 18), device = to_device(host.get());
    // 4:2:0 regions start and end on even pixels; packed ones need not.
    const Area2D area = za::is_yuv420(format) ? Area2D{4, 2, 16, 10} : Area2D{3, 5, 17, 11};
    FramePtr host_view(zarvel_frame_roi(host.get(), area));
    FramePtr device_view(zarvel_frame_roi(device.get(), area));
    for (auto [h, d] :
         {std::pair{host.get(), device.get()}, {host_view.get(), device_view.get()}}) {
      for (int32_t image : {kJpeg, kBmp, kPng}) {
        SCOPED_TRACE(testing::Message() << format << " " << h->width << " image " << image);
        const std::vector<uint8_t> bytes = encode(h, image);
        EXPECT_EQ(encode(d, image), bytes);
        const std::string path = dir.file(names[h == host_view.get()][image - 1]);
        ASSERT_EQ(zarvel_frame_save(d, path.c_str()), 0);
        EXPECT_EQ(read_file(path), bytes);
        const bool grey_png = format == ZARVEL_PIXFMT_GREY && image == kPng;
        ASSERT_GT(bytes.size(), 29u);
        EXPECT_TRUE(image != kPng || bytes[25] == (grey_png ? 0 : 2)) << "IHDR colour type";
        EXPECT_TRUE(image != kBmp || bytes[28] == 24) << "bits per pixel";
        if (image == kJpeg) {
          const uint8_t dqt[] = {0xFF, 0xDB};
          const auto at = std::search(bytes.begin(), bytes.end(), dqt, dqt + 2);
          ASSERT_GT(bytes.end() - at, 134);
          EXPECT_TRUE(std::count(at + 5, at + 69, 1) == 64 &&
                      std::count(at + 70, at + 134, 1) == 64);
        }
        FramePtr back = decode(bytes);
        ASSERT_TRUE(back && back->width == h->width);
        EXPECT_EQ(back->format, grey_png ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24);
        const auto want = expected_decode(h, grey_png), got = visible_bytes(back.get());
        ASSERT_EQ(got.size(), want.size());
        for (size_t i = 0; i < want.size(); ++i)
          ASSERT_LE(std::abs(want[i] - got[i]), image == kJpeg ? 3 : 0) << i;
      }
    }
  }
  EXPECT_EQ(failures(log), LogLines{});
}

// Other endings are refused and create no file; no name is no format, checked before the frame.
TEST(CodecSave, OtherEndingsAreRefused) {
  ScratchDir dir;
  LogCapture log;
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 5, 4);
  for (const char* name : {"f.gif", "g", "h.png.txt", "png", "i.jpgx", "k.jpe", "l.jpeg."}) {
    EXPECT_EQ(zarvel_frame_save(src.get(), dir.file(name).c_str()), -1000) << name;
    EXPECT_EQ(failures(log),
              LogLines{"4 aux Unsuppported save format, only support jp[e]g/bmp/png!\n"});
    EXPECT_FALSE(std::filesystem::exists(dir.file(name))) << name;
  }
  EXPECT_EQ(zarvel_frame_save(src.get(), nullptr), -1000);
  EXPECT_EQ(zarvel_frame_save(nullptr, nullptr), -1000);
  EXPECT_EQ(zarvel_frame_save(nullptr, dir.file("null.png").c_str()), -1);
  EXPECT_FALSE(std::filesystem::exists(dir.file("null.png")));
}

// The format number is checked first, then the frame, then the buffer; a refusal leaves the
// buffer as it was. A successful encode replaces whatever the buffer held.
TEST(CodecEncode, RefusesBadFormatsFramesAndBuffersAndReplacesWhatABufferHeld) {
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 4, 4);
  zarvel_buffer_t* host = zarvel_buffer_alloc(7, ZARVEL_MEM_HOST);
  zarvel_buffer_t* device = zarvel_buffer_alloc(7, ZARVEL_MEM_DEVICE);
  zarvel_buffer_set(host, 0x5A);
  LogCapture log;
  const auto refused = [&](zarvel_frame_t* frame, int32_t format, zarvel_buffer_t* buffer,
                           int32_t status, const std::string& message) {
    EXPECT_EQ(zarvel_frame_encode(frame, format, buffer), status) << message;
    EXPECT_EQ(failures(log), LogLines{"4 aux " + message + "\n"});
    EXPECT_EQ(zarvel_buffer_size(host), 7);
    EXPECT_EQ(*static_cast<uint8_t*>(zarvel_buffer_raw_pointer(host)), 0x5A);
  };
  for (const int32_t format : {0, 4}) {
    refused(src.get(), format, host, -1000, "Unsupported save format, only support JPG/BMP/PNG");
  }
  refused(nullptr, 0, nullptr, -1000, "Unsupported save format, only support JPG/BMP/PNG");
  refused(nullptr, kPng, host, -1, "Invalid input frame!");
  for (zarvel_buffer_t* buffer : {static_cast<zarvel_buffer_t*>(nullptr), device}) {
    refused(src.get(), kPng, buffer, -1,
            "Invalid buffer, expect a zarvel_buffer with HOST memory!");
  }
  const std::vector<uint8_t> fresh = encode(src.get(), kJpeg);
  for (int64_t held : {int64_t{3}, int64_t{1} << 20}) {
    ASSERT_EQ(zarvel_buffer_resize(host, held), 0);
    ASSERT_EQ(zarvel_frame_encode(src.get(), kJpeg, host), 0);
    const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(host));
    EXPECT_EQ(std::vector<uint8_t>(p, p + zarvel_buffer_size(host)), fresh) << held;
  }
  zarvel_buffer_free(&host);
  zarvel_buffer_free(&device);
}

// A file that cannot be opened gives -4 without a message of its own. Frames the writer
// cannot take give -4 with one, an empty buffer and no file: 16-bit grey has no conversion
// to RGB24, and JPEG stores each side in 16 bits (the same row is fine as a PNG).
TEST(CodecSave, WriterFailuresReturnMinus4AndLeaveNothingBehind) {
  ScratchDir dir;
  LogCapture log;
  FramePtr small = make_frame(ZARVEL_PIXFMT_RGB24, 4, 4);
  EXPECT_EQ(zarvel_frame_save(small.get(), dir.file("missing/dir/x.png").c_str()), -4);
  EXPECT_EQ(failures(log), LogLines{});
  FramePtr grey16(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  FramePtr long_row = make_frame(ZARVEL_PIXFMT_GREY, 65536, 1);
  for (auto [frame, image] : {std::pair{grey16.get(), kPng}, std::pair{long_row.get(), kJpeg}}) {
    EXPECT_TRUE(encode(frame, image, -4).empty());
    const LogLines m = failures(log);
    ASSERT_FALSE(m.empty());
    EXPECT_EQ(m.back(), "4 aux Monochrome frame serialize failed error!\n");
    const std::string path = dir.file(image == kPng ? "refused.png" : "refused.jpg");
    EXPECT_EQ(zarvel_frame_save(frame, path.c_str()), -4);
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  const std::vector<uint8_t> png = encode(long_row.get(), kPng);  // IHDR width 65536
  EXPECT_TRUE(png.size() > 25 && png[16] == 0 && png[17] == 1 && png[18] == 0 && png[25] == 0);
}

// Truncated and corrupted files of every written format give null or a frame of the written
// size; the sanitizer build checks that no byte outside the data is read. A PNG may lack only
// its closing 12-byte IEND chunk.
TEST(CodecLoad, TruncatedAndCorruptedFilesOfEveryFormat) {
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 13, 11);
  for (int32_t image : {kJpeg, kBmp, kPng}) {
    SCOPED_TRACE(image);
    const std::vector<uint8_t> bytes = encode(src.get(), image);
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 64) {
      FramePtr f = decode(std::vector<uint8_t>(bytes.begin(), bytes.begin() + n));
      EXPECT_TRUE(image != kPng || n >= bytes.size() - 12 || !f) << n;
      EXPECT_TRUE(!f || (f->width == 13 && f->height == 11)) << n;
    }
    uint32_t rng = 777u + image;
    for (int trial = 0; trial < 300; ++trial) {
      auto bad = bytes;
      for (int k = 0; k < 1 + trial % 3; ++k) {
        rng = rng * 1664525u + 1013904223u;
        bad[(rng >> 8) % bad.size()] = static_cast<uint8_t>(rng >> 24);
      }
      FramePtr f = decode(bad);
      EXPECT_TRUE(!f || int64_t{f->width} * f->height <= int64_t{1} << 26);
    }
  }
}

// A Huffman table declaring more than 256 symbols would make the decoder write past its
// tables: refused from memory and from a file; the untouched stream still loads.
TEST(CodecLoad, JpegHuffmanTableWithTooManySymbolsIsRefused) {
  ScratchDir dir;
  const std::vector<uint8_t> jpeg = encode(make_frame(ZARVEL_PIXFMT_RGB24, 16, 16).get(), kJpeg);
  const uint8_t marker[] = {0xFF, 0xC4};
  const size_t dht = std::search(jpeg.begin(), jpeg.end(), marker, marker + 2) - jpeg.begin();
  ASSERT_LT(dht + 21, jpeg.size());
  for (int count : {0, 200}) {
    auto bad = jpeg;
    bad[dht + 5 + 15] = 255;  // symbols of length 16 in the first table
    bad[dht + 5 + 14] = static_cast<uint8_t>(count);
    write_file(dir.file("dht.jpg"), bad);
    EXPECT_EQ(decode(bad), nullptr);
    EXPECT_EQ(FramePtr(zarvel_frame_load(dir.file("dht.jpg").c_str())), nullptr);
  }
  EXPECT_NE(decode(jpeg), nullptr);
}

}  // namespace
