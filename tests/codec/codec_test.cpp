// Loading: the channel table, adoption of the decoder's block, missing and unreadable input,
// size limits. Saving and encoding: round trips of every format through the buffer, the file
// and the loader, from host and device memory, whole frames and views; file name endings;
// refusals with their messages; writer failures. Then truncated and corrupted files of every
// written format, and hostile images that must not make the decoder allocate more than their size
// can need.
#include "codec/codec.h"

#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "codec/stb_backend.h"
#include "codec_test_support.h"
#include "frame_test_support.h"
#include "op_test_support.h"

// The binary is linked with --wrap=malloc,--wrap=realloc so that it sees every allocation the
// decoder makes.
static size_t g_largest = 0;  // the largest block asked for since the last reset
static void note(size_t size) { g_largest = std::max(g_largest, size); }

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_malloc(size_t size) { return note(size), __real_malloc(size); }
extern "C" void* __wrap_realloc(void* block, size_t size) {
  return note(size), __real_realloc(block, size);
}

namespace {

namespace za = zarvel::aux;
using za::FramePtr;
using namespace zarvel::test;
constexpr int32_t kJpeg = ZARVEL_IMAGE_JPEG, kBmp = ZARVEL_IMAGE_BMP, kPng = ZARVEL_IMAGE_PNG;

// Grey, grey + alpha, RGB, RGBA and 16-bit RGB at an odd size: alpha is dropped, 16-bit
// samples keep their high bytes, rows stay tight.
TEST(CodecLoad, ChannelTable) {
  LogCapture log;
  // PNG colour type, channels, bit depth, channels kept (1: GREY, 3: RGB24).
  for (const auto [type, channels, depth, keep] :
       {std::array{0, 1, 8, 1}, {4, 2, 8, 1}, {2, 3, 8, 3}, {6, 4, 8, 3}, {2, 3, 16, 3}}) {
    const int bytes = depth / 8;
    std::vector<uint8_t> s(7 * 5 * channels * bytes);
    for (size_t i = 0; i < s.size(); ++i) s[i] = uint8_t(channels + 37 * i + i * i / 7);
    std::vector<uint8_t> want;
    for (size_t i = 0; i < s.size(); i += channels * bytes)
      for (int k = 0; k < keep; ++k) want.push_back(s[i + k * bytes]);
    const FramePtr f = decode(make_png(7, 5, type, depth, s));
    ASSERT_TRUE(f && f->format == (keep == 1 ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24) &&
                f->width == 7 && f->stride[0] == 7 * keep);
    EXPECT_EQ(visible_bytes(f.get()), want) << channels << "x" << depth;
  }
  EXPECT_EQ(drain(log), LogLines{});
}

// One- and three-channel blocks become the frame's pixels and are released with the frame;
// two- and four-channel blocks are copied and released at once. Other counts are refused with
// a message that names the file when there is one.
TEST(CodecLoad, AdoptsOneAndThreeChannelBlocksAndReleasesCopiedOnes) {
  static std::vector<void*> released;  // blocks released so far
  const auto release = [](void* block) { released.push_back(block), std::free(block); };
  for (int channels = 1; channels <= 4; ++channels) {
    auto* block = static_cast<uint8_t*>(std::calloc(5 * 3, channels));
    released.clear();
    FramePtr f(za::codec::frame_from_pixels(block, 5, 3, channels, release, ""));
    const bool adopted = channels == 1 || channels == 3;
    ASSERT_NE(f, nullptr);
    EXPECT_TRUE((f->plane[0] == block) == adopted && released.size() == !adopted) << channels;
    f.reset();
    EXPECT_EQ(released, std::vector<void*>{block}) << channels;
  }
  LogCapture log;
  for (const char* path : {"pic.psd", static_cast<const char*>(nullptr)}) {
    auto* block = static_cast<uint8_t*>(std::malloc(64));
    EXPECT_EQ(za::codec::frame_from_pixels(block, 2, 2, 5, &std::free, path), nullptr);
  }
  EXPECT_EQ(drain(log), (LogLines{"4 aux Can not load image [pic.psd] of which channel is [5]!\n",
                                  "4 aux Can not load image of which channel is [5]!\n"}));
}

// No name is refused with a message; missing, unreadable and undecodable input quietly.
TEST(CodecLoad, MissingOrUnreadableInputGivesNull) {
  ScratchDir dir;
  LogCapture log;
  EXPECT_EQ(zarvel_frame_load(nullptr), nullptr);
  EXPECT_EQ(drain(log), LogLines{"4 aux Load frame but no file name specified!\n"});
  write_file(dir.file("text.jpg"), {'h', 'e', 'l', 'l', 'o'});
  for (const char* name : {"missing.png", "text.jpg", ""})  // "": the directory itself
    EXPECT_EQ(zarvel_frame_load(dir.file(name).c_str()), nullptr) << name;
  const uint8_t junk[] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (int32_t size : {8, 0, -8}) EXPECT_EQ(zarvel_frame_load_from_memory(junk, size), nullptr);
  EXPECT_EQ(drain(log), LogLines{});
}

// Sides up to 32768 pixels load. PNG headers claiming big images over a few bytes of data are
// refused (the total-pixel limit, or data that cannot fill them); so are binary PGM files with
// every pixel there but one more pixel a side, too many pixels, or sizes beyond the int range.
TEST(CodecLoad, RefusesHeadersBeyondTheLimitsBeforeDecoding) {
  FramePtr wide = decode(make_png(32768, 1, 0, 8, std::vector<uint8_t>(32768, 9)));
  EXPECT_TRUE(wide && wide->width == 32768);
  for (auto [w, h] :
       {std::array{16384u, 16384u}, {32768u, 32768u}, {8192u, 8192u}, {0x7fffffffu, 2u}, {0u, 4u}})
    EXPECT_EQ(decode(make_png(w, h, 0, 8, std::vector<uint8_t>(16, 9))), nullptr) << w << "x" << h;
  for (const char* header : {"P5\n32769 1\n255\n", "P5\n1 32769\n255\n", "P5\n8193 8193\n255\n",
                             "P5\n2147483647 2147483647\n255\n", "P5\n-1 4\n255\n"}) {
    std::vector<uint8_t> file(header, header + std::strlen(header));
    file.resize(file.size() + 32769, 7);
    EXPECT_EQ(decode(file), nullptr) << header;
  }
}

// A progressive grey JPEG of one 8x8 block: quantiser 1, a DC table whose one 1-bit code is
// category 0, a first DC pass and a first AC pass (coefficients 1..63) on AC table `ac`, which
// a DHT defines (one 1-bit code: end of band) only when asked.
std::vector<uint8_t> progressive_jpeg(uint8_t ac, bool define_ac) {
  std::vector<uint8_t> f = {0xFF, 0xD8};
  auto segment = [&f](uint8_t marker, std::vector<uint8_t> body) {
    const size_t length = body.size() + 2;
    f.insert(f.end(), {0xFF, marker, uint8_t(length >> 8), uint8_t(length)});
    f.insert(f.end(), body.begin(), body.end());
  };
  auto huffman = [](uint8_t table, uint8_t symbol) {
    std::vector<uint8_t> body(17, 0);
    body[0] = table;
    body[1] = 1;  // one code of length 1
    body.push_back(symbol);
    return body;
  };
  std::vector<uint8_t> quantiser(65, 1);
  quantiser[0] = 0;
  segment(0xDB, quantiser);
  segment(0xC2, {8, 0, 8, 0, 8, 1, 1, 0x11, 0});
  segment(0xC4, huffman(0x00, 0));
  if (define_ac) segment(0xC4, huffman(0x10 | ac, 0));
  segment(0xDA, {1, 1, 0x00, 0, 0, 0});
  f.push_back(0x00);
  segment(0xDA, {1, 1, ac, 1, 63, 0});
  f.push_back(0x00);
  f.insert(f.end(), {0xFF, 0xD9});
  return f;
}

// A scan that uses a Huffman table no DHT defined would make the decoder read uninitialised
// tables. Tables 0 and 1 have a standard form, which Motion-JPEG frames rely on: the stream
// decodes with it. Tables 2 and 3 have none: the stream is refused before decoding.
TEST(CodecLoad, JpegScansNeedTheirHuffmanTables) {
  FramePtr good = decode(progressive_jpeg(0, true));
  ASSERT_TRUE(good);
  EXPECT_EQ(good->width, 8u);
  EXPECT_EQ(good->plane[0][0], 128);
  EXPECT_EQ(good->plane[0][7 * good->stride[0] + 7], 128);
  EXPECT_NE(decode(progressive_jpeg(0, false)), nullptr);
  EXPECT_NE(decode(progressive_jpeg(2, true)), nullptr);
  EXPECT_EQ(decode(progressive_jpeg(2, false)), nullptr);
}

// A host frame with a smooth pattern, which JPEG keeps close; neighbouring bytes still differ,
// so a lossless format must keep each one.
FramePtr make_frame(uint32_t format, int32_t w, int32_t h) {
  FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
  for_each_row(f.get(), [](uint8_t* row, int64_t n, int plane, int64_t y) {
    for (int64_t x = 0; x < n; ++x) row[x] = static_cast<uint8_t>(20 + 30 * plane + 2 * y + x);
  });
  return f;
}

std::vector<uint8_t> bytes_of(const zarvel_buffer_t* buffer) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(buffer));
  return {p, p + zarvel_buffer_size(buffer)};
}

