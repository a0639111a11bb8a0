// The only translation unit that compiles stb_image and stb_image_write. Every stb function and
// global here has internal linkage (STB_IMAGE_STATIC, STB_IMAGE_WRITE_STATIC), so none of them
// reaches the symbol table of the shared library.
#include "codec/stb_backend.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "codec/jpeg_color.h"
#include "plugin/cpu_features.h"

namespace {

// Upper bound of one decoder allocation during the current decode on this thread; negative
// outside a decode. The decoder's allocations all go through the two functions below.
thread_local int64_t t_decode_alloc_limit = -1;

bool allocation_allowed(size_t size) {
  return t_decode_alloc_limit < 0 || size <= static_cast<uint64_t>(t_decode_alloc_limit);
}

// Blocks up to 64 KiB (the decoders' state and tables) are zeroed: stb_image reads some of its
// tables before a stream defines them (a JPEG without a DQT segment dequantises by whatever
// its state held), and zeros make such streams decode the same every time instead of leaking
// earlier heap contents into the pixels. Larger blocks are pixel and data buffers, written
// before they are read; zeroing them would make every hostile header that claims a large
// image cost the time to clear its buffers.
void* limited_malloc(size_t size) {
  if (!allocation_allowed(size)) return nullptr;
  return size <= 65536 ? std::calloc(1, size) : std::malloc(size);
}

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
  MemoryBytes(const uint8_t* data, int64_t size) : begin_(data), at_(data), end_(data + size) {}
  int get() { return at_ < end_ ? *at_++ : -1; }
  int64_t position() const { return at_ - begin_; }  // bytes read or skipped so far
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
  const uint8_t* begin_;
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
  int64_t position() const { return passed_ + static_cast<int64_t>(at_); }

 private:
  bool refill() {
    passed_ += static_cast<int64_t>(size_);
    size_ = std::fread(buffer_, 1, sizeof buffer_, file_);
    at_ = 0;
    return size_ > 0;
  }
  std::FILE* file_;
  uint8_t buffer_[16384];
  size_t at_ = 0;
  size_t size_ = 0;
  int64_t passed_ = 0;  // bytes of the chunks before the current one
};

// What the header walk decides about a stream.
enum class HeaderCheck {
  kDecode,             // decode as it is
  kRefuse,             // the decoder cannot be trusted with it
  kAddStandardTables,  // decode after defining the standard Huffman tables (Motion-JPEG)
};

// The Huffman tables that a scan (SOS) uses and no DHT defined before it: bit 4 * class + id
// (class 0 DC, 1 AC). A scan of a progressive frame reads its DC table in the first DC pass
// only, its AC table in every AC pass; a sequential scan reads both. A header that ends early
// reads as zeros, as the decoder reads it; one that names a table the decoder refuses gives 0.
template <class Bytes>
int undefined_scan_tables(Bytes& in, int64_t* left, bool progressive, const bool (&defined)[2][4]) {
  // Past the end of the data the decoder reads zeros and goes on: read the header the same way.
  const auto get = [&in] { return std::max(in.get(), 0); };
  const int count = get();
  int tables[4] = {};
  for (int k = 0; k < count && k < 4; ++k) {
    get();
    tables[k] = get();
  }
  const int start = get();
  get();  // end of spectral selection
  const int approx = get();
  if (count > 4) return 0;
  *left -= 1 + 2 * count + 3;
  const bool dc = !progressive || (start == 0 && (approx >> 4) == 0);
  const bool ac = !progressive || start != 0;
  int missing = 0;
  for (int k = 0; k < count; ++k) {
    const int dc_id = tables[k] >> 4, ac_id = tables[k] & 15;
    if (dc_id > 3 || ac_id > 3) return 0;
    if (dc && !defined[0][dc_id]) missing |= 1 << dc_id;
    if (ac && !defined[1][ac_id]) missing |= 1 << (4 + ac_id);
  }
  return missing;
}

