// Frames into tensors and back. zarvel_frame_to_tensor against a per-sample formula model
// over random frames, colour types, element types, offsets and strided tensors; its pairing
// refusals, pinned parameter orders and pads, statuses and device frames. The vector row
// kernels byte-identical to the scalar rows. zarvel_tensor_to_frames: dense planar reads of
// one item, sample-to-byte conversion, refusals, and round trips.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"
#include "guarded_buffer.h"
#include "op_test_support.h"
#include "plugin/device_api.h"
#include "tensor/to_tensor_kernels.h"

namespace {

namespace tt = zarvel::aux::to_tensor;
using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;
using zarvel::test::LogCapture;
using zarvel::test::visible_bytes;

constexpr float kMean[3] = {0, 0, 0}, kStd[3] = {1, 1, 1}, kPad[3] = {0, 0, 0};

// A host frame with `extra` bytes of padding after each row, random bytes throughout.
FramePtr random_frame(std::mt19937& rng, uint32_t format, int32_t w, int32_t h, int32_t extra) {
  const int32_t strides[4] = {w * zarvel_frame_pixel_size(format) + extra, 0, 0, 0};
  FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, strides, 0));
  if (f) zarvel::test::fill_random(f.get(), rng);
  return f;
}

std::vector<uint8_t> bytes_of(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return {p, p + zarvel_buffer_size(t->buffer)};
}

// The bytes of sample (plane c, row y, column x) of an item written from frame f: the pixel's
// R, G, B or luma picked by colour type (BGR tensors take the entries of mean, std and pad
// backwards, grey tensors the middle ones), normalised in float tensors; the pad outside the
// frame, as its truncated low byte in 8-bit tensors.
std::array<uint8_t, 4> model_sample(const zarvel_frame_t* f, uint32_t ct, uint32_t elem,
                                    const float* mean, const float* std, const float* pad, int c,
                                    int32_t y, int32_t x) {
  const int e = ct == 2 ? 1 : ct == 0 ? 2 - c : c;
  float v = pad[e];
  if (x < f->width && y < f->height) {
    const bool grey = f->format == ZARVEL_PIXFMT_GREY, bgr = f->format == ZARVEL_PIXFMT_BGR24;
    const uint8_t* px = f->plane[0] + int64_t{y} * f->stride[0] + x * (grey ? 1 : 3);
    const int rgb[3] = {px[bgr ? 2 : 0], px[grey ? 0 : 1], px[grey ? 0 : bgr ? 0 : 2]};
    const int p = ct != 2 ? rgb[e]
                  : grey  ? rgb[0]
                          : int(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]);
    if (elem == ZARVEL_ELEM_U8) return {static_cast<uint8_t>(p)};
    // Grey divides unless mean 0 and std 1 leave the value; colour multiplies by 1 / std.
    if (ct == 2) v = mean[1] == 0.0f && std[1] == 1.0f ? float(p) : (float(p) - mean[1]) / std[1];
    if (ct != 2) v = (float(p) - mean[e]) * (1.0f / std[e]);
  } else if (elem == ZARVEL_ELEM_U8) {
    return {static_cast<uint8_t>(static_cast<int64_t>(std::trunc(v)) & 0xFF)};
  }
  std::array<uint8_t, 4> s;
  std::memcpy(s.data(), &v, 4);
  return s;
}

