// zarvel_frame_cvt_color end to end: every pair of the table against a per-pixel oracle
// (whole frames and region views with padded strides), the shortcuts, the output checks, the
// refusals with their cleanup, the 16-bit stretch and the device fallback.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "color_oracle.h"
#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "ops/color/color.h"
#include "plugin/cpu_features.h"
#include "plugin_test_support.h"

namespace za = zarvel::aux;
namespace oracle = zarvel::test::color_oracle;
using zarvel::test::drain;
using zarvel::test::fill_pattern;
using zarvel::test::LogCapture;
using zarvel::test::LogLines;
using zarvel::test::visible_bytes;

namespace {

constexpr uint32_t kGrey = ZARVEL_PIXFMT_GREY, kGrey16 = ZARVEL_PIXFMT_GREY16;
constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24, kBgr = ZARVEL_PIXFMT_BGR24;
constexpr uint32_t kNv12 = ZARVEL_PIXFMT_NV12, kNv21 = ZARVEL_PIXFMT_NV21;
constexpr uint32_t kYu12 = ZARVEL_PIXFMT_YU12;
constexpr uint32_t kFormats[] = {kGrey, kGrey16, kRgb, kBgr, kNv12, kNv21, kYu12};
constexpr const char* kName = "zarvel_frame_cvt_color";

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

bool yuv(uint32_t f) { return za::is_yuv420(f); }
bool packed(uint32_t f) { return f == kRgb || f == kBgr; }

// ---- pixel access written from the layouts ----
uint8_t* at(const zarvel_frame_t* f, int plane, int r, int c) {
  return f->plane[plane] + static_cast<int64_t>(r) * f->stride[plane] + c;
}
uint8_t* u_at(const zarvel_frame_t* f, int r, int c) {
  if (f->format == kYu12) return at(f, 1, r / 2, c / 2);
  return at(f, 1, r / 2, 2 * (c / 2) + (f->format == kNv21 ? 1 : 0));
}
uint8_t* v_at(const zarvel_frame_t* f, int r, int c) {
  if (f->format == kYu12) return at(f, 2, r / 2, c / 2);
  return at(f, 1, r / 2, 2 * (c / 2) + (f->format == kNv12 ? 1 : 0));
}
oracle::Rgb rgb_at(const zarvel_frame_t* f, int r, int c) {
  const uint8_t* p = at(f, 0, r, 3 * c);
  return f->format == kBgr ? oracle::Rgb{p[2], p[1], p[0]} : oracle::Rgb{p[0], p[1], p[2]};
}
void put_rgb(zarvel_frame_t* f, int r, int c, oracle::Rgb v) {
  uint8_t* p = at(f, 0, r, 3 * c);
  const bool bgr = f->format == kBgr;
  p[0] = bgr ? v[2] : v[0];
  p[1] = v[1];
  p[2] = bgr ? v[0] : v[2];
}

// The expected output of every pair of the table, pixel by pixel.
za::FramePtr expected(const zarvel_frame_t* s, uint32_t dst_format) {
  za::FramePtr d = alloc(dst_format, s->width, s->height);
  for (int r = 0; r < s->height; ++r) {
    for (int c = 0; c < s->width; ++c) {
      const bool top_left = r % 2 == 0 && c % 2 == 0;
      oracle::Rgb rgb{};
      int y = 0, u = 128, v = 128;
      if (yuv(s->format)) {
        y = *at(s, 0, r, c);
        u = *u_at(s, r, c);
        v = *v_at(s, r, c);
        rgb = oracle::yuv_to_rgb(y, u, v);
      } else if (packed(s->format)) {
        rgb = rgb_at(s, r, c);
        y = oracle::luma_of(rgb[0], rgb[1], rgb[2]);
        u = oracle::u_of(rgb[0], rgb[1], rgb[2]);
        v = oracle::v_of(rgb[0], rgb[1], rgb[2]);
      } else {  // grey
        y = *at(s, 0, r, c);
        rgb = {static_cast<uint8_t>(y), static_cast<uint8_t>(y), static_cast<uint8_t>(y)};
      }
      if (packed(dst_format)) {
        put_rgb(d.get(), r, c, rgb);
      } else if (dst_format == kGrey) {
        *at(d.get(), 0, r, c) =
            packed(s->format) ? oracle::grey_of(rgb[0], rgb[1], rgb[2]) : static_cast<uint8_t>(y);
      } else {
        *at(d.get(), 0, r, c) = static_cast<uint8_t>(y);
        if (top_left) {
          *u_at(d.get(), r, c) = static_cast<uint8_t>(u);
          *v_at(d.get(), r, c) = static_cast<uint8_t>(v);
        }
      }
    }
  }
  return d;
}

struct Pair {
  uint32_t src, dst;
};
constexpr Pair kPairs[] = {
    {kRgb, kNv12},  {kBgr, kNv12},  {kYu12, kNv12}, {kGrey, kNv12}, {kNv21, kNv12}, {kRgb, kNv21},
    {kBgr, kNv21},  {kYu12, kNv21}, {kGrey, kNv21}, {kNv12, kNv21}, {kNv12, kRgb},  {kNv21, kRgb},
    {kYu12, kRgb},  {kBgr, kRgb},   {kGrey, kRgb},  {kNv12, kBgr},  {kNv21, kBgr},  {kYu12, kBgr},
    {kRgb, kBgr},   {kGrey, kBgr},  {kRgb, kGrey},  {kBgr, kGrey},  {kNv12, kGrey}, {kNv21, kGrey},
    {kYu12, kGrey}, {kNv12, kYu12}, {kNv21, kYu12}, {kRgb, kYu12},  {kBgr, kYu12},  {kGrey, kYu12},
};

bool in_table(uint32_t s, uint32_t d) {
  if (s == kGrey16 && d == kGrey) return true;
  for (const Pair& p : kPairs) {
    if (p.src == s && p.dst == d) return true;
  }
  return false;
}

std::string name(uint32_t f) { return zarvel_frame_pixfmt_to_string(f); }

class CvtColor : public ::testing::Test {
 protected:
  void TearDown() override { za::set_cpu_feature_mask(~0u); }
  LogCapture log_;
};

TEST_F(CvtColor, EveryPairMatchesTheOracleOnWholeFramesAndViews) {
  for (const uint32_t mask : {0u, ~0u}) {
    za::set_cpu_feature_mask(mask);
    for (const Pair& p : kPairs) {
      for (const int w : {2, 6, 34}) {
        const int h = 4;
        SCOPED_TRACE(name(p.src) + " -> " + name(p.dst) + " w " + std::to_string(w) + " mask " +
                     std::to_string(mask));
        auto src = alloc(p.src, w, h);
        fill_pattern(src.get(), w + static_cast<int>(p.dst % 97));
        const auto want = visible_bytes(expected(src.get(), p.dst).get());
        zarvel_frame_t* out = nullptr;
        ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, p.dst), 0);
        za::FramePtr owned(out);
        EXPECT_EQ(visible_bytes(out), want);
        EXPECT_EQ(drain(log_), LogLines{});

        // The same conversion between region views of larger frames: padded strides, and
        // nothing outside the destination view changes.
        auto src_parent = alloc(p.src, w + 6, h + 4), dst_parent = alloc(p.dst, w + 4, h + 6);
        fill_pattern(src_parent.get(), 3);
        fill_pattern(dst_parent.get(), 5);
        za::FramePtr src_view(zarvel_frame_roi(src_parent.get(), {2, 2, w, h}));
        za::FramePtr dst_view(zarvel_frame_roi(dst_parent.get(), {2, 4, w, h}));
        ASSERT_TRUE(src_view && dst_view);
        zarvel_frame_t *sv = src_view.get(), *dv = dst_view.get();
        ASSERT_EQ(zarvel_frame_copy(src.get(), &sv), 0);
        const auto parent_before = visible_bytes(dst_parent.get());
        za::FramePtr saved(zarvel_frame_duplicate(dv));
        ASSERT_EQ(zarvel_frame_cvt_color(sv, &dv, p.dst), 0);
        EXPECT_EQ(dv, dst_view.get());
        EXPECT_EQ(visible_bytes(dv), want);
        // Putting the view's old pixels back restores the whole parent.
        ASSERT_EQ(zarvel_frame_copy(saved.get(), &dv), 0);
        EXPECT_EQ(visible_bytes(dst_parent.get()), parent_before);
      }
    }
  }
}