std::vector<uint8_t> encode(zarvel_frame_t* f, int32_t format, int32_t want_status = 0) {
  za::BufferPtr buffer(zarvel_buffer_alloc(0, ZARVEL_MEM_HOST));
  EXPECT_EQ(zarvel_frame_encode(f, format, buffer.get()), want_status) << format;
  return bytes_of(buffer.get());
}

// The stream without its `marker` segments (DHT: as a Motion-JPEG camera sends its frames),
// and the segments removed.
std::vector<uint8_t> without_segments(const std::vector<uint8_t>& jpeg, uint8_t marker,
                                      std::vector<uint8_t>* removed) {
  std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + 2);
  size_t at = 2;
  while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF && jpeg[at + 1] != 0xDA) {
    const size_t end = at + 2 + (jpeg[at + 2] << 8 | jpeg[at + 3]);
    std::vector<uint8_t>& to = jpeg[at + 1] == marker ? *removed : out;
    to.insert(to.end(), jpeg.begin() + at, jpeg.begin() + end);
    at = end;
  }
  out.insert(out.end(), jpeg.begin() + at, jpeg.end());
  return out;
}

// Our encoder writes the standard Huffman tables, in the segment the decoder adds to streams
// that lack them. Without them the frame decodes, from memory and from a file, to the same
// pixels.
TEST(CodecLoad, MotionJpegFramesWithoutHuffmanTablesDecode) {
  ScratchDir dir;
  FramePtr frame = make_frame(ZARVEL_PIXFMT_RGB24, 37, 21);
  const std::vector<uint8_t> jpeg = encode(frame.get(), kJpeg);
  std::vector<uint8_t> tables;
  const std::vector<uint8_t> bare = without_segments(jpeg, 0xC4, &tables);
  const uint8_t* standard = za::codec::standard_huffman_segment();
  EXPECT_EQ(tables,
            std::vector<uint8_t>(standard, standard + za::codec::kStandardHuffmanSegmentSize));
  FramePtr want = decode(jpeg), from_memory = decode(bare);
  write_file(dir.file("bare.jpg"), bare);
  FramePtr from_file(zarvel_frame_load(dir.file("bare.jpg").c_str()));
  ASSERT_TRUE(want && from_memory && from_file);
  EXPECT_EQ(visible_bytes(from_memory.get()), visible_bytes(want.get()));
  EXPECT_EQ(visible_bytes(from_file.get()), visible_bytes(want.get()));
}

