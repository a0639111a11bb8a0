// The vector colour conversion the JPEG decoder uses gives the decoder's own bytes for every
// (Y, Cb, Cr) combination, and writes nothing past the row it converts. (The decoder's own row
// stores an alpha byte after each pixel, so the byte just past a row may hold 255.)
#include "codec/jpeg_color.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <vector>

#include "plugin/cpu_features.h"

namespace za = zarvel::aux;

namespace {

std::vector<uint8_t> convert(uint32_t mask, const uint8_t* y, const uint8_t* cb, const uint8_t* cr,
                             int count) {
  std::vector<uint8_t> out(3 * count + 8, 0xA5);
  za::set_cpu_feature_mask(mask);
  za::codec::jpeg_ycbcr_to_rgb_row(out.data(), y, cb, cr, count);
  za::set_cpu_feature_mask(~0u);
  for (size_t i = 3 * count + 1; i < out.size(); ++i) EXPECT_EQ(out[i], 0xA5) << "past the row";
  out.resize(3 * count);
  return out;
}

TEST(JpegColor, VectorRowsEqualTheDecodersRowForEveryInput) {
  if ((za::cpu_features() & za::kCpuAvx2) == 0) GTEST_SKIP() << "no AVX2 on this processor";
  // One row per (Cb, Cr) pair holds every Y; the rows start one byte off alignment.
  std::vector<uint8_t> y(257), cb(257), cr(257);
  std::iota(y.begin() + 1, y.end(), 0);
  for (int c = 0; c < 65536; ++c) {
    std::fill(cb.begin(), cb.end(), static_cast<uint8_t>(c & 255));
    std::fill(cr.begin(), cr.end(), static_cast<uint8_t>(c >> 8));
    ASSERT_EQ(convert(~0u, y.data() + 1, cb.data() + 1, cr.data() + 1, 256),
              convert(0, y.data() + 1, cb.data() + 1, cr.data() + 1, 256))
        << "cb " << (c & 255) << " cr " << (c >> 8);
  }
  // Row lengths around the 16-pixel block, with varied chroma: tails and sentinels agree.
  for (int i = 0; i < 257; ++i) {
    cb[i] = static_cast<uint8_t>(i * 37);
    cr[i] = static_cast<uint8_t>(255 - i * 11);
  }
  for (int count = 1; count <= 50; ++count) {
    SCOPED_TRACE(count);
    EXPECT_EQ(convert(~0u, y.data(), cb.data(), cr.data(), count),
              convert(0, y.data(), cb.data(), cr.data(), count));
  }
}

}  // namespace