TEST_F(CvtColor, PinnedValues) {
  for (const uint32_t mask : {0u, ~0u}) {
    za::set_cpu_feature_mask(mask);
    for (const uint32_t f : {kNv12, kNv21, kYu12}) {
      // Row 0: luma 0..16 with chroma (90, 200); row 1: luma 0; rows 2 and 3: 235 and 16 with
      // neutral chroma. 34 columns reach past one vector block.
      auto src = alloc(f, 34, 4);
      for (int c = 0; c < 34; ++c) {
        *at(src.get(), 0, 0, c) = static_cast<uint8_t>(std::min(c, 16));
        *at(src.get(), 0, 1, c) = 0;
        *at(src.get(), 0, 2, c) = *at(src.get(), 0, 3, c) = c % 2 ? 16 : 235;
        *u_at(src.get(), 0, c) = 90;
        *v_at(src.get(), 0, c) = 200;
        *u_at(src.get(), 2, c) = *v_at(src.get(), 2, c) = 128;
      }
      for (const uint32_t d : {kRgb, kBgr}) {
        zarvel_frame_t* out = nullptr;
        ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), 0);
        za::FramePtr owned(out);
        const oracle::Rgb at16 = oracle::yuv_to_rgb(16, 90, 200);
        for (int c = 0; c < 34; ++c) {
          const uint8_t level = c % 2 ? 0 : 255;
          EXPECT_TRUE(rgb_at(out, 0, c) == at16 && rgb_at(out, 1, c) == at16) << c;
          EXPECT_EQ(rgb_at(out, 2, c), (oracle::Rgb{level, level, level})) << c;
        }
      }
    }
    // White and black blocks give luma 235 and 16 with neutral chroma.
    auto rgb = alloc(kRgb, 18, 2);
    for (int c = 0; c < 36; ++c) {
      const uint8_t level = c % 18 % 4 < 2 ? 255 : 0;
      put_rgb(rgb.get(), c / 18, c % 18, {level, level, level});
    }
    zarvel_frame_t* nv12 = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(rgb.get(), &nv12, kNv12), 0);
    za::FramePtr owned(nv12);
    for (int c = 0; c < 18; ++c) {
      EXPECT_EQ(*at(nv12, 0, 1, c), c % 4 < 2 ? 235 : 16);
      EXPECT_TRUE(*u_at(nv12, 0, c) == 128 && *v_at(nv12, 0, c) == 128) << c;
    }
  }
}