// A file as a camera may present it: `first` until the reader rewinds to the start, `then`
// from there on, each followed by `padding` zero bytes that take no memory. Counts the bytes
// it serves.
struct ChangingFile {
  std::vector<uint8_t> first, then;
  int64_t padding = 0;
  int64_t at = 0, served = 0;
  bool rewound = false;

  std::FILE* open() {
    cookie_io_functions_t io{};
    io.read = [](void* c, char* buf, size_t n) -> ssize_t {
      auto* f = static_cast<ChangingFile*>(c);
      const std::vector<uint8_t>& bytes = f->rewound ? f->then : f->first;
      const int64_t size = static_cast<int64_t>(bytes.size()) + f->padding;
      const auto got = static_cast<size_t>(std::clamp<int64_t>(size - f->at, 0, int64_t(n)));
      for (size_t i = 0; i < got; ++i, ++f->at) {
        buf[i] = f->at < int64_t(bytes.size()) ? static_cast<char>(bytes[f->at]) : 0;
      }
      f->served += static_cast<int64_t>(got);
      return static_cast<ssize_t>(got);
    };
    io.seek = [](void* c, off64_t* offset, int whence) {
      auto* f = static_cast<ChangingFile*>(c);
      const int64_t size = int64_t((f->rewound ? f->then : f->first).size()) + f->padding;
      const int64_t to = *offset + (whence == SEEK_CUR ? f->at : whence == SEEK_END ? size : 0);
      if (to == 0 && f->at > 0) f->rewound = true;
      *offset = f->at = to;
      return 0;
    };
    return fopencookie(this, "rb", io);
  }
};

