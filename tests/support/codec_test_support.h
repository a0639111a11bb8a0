// Helpers for the image codec tests: a scratch directory, file bytes, and a minimal PNG writer
// (one stored deflate block) that builds any colour type and bit depth independently of the
// encoder under test.
#pragma once

#include <unistd.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"

namespace zarvel::test {

// A directory of this process under the system's temporary directory, removed with
// everything in it.
struct ScratchDir {
  const std::filesystem::path path =
      std::filesystem::temp_directory_path() / ("zarvel_codec_" + std::to_string(getpid()));
  std::error_code ignored;  // a failed removal is not the test's concern
  ScratchDir() { std::filesystem::create_directories(path); }
  ~ScratchDir() { std::filesystem::remove_all(path, ignored); }
  std::string file(const std::string& name) const { return (path / name).string(); }
};

inline aux::FramePtr decode(const std::vector<uint8_t>& bytes) {
  return aux::FramePtr(zarvel_frame_load_from_memory(bytes.data(), int32_t(bytes.size())));
}

inline std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary) << std::string(bytes.begin(), bytes.end());
}

inline void put_be32(std::vector<uint8_t>& out, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) out.push_back(static_cast<uint8_t>(v >> s));
}

// Appends a chunk: its length (or `claimed_length`), type, data and CRC-32.
inline void png_chunk(std::vector<uint8_t>& png, const char type[4], const std::vector<uint8_t>& d,
                      uint32_t claimed_length = UINT32_MAX) {
  put_be32(png, claimed_length == UINT32_MAX ? static_cast<uint32_t>(d.size()) : claimed_length);
  std::vector<uint8_t> body(type, type + 4);
  body.insert(body.end(), d.begin(), d.end());
  png.insert(png.end(), body.begin(), body.end());
  uint32_t crc = ~0u;
  for (uint8_t byte : body) {
    crc ^= byte;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  put_be32(png, ~crc);
}

// A PNG of the given IHDR. `samples` holds the image rows without filter bytes (filter 0 is
// added); 16-bit samples are big-endian byte pairs, as PNG stores them. A header may claim
// more rows than the samples fill.
inline std::vector<uint8_t> make_png(uint32_t width, uint32_t height, int color_type, int bit_depth,
                                     const std::vector<uint8_t>& samples) {
  std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, ihdr, raw;
  put_be32(ihdr, width);
  put_be32(ihdr, height);
  ihdr.insert(ihdr.end(),
              {static_cast<uint8_t>(bit_depth), static_cast<uint8_t>(color_type), 0, 0, 0});
  png_chunk(png, "IHDR", ihdr);
  const size_t row = height ? samples.size() / height : 0;
  for (uint32_t y = 0; y < height; ++y) {
    raw.push_back(0);
    raw.insert(raw.end(), samples.begin() + y * row, samples.begin() + (y + 1) * row);
  }
  // The zlib header and one final stored block, which holds at most 65535 bytes.
  if (raw.size() > 65535) throw std::length_error("image data too long for one stored block");
  const uint32_t n = static_cast<uint32_t>(raw.size()), c = ~n;
  std::vector<uint8_t> z = {0x78,       0x01,           1, uint8_t(n), uint8_t(n >> 8),
                            uint8_t(c), uint8_t(c >> 8)};
  std::copy(raw.begin(), raw.end(), std::back_inserter(z));
  uint32_t a = 1, b = 0;  // Adler-32
  for (uint8_t v : raw) a = (a + v) % 65521, b = (b + a) % 65521;
  put_be32(z, (b << 16) | a);
  png_chunk(png, "IDAT", z);
  png_chunk(png, "IEND", {});
  return png;
}

}  // namespace zarvel::test