// Luma to grey without an output shares the source plane; the same format gives a reference,
// or a copy into a caller's frame, each with its own note.
TEST_F(CvtColor, Shortcuts) {
  for (const uint32_t f : {kNv12, kNv21, kYu12}) {
    auto src = alloc(f, 6, 4);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), 0);
    za::FramePtr owned(out);
    EXPECT_TRUE(out->format == kGrey && out->plane_count == 1u && out->plane[0] == src->plane[0]);
    EXPECT_EQ(src->format, f);  // the source keeps its label
  }
  EXPECT_EQ(drain(log_), LogLines{});
  auto src = alloc(kRgb, 5, 3), given = alloc(kRgb, 5, 3);
  fill_pattern(src.get(), 9);
  zarvel_frame_t *out = nullptr, *g = given.get();
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kRgb), 0);
  za::FramePtr ref(out);
  EXPECT_EQ(out->plane[0], src->plane[0]);
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &g, kRgb), 0);
  EXPECT_EQ(g, given.get());
  EXPECT_EQ(visible_bytes(given.get()), visible_bytes(src.get()));
  const std::string note =
      " aux [zarvel_frame_cvt_color] Converting a frame to the same color "
      "space, degrade to zarvel_frame_";
  EXPECT_EQ(drain(log_),
            (LogLines{"0" + note + "ref to speed up!\n", "3" + note + "copy to speed up!\n"}));
}

TEST_F(CvtColor, RefusesBadArgumentsAndMismatchedOutputs) {
  auto src = alloc(kRgb, 4, 2);
  zarvel_frame_t* out = nullptr;
  // Null arguments and unknown formats are refused silently.
  EXPECT_EQ(zarvel_frame_cvt_color(nullptr, &out, kGrey), -1);
  EXPECT_EQ(zarvel_frame_cvt_color(src.get(), nullptr, kGrey), -1);
  src->format = 0;
  EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), -1);
  src->format = kRgb;
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(drain(log_), LogLines{});
  const struct {
    uint32_t format;
    int w, h;
    uint32_t mem;
  } mismatched[] = {{kNv12, 4, 4, 0}, {kGrey, 4, 2, 1}, {kGrey, 6, 2, 0}, {kGrey, 4, 4, 0}};
  for (const auto& g : mismatched) {
    auto given = alloc(g.format, g.w, g.h, g.mem);
    out = given.get();
    EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), -1);
    EXPECT_EQ(out, given.get());
    EXPECT_EQ(drain(log_),
              LogLines{"4 aux [zarvel_frame_cvt_color] Required_frame and given_frame "
                       "not match:\n\treq:\tgiven:\nmem:\t0\t" +
                       std::to_string(g.mem) + "\nfmt:\tGREY\t" + name(g.format) + "\nwidth:\t4\t" +
                       std::to_string(g.w) + "\nheight:\t2\t" + std::to_string(g.h) + "\n"});
  }
}