// Random frames into random items of dense tensors and of region views of larger tensors,
// checked sample by sample against the model, with every byte outside the item unchanged.
// Some frames are on the device: they are downloaded, with a note.
TEST(FrameToTensor, MatchesTheSampleModelWithScalarAndVectorKernels) {
  std::mt19937 rng(7);
  const uint32_t formats[3] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
  const std::string note =
      "[frame_utils_cpu_to_tensor] Memory type not match between frame and tensor, will follow "
      "tensor memory type: host.\n";
  LogCapture log;
  for (uint32_t mask : {0u, ~0u}) {
    zarvel::test::FeatureMask features(mask);
    for (int iter = 0; iter < 400; ++iter) {
      const uint32_t ct = rng() % 3, format = formats[rng() % (ct == 2 ? 3 : 2)];
      const uint32_t elem = rng() % 2 ? ZARVEL_ELEM_F32 : ZARVEL_ELEM_U8;
      const int32_t W = 1 + rng() % 48, H = 1 + rng() % 6, planes = ct == 2 ? 1 : 3;
      // Frames narrower, equal or wider than the item, with tight or padded rows.
      const int32_t fw = rng() % 3 == 0 ? W : 1 + rng() % 56, fh = 1 + rng() % 8;
      FramePtr frame = random_frame(rng, format, fw, fh, rng() % 2 ? 0 : rng() % 5);
      const bool view = rng() % 2;
      const int32_t dw = view ? rng() % 3 : 0, dh = view ? rng() % 2 : 0, item = rng() % 3;
      TensorPtr parent(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 3, planes + 1, H + dh, W + dw));
      const int32_t start[4] = {view ? item : 0, view ? 1 : 0, dh, dw};
      const int32_t shape[4] = {view ? 1 : 3, planes, H, W};
      TensorPtr tensor(zarvel_tensor_roi(parent.get(), start, shape));
      ASSERT_TRUE(frame && tensor);
      auto* raw = static_cast<uint8_t*>(zarvel_buffer_raw_pointer(parent->buffer));
      for (int64_t i = 0; i < zarvel_buffer_size(parent->buffer); ++i) raw[i] = rng();
      std::vector<uint8_t> expected = bytes_of(parent.get());
      float mean[3], std[3], pad[3];
      const bool identity = rng() % 4 == 0;
      for (int k = 0; k < 3; ++k) {
        mean[k] = identity ? 0.0f : static_cast<float>(rng() % 4000) / 16.0f - 20.0f;
        std[k] = identity ? 1.0f : 0.25f + static_cast<float>(rng() % 1000) / 10.0f;
        pad[k] = static_cast<float>(static_cast<int>(rng() % 2000) - 1000) / 3.0f;
      }
      const auto offset =
          static_cast<int32_t>(view ? 0 : zarvel_tensor_calc_offset(tensor.get(), item, 0, 0, 0));
      const bool device = iter % 16 == 0;
      FramePtr source = device ? zarvel::test::to_device(frame.get()) : nullptr;
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, ct,
                                       device ? source.get() : frame.get(), mean, std, pad),
                0);
      log.expect(device ? std::vector<LogCapture::Expected>{{0, "aux.host", note}}
                        : std::vector<LogCapture::Expected>{});
      const int64_t size = elem == ZARVEL_ELEM_F32 ? 4 : 1;
      for (int c = 0; c < planes; ++c)
        for (int32_t y = 0; y < H; ++y)
          for (int32_t x = 0; x < W; ++x)
            std::memcpy(&expected[size * (tensor->offset + offset + c * tensor->stride[1] +
                                          y * tensor->stride[2] + x)],
                        model_sample(frame.get(), ct, elem, mean, std, pad, c, y, x).data(), size);
      ASSERT_EQ(bytes_of(parent.get()), expected)
          << "iter " << iter << " ct " << ct << " elem " << elem << " frame " << fw << "x" << fh
          << " item " << W << "x" << H << " view " << view;
    }
  }
}

TEST(FrameToTensor, PairingOfColourTypesAndFormats) {
  auto message = [](const char* head, uint32_t format) {
    return std::string("[zarvel_frame_to_tensor] ") + head +
           " frame, given frame's format: " + zarvel_frame_pixfmt_to_string(format) + "\n";
  };
  TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 2, 4));
  for (uint32_t format : zarvel::test::kAllFormats) {
    FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 4, 2, nullptr, 0));
    const bool packed = format == ZARVEL_PIXFMT_RGB24 || format == ZARVEL_PIXFMT_BGR24;
    for (uint32_t ct : {0u, 1u, 2u, 3u, 77u}) {
      std::string want;  // empty: accepted
      if (ct <= 1 && !packed) want = message("RGB/GBR tensor needs RGB/BGR", format);
      if (ct == 2 && !packed && format != ZARVEL_PIXFMT_GREY)
        want = message("GRAY tensor needs RGB/BGR/GRAY", format);
      if (ct > 2)
        want = "[zarvel_frame_to_tensor] Unknown tensor color type: " + std::to_string(ct) + "\n";
      LogCapture log;
      EXPECT_EQ(zarvel_frame_to_tensor(tensor.get(), 0, ct, frame.get(), kMean, kStd, kPad),
                want.empty() ? 0 : -1000)
          << format << " " << ct;
      log.expect(want.empty() ? std::vector<LogCapture::Expected>{}
                              : std::vector<LogCapture::Expected>{{4, "aux", want}});
    }
  }
}

