// Loading: the channel table, adoption of the decoder's block, refusals and size limits.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "codec/codec.h"
#include "codec_test_support.h"
#include "frame_test_support.h"
#include "plugin_test_support.h"

namespace {

using zarvel::aux::codec::frame_from_pixels;
using zarvel::test::decode;
using zarvel::test::drain;
using zarvel::test::LogCapture;
using zarvel::test::LogLines;
using zarvel::test::make_png;
using zarvel::test::OwnedFrame;
using zarvel::test::visible_bytes;

std::vector<uint8_t> samples(size_t n, int seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + 37 * i + (i * i) / 7);
  return v;
}

// Expected frame bytes: the first `keep` of every `channels` samples (high bytes of 16-bit ones).
std::vector<uint8_t> keep_first(const std::vector<uint8_t>& s, int channels, int keep,
                                int bytes = 1) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < s.size(); i += channels * bytes)
    for (int k = 0; k < keep; ++k) out.push_back(s[i + k * bytes]);
  return out;
}

TEST(CodecLoad, ChannelTableFromMemoryAndFile) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  const struct {
    int color_type, channels, depth;
    uint32_t format;
  } cases[] = {{0, 1, 8, ZARVEL_PIXFMT_GREY},
               {4, 2, 8, ZARVEL_PIXFMT_GREY},
               {2, 3, 8, ZARVEL_PIXFMT_RGB24},
               {6, 4, 8, ZARVEL_PIXFMT_RGB24},
               {2, 3, 16, ZARVEL_PIXFMT_RGB24}};
  for (const auto& c : cases) {
    const int keep = c.format == ZARVEL_PIXFMT_GREY ? 1 : 3, bytes = c.depth / 8;
    for (auto [w, h] : {std::pair{1, 1}, std::pair{7, 5}, std::pair{33, 2}}) {
      SCOPED_TRACE(testing::Message() << c.channels << "x" << c.depth << " " << w << "x" << h);
      const auto s = samples(size_t(w) * h * c.channels * bytes, c.channels * 10 + w);
      const auto png = make_png(w, h, c.color_type, c.depth, s);
      zarvel::test::write_file(dir.file("in.png"), png);
      LogCapture log;
      OwnedFrame mem(decode(png)), file(zarvel_frame_load(dir.file("in.png").c_str()));
      for (zarvel_frame_t* f : {mem.f, file.f}) {
        ASSERT_NE(f, nullptr);
        EXPECT_TRUE(f->format == c.format && f->width == w && f->stride[0] == w * keep);
        EXPECT_EQ(visible_bytes(f), keep_first(s, c.channels, keep, bytes));
      }
      EXPECT_EQ(drain(log), LogLines{});
    }
  }
}

// One- and three-channel blocks become the frame's pixels and are released with the frame;
// two- and four-channel blocks are copied and released at once. Other counts are refused.
TEST(CodecLoad, AdoptsOneAndThreeChannelBlocksAndReleasesCopiedOnes) {
  static int calls;
  static void* released;
  const auto release = [](void* block) {
    released = block;
    std::free(block);
    calls++;
  };
  for (int channels = 1; channels <= 4; ++channels) {
    SCOPED_TRACE(channels);
    const auto s = samples(5 * 3 * channels, channels);
    auto* block = static_cast<uint8_t*>(std::malloc(s.size()));
    std::memcpy(block, s.data(), s.size());
    calls = 0;
    zarvel_frame_t* f = frame_from_pixels(block, 5, 3, channels, release, "a.png");
    ASSERT_NE(f, nullptr);
    const bool adopted = channels == 1 || channels == 3;
    EXPECT_EQ(f->plane[0] == block, adopted);
    EXPECT_EQ(calls, adopted ? 0 : 1);
    EXPECT_EQ(visible_bytes(f), keep_first(s, channels, adopted ? channels : channels - 1));
    zarvel_frame_t* ref = zarvel_frame_ref(f);
    zarvel_frame_free(&f);
    EXPECT_EQ(calls, adopted ? 0 : 1);  // the reference still holds the pixels
    zarvel_frame_free(&ref);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(released, block);
  }
  LogCapture log;
  for (const char* path : {"pic.psd", static_cast<const char*>(nullptr)}) {
    for (int channels : {0, 5}) {
      EXPECT_EQ(frame_from_pixels(static_cast<uint8_t*>(std::malloc(64)), 2, 2, channels,
                                  &std::free, path),
                nullptr);
      const std::string n = std::to_string(channels);
      EXPECT_EQ(drain(log),
                LogLines{path ? "4 aux Can not load image [pic.psd] of which channel "
                                "is [" +
                                    n + "]!\n"
                              : "4 aux Can not load image of which channel is [" + n + "]!\n"});
    }
  }
}