// A file is decoded from the bytes that were checked: one that turns into a stream the check
// refuses after the first read is refused, not handed to the decoder. Nothing past a JPEG's
// end-of-image marker is read, even for Motion-JPEG frames, which are decoded from memory.
TEST(CodecLoad, FilesAreDecodedFromTheBytesChecked) {
  FramePtr frame = make_frame(ZARVEL_PIXFMT_RGB24, 37, 21);
  const std::vector<uint8_t> jpeg = encode(frame.get(), kJpeg);
  std::vector<uint8_t> tables;
  const std::vector<uint8_t> bare = without_segments(jpeg, 0xC4, &tables);
  const auto load = [](ChangingFile& source, za::codec::DecodedImage* image) {
    std::FILE* file = source.open();
    const bool decoded = za::codec::decode_file(file, image);
    std::fclose(file);
    return decoded;
  };
  za::codec::DecodedImage image;
  ChangingFile changing{jpeg, progressive_jpeg(2, false)};
  EXPECT_FALSE(load(changing, &image));
  EXPECT_STREQ(za::codec::decoder_failure_reason(), "bad header");
  FramePtr want = decode(bare);
  for (const auto& stream : {jpeg, bare}) {
    ChangingFile padded{stream, stream, int64_t{1} << 28};
    ASSERT_TRUE(load(padded, &image));
    EXPECT_EQ(std::vector<uint8_t>(image.pixels, image.pixels + 37 * 21 * 3),
              visible_bytes(want.get()));
    za::codec::decoder_release()(image.pixels);
    EXPECT_LT(padded.served, 2 * int64_t(stream.size()) + 65536);
  }
}

