// Hostile images must not make the decoder allocate more than the image they claim can need.
// This binary is linked with --wrap=malloc,--wrap=realloc so that it sees every allocation
// the decoder makes.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "codec_test_support.h"

namespace {
size_t g_largest = 0;
}  // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_malloc(size_t size) {
  g_largest = std::max(g_largest, size);
  return __real_malloc(size);
}
extern "C" void* __wrap_realloc(void* block, size_t size) {
  g_largest = std::max(g_largest, size);
  return __real_realloc(block, size);
}

namespace {

// A zlib stream of one fixed-Huffman block: a zero byte, then `matches` copies of 258 bytes at
// distance 1, so it inflates to about 258 times `matches` zero bytes from 13 bits each.
// Deflate packs fields least significant bit first and Huffman codes most significant first.
std::vector<uint8_t> zlib_bomb(int matches) {
  std::vector<uint8_t> z = {0x78, 0x01};
  int used = 8;
  const auto put = [&](uint32_t v, int n, bool code) {
    for (int i = 0; i < n; ++i, ++used) {
      if (used == 8) z.push_back(0), used = 0;
      z.back() |= static_cast<uint8_t>(((v >> (code ? n - 1 - i : i)) & 1) << used);
    }
  };
  put(0b011, 3, false);  // final block, fixed Huffman codes
  put(0x30, 8, true);    // literal 0
  for (int i = 0; i < matches; ++i) {
    put(0xC5, 8, true);  // length 258 (symbol 285)
    put(0, 5, true);     // distance 1
  }
  put(0, 7, true);                  // end of block
  z.insert(z.end(), {0, 0, 0, 0});  // checksum (not what it should be)
  return z;
}

// A bomb whose image data inflates to 64 MiB and a chunk claiming a gigabyte, both behind a
// 16x16 grey header, must stop at the size the image can need; the same image, honestly
// encoded, still loads with small allocations.
TEST(CodecAllocLimit, HostileImagesStopAtTheClaimedImageSize) {
  std::vector<uint8_t> bomb = zarvel::test::make_png(16, 16, 0, 8, std::vector<uint8_t>(256));
  bomb.resize(33);  // signature and IHDR
  std::vector<uint8_t> claim = bomb;
  zarvel::test::png_chunk(bomb, "IDAT", zlib_bomb(64 * 4096));
  zarvel::test::png_chunk(bomb, "IEND", {});
  ASSERT_LT(bomb.size(), 1u << 20);
  zarvel::test::png_chunk(claim, "IDAT", {0x78, 0x01}, (1u << 30) - 1);
  std::vector<uint8_t> grey(64 * 48);
  for (size_t i = 0; i < grey.size(); ++i) grey[i] = static_cast<uint8_t>(i * 7);
  const std::vector<uint8_t> pngs[] = {bomb, claim, zarvel::test::make_png(64, 48, 0, 8, grey)};
  for (int i = 0; i < 3; ++i) {
    g_largest = 0;
    EXPECT_EQ(zarvel::test::decode(pngs[i]) != nullptr, i == 2) << i;
    EXPECT_LT(g_largest, size_t{i == 2 ? 1u : 4u} << 20) << i;
  }
}

}  // namespace