TEST(CodecLoad, MissingOrUnreadableInputGivesNull) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  LogCapture log;
  EXPECT_EQ(zarvel_frame_load(nullptr), nullptr);
  EXPECT_EQ(drain(log), LogLines{"4 aux Load frame but no file name specified!\n"});
  EXPECT_EQ(zarvel_frame_load(dir.file("missing.png").c_str()), nullptr);
  EXPECT_STREQ(zarvel::aux::codec::decoder_failure_reason(), "can't fopen");
  zarvel::test::write_file(dir.file("empty.png"), {});
  zarvel::test::write_file(dir.file("text.jpg"), {'h', 'e', 'l', 'l', 'o'});
  for (const char* name : {"empty.png", "text.jpg", ""})  // "": the directory itself
    EXPECT_EQ(zarvel_frame_load(dir.file(name).c_str()), nullptr) << name;
  const uint8_t junk[] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (int32_t size : {8, 0, -8}) EXPECT_EQ(zarvel_frame_load_from_memory(junk, size), nullptr);
  EXPECT_EQ(zarvel_frame_load_from_memory(nullptr, 100), nullptr);
  EXPECT_EQ(drain(log), LogLines{});  // the decoder's failures are quiet
}

TEST(CodecLoad, RefusesHeadersBeyondTheLimitsBeforeDecoding) {
  // Sides up to 32768 pixels load; one more is refused.
  OwnedFrame wide(decode(make_png(32768, 1, 0, 8, samples(32768, 1))));
  ASSERT_NE(wide.f, nullptr);
  EXPECT_EQ(wide.f->width, 32768);
  EXPECT_EQ(decode(make_png(32769, 1, 0, 8, samples(32769, 1))), nullptr);
  EXPECT_EQ(decode(make_png(1, 32769, 0, 8, samples(32769, 1))), nullptr);
  // Headers claiming big images over a few bytes of data: the total-pixel limit, and sizes
  // the data cannot fill.
  for (auto [w, h] : {std::pair{16384u, 16384u}, std::pair{32768u, 32768u}, std::pair{8192u, 8192u},
                      std::pair{0x7fffffffu, 2u}, std::pair{0u, 4u}}) {
    auto png = make_png(16, 1, 0, 8, samples(16, 3));
    for (int i = 0; i < 4; ++i) {  // patch IHDR width and height, then its CRC
      png[16 + i] = static_cast<uint8_t>(w >> (24 - 8 * i));
      png[20 + i] = static_cast<uint8_t>(h >> (24 - 8 * i));
    }
    const uint32_t crc = zarvel::test::crc32(&png[12], 17);
    for (int i = 0; i < 4; ++i) png[29 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    EXPECT_EQ(decode(png), nullptr) << w << "x" << h;
  }
  // The same through a binary PGM header.
  for (const char* header : {"P5\n40000 1\n255\n", "P5\n1 40000\n255\n", "P5\n8193 8193\n255\n",
                             "P5\n2147483647 2147483647\n255\n", "P5\n-1 4\n255\n"}) {
    std::vector<uint8_t> file(header, header + std::strlen(header));
    file.resize(file.size() + 64, 7);
    EXPECT_EQ(decode(file), nullptr) << header;
  }
}

}  // namespace
