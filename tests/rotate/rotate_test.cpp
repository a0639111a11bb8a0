// Rotation: the vector kernels against the plain loops (guard pages, unaligned starts, padded
// strides), every code and format through the export against an index-mapping oracle, unknown
// codes, the unsupported-format message and in-place rotation.
#include "ops/rotate/rotate.h"

#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

#include "frame_test_support.h"
#include "guarded_buffer.h"
#include "op_test_support.h"

namespace za = zarvel::aux;
using namespace zarvel::test;

namespace {

constexpr uint8_t kSentinel = 0xA5;

// Rotates a source whose last row ends at a guard page into a sentinel-filled destination;
// the source row padding and the destination's misalignment vary with the size.
std::vector<uint8_t> rotate_with(uint32_t mask, int p, int angle, int h, int w) {
  const int src_stride = w * p + (h + w) % 7, offset = (h * 3 + w) % 16;
  GuardedBuffer src(static_cast<size_t>(h - 1) * src_stride + w * p);
  std::generate(src.data(), src.data() + src.size(), std::mt19937(h * 1000 + w));
  const int dh = angle != 180 ? w : h, dw = angle != 180 ? h : w, dst_stride = dw * p + 3;
  std::vector<uint8_t> dst(static_cast<size_t>(dh) * dst_stride + offset, kSentinel);
  FeatureMask features(mask);
  za::rotate::rotate_plane(angle, p, h, w, src_stride, src.data(), dh, dw, dst_stride,
                           dst.data() + offset);
  return dst;
}

// Half turns over every width to 130 (the 16-byte blocks); quarter turns over sizes straddling
// the 64-pixel tiles.
TEST(RotateKernels, VectorEqualsPlainLoops) {
  const int sides[] = {1, 15, 16, 17, 63, 64, 65, 80, 127, 128, 129, 130, 192, 200};
  std::vector<std::pair<int, int>> half, quarter;
  for (int w = 1; w <= 130; ++w) half.insert(half.end(), {{1, w}, {3, w}});
  for (int h : sides)
    for (int w : sides) quarter.push_back({h, w});
  for (int p : {1, 2, 3})
    for (int angle : {90, 180, 270})
      for (auto [h, w] : angle == 180 ? half : quarter)
        ASSERT_EQ(rotate_with(0, p, angle, h, w), rotate_with(~0u, p, angle, h, w))
            << p << ": " << angle << " " << w << "x" << h;
}

// A host frame filled with the sentinel; `pad` > 0 adds pad + i bytes to the rows of plane i.
za::FramePtr alloc(uint32_t format, int w, int h, int pad = 0) {
  int32_t strides[4] = {};
  const auto planes = planes_of(format);
  for (size_t i = 0; pad > 0 && i < planes.size(); ++i)
    strides[i] = w / planes[i].div * planes[i].pixel_size + pad + static_cast<int>(i);
  za::FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, strides, 0));
  if (f) fill_planes(f.get(), kSentinel);
  return f;
}

// Every byte `out`'s planes span: inside the rotated size, the source pixel the clockwise
// mapping picks; elsewhere (row padding, a larger output's remainder) still the sentinel.
void expect_rotated(const zarvel_frame_t* src, const zarvel_frame_t* out, int angle) {
  const auto planes = planes_of(src->format);
  for (size_t i = 0; i < planes.size(); ++i) {
    const auto [p, div] = planes[i];
    const int h = src->height / div, w = src->width / div;
    const int oh = angle == 180 ? h : w, ow = angle == 180 ? w : h;
    for (uint64_t k = 0; k < out->plane_size[i]; ++k) {
      const int r = static_cast<int>(k / out->stride[i]), x = static_cast<int>(k % out->stride[i]);
      const int c = x / p;
      const int sr = angle == 90 ? h - 1 - c : angle == 180 ? h - 1 - r : c;
      const int sc = angle == 90 ? r : angle == 180 ? w - 1 - c : w - 1 - r;
      const size_t at = static_cast<size_t>(sr) * src->stride[i] + sc * p + x % p;
      ASSERT_EQ(out->plane[i][k], r < oh && c < ow ? src->plane[i][at] : kSentinel)
          << "plane " << i << " row " << r << " byte " << x << " angle " << angle;
    }
  }
}

