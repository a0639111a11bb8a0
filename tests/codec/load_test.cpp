// Loading: the channel table, adoption of the decoder's block, refusals and hostile input.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "codec/codec.h"
#include "codec_test_support.h"
#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::aux::codec::frame_from_pixels;
using zarvel::test::LogCapture;
using zarvel::test::make_png;

struct FrameCloser {
  zarvel_frame_t* f;
  ~FrameCloser() { zarvel_frame_free(&f); }
};

std::vector<uint8_t> samples(size_t n, int seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + 37 * i + (i * i) / 7);
  return v;
}

// Expected frame bytes: the first `keep` of every `channels` samples.
std::vector<uint8_t> drop_alpha(const std::vector<uint8_t>& s, int channels, int keep) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < s.size(); i += channels) out.insert(out.end(), &s[i], &s[i] + keep);
  return out;
}

TEST(CodecLoad, ChannelTableFromMemoryAndFile) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  struct Case {
    int color_type, channels;
    uint32_t format;
    int keep;
  } cases[] = {{0, 1, ZARVEL_PIXFMT_GREY, 1},
               {4, 2, ZARVEL_PIXFMT_GREY, 1},
               {2, 3, ZARVEL_PIXFMT_RGB24, 3},
               {6, 4, ZARVEL_PIXFMT_RGB24, 3}};
  for (const Case& c : cases) {
    for (auto [w, h] : {std::pair{1, 1}, std::pair{7, 5}, std::pair{33, 2}}) {
      SCOPED_TRACE(testing::Message() << "channels " << c.channels << " " << w << "x" << h);
      const auto s = samples(size_t(w) * h * c.channels, c.channels * 10 + w);
      const auto png = make_png(w, h, c.color_type, 8, s);
      const std::string path = dir.file("in.png");
      zarvel::test::write_file(path, png);

      LogCapture log;
      FrameCloser mem{zarvel_frame_load_from_memory(png.data(), static_cast<int32_t>(png.size()))};
      FrameCloser file{zarvel_frame_load(path.c_str())};
      for (zarvel_frame_t* f : {mem.f, file.f}) {
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(f->format, c.format);
        EXPECT_EQ(f->width, w);
        EXPECT_EQ(f->stride[0], w * c.keep);
        EXPECT_EQ(zarvel::test::visible_bytes(f), drop_alpha(s, c.channels, c.keep));
      }
      EXPECT_TRUE(log.messages().empty());
    }
  }
}

TEST(CodecLoad, SixteenBitSamplesKeepTheirHighByte) {
  const auto s = samples(2 * 6 * 3 * 2, 5);  // 6x2 RGB, 16 bits per sample
  const auto png = make_png(6, 2, 2, 16, s);
  FrameCloser f{zarvel_frame_load_from_memory(png.data(), static_cast<int32_t>(png.size()))};
  ASSERT_NE(f.f, nullptr);
  EXPECT_EQ(f.f->format, ZARVEL_PIXFMT_RGB24);
  std::vector<uint8_t> high;
  for (size_t i = 0; i < s.size(); i += 2) high.push_back(s[i]);
  EXPECT_EQ(zarvel::test::visible_bytes(f.f), high);
}

// One- and three-channel blocks become the frame's pixels and are released with the frame;
// two- and four-channel blocks are copied and released at once.
TEST(CodecLoad, AdoptsOneAndThreeChannelBlocksAndReleasesCopiedOnes) {
  for (int channels = 1; channels <= 4; ++channels) {
    SCOPED_TRACE(channels);
    zarvel::test::ReleaseCounter counter;
    static zarvel::test::ReleaseCounter* current;
    static uint8_t* released_block;
    current = &counter;
    const auto release = [](void* block) {
      released_block = static_cast<uint8_t*>(block);
      std::free(block);
      current->calls++;
    };
    const auto s = samples(5 * 3 * channels, channels);
    auto* block = static_cast<uint8_t*>(std::malloc(s.size()));
    std::memcpy(block, s.data(), s.size());
    released_block = nullptr;

    zarvel_frame_t* f = frame_from_pixels(block, 5, 3, channels, release, "a.png");
    ASSERT_NE(f, nullptr);
    const bool adopted = channels == 1 || channels == 3;
    EXPECT_EQ(f->plane[0] == block, adopted);
    EXPECT_EQ(counter.calls.load(), adopted ? 0 : 1);
    EXPECT_EQ(zarvel::test::visible_bytes(f),
              drop_alpha(s, channels, adopted ? channels : channels - 1));
    zarvel_frame_t* view = zarvel_frame_ref(f);
    zarvel_frame_free(&f);
    EXPECT_EQ(counter.calls.load(), adopted ? 0 : 1);  // the view still holds the pixels
    zarvel_frame_free(&view);
    EXPECT_EQ(counter.calls.load(), 1);
    EXPECT_EQ(released_block, block);
  }
}

TEST(CodecLoad, RefusesOtherChannelCountsWithMessage) {
  for (const char* path : {"pic.psd", static_cast<const char*>(nullptr)}) {
    for (int channels : {0, 5}) {
      LogCapture log;
      zarvel::test::ReleaseCounter counter;
      auto* block = static_cast<uint8_t*>(std::malloc(64));
      EXPECT_EQ(frame_from_pixels(block, 2, 2, channels, &std::free, path), nullptr);
      const auto m = log.messages();
      ASSERT_EQ(m.size(), 1u);
      EXPECT_EQ(m[0].level, 4u);
      EXPECT_EQ(m[0].tag, "aux");
      const std::string n = std::to_string(channels);
      EXPECT_EQ(m[0].text, path ? "Can not load image [pic.psd] of which channel is [" + n + "]!\n"
                                : "Can not load image of which channel is [" + n + "]!\n");
    }
  }
}

