// The image decoder and encoders (stb_image, stb_image_write) behind a small interface. Both
// libraries are compiled privately into stb_backend.cpp with internal linkage, so an
// application that links its own copy of stb never meets ours.
#pragma once

#include <cstdint>
#include <cstdio>

namespace zarvel::aux::codec {

// Limits on decoded images, checked on the header before any pixel is decoded. A file may claim
// any size in a few bytes; these keep a hostile file from asking for huge allocations while
// leaving room for every real camera or scanner image.
inline constexpr int32_t kMaxDecodeSide = 32768;               // pixels per side
inline constexpr int64_t kMaxDecodePixels = int64_t{1} << 26;  // 64 Mi pixels (8192 x 8192)
// While decoding, no single allocation of the decoder may exceed what the claimed image can
// legitimately need: 16 bytes per pixel (HDR floats, 16-bit RGBA) over the image padded to whole
// 32-pixel JPEG blocks, twice the encoded input (compressed-data staging), and 1 MiB of slack.
inline constexpr int64_t kDecodeBytesPerPixel = 16;
inline constexpr int64_t kDecodeSlackBytes = int64_t{1} << 20;
// The most bytes read from a file for one image. An image within the limits above needs no
// more: 64 Mi pixels of four 16-bit channels are 512 MiB uncompressed, plus the format's headers.
inline constexpr int64_t kMaxFileBytes = 8 * kMaxDecodePixels + kDecodeSlackBytes;

// Largest pixel block handed to an encoder: the encoders count bytes in int and grow their
// output by doubling, so the input stays well below 2 GiB.
inline constexpr int64_t kMaxEncodeBytes = int64_t{1} << 29;
// The JPEG header stores each side in 16 bits.
inline constexpr int32_t kMaxJpegSide = 65535;

// Pixels decoded by stb_image: rows of width * channels bytes, no padding; the block belongs to
// the caller, who releases it with decoder_release().
struct DecodedImage {
  uint8_t* pixels = nullptr;
  int32_t width = 0;
  int32_t height = 0;
  int32_t channels = 0;
};

// Decodes an opened file from its current position with the file's own channel count.
// False (nothing allocated) when the data is not an image stb_image reads or exceeds the limits.
bool decode_file(std::FILE* file, DecodedImage* image);
// Decodes `size` bytes of memory. A null pointer or a non-positive size is undecodable.
bool decode_memory(const uint8_t* data, int32_t size, DecodedImage* image);
// JPEG streams whose scans use Huffman tables that no DHT defines (Motion-JPEG frames) decode
// with the standard tables, defined by this DHT segment (marker included) ahead of the stream's
// own segments.
inline constexpr int kStandardHuffmanSegmentSize = 420;
const uint8_t* standard_huffman_segment();

// The decoder's own free function, used as the release function of adopted blocks.
using ReleaseFn = void (*)(void*);
ReleaseFn decoder_release();

// Records that an image file could not be opened, as the decoder itself records it.
void note_open_failure();
// The decoder's reason for the latest failure on this thread ("can't fopen", "bad png sig"...),
// or null.
const char* decoder_failure_reason();

enum class ImageFormat : int32_t { kNone = 0, kJpeg = 1, kBmp = 2, kPng = 3 };

// Receives the encoded bytes chunk by chunk.
using WriteFn = void (*)(void* context, void* data, int size);

// Encodes `components` (1 or 3) interleaved 8-bit channels of width x height pixels, rows
// `stride` bytes apart: JPEG at quality 100, BMP, or PNG with the given row stride. Returns
// false when the encoder fails or the image exceeds the encoders' limits.
bool encode_image(ImageFormat format, const uint8_t* pixels, int32_t width, int32_t height,
                  int32_t components, int32_t stride, WriteFn write, void* context);

}  // namespace zarvel::aux::codec