// One pixel R=10, G=20, B=30 (GREY: 100) in the format's byte order, written into a 2x2 item:
// plane 0 of a BGR tensor takes the third entries of mean, std and pad, of an RGB tensor the
// first, and a grey tensor the middle ones. 8-bit tensors take the raw bytes whatever mean
// and std say, and the low byte of each truncated pad: 256 -> 0, -1 -> 255, 300 -> 44.
TEST(FrameToTensor, PinnedParameterOrderAndPads) {
  const float mean[3] = {1, 2, 3}, std[3] = {1, 4, 2}, pad[3] = {7, 8, 9};
  const float mean8[3] = {std::nanf(""), 127.5f, 127.5f}, std8[3] = {1, 128, 128};
  const float pad8[3] = {256, -1, 300};
  const float luma = int(0.299 * 10 + 0.587 * 20 + 0.114 * 30);
  const uint32_t rgb = ZARVEL_PIXFMT_RGB24, bgr = ZARVEL_PIXFMT_BGR24, f32 = ZARVEL_ELEM_F32;
  const struct {
    uint32_t format, ct, elem;
    const float *mean, *std, *pad;
    std::vector<float> want;
  } cases[] = {
      {rgb, 0, f32, mean, std, pad, {13.5f, 9, 9, 9, 4.5f, 8, 8, 8, 9, 7, 7, 7}},
      {rgb, 1, f32, mean, std, pad, {9, 7, 7, 7, 4.5f, 8, 8, 8, 13.5f, 9, 9, 9}},
      {ZARVEL_PIXFMT_GREY, 2, f32, mean, std, pad, {24.5f, 8, 8, 8}},
      {bgr, 1, ZARVEL_ELEM_U8, mean8, std8, pad8, {10, 0, 0, 0, 20, 255, 255, 255, 30, 44, 44, 44}},
      {rgb, 2, ZARVEL_ELEM_U8, mean8, std8, pad8, {luma, 255, 255, 255}}};
  for (const auto& c : cases) {
    FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, c.format, 1, 1, nullptr, 0));
    const uint8_t px[3] = {uint8_t(c.format == rgb   ? 10
                                   : c.format == bgr ? 30
                                                     : 100),
                           20, uint8_t(c.format == bgr ? 10 : 30)};
    std::memcpy(frame->plane[0], px, zarvel_frame_pixel_size(c.format));
    TensorPtr t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, c.elem, 1, c.ct == 2 ? 1 : 3, 2, 2));
    ASSERT_EQ(zarvel_frame_to_tensor(t.get(), 0, c.ct, frame.get(), c.mean, c.std, c.pad), 0);
    std::vector<uint8_t> want;
    for (const float& v : c.want) {
      if (c.elem == f32) want.insert(want.end(), (const uint8_t*)&v, (const uint8_t*)&v + 4);
      if (c.elem != f32) want.push_back(static_cast<uint8_t>(v));
    }
    EXPECT_EQ(bytes_of(t.get()), want) << c.format << " " << c.ct;
  }
}