// A stream without quantisation tables decodes as if they were all zero, the same whatever
// the heap held before: the decoder's tables start zeroed.
TEST(CodecLoad, JpegWithoutQuantisationTablesDecodesAsIfTheyWereZero) {
  FramePtr frame = make_frame(ZARVEL_PIXFMT_RGB24, 37, 21);
  const std::vector<uint8_t> jpeg = encode(frame.get(), kJpeg);
  std::vector<uint8_t> tables;
  const std::vector<uint8_t> bare = without_segments(jpeg, 0xDB, &tables);
  // The same segments with every 8-bit quantiser 0, put back after the start-of-image marker.
  for (size_t at = 0; at < tables.size();) {
    const size_t end = at + 2 + (tables[at + 2] << 8 | tables[at + 3]);
    for (size_t t = at + 4; t < end; t += 65) std::fill_n(tables.begin() + t + 1, 64, 0);
    at = end;
  }
  std::vector<uint8_t> zero = bare;
  zero.insert(zero.begin() + 2, tables.begin(), tables.end());
  FramePtr want = decode(zero);
  ASSERT_TRUE(want);
  for (const int fill : {0x5A, 0xC3}) {
    // Freed blocks between kept ones stay in the allocator's free lists with their bytes.
    std::vector<void*> kept;
    for (size_t size = 8192; size <= 65536; size += 256) {
      void* block = std::malloc(size);
      std::memset(block, fill, size);
      kept.push_back(std::malloc(64));
      std::free(block);
    }
    FramePtr got = decode(bare);
    for (void* block : kept) std::free(block);
    ASSERT_TRUE(got);
    EXPECT_EQ(visible_bytes(got.get()), visible_bytes(want.get())) << fill;
  }
}

// Messages at the failure level only: the encoder's progress notes do not count.
LogLines failures(LogCapture& log) {
  LogLines out = drain(log);
  std::erase_if(out, [](const std::string& line) { return line.rfind("4 ", 0) != 0; });
  return out;
}

// Every format but GREY16, whole and as a region view (gaps between rows), from host and
// device memory: the device frame and the saved file give the buffer's bytes; PNG and BMP
// decode to the frame exactly (GREY stays one channel in PNG and takes three in BMP; other
// formats come back as their RGB24 conversion), JPEG (quality 100: every quantiser is 1)
// within 3.
TEST(CodecSave, EveryFormatRoundTripsFromHostAndDeviceWholeAndAsAView) {
  ScratchDir dir;
  LogCapture log;
  // The file name endings choose the format, in any case.
  const char* names[2][3] = {{"a.jpg", "a.bmp", "a.png"}, {"b.JPEG", "b.bMp", ".PNG"}};
  const uint8_t dqt_marker[] = {0xFF, 0xDB};
  for (uint32_t format : kAllFormats) {
    if (format == ZARVEL_PIXFMT_GREY16) continue;
    FramePtr host = make_frame(format, 30, 18), device = to_device(host.get());
    // 4:2:0 regions start and end on even pixels; packed ones need not.
    const Area2D area = za::is_yuv420(format) ? Area2D{4, 2, 16, 10} : Area2D{3, 5, 17, 11};
    FramePtr host_view(zarvel_frame_roi(host.get(), area));
    FramePtr device_view(zarvel_frame_roi(device.get(), area));
    for (auto [h, d] :
         {std::pair{host.get(), device.get()}, {host_view.get(), device_view.get()}}) {
      zarvel_frame_t* rgb = nullptr;
      ASSERT_EQ(zarvel_frame_cvt_color(h, &rgb, ZARVEL_PIXFMT_RGB24), 0);
      const auto as_rgb = visible_bytes(FramePtr(rgb).get());
      for (int32_t image : {kJpeg, kBmp, kPng}) {
        SCOPED_TRACE(testing::Message() << format << " " << h->width << " image " << image);
        const std::vector<uint8_t> bytes = encode(h, image);
        EXPECT_EQ(encode(d, image), bytes);
        const std::string path = dir.file(names[h == host_view.get()][image - 1]);
        ASSERT_EQ(zarvel_frame_save(d, path.c_str()), 0);
        EXPECT_EQ(read_file(path), bytes);
        const bool grey_png = format == ZARVEL_PIXFMT_GREY && image == kPng;
        EXPECT_TRUE(image != kBmp || (bytes.size() > 29 && bytes[28] == 24)) << "bits per pixel";
        const auto dqt = std::search(bytes.begin(), bytes.end(), dqt_marker, dqt_marker + 2);
        EXPECT_TRUE(image != kJpeg ||
                    (bytes.end() - dqt > 134 && std::count(dqt + 5, dqt + 69, 1) == 64 &&
                     std::count(dqt + 70, dqt + 134, 1) == 64));
        FramePtr back = decode(bytes);
        ASSERT_TRUE(back && back->width == h->width &&
                    back->format == (grey_png ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24));
        const auto want = grey_png ? visible_bytes(h) : as_rgb, got = visible_bytes(back.get());
        EXPECT_TRUE(std::equal(want.begin(), want.end(), got.begin(), got.end(), [&](int a, int b) {
          return std::abs(a - b) <= (image == kJpeg ? 3 : 0);
        }));
      }
    }
  }
  EXPECT_EQ(failures(log), LogLines{});
}

