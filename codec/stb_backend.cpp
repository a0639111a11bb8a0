// The only translation unit that compiles stb_image and stb_image_write. Every stb function and
// global here has internal linkage (STB_IMAGE_STATIC, STB_IMAGE_WRITE_STATIC), so none of them
// reaches the symbol table of the shared library.
#include "codec/stb_backend.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "codec/jpeg_color.h"
#include "plugin/cpu_features.h"

namespace {

// Upper bound of one decoder allocation during the current decode on this thread; negative
// outside a decode. The decoder's allocations all go through the two functions below.
thread_local int64_t t_decode_alloc_limit = -1;

bool allocation_allowed(size_t size) {
  return t_decode_alloc_limit < 0 || size <= static_cast<uint64_t>(t_decode_alloc_limit);
}

void* limited_malloc(size_t size) { return allocation_allowed(size) ? std::malloc(size) : nullptr; }

void* limited_realloc(void* block, size_t size) {
  return allocation_allowed(size) ? std::realloc(block, size) : nullptr;
}

}  // namespace

#define STBI_MALLOC(size) limited_malloc(size)
#define STBI_REALLOC(block, size) limited_realloc(block, size)
#define STBI_FREE(block) std::free(block)
#define STBI_MAX_DIMENSIONS (::zarvel::aux::codec::kMaxDecodeSide)
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STBI_WRITE_NO_STDIO

// stb_image converts JPEG rows to RGB through the kernel it picks in its setup: its SSE2 one
// vectorises only 4-byte pixels and loops per pixel for the 3-byte pixels we decode, which is
// a third of a photograph's decode time. The setup takes the kernel by the name declared here,
// while stb's own definition is renamed (only a call-like use expands the macro), so the
// function defined after the include, with the AVX2 rows of jpeg_color_avx2.cpp, is the one
// the decoder calls. It gives stb's bytes exactly.
static void stbi__YCbCr_to_RGB_simd(unsigned char* out, const unsigned char* y,
                                    const unsigned char* pcb, const unsigned char* pcr, int count,
                                    int step);
#define stbi__YCbCr_to_RGB_simd(...) stb_own_ycbcr_to_rgb(__VA_ARGS__)

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wimplicit-fallthrough"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#include <stb_image.h>
#include <stb_image_write.h>
#pragma GCC diagnostic pop
#undef stbi__YCbCr_to_RGB_simd

static void stbi__YCbCr_to_RGB_simd(unsigned char* out, const unsigned char* y,
                                    const unsigned char* pcb, const unsigned char* pcr, int count,
                                    int step) {
  if (step == 3) {
    ::zarvel::aux::codec::jpeg_ycbcr_to_rgb_row(out, y, pcb, pcr, count);
  } else {
    stb_own_ycbcr_to_rgb(out, y, pcb, pcr, count, step);
  }
}

namespace zarvel::aux::codec {

void jpeg_ycbcr_to_rgb_row(uint8_t* out, const uint8_t* y, const uint8_t* cb, const uint8_t* cr,
                           int count) {
  const int done =
      (cpu_features() & kCpuAvx2) != 0 ? jpeg_ycbcr_to_rgb_avx2(out, y, cb, cr, count) : 0;
  stbi__YCbCr_to_RGB_row(out + 3 * done, y + done, cb + done, cr + done, count - done, 3);
}

namespace {

bool within_decode_limits(int64_t width, int64_t height) {
  return width > 0 && height > 0 && width <= kMaxDecodeSide && height <= kMaxDecodeSide &&
         width * height <= kMaxDecodePixels;
}

int64_t decode_alloc_limit(int64_t width, int64_t height, int64_t input_bytes) {
  return kDecodeBytesPerPixel * (width + 32) * (height + 32) + 2 * input_bytes + kDecodeSlackBytes;
}

// Caps the decoder's allocations for the lifetime of one decode.
class DecodeAllocLimit {
 public:
  explicit DecodeAllocLimit(int64_t limit) { t_decode_alloc_limit = limit; }
  ~DecodeAllocLimit() { t_decode_alloc_limit = -1; }
  DecodeAllocLimit(const DecodeAllocLimit&) = delete;
  DecodeAllocLimit& operator=(const DecodeAllocLimit&) = delete;
};

// Bytes from the current position to the end of the file; 0 when the file cannot seek.
int64_t remaining_bytes(std::FILE* file) {
  const long start = std::ftell(file);
  if (start < 0 || std::fseek(file, 0, SEEK_END) != 0) return 0;
  const long end = std::ftell(file);
  if (std::fseek(file, start, SEEK_SET) != 0) return 0;
  return end > start ? end - start : 0;
}

// Byte readers for the header checks below: get() returns -1 at the end of the data.
class MemoryBytes {
 public:
  MemoryBytes(const uint8_t* data, int64_t size) : at_(data), end_(data + size) {}
  int get() { return at_ < end_ ? *at_++ : -1; }
  bool skip(int64_t n) {
    if (n > end_ - at_) return false;
    at_ += n;
    return true;
  }
  // Moves past the next 0xFF byte; false when there is none.
  bool pass_next_ff() {
    const void* ff = std::memchr(at_, 0xFF, static_cast<size_t>(end_ - at_));
    if (ff == nullptr) return false;
    at_ = static_cast<const uint8_t*>(ff) + 1;
    return true;
  }