// Statuses of the refusals, which leave the tensor untouched: no pixel data -1; a device
// tensor or an element type other than U8 and F32 -1000; an item reaching past the tensor's
// data -1, logged by the host slot; and the host slot's own format check.
TEST(FrameToTensor, RefusalsLeaveTheTensorUntouched) {
  FramePtr rgb(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 1, 1, nullptr, 0));
  zarvel_frame_t no_data = *rgb;
  no_data.plane[0] = nullptr;
  TensorPtr u8(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 1, 3, 2, 2));
  TensorPtr s8(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 2, 2));
  TensorPtr device(zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 3, 2, 2));
  std::memset(zarvel_tensor_raw_pointer(s8.get()), 0x5A, 12);
  auto call = [](const TensorPtr& t, int32_t offset, uint32_t ct, zarvel_frame_t* f) {
    return zarvel_frame_to_tensor(t.get(), offset, ct, f, kMean, kStd, kPad);
  };
  LogCapture log;
  EXPECT_EQ(call(u8, 0, 1, &no_data), -1);
  EXPECT_EQ(call(device, 0, 1, rgb.get()), -1000);
  for (uint32_t ct : {1u, 2u}) EXPECT_EQ(call(s8, 0, ct, rgb.get()), -1000);  // both writers
  log.expect({});
  for (int32_t offset : {1, -1}) EXPECT_EQ(call(u8, offset, 1, rgb.get()), -1);
  ASSERT_EQ(log.messages().size(), 2u);
  EXPECT_EQ(log.messages()[1].tag, "aux.host");
  log.clear();
  EXPECT_EQ(bytes_of(s8.get()), std::vector<uint8_t>(12, 0x5A));
  EXPECT_EQ(bytes_of(u8.get()), std::vector<uint8_t>(12, 0));
  FramePtr grey(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 1, 1, nullptr, 0));
  const auto host_to_tensor = zarvel::aux::host_device_api().to_tensor;
  for (uint32_t ct : {1u, 9u})
    EXPECT_EQ(host_to_tensor(u8.get(), 0, ct, grey.get(), kMean, kStd, kPad), -1000);
  log.expect({{4, "aux.host",
               "[frame_utils_cpu_to_tensor] Writing a frame in format [GREY] into a tensor is not "
               "supported!\n"}});
}

// The scalar blocks (which do nothing) and the vector ones, or false without AVX2.
bool block_kernels(tt::BlockKernels k[2]) {
  if (!(zarvel::aux::cpu_features() & zarvel::aux::kCpuAvx2)) return false;
  for (int v = 0; v < 2; ++v) {
    zarvel::test::FeatureMask mask(v ? ~0u : 0u);
    k[v] = tt::select_block_kernels();
  }
  return true;
}

// Runs a row with the scalar and the vector blocks into sentinel-filled planes (n samples
// plus a tail that must stay as it was): the bytes must be identical.
template <typename T, typename Row>
void expect_same_rows(const tt::BlockKernels k[2], int64_t n, int planes, Row row) {
  static std::vector<T> out[2];  // kept between calls: the exhaustive test makes many
  for (int v = 0; v < 2; ++v) {
    out[v].resize(static_cast<size_t>(planes * (n + 4)));
    std::memset(out[v].data(), 0xA5, out[v].size() * sizeof(T));
    T* dst[3] = {out[v].data(), out[v].data() + (n + 4), out[v].data() + 2 * (n + 4)};
    row(k[v], dst);
  }
  ASSERT_EQ(std::memcmp(out[0].data(), out[1].data(), out[0].size() * sizeof(T)), 0) << n;
}

