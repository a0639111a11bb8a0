// Colour conversion of decoded JPEG rows (full-resolution Y, Cb, Cr samples) into RGB triples,
// byte for byte as stb_image's own row does it.
//
// stb_image computes, in 32-bit integers with K = (int)(k * 4096 + 0.5) for each coefficient k,
//   v = (Y << 20) + (1 << 19) + C * (K << 8)          (red with Cr, blue with Cb)
//   g = (Y << 20) + (1 << 19) + Cr * (-Kg << 8) + ((Cb * (-Kb << 8)) & 0xffff0000)
// (C = chroma - 128), then shifts right by 20 and clamps to 0..255. No term overflows (at most
// 255 << 20 plus 127 * 1470208). Every term is a multiple of 256, so dividing all by 256 keeps
// the floor: v >> 20 == (Y * 4096 + 2048 + C * K) >> 12, and the masked green term becomes
// (Cb * -Kb) & ~255. Those are 16-bit by 16-bit products summed in 32 bits: one multiply-add
// of a (Y, C) pair per channel.
#pragma once

#include <cstdint>

namespace zarvel::aux::codec {

inline constexpr int kJpegCrToR = static_cast<int>(1.40200f * 4096.0f + 0.5f);  // 5743
inline constexpr int kJpegCrToG = static_cast<int>(0.71414f * 4096.0f + 0.5f);  // 2925
inline constexpr int kJpegCbToG = static_cast<int>(0.34414f * 4096.0f + 0.5f);  // 1410
inline constexpr int kJpegCbToB = static_cast<int>(1.77200f * 4096.0f + 0.5f);  // 7258

// Converts the leading whole blocks of 16 pixels of a row into RGB triples (3 bytes a pixel,
// nothing written past them) and returns how many pixels it converted. AVX2.
int jpeg_ycbcr_to_rgb_avx2(uint8_t* out, const uint8_t* y, const uint8_t* cb, const uint8_t* cr,
                           int count);

// The converter the decoder uses for a row of `count` pixels into RGB triples: the vector kernel
// where the processor has AVX2, the decoder's own row otherwise (and for the tail).
void jpeg_ycbcr_to_rgb_row(uint8_t* out, const uint8_t* y, const uint8_t* cb, const uint8_t* cr,
                           int count);

}  // namespace zarvel::aux::codec