 private:
  const uint8_t* at_;
  const uint8_t* end_;
};

// Reads a file in 16 KiB chunks: the buffer lives on the caller's stack, which on a worker
// thread may be small.
class FileBytes {
 public:
  explicit FileBytes(std::FILE* file) : file_(file) {}
  int get() {
    if (at_ == size_ && !refill()) return -1;
    return buffer_[at_++];
  }
  bool skip(int64_t n) {
    while (n > 0) {
      if (at_ == size_ && !refill()) return false;
      const int64_t step = std::min<int64_t>(n, size_ - at_);
      at_ += static_cast<size_t>(step);
      n -= step;
    }
    return true;
  }
  bool pass_next_ff() {
    for (;;) {
      if (at_ == size_ && !refill()) return false;
      const void* ff = std::memchr(buffer_ + at_, 0xFF, size_ - at_);
      if (ff != nullptr) {
        at_ = static_cast<size_t>(static_cast<const uint8_t*>(ff) - buffer_) + 1;
        return true;
      }
      at_ = size_;
    }
  }

 private:
  bool refill() {
    size_ = std::fread(buffer_, 1, sizeof buffer_, file_);
    at_ = 0;
    return size_ > 0;
  }
  std::FILE* file_;
  uint8_t buffer_[16384];
  size_t at_ = 0;
  size_t size_ = 0;
};

// Whether the components of a scan (SOS) use only Huffman tables defined before it. A scan
// of a progressive frame reads its DC table in the first DC pass only, its AC table in every
// AC pass; a sequential scan reads both. Headers that end early or name a table the decoder
// refuses pass: it stops on them itself.
template <class Bytes>
bool scan_tables_defined(Bytes& in, int64_t* left, bool progressive, const bool (&defined)[2][4]) {
  const int count = in.get();
  if (count < 0) return true;
  int tables[4] = {};
  for (int k = 0; k < count && k < 4; ++k) {
    if (in.get() < 0) return true;
    tables[k] = in.get();
    if (tables[k] < 0) return true;
  }
  const int start = in.get(), end = in.get(), approx = in.get();
  if (count > 4 || start < 0 || end < 0 || approx < 0) return true;
  *left -= 1 + 2 * count + 3;
  const bool dc = !progressive || (start == 0 && (approx >> 4) == 0);
  const bool ac = !progressive || start != 0;
  for (int k = 0; k < count; ++k) {
    const int dc_id = tables[k] >> 4, ac_id = tables[k] & 15;
    if (dc_id > 3 || ac_id > 3) return true;
    if ((dc && !defined[0][dc_id]) || (ac && !defined[1][ac_id])) return false;
  }
  return true;
}

// stb_image 2.27 trusts a JPEG stream's Huffman tables (DHT): counts adding up to more than
// 256 symbols make it write past its tables, and a scan using a table no DHT defined makes it
// decode from uninitialised memory and index past its arrays. Walk every marker segment the
// way the decoder does (segments skipped by their length, entropy-coded data skipped up to the
// next marker) and refuse the stream on either. Streams that are not JPEG, or end early, pass:
// the decoder stops on them by itself. (A Motion-JPEG frame without tables is refused too.)
// The stream's first byte (0xFF) has been read.
template <class Bytes>
bool jpeg_tables_fit(Bytes& in) {
  // The decoder takes any run of 0xFF fill bytes before the start-of-image marker.
  int first = in.get();
  while (first == 0xFF) first = in.get();
  if (first != 0xD8) return true;
  bool progressive = false;
  bool defined[2][4] = {};  // [DC, AC][table id] seen so far
  for (;;) {
    if (!in.pass_next_ff()) return true;
    int marker = in.get();
    while (marker == 0xFF) marker = in.get();
    // End of data, byte stuffing, restart markers, TEM and SOI carry no segment.
    if (marker < 0 || marker == 0xD9) return true;
    if (marker == 0x00 || marker == 0x01 || marker == 0xD8 || (marker >= 0xD0 && marker <= 0xD7)) {
      continue;
    }
    const int hi = in.get(), lo = in.get();
    if (lo < 0) return true;
    int64_t left = (hi << 8 | lo) - 2;
    if (left < 0) return true;
    if (marker == 0xDA) {
      if (!scan_tables_defined(in, &left, progressive, defined)) return false;
    } else if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2) {
      progressive = marker == 0xC2;
    }
    if (marker != 0xC4) {
      if (left > 0 && !in.skip(left)) return true;
      continue;
    }
    while (left > 0) {  // as the decoder reads it: tables until the length is used up
      const int table = in.get();
      if (table < 0) return true;
      // Past the end the decoder reads zeros, and still builds the table from the counts it
      // has: sum them the same way before deciding.
      int symbols = 0;
      bool ended = false;
      for (int i = 0; i < 16; ++i) {
        const int count = in.get();
        ended = ended || count < 0;
        symbols += count < 0 ? 0 : count;
      }
      if (symbols > 256) return false;
      if (ended) return true;
      if ((table >> 4) <= 1 && (table & 15) <= 3) defined[table >> 4][table & 15] = true;
      if (!in.skip(symbols)) return true;
      left -= 17 + symbols;
    }
  }
}

// stb_image 2.27 reads the width, height and maximum value of a binary PNM (P5, P6) header
// into an int without an overflow check. Read the header the same way (whitespace and '#'
// comments between the numbers) and refuse any number beyond the int range.
template <class Bytes>
bool pnm_numbers_fit(Bytes& in) {
  int c = in.get();
  for (int number = 0; number < 3; ++number) {
    for (;;) {
      while (c == ' ' || (c >= '\t' && c <= '\r')) c = in.get();
      if (c != '#') break;
      while (c >= 0 && c != '\n' && c != '\r') c = in.get();
    }
    int64_t value = 0;
    for (; c >= '0' && c <= '9'; c = in.get()) {
      value = value * 10 + (c - '0');
      if (value > INT32_MAX) return false;
    }
  }
  return true;
}

// False for the streams the decoder cannot be trusted with; anything else goes to the decoder.
template <class Bytes>
bool header_fits(Bytes& in) {
  const int first = in.get();
  if (first == 0xFF) return jpeg_tables_fit(in);
  if (first == 'P') {
    const int kind = in.get();
    return (kind != '5' && kind != '6') || pnm_numbers_fit(in);
  }
  return true;
}

bool accept(stbi_uc* pixels, int width, int height, int channels, DecodedImage* image) {
  if (pixels == nullptr) return false;
  if (!within_decode_limits(width, height)) {
    stbi_image_free(pixels);
    stbi__err("too large", "Image too large to decode");
    return false;
  }
  *image = {pixels, width, height, channels};
  return true;
}

}  // namespace