TEST(CodecLoad, MissingOrUnreadableInputGivesNullQuietly) {
  zarvel::test::ScratchDir dir;
  ASSERT_TRUE(dir.ok());
  {
    LogCapture log;
    EXPECT_EQ(zarvel_frame_load(nullptr), nullptr);
    const auto m = log.messages();
    ASSERT_EQ(m.size(), 1u);
    EXPECT_EQ(m[0].level, 4u);
    EXPECT_EQ(m[0].tag, "aux");
    EXPECT_EQ(m[0].text, "Load frame but no file name specified!\n");
  }
  LogCapture log;
  EXPECT_EQ(zarvel_frame_load(dir.file("missing.png").c_str()), nullptr);
  EXPECT_STREQ(zarvel::aux::codec::decoder_failure_reason(), "can't fopen");
  zarvel::test::write_file(dir.file("empty.png"), {});
  zarvel::test::write_file(dir.file("text.jpg"), {'h', 'e', 'l', 'l', 'o'});
  EXPECT_EQ(zarvel_frame_load(dir.file("empty.png").c_str()), nullptr);
  EXPECT_EQ(zarvel_frame_load(dir.file("text.jpg").c_str()), nullptr);
  EXPECT_EQ(zarvel_frame_load(dir.file("").c_str()), nullptr);  // the directory itself
  const uint8_t junk[] = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(zarvel_frame_load_from_memory(junk, sizeof junk), nullptr);
  EXPECT_EQ(zarvel_frame_load_from_memory(junk, 0), nullptr);
  EXPECT_EQ(zarvel_frame_load_from_memory(junk, -8), nullptr);
  EXPECT_EQ(zarvel_frame_load_from_memory(nullptr, 100), nullptr);
  EXPECT_TRUE(log.messages().empty());
}

zarvel_frame_t* load_bytes(const std::vector<uint8_t>& b) {
  return zarvel_frame_load_from_memory(b.data(), static_cast<int32_t>(b.size()));
}

TEST(CodecLoad, RefusesHeadersBeyondTheLimitsBeforeDecoding) {
  // Sides up to 32768 pixels load; one more is refused.
  FrameCloser wide{load_bytes(make_png(32768, 1, 0, 8, samples(32768, 1)))};
  ASSERT_NE(wide.f, nullptr);
  EXPECT_EQ(wide.f->width, 32768);
  EXPECT_EQ(load_bytes(make_png(32769, 1, 0, 8, samples(32769, 1))), nullptr);
  EXPECT_EQ(load_bytes(make_png(1, 32769, 0, 8, samples(32769, 1))), nullptr);

  // Headers claiming big images over a few bytes of data: the total-pixel limit, and sizes
  // the data cannot fill.
  const std::vector<uint8_t> row = samples(16, 3);
  for (auto [w, h] : {std::pair{16384u, 16384u}, std::pair{32768u, 32768u}, std::pair{8192u, 8192u},
                      std::pair{0x7fffffffu, 2u}, std::pair{0u, 4u}}) {
    auto png = make_png(16, 1, 0, 8, row);
    for (int i = 0; i < 4; ++i) {  // patch IHDR width and height, then its CRC
      png[16 + i] = static_cast<uint8_t>(w >> (24 - 8 * i));
      png[20 + i] = static_cast<uint8_t>(h >> (24 - 8 * i));
    }
    const uint32_t crc = zarvel::test::crc32(&png[12], 17);
    for (int i = 0; i < 4; ++i) png[29 + i] = static_cast<uint8_t>(crc >> (24 - 8 * i));
    EXPECT_EQ(load_bytes(png), nullptr) << w << "x" << h;
  }

  // A chunk claiming a gigabyte of data behind a valid header.
  std::vector<uint8_t> png = make_png(4, 4, 0, 8, samples(16, 2));
  png.resize(33);  // signature and IHDR
  zarvel::test::png_chunk(png, "IDAT", {0x78, 0x01}, (1u << 30) - 1);
  EXPECT_EQ(load_bytes(png), nullptr);
}

// Every prefix of a PNG that cuts its image data gives null; bit flips all over it give null or a
// small frame, never a crash or a read outside the bytes (the sanitizer build checks the reads).
TEST(CodecLoad, TruncatedAndCorruptedPngs) {
  const auto s = samples(9 * 7 * 4, 11);
  const auto png = make_png(9, 7, 6, 8, s);
  // The decoder does not insist on the closing 12-byte IEND chunk: once the image data is
  // whole, the image is whole.
  for (size_t n = 0; n < png.size(); ++n) {
    FrameCloser f{zarvel_frame_load_from_memory(png.data(), static_cast<int32_t>(n))};
    if (n < png.size() - 12) {
      EXPECT_EQ(f.f, nullptr) << n;
    } else if (f.f) {
      EXPECT_EQ(zarvel::test::visible_bytes(f.f), drop_alpha(s, 4, 3)) << n;
    }
  }
  uint32_t rng = 12345;
  for (int trial = 0; trial < 400; ++trial) {
    auto bad = png;
    for (int k = 0; k < 1 + trial % 4; ++k) {
      rng = rng * 1664525u + 1013904223u;
      bad[(rng >> 8) % bad.size()] ^= static_cast<uint8_t>(1u << (rng % 8));
    }
    // The decoder skips checksums, so a flipped header may still decode, but never into more
    // pixels than the data holds.
    FrameCloser f{load_bytes(bad)};
    if (f.f) {
      EXPECT_LE(int64_t{f.f->width} * f.f->height, 9 * 7 * 4);
    }
  }
}

}  // namespace