// Other endings are refused and create no file.
TEST(CodecSave, OtherEndingsAreRefused) {
  ScratchDir dir;
  LogCapture log;
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 5, 4);
  for (const char* name : {"f.gif", "g", "h.png.txt", "png", "i.jpgx", "k.jpe", "l.jpeg."}) {
    EXPECT_EQ(zarvel_frame_save(src.get(), dir.file(name).c_str()), -1000) << name;
    EXPECT_EQ(failures(log),
              LogLines{"4 aux Unsuppported save format, only support jp[e]g/bmp/png!\n"});
    EXPECT_FALSE(std::filesystem::exists(dir.file(name))) << name;
  }
}

// The format number is checked first, then the frame, then the buffer; a refusal leaves the
// buffer as it was. A successful encode replaces whatever the buffer held.
TEST(CodecEncode, RefusesBadFormatsFramesAndBuffersAndReplacesWhatABufferHeld) {
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 4, 4);
  za::BufferPtr host(zarvel_buffer_alloc(7, ZARVEL_MEM_HOST));
  za::BufferPtr device(zarvel_buffer_alloc(7, ZARVEL_MEM_DEVICE));
  zarvel_buffer_set(host.get(), 0x5A);
  LogCapture log;
  const std::string format = "Unsupported save format, only support JPG/BMP/PNG",
                    buffer = "Invalid buffer, expect a zarvel_buffer with HOST memory!";
  using Call = std::tuple<zarvel_frame_t*, int32_t, zarvel_buffer_t*, int32_t, std::string>;
  for (const auto& [f, image, b, status, message] :
       {Call{src.get(), 4, host.get(), -1000, format}, Call{nullptr, 0, nullptr, -1000, format},
        Call{nullptr, kPng, host.get(), -1, "Invalid input frame!"},
        Call{src.get(), kPng, nullptr, -1, buffer},
        Call{src.get(), kPng, device.get(), -1, buffer}}) {
    EXPECT_EQ(zarvel_frame_encode(f, image, b), status) << message;
    EXPECT_EQ(failures(log), LogLines{"4 aux " + message + "\n"});
    EXPECT_EQ(bytes_of(host.get()), std::vector<uint8_t>(7, 0x5A));
  }
  const std::vector<uint8_t> fresh = encode(src.get(), kJpeg);
  for (int64_t held : {int64_t{3}, int64_t{1} << 20}) {
    ASSERT_EQ(zarvel_buffer_resize(host.get(), held), 0);
    ASSERT_EQ(zarvel_frame_encode(src.get(), kJpeg, host.get()), 0);
    EXPECT_EQ(bytes_of(host.get()), fresh) << held;
  }
}