bool decode_file(std::FILE* file, DecodedImage* image) {
  const long start = std::ftell(file);
  if (start < 0) return false;
  FileBytes bytes(file);
  const bool fits = header_fits(bytes);
  if (std::fseek(file, start, SEEK_SET) != 0) return false;
  if (!fits) {
    stbi__err("bad header", "Corrupt image header");
    return false;
  }
  int width = 0, height = 0, channels = 0;
  // The header check rewinds the file to where it started.
  if (!stbi_info_from_file(file, &width, &height, &channels)) return false;
  if (!within_decode_limits(width, height)) {
    stbi__err("too large", "Image too large to decode");
    return false;
  }
  const DecodeAllocLimit limit(decode_alloc_limit(width, height, remaining_bytes(file)));
  stbi_uc* pixels = stbi_load_from_file(file, &width, &height, &channels, 0);
  return accept(pixels, width, height, channels, image);
}

bool decode_memory(const uint8_t* data, int32_t size, DecodedImage* image) {
  if (data == nullptr || size <= 0) {
    stbi__err("bad input", "No encoded bytes");
    return false;
  }
  MemoryBytes bytes(data, size);
  if (!header_fits(bytes)) {
    stbi__err("bad header", "Corrupt image header");
    return false;
  }
  int width = 0, height = 0, channels = 0;
  if (!stbi_info_from_memory(data, size, &width, &height, &channels)) return false;
  if (!within_decode_limits(width, height)) {
    stbi__err("too large", "Image too large to decode");
    return false;
  }
  const DecodeAllocLimit limit(decode_alloc_limit(width, height, size));
  stbi_uc* pixels = stbi_load_from_memory(data, size, &width, &height, &channels, 0);
  return accept(pixels, width, height, channels, image);
}

ReleaseFn decoder_release() { return &stbi_image_free; }

void note_open_failure() { stbi__err("can't fopen", "Unable to open file"); }

const char* decoder_failure_reason() { return stbi_failure_reason(); }

bool encode_image(ImageFormat format, const uint8_t* pixels, int32_t width, int32_t height,
                  int32_t components, int32_t stride, WriteFn write, void* context) {
  if (pixels == nullptr || width <= 0 || height <= 0 || components < 1 || components > 4) {
    return false;
  }
  const int64_t row_bytes = int64_t{width} * components;
  if (stride < row_bytes || (row_bytes + 1) * height > kMaxEncodeBytes ||
      int64_t{stride} * height > kMaxEncodeBytes) {
    return false;
  }
  // Only the PNG writer takes a row stride; the others read tightly packed rows.
  if (format != ImageFormat::kPng && stride != row_bytes) return false;
  switch (format) {
    case ImageFormat::kJpeg:
      if (width > kMaxJpegSide || height > kMaxJpegSide) return false;
      return stbi_write_jpg_to_func(write, context, width, height, components, pixels, 100) != 0;
    case ImageFormat::kBmp:
      return stbi_write_bmp_to_func(write, context, width, height, components, pixels) != 0;
    case ImageFormat::kPng:
      return stbi_write_png_to_func(write, context, width, height, components, pixels, stride) != 0;
    case ImageFormat::kNone:
      break;
  }
  return false;
}

}  // namespace zarvel::aux::codec