// All lengths around the block size, unaligned starts, sources ending at a guard page, and
// parameters including NaN, zero and negative-zero deviations.
TEST(ToTensorKernels, VectorRowsEqualScalarRows) {
  tt::BlockKernels k[2];
  if (!block_kernels(k)) GTEST_SKIP() << "no AVX2";
  std::mt19937 rng(5);
  const float nan = std::nanf("");
  const float params[][3] = {{0, 0, 0},   {1, 1, 1}, {12.5f, -3, 255}, {0.3f, 57.1f, 1e-3f},
                             {nan, 0, 1}, {0, 0, 0}};
  const float stds[][3] = {{1, 1, 1},        {1, 1, 1},   {64, 0.7f, 3},
                           {0, 1e30f, 5.5f}, {1, nan, 1}, {-0.0f, 3, 1}};
  std::vector<int64_t> lengths = {70, 301};
  for (int64_t n = 0; n <= 2 * tt::kBlockPixels + 1; ++n) lengths.push_back(n);
  for (const int64_t n : lengths) {
    for (int start = 0; start < 3; ++start) {
      zarvel::test::GuardedBuffer packed(static_cast<size_t>(3 * n + start));
      for (int64_t i = 0; i < 3 * n + start; ++i) packed.data()[i] = static_cast<uint8_t>(rng());
      const uint8_t* src = packed.data() + start;
      for (size_t p = 0; p < std::size(params); ++p) {
        const float *m = params[p], *s = stds[p];
        const float r[3] = {1.0f / s[0], 1.0f / s[1], 1.0f / s[2]};
        const bool identity =
            m[0] == 0 && m[1] == 0 && m[2] == 0 && s[0] == 1 && s[1] == 1 && s[2] == 1;
        expect_same_rows<float>(
            k, n, 3, [&](auto& b, float** d) { tt::packed_f32_row(b, src, n, d, m, r); });
        expect_same_rows<uint8_t>(k, n, 3, [&](auto& b, uint8_t** d) {
          tt::packed_u8_row(b, src, n, d, identity, m, r);
        });
        for (int r_byte : {0, 2})
          expect_same_rows<float>(k, n, 1, [&](auto& b, float** d) {
            tt::luma_f32_row(b, src, n, r_byte, d[0], m[1], s[1]);
          });
        expect_same_rows<float>(
            k, n, 1, [&](auto& b, float** d) { tt::grey_f32_row(b, src, n, d[0], m[0], s[0]); });
      }
      expect_same_rows<uint8_t>(k, n, 1, [&](auto& b, uint8_t** d) {
        tt::luma_u8_row(b, src, n, start == 1 ? 2 : 0, d[0]);
      });
      if (HasFatalFailure()) return;
    }
  }
}

// Every RGB triple, red byte first; BGR order only moves the red byte, covered above.
TEST(ToTensorKernels, LumaRowsAgreeOnEveryTriple) {
  tt::BlockKernels k[2];
  if (!block_kernels(k)) GTEST_SKIP() << "no AVX2";
  constexpr int64_t kRow = 1 << 16;
  std::vector<uint8_t> src(3 * kRow);
  for (int r = 0; r < 256; ++r) {
    for (int64_t i = 0; i < kRow; ++i) {
      src[3 * i] = static_cast<uint8_t>(r);
      src[3 * i + 1] = static_cast<uint8_t>(i >> 8);
      src[3 * i + 2] = static_cast<uint8_t>(i);
    }
    expect_same_rows<uint8_t>(
        k, kRow, 1, [&](auto& b, uint8_t** d) { tt::luma_u8_row(b, src.data(), kRow, 0, d[0]); });
    expect_same_rows<float>(k, kRow, 1, [&](auto& b, float** d) {
      tt::luma_f32_row(b, src.data(), kRow, 0, d[0], 0.0f, 1.0f);
    });
    expect_same_rows<float>(k, kRow, 1, [&](auto& b, float** d) {
      tt::luma_f32_row(b, src.data(), kRow, 0, d[0], 16.5f, 3.3f);
    });
    if (HasFatalFailure()) return;
  }
}