// Frames the writer cannot take give -4 with a message, an empty buffer and no file: 16-bit
// grey has no conversion to RGB24, and JPEG stores each side in 16 bits.
TEST(CodecSave, WriterFailuresReturnMinus4AndLeaveNothingBehind) {
  ScratchDir dir;
  LogCapture log;
  FramePtr grey16(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY16, 6, 4, nullptr, 0));
  FramePtr long_row = make_frame(ZARVEL_PIXFMT_GREY, 65536, 1);
  for (auto [frame, image] : {std::pair{grey16.get(), kPng}, std::pair{long_row.get(), kJpeg}}) {
    EXPECT_TRUE(encode(frame, image, -4).empty());
    const LogLines m = failures(log);
    EXPECT_TRUE(!m.empty() && m.back() == "4 aux Monochrome frame serialize failed error!\n");
    const std::string path = dir.file(image == kPng ? "refused.png" : "refused.jpg");
    EXPECT_EQ(zarvel_frame_save(frame, path.c_str()), -4);
    EXPECT_FALSE(std::filesystem::exists(path));
  }
}

// Truncated files of every written format give null or a frame of the written size, and
// corrupted ones null or a frame within the limits; the sanitizer build checks that no byte
// outside the data is read. A PNG may lack only its closing 12-byte IEND chunk.
TEST(CodecLoad, TruncatedAndCorruptedFilesOfEveryFormat) {
  FramePtr src = make_frame(ZARVEL_PIXFMT_RGB24, 13, 11);
  for (int32_t image : {kJpeg, kBmp, kPng}) {
    const std::vector<uint8_t> bytes = encode(src.get(), image);
    for (size_t n = 0; n < bytes.size(); n += 1 + n / 64) {
      FramePtr f = decode(std::vector<uint8_t>(bytes.begin(), bytes.begin() + n));
      EXPECT_TRUE(image != kPng || n >= bytes.size() - 12 || !f) << image << " " << n;
      EXPECT_TRUE(!f || (f->width == 13 && f->height == 11)) << image << " " << n;
    }
    uint32_t rng = 777u + image;
    for (int trial = 0; trial < 300; ++trial) {
      std::vector<uint8_t> bad = bytes;
      for (int k = 0; k < 1 + trial % 3; ++k) {
        rng = rng * 1664525u + 1013904223u;
        bad[(rng >> 8) % bad.size()] = static_cast<uint8_t>(rng >> 24);
      }
      FramePtr f = decode(bad);
      EXPECT_TRUE(!f || int64_t{f->width} * f->height <= int64_t{1} << 26) << image;
    }
  }
}

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
  // Length 258 (symbol 285, code 0xC5) at distance 1 (code 0), both codes most significant
  // bit first.
  for (int i = 0; i < matches; ++i) put(0xC5 << 5, 13, true);
  put(0, 7, true);                  // end of block
  z.insert(z.end(), {0, 0, 0, 0});  // checksum (not what it should be)
  return z;
}

// A bomb whose image data inflates to 64 MiB and a chunk claiming a gigabyte, both behind a
// 16x16 grey header, must stop at the size the image can need; the same image, honestly
// encoded, still loads with small allocations.
TEST(CodecAllocLimit, HostileImagesStopAtTheClaimedImageSize) {
  const std::vector<uint8_t> honest = make_png(16, 16, 0, 8, std::vector<uint8_t>(256));
  std::vector<uint8_t> bomb(honest.begin(), honest.begin() + 33);  // signature and IHDR
  std::vector<uint8_t> claim = bomb;
  png_chunk(bomb, "IDAT", zlib_bomb(64 * 4096));
  png_chunk(bomb, "IEND", {});
  ASSERT_LT(bomb.size(), 1u << 20);
  png_chunk(claim, "IDAT", {0x78, 0x01}, (1u << 30) - 1);
  const std::vector<uint8_t> pngs[] = {bomb, claim, honest};
  for (int i = 0; i < 3; ++i) {
    g_largest = 0;
    EXPECT_EQ(decode(pngs[i]) != nullptr, i == 2) << i;
    EXPECT_LT(g_largest, size_t{i == 2 ? 1u : 4u} << 20) << i;
  }
}

}  // namespace