// stb_image 2.27 trusts a JPEG stream's Huffman tables (DHT): counts adding up to more than
// 256 symbols make it write past its tables, and a scan using a table no DHT defined makes it
// decode from uninitialised memory and index past its arrays. Walk every marker segment the
// way the decoder does (segments skipped by their length, entropy-coded data skipped up to the
// next marker) and refuse the stream on either. Streams that are not JPEG, or end early, pass:
// the decoder stops on them by itself. Motion-JPEG frames from cameras leave out their DHT and
// rely on the standard tables (tables 0 and 1 of each class): a stream whose scans use only
// those is decoded with the standard tables defined first, as other decoders do.
// The stream's first byte (0xFF) has been read. When the walk reaches the end-of-image marker,
// *end is set to the number of bytes up to and including it: the decoder reads no further.
template <class Bytes>
HeaderCheck jpeg_check(Bytes& in, int64_t* end) {
  // The decoder takes any run of 0xFF fill bytes before the start-of-image marker.
  int first = in.get();
  while (first == 0xFF) first = in.get();
  if (first != 0xD8) return HeaderCheck::kDecode;
  bool progressive = false;
  bool defined[2][4] = {};  // [DC, AC][table id] seen so far
  bool standard = false;    // whether the standard tables are defined first
  // Where the decoder goes on (or stops by itself on a stream that ends early).
  const auto decode = [&] {
    return standard ? HeaderCheck::kAddStandardTables : HeaderCheck::kDecode;
  };
  for (;;) {
    if (!in.pass_next_ff()) return decode();
    int marker = in.get();
    while (marker == 0xFF) marker = in.get();
    // End of data, byte stuffing, restart markers, TEM and SOI carry no segment.
    if (marker == 0xD9) *end = in.position();
    if (marker < 0 || marker == 0xD9) return decode();
    if (marker == 0x00 || marker == 0x01 || marker == 0xD8 || (marker >= 0xD0 && marker <= 0xD7)) {
      continue;
    }
    const int hi = in.get(), lo = in.get();
    if (lo < 0) return decode();
    int64_t left = (hi << 8 | lo) - 2;
    if (left < 0) return decode();
    if (marker == 0xDA) {
      const int missing = undefined_scan_tables(in, &left, progressive, defined);
      // Tables 2 and 3 have no standard form.
      if ((missing & 0xCC) != 0) return HeaderCheck::kRefuse;
      if (missing != 0) {
        // Defined ahead of every segment, the standard tables serve the whole stream (a
        // later DHT replaces them as usual).
        standard = true;
        for (auto& by_class : defined) by_class[0] = by_class[1] = true;
      }
    } else if (marker == 0xC0 || marker == 0xC1 || marker == 0xC2) {
      progressive = marker == 0xC2;
    }
    if (marker != 0xC4) {
      if (left > 0 && !in.skip(left)) return decode();
      continue;
    }
    while (left > 0) {  // as the decoder reads it: tables until the length is used up
      const int table = in.get();
      if (table < 0) return decode();
      // Past the end the decoder reads zeros, and still builds the table from the counts it
      // has: sum them the same way before deciding.
      int symbols = 0;
      bool ended = false;
      for (int i = 0; i < 16; ++i) {
        const int count = in.get();
        ended = ended || count < 0;
        symbols += count < 0 ? 0 : count;
      }
      if (symbols > 256) return HeaderCheck::kRefuse;
      if (ended) return decode();
      if ((table >> 4) <= 1 && (table & 15) <= 3) defined[table >> 4][table & 15] = true;
      if (!in.skip(symbols)) return decode();
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

// Refuses the streams the decoder cannot be trusted with; anything else goes to the decoder.
// *jpeg_end: as for jpeg_check, left alone for every other stream.
template <class Bytes>
HeaderCheck header_check(Bytes& in, int64_t* jpeg_end) {
  const int first = in.get();
  if (first == 0xFF) return jpeg_check(in, jpeg_end);
  if (first == 'P') {
    const int kind = in.get();
    if ((kind == '5' || kind == '6') && !pnm_numbers_fit(in)) return HeaderCheck::kRefuse;
  }
  return HeaderCheck::kDecode;
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

// The standard Huffman tables of JPEG (ITU-T T.81, Annex K.3): the luminance DC and AC tables
// as tables 0, the chrominance ones as tables 1. Each: the number of codes of each length 1..16,
// then the symbols in code order.
struct HuffmanTable {
  uint8_t id;  // class << 4 | table
  uint8_t counts[16];
  std::array<uint8_t, 162> symbols;
  int size;
};
constexpr std::array<uint8_t, 162> kDcSymbols = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr HuffmanTable kStandardTables[4] = {
    {0x00, {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0}, kDcSymbols, 12},
    {0x10,
     {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d},
     {0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
      0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52,
      0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25,
      0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45,
      0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63, 0x64,
      0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
      0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
      0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6,
      0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3,
      0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8,
      0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa},
     162},
    {0x01, {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0}, kDcSymbols, 12},
    {0x11,
     {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77},
     {0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
      0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33,
      0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18,
      0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3a, 0x43, 0x44,
      0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
      0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
      0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
      0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4,
      0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca,
      0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7,
      0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa},
     162},
};

// Each table has as many symbols as codes.
constexpr bool standard_tables_complete() {
  for (const HuffmanTable& t : kStandardTables) {
    int codes = 0;
    for (uint8_t count : t.counts) codes += count;
    if (codes != t.size) return false;
  }
  return true;
}
static_assert(standard_tables_complete());
constexpr int segment_size() {
  int size = 4;
  for (const HuffmanTable& t : kStandardTables) size += 17 + t.size;
  return size;
}
static_assert(segment_size() == kStandardHuffmanSegmentSize);

// One DHT segment defining the four tables: marker, length, then each table's id, counts and
// symbols.
constexpr std::array<uint8_t, kStandardHuffmanSegmentSize> standard_tables_segment() {
  std::array<uint8_t, kStandardHuffmanSegmentSize> out{};
  size_t at = 4;
  for (const HuffmanTable& t : kStandardTables) {
    out[at++] = t.id;
    for (uint8_t count : t.counts) out[at++] = count;
    for (int i = 0; i < t.size; ++i) out[at++] = t.symbols[i];
  }
  out[0] = 0xFF;
  out[1] = 0xC4;
  out[2] = static_cast<uint8_t>((out.size() - 2) >> 8);
  out[3] = static_cast<uint8_t>(out.size() - 2);
  return out;
}
constexpr auto kStandardTablesSegment = standard_tables_segment();

// Decodes a stream that passed the header check.
bool decode_checked(const uint8_t* data, int32_t size, DecodedImage* image) {
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

// Decodes a copy of the JPEG stream with the standard tables defined right after its
// start-of-image marker (which the header check found after any 0xFF fill bytes). The frame
// header is read first, so an oversized image is refused before the stream is copied.
bool decode_with_standard_tables(const uint8_t* data, int32_t size, DecodedImage* image) {
  constexpr int32_t kAdded = static_cast<int32_t>(kStandardTablesSegment.size());
  int width = 0, height = 0, channels = 0;
  if (!stbi_info_from_memory(data, size, &width, &height, &channels)) return false;
  if (size > INT32_MAX - kAdded || !within_decode_limits(width, height)) {
    stbi__err("too large", "Image too large to decode");
    return false;
  }
  const std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[size + kAdded]);
  if (copy == nullptr) {
    stbi__err("outofmem", "Out of memory");
    return false;
  }
  int32_t soi = 0;
  while (data[soi] == 0xFF) ++soi;
  const int32_t head = soi + 1;  // fill bytes and the marker
  std::memcpy(copy.get(), data, head);
  std::memcpy(copy.get() + head, kStandardTablesSegment.data(), kAdded);
  std::memcpy(copy.get() + head + kAdded, data + head, size - head);
  return decode_checked(copy.get(), size + kAdded, image);
}

// Reads from the file's current position up to `limit` bytes, or to its end when that comes
// first, into memory. Fails ("too large") when the file goes on past kMaxFileBytes.
bool read_file(std::FILE* file, int64_t limit, std::vector<uint8_t>* data) {
  const int64_t cap = std::min(limit, kMaxFileBytes + 1);
  try {
    data->reserve(static_cast<size_t>(std::min(cap, std::max<int64_t>(remaining_bytes(file), 1))));
    size_t size = 0;
    while (static_cast<int64_t>(size) < cap) {
      const size_t chunk = static_cast<size_t>(std::min<int64_t>(cap - size, int64_t{1} << 20));
      data->resize(size + chunk);
      const size_t got = std::fread(data->data() + size, 1, chunk, file);
      size += got;
      if (got < chunk) break;
    }
    data->resize(size);
  } catch (const std::bad_alloc&) {
    stbi__err("outofmem", "Out of memory");
    return false;
  }
  if (std::ferror(file)) {
    stbi__err("read failed", "Unable to read file");
    return false;
  }
  if (static_cast<int64_t>(data->size()) > kMaxFileBytes) {
    stbi__err("too large", "Image too large to decode");
    return false;
  }
  return true;
}

}  // namespace

const uint8_t* standard_huffman_segment() { return kStandardTablesSegment.data(); }

bool decode_file(std::FILE* file, DecodedImage* image) {
  // The file is read into memory once and decoded from there, so the bytes decoded are the
  // bytes checked even when the file changes meanwhile (a camera still writing it). A first
  // walk over a JPEG stream finds its end-of-image marker, and nothing past it is read: the
  // decoder would not look there, and a file padded after it costs no memory. A file that
  // cannot seek is read whole.
  int64_t limit = kMaxFileBytes + 1;
  const long start = std::ftell(file);
  if (start >= 0) {
    FileBytes bytes(file);
    int64_t jpeg_end = -1;
    const HeaderCheck check = header_check(bytes, &jpeg_end);
    if (std::fseek(file, start, SEEK_SET) != 0) {
      stbi__err("read failed", "Unable to read file");
      return false;
    }
    if (check == HeaderCheck::kRefuse) {
      stbi__err("bad header", "Corrupt image header");
      return false;
    }
    if (jpeg_end > 0) limit = jpeg_end;
  }
  std::vector<uint8_t> data;
  if (!read_file(file, limit, &data)) return false;
  return decode_memory(data.data(), static_cast<int32_t>(data.size()), image);
}

bool decode_memory(const uint8_t* data, int32_t size, DecodedImage* image) {
  if (data == nullptr || size <= 0) {
    stbi__err("bad input", "No encoded bytes");
    return false;
  }
  MemoryBytes bytes(data, size);
  int64_t jpeg_end = -1;
  switch (header_check(bytes, &jpeg_end)) {
    case HeaderCheck::kRefuse:
      stbi__err("bad header", "Corrupt image header");
      return false;
    case HeaderCheck::kAddStandardTables:
      return decode_with_standard_tables(data, size, image);
    default:
      return decode_checked(data, size, image);
  }
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