// Every code and format through the export into given outputs over sizes straddling the
// 16-byte blocks and the 64-pixel tiles. Output rows are padded; source rows are padded too,
// or else the output is two pixels larger each way (only the rotated corner is written). (The
// kernel test above holds the plain loops to the same bytes.)
TEST(Rotate, EveryCodeAndFormatMatchesTheIndexMapping) {
  const int sizes[] = {1, 2, 3, 15, 16, 17, 31, 48, 63, 64, 65, 127, 128, 129, 130};
  std::mt19937 rng(7);
  for (uint32_t format : {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                          ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12})
    for (int w : sizes)
      for (int h : sizes) {
        if (za::is_yuv420(format) && (w % 2 != 0 || h % 2 != 0)) continue;
        if (w > 20 && h > 20 && (w + h) % 3 != 0) continue;  // thin the large pairs
        const int pad = (w + h) % 2 == 0 ? 0 : 5;
        auto src = alloc(format, w, h, pad);
        fill_random(src.get(), rng);
        for (int code : {0, 1, 2}) {
          const int ow = code == 1 ? w : h, oh = code == 1 ? h : w, more = pad ? 0 : 2;
          auto out = alloc(format, ow + more, oh + more, 7 - pad);
          zarvel_frame_t* slot = out.get();
          ASSERT_TRUE(zarvel_frame_rotate(src.get(), &slot, code) == 0 && slot == out.get());
          ASSERT_NO_FATAL_FAILURE(expect_rotated(src.get(), out.get(), 90 * (code + 1)))
              << format << " " << w << "x" << h;
        }
      }
  // The 4 x 2 example: the first output row is the first source column from the bottom up.
  auto src = alloc(ZARVEL_PIXFMT_GREY, 4, 2);
  std::iota(src->plane[0], src->plane[0] + 8, 1);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(zarvel_frame_rotate(src.get(), &out, 0), 0);
  EXPECT_EQ(visible_bytes(za::FramePtr(out).get()), (std::vector<uint8_t>{5, 1, 6, 2, 7, 3, 8, 4}));
}

// Unknown codes fail silently (the sweep checks that a given output stays as it was); a format
// the host does not rotate succeeds with one message, its output untouched.
TEST(Rotate, UnknownCodesTheUnsupportedFormatAndInPlaceRotation) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_NV12, 66, 66), deep = alloc(ZARVEL_PIXFMT_GREY16, 6, 4),
       deep_out = alloc(ZARVEL_PIXFMT_GREY16, 4, 6);
  zarvel_frame_t *out = nullptr, *slot = deep_out.get();
  for (int code : {3, -1, 90}) EXPECT_EQ(zarvel_frame_rotate(src.get(), &out, code), -1) << code;
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(zarvel_frame_rotate(deep.get(), &slot, 2), 0);
  EXPECT_EQ(visible_bytes(slot), std::vector<uint8_t>(2 * 4 * 6, kSentinel));
  // An output that shares the source's pixels is rotated from a copy.
  fill_pattern(src.get(), 8);
  za::FramePtr before(zarvel_frame_duplicate(src.get()));
  slot = src.get();
  ASSERT_EQ(zarvel_frame_rotate(src.get(), &slot, 0), 0);
  expect_rotated(before.get(), src.get(), 90);
  EXPECT_EQ(drain(log), (LogLines{"4 aux.host Rotating a frame in format [GREY16] is not supported "
                                  "yet!\n",
                                  "3 aux [zarvel_frame_rotate] The output shares pixels with the "
                                  "source, rotating a copy.\n"}));
}

}  // namespace