TEST_F(CvtColor, EveryOtherPairIsRefusedAndTheAllocatedOutputFreed) {
  for (const uint32_t s : kFormats) {
    for (const uint32_t d : kFormats) {
      if (s == d || in_table(s, d) || (yuv(s) && d == kGrey)) continue;
      SCOPED_TRACE(name(s) + " -> " + name(d));
      auto src = alloc(s, 4, 2), given = alloc(d, 4, 2);
      zarvel_frame_t *out = nullptr, *g = given.get();
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &out, d), -1000);
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(zarvel_frame_cvt_color(src.get(), &g, d), -1000);
      EXPECT_EQ(g, given.get());  // a caller's output stays the caller's
      const std::string m =
          "4 aux.host Unsupported frame convert from " + name(s) + " to " + name(d) + "!\n";
      EXPECT_EQ(drain(log_), (LogLines{m, m}));
    }
  }
  // Same-format pairs never reach the host slot through the export; the slot refuses them.
  auto a = alloc(kNv12, 4, 2), b = alloc(kNv12, 4, 2);
  EXPECT_EQ(za::host_cvt_color(a.get(), b.get()), -1000);
  EXPECT_EQ(drain(log_), LogLines{"4 aux.host Unsupported frame convert from NV12 to NV12!\n"});
}

TEST_F(CvtColor, Grey16StretchesBetweenItsBounds) {
  // Small images have a zero threshold: the low bound is the smallest sample and the high
  // bound the top bin.
  auto src = alloc(kGrey16, 4, 2);
  const uint16_t samples[8] = {1000, 2000, 1000, 65535, 3000, 1000, 40000, 1000};
  for (int i = 0; i < 8; ++i) std::memcpy(at(src.get(), 0, i / 4, 2 * (i % 4)), &samples[i], 2);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(src.get(), &out, kGrey), 0);
  za::FramePtr owned(out);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(*at(out, 0, i / 4, i % 4), int((samples[i] - 1000) * (255.0 / (65535 - 1000)))) << i;
  }
  // A flat image (bounds coincide, or no low bound at all once the threshold is non-zero)
  // comes out black; the row step follows the stride of a region view.
  for (const int size : {4, 120}) {
    auto parent = alloc(kGrey16, size + 8, size);
    for (int i = 0; i < size * (size + 8); ++i) {
      const uint16_t value = i % (size + 8) < size ? 65535 : 7;
      std::memcpy(at(parent.get(), 0, i / (size + 8), 2 * (i % (size + 8))), &value, 2);
    }
    za::FramePtr view(zarvel_frame_roi(parent.get(), {0, 0, size, size}));
    zarvel_frame_t* grey = nullptr;
    ASSERT_EQ(zarvel_frame_cvt_color(view.get(), &grey, kGrey), 0);
    za::FramePtr grey_owned(grey);
    const auto bytes = visible_bytes(grey);
    EXPECT_EQ(bytes, std::vector<uint8_t>(bytes.size(), 0)) << size;
  }
}

TEST_F(CvtColor, DeviceFramesFallBackToTheHost) {
  auto host = alloc(kNv21, 34, 4);
  fill_pattern(host.get(), 4);
  zarvel_frame_t *dev = nullptr, *out = nullptr, *back = nullptr;
  ASSERT_EQ(zarvel_frame_upload(host.get(), &dev), 0);
  za::FramePtr dev_owned(dev);
  ASSERT_EQ(zarvel_frame_cvt_color(dev, &out, kBgr), 0);
  za::FramePtr out_owned(out);
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(drain(log_), zarvel::test::device_fallback(kName));
  ASSERT_EQ(zarvel_frame_download(out, &back), 0);
  za::FramePtr back_owned(back);
  EXPECT_EQ(visible_bytes(back), visible_bytes(expected(host.get(), kBgr).get()));
  // A refused pair on the device frees the output the call allocated.
  out = nullptr;
  EXPECT_EQ(zarvel_frame_cvt_color(dev, &out, kGrey16), -1000);
  EXPECT_EQ(out, nullptr);
}

}  // namespace
