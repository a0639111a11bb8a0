// Writes the seed corpora of the fuzz targets: tiny valid images of every format the decoder
// reads (for fuzz_load) and a few argument strings for the others.
#include <zarvel/aux.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

void write(const fs::path& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return;
  std::fwrite(bytes.data(), 1, bytes.size(), f);
  std::fclose(f);
}

std::vector<uint8_t> text(const std::string& s) { return {s.begin(), s.end()}; }

// The JPEG stream without its Huffman table segments (DHT), as Motion-JPEG cameras send it.
std::vector<uint8_t> without_dht(const std::vector<uint8_t>& jpeg) {
  std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
  size_t at = 2;
  for (size_t next; at + 4 <= jpeg.size() && jpeg[at + 1] != 0xDA; at = next) {
    next = at + 2 + (jpeg[at + 2] << 8 | jpeg[at + 3]);
    if (next > jpeg.size()) break;
    if (jpeg[at + 1] != 0xC4) out.insert(out.end(), jpeg.begin() + at, jpeg.begin() + next);
  }
  out.insert(out.end(), jpeg.begin() + at, jpeg.end());
  return out;
}

// JPEG (also without its Huffman tables), BMP and PNG of a tiny frame, through the library's
// own encoder.
void encoded_seeds(const fs::path& dir, uint32_t format, const char* name) {
  zarvel_frame_t* frame = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 5, 3, nullptr, 0);
  if (frame == nullptr) return;
  for (int64_t i = 0; i < int64_t{frame->stride[0]} * frame->height; ++i)
    frame->plane[0][i] = static_cast<uint8_t>(i * 37);
  const int32_t kinds[] = {ZARVEL_IMAGE_JPEG, ZARVEL_IMAGE_BMP, ZARVEL_IMAGE_PNG};
  const char* endings[] = {"jpg", "bmp", "png"};
  for (int k = 0; k < 3; ++k) {
    zarvel_buffer_t* buffer = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
    if (zarvel_frame_encode(frame, kinds[k], buffer) == 0) {
      const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(buffer));
      const std::vector<uint8_t> bytes(p, p + zarvel_buffer_size(buffer));
      write(dir / (std::string(name) + "." + endings[k]), bytes);
      if (kinds[k] == ZARVEL_IMAGE_JPEG)
        write(dir / (std::string(name) + "_mjpeg.jpg"), without_dht(bytes));
    }
    zarvel_buffer_free(&buffer);
  }
  zarvel_frame_free(&frame);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <corpus root>\n", argv[0]);
    return 2;
  }
  const fs::path root = argv[1];
  for (const char* target : {"fuzz_load", "fuzz_frame_ops", "fuzz_to_tensor", "fuzz_encode"})
    fs::create_directories(root / target);
  const fs::path load = root / "fuzz_load";
  encoded_seeds(load, ZARVEL_PIXFMT_GREY, "grey");
  encoded_seeds(load, ZARVEL_PIXFMT_RGB24, "rgb");
  // Formats the encoder does not write, made by hand: binary and text netpbm, an
  // uncompressed true-colour TGA, a one-pixel GIF, a Radiance HDR and a flat PSD.
  write(load / "grey.pgm", text("P5\n3 2\n255\n\x01\x80\xff\x10\x20\x30"));
  write(load / "rgb.ppm", text("P3\n1 2\n255\n1 2 3\n250 128 0\n"));
  write(load / "rgb.tga",
        {0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 1, 0, 24, 0, 1, 2, 3, 200, 100, 50});
  write(load / "dot.gif", {0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 1, 0, 1, 0,    0x80, 0, 0,    0, 0,
                           0,    0xff, 0xff, 0xff, 0x21, 0xf9, 4, 1, 0, 0,    0,    0, 0x2c, 0, 0,
                           0,    0,    1,    0,    1,    0,    0, 2, 2, 0x44, 1,    0, 0x3b});
  write(load / "tiny.hdr",
        text("#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y 1 +X 2\n\x80\x40\x20\x81\x0a\x14\x1e\x80"));
  std::vector<uint8_t> psd = text("8BPS");
  psd.insert(psd.end(), {0, 1, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 1, 0, 0, 0, 2, 0, 8, 0,
                         3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 5, 6});
  write(load / "flat.psd", psd);
  // Argument strings: each target reads an operation selector first.
  for (int op = 0; op < 8; ++op) {
    write(root / "fuzz_frame_ops" / ("op" + std::to_string(op)),
          {static_cast<uint8_t>(op), 0, 17, 9, 1, 0, 0, 200, 1, 16, 12, 0, 0, 1, 2, 3});
  }
  std::vector<uint8_t> args = {0, 0, 1, 0, 2, 0, 0, 0, 3, 0, 0, 0, 9, 0,
                               0, 0, 9, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8};
  for (int op = 0; op < 4; ++op) {
    args[0] = static_cast<uint8_t>(op);
    write(root / "fuzz_to_tensor" / ("op" + std::to_string(op)), args);
  }
  for (int format = 1; format <= 3; ++format) {
    write(root / "fuzz_encode" / ("format" + std::to_string(format)),
          {static_cast<uint8_t>(format), 1, 0, 0, 0, 0, 1, 0, 0, 0, 7, 7, 7, 7});
  }
  return 0;
}