// Item 1 of a 2x3x4x5 tensor is elements 60..119: planes R, G, B of 4 rows of 5. 8-bit
// samples (signed ones too) are the bytes; float samples, on the host or the device, give the
// low byte of their truncation: 255.9 -> 255, 300 -> 44, -0.5 -> 0, 256.7 -> 0, -1 -> 255.
TEST(TensorToFrames, ReadsItemIndexAsDensePlanes) {
  const float specials[6] = {255.9f, 300.0f, -0.5f, 256.7f, -1.0f, 17.99f};
  const uint8_t special_bytes[6] = {255, 44, 0, 0, 255, 17};
  for (auto [elem, mem] : {std::pair{ZARVEL_ELEM_U8, ZARVEL_MEM_HOST},
                           {ZARVEL_ELEM_S8, ZARVEL_MEM_HOST},
                           {ZARVEL_ELEM_F32, ZARVEL_MEM_HOST},
                           {ZARVEL_ELEM_F32, ZARVEL_MEM_DEVICE}}) {
    TensorPtr host(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 2, 3, 4, 5));
    auto* data = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(host.get()));
    std::vector<uint8_t> want(60);
    for (int i = 0; i < 120; ++i) {
      const bool special = elem == ZARVEL_ELEM_F32 && i >= 60 && i < 66;
      const float f = special ? specials[i - 60] : static_cast<float>(i) + 0.5f;
      if (elem == ZARVEL_ELEM_F32) std::memcpy(data + 4 * i, &f, 4);
      if (elem != ZARVEL_ELEM_F32) data[i] = static_cast<uint8_t>(i);
      if (i >= 60) want[3 * ((i - 60) % 20) + (i - 60) / 20] = special ? special_bytes[i - 60] : i;
    }
    TensorPtr tensor(zarvel_tensor_alloc(mem, elem, 2, 3, 4, 5));
    ASSERT_EQ(zarvel_tensor_copy(host.get(), tensor.get()), 0);
    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(zarvel_tensor_to_frames(tensor.get(), 1, 1, &out), 0);
    FramePtr frame(out);
    EXPECT_EQ(frame->format, ZARVEL_PIXFMT_RGB24);
    EXPECT_EQ(std::pair(frame->width, frame->height), std::pair(5, 4));
    EXPECT_EQ(visible_bytes(frame.get()), want) << elem << " " << mem;
  }
}

TEST(TensorToFrames, RefusalsAndTheirStatuses) {
  TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 1, 3, 2, 2));
  zarvel_frame_t* const kUntouched = reinterpret_cast<zarvel_frame_t*>(0x1234);
  zarvel_frame_t* out = kUntouched;
  LogCapture log;
  EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), 3, 0, &out), 75);
  log.expect({{4, "aux", "Not support tensor color type: 3\n"}});
  // Reads and writes that would leave the tensor's data or the frame's pixels are refused.
  // {1, 1}, {1, -1}: past the data; {2, 0}: 3 channels into 1-byte pixels.
  for (auto [ct, index] : {std::pair{1, 1}, {1, -1}, {2, 0}})
    EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), ct, index, &out), 75) << ct << " " << index;
  EXPECT_EQ(out, kUntouched);
  // An unknown element type succeeds with a null frame.
  log.clear();
  tensor->elem_type = 7;
  EXPECT_EQ(zarvel_tensor_to_frames(tensor.get(), 0, 0, &out), 0);
  EXPECT_EQ(out, nullptr);
  log.expect({{4, "aux", "Not support tensor element type: 7\n"}});
  tensor->elem_type = ZARVEL_ELEM_U8;  // freed as what it was allocated as
}

// frame -> tensor -> frame gives back the frame's bytes (channels swapped when the frame's
// byte order is not the tensor's), for 8-bit and float tensors.
TEST(TensorToFrames, RoundTripsThroughFrameToTensor) {
  const struct {
    uint32_t ct, in, out;
  } cases[] = {{0, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_BGR24},
               {1, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_RGB24},
               {1, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_RGB24},
               {2, ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_GREY}};
  std::mt19937 rng(11);
  for (const auto& c : cases) {
    for (uint32_t elem : {ZARVEL_ELEM_U8, ZARVEL_ELEM_F32}) {
      const int32_t w = 1 + rng() % 40, h = 1 + rng() % 5;
      FramePtr frame = random_frame(rng, c.in, w, h, 3);
      TensorPtr tensor(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, 2, c.ct == 2 ? 1 : 3, h, w));
      const auto offset = static_cast<int32_t>(zarvel_tensor_calc_offset(tensor.get(), 1, 0, 0, 0));
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, c.ct, frame.get(), kMean, kStd, kPad),
                0);
      zarvel_frame_t* out = nullptr;
      ASSERT_EQ(zarvel_tensor_to_frames(tensor.get(), c.ct, 1, &out), 0);
      FramePtr back(out);
      ASSERT_EQ(back->format, c.out);
      std::vector<uint8_t> want = visible_bytes(frame.get());
      for (size_t i = 0; c.in != c.out && i < want.size(); i += 3) std::swap(want[i], want[i + 2]);
      EXPECT_EQ(visible_bytes(back.get()), want) << c.ct << " " << elem;
    }
  }
}

}  // namespace
