// Frames into tensors and back. zarvel_frame_to_tensor against a per-sample formula model over
// random frames, colour types, element types, offsets and strided tensors, each dense item read
// back with zarvel_tensor_to_frames (from the host or the device); the pairings, statuses and
// messages of both. The vector row kernels byte-identical to the scalar rows. One-call
// preprocessing: the fused region-resize path against crop, resize and to-tensor composed, and
// the modes, statuses, messages and scale outputs of both transform exports.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <algorithm>
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
using namespace zarvel::test;

constexpr float kMean[3] = {0, 0, 0}, kStd[3] = {1, 1, 1}, kPad[3] = {0, 0, 0};

// A host frame with `extra` bytes of padding after each row, random bytes throughout.
FramePtr random_frame(std::mt19937& rng, uint32_t format, int32_t w, int32_t h, int32_t extra = 0) {
  const int32_t strides[4] = {w * zarvel_frame_pixel_size(format) + extra, 0, 0, 0};
  FramePtr f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, strides, 0));
  if (f) fill_random(f.get(), rng);
  return f;
}
TensorPtr host_tensor(uint32_t elem, int n, int c, int h, int w) {
  return TensorPtr(zarvel_tensor_alloc(ZARVEL_MEM_HOST, elem, n, c, h, w));
}
std::vector<uint8_t> bytes_of(const zarvel_tensor_t* t) {
  const auto* p = static_cast<const uint8_t*>(zarvel_buffer_raw_pointer(t->buffer));
  return {p, p + zarvel_buffer_size(t->buffer)};
}

// Sample (plane c, row y, column x) of an item written from frame f: the pixel's R, G, B or
// luma picked by colour type (BGR tensors take the entries of mean, std and pad backwards, grey
// tensors the middle ones), normalised in float tensors; the pad outside the frame, as its
// truncated low byte in 8-bit tensors.
float model_sample(const zarvel_frame_t* f, uint32_t ct, uint32_t elem, const float* mean,
                   const float* std, const float* pad, int c, int32_t y, int32_t x) {
  const int e = ct == 2 ? 1 : ct == 0 ? 2 - c : c;
  const bool u8 = elem == ZARVEL_ELEM_U8, grey = f->format == ZARVEL_PIXFMT_GREY,
             bgr = f->format == ZARVEL_PIXFMT_BGR24;
  if (x >= f->width || y >= f->height)
    return u8 ? float(static_cast<int64_t>(std::trunc(pad[e])) & 0xFF) : pad[e];
  const uint8_t* px = f->plane[0] + int64_t{y} * f->stride[0] + x * (grey ? 1 : 3);
  const int rgb[3] = {px[bgr ? 2 : 0], px[grey ? 0 : 1], px[grey ? 0 : bgr ? 0 : 2]};
  const int p = ct != 2 ? rgb[e]
                : grey  ? rgb[0]
                        : int(0.299 * rgb[0] + 0.587 * rgb[1] + 0.114 * rgb[2]);
  if (u8) return p;
  // Grey divides unless mean 0 and std 1 leave the value; colour multiplies by 1 / std.
  if (ct == 2) return mean[1] == 0.0f && std[1] == 1.0f ? float(p) : (float(p) - mean[1]) / std[1];
  return (float(p) - mean[e]) * (1.0f / std[e]);
}

// Random frames (narrower, equal or wider than the item, tight or padded rows) into random
// items of dense tensors and of region views of larger tensors, checked sample by sample
// against the model, with every byte outside the item unchanged. 8-bit tensors take the raw
// bytes whatever mean and std say; the pads include 256 -> 0, -1 -> 255 and 300 -> 44.
TEST(FrameToTensor, MatchesTheSampleModelWithScalarAndVectorKernels) {
  std::mt19937 rng(7);
  const uint32_t formats[3] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
  for (uint32_t mask : {0u, ~0u}) {
    FeatureMask features(mask);
    for (int iter = 0; iter < 400; ++iter) {
      const uint32_t ct = rng() % 3, format = formats[rng() % (ct == 2 ? 3 : 2)];
      const uint32_t elem = rng() % 2 ? ZARVEL_ELEM_F32 : ZARVEL_ELEM_U8;
      const int32_t W = 1 + rng() % 48, H = 1 + rng() % 6, planes = ct == 2 ? 1 : 3;
      const int32_t fw = rng() % 3 == 0 ? W : 1 + rng() % 56, fh = 1 + rng() % 8;
      FramePtr frame = random_frame(rng, format, fw, fh, rng() % 2 ? 0 : rng() % 5);
      const bool view = rng() % 2;
      const int32_t dw = view ? rng() % 3 : 0, dh = view ? rng() % 2 : 0, item = rng() % 3;
      TensorPtr parent = host_tensor(elem, 3, planes + view, H + dh, W + dw);
      const int32_t start[4] = {view ? item : 0, view ? 1 : 0, dh, dw},
                    shape[4] = {view ? 1 : 3, planes, H, W};
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
        pad[k] = rng() % 4 ? static_cast<float>(static_cast<int>(rng() % 2000) - 1000) / 3.0f
                           : std::array{256.0f, -1.0f, 300.0f}[k];
      }
      const int32_t offset = view ? 0 : item * int32_t(tensor->stride[0]);  // item's first element
      ASSERT_EQ(zarvel_frame_to_tensor(tensor.get(), offset, ct, frame.get(), mean, std, pad), 0);
      std::vector<uint8_t> back_want(planes * H * W);
      const int64_t size = elem == ZARVEL_ELEM_F32 ? 4 : 1;
      for (int64_t i = 0; i < planes * H * W; ++i) {
        const int c = i / (H * W), y = i / W % H, x = i % W;
        const float v = model_sample(frame.get(), ct, elem, mean, std, pad, c, y, x);
        const uint8_t byte = static_cast<int64_t>(std::trunc(v)) & 0xFF;
        const int64_t at =
            tensor->offset + offset + c * tensor->stride[1] + y * tensor->stride[2] + x;
        std::memcpy(&expected[size * at], size == 4 ? static_cast<const void*>(&v) : &byte, size);
        back_want[(y * W + x) * planes + c] = byte;
      }
      ASSERT_EQ(bytes_of(parent.get()), expected) << "iter " << iter;
      // Read back from a dense tensor, on the host or on the device, the item is a frame of the
      // samples, channels interleaved in plane order; float samples give the low byte of their
      // truncation (255.9 -> 255, 300 -> 44, -0.5 -> 0, 256 -> 0, -1 -> 255).
      if (view) continue;
      TensorPtr device(iter % 8 ? nullptr
                                : zarvel_tensor_alloc(ZARVEL_MEM_DEVICE, elem, 3, planes, H, W));
      ASSERT_TRUE(!device || zarvel_tensor_copy(tensor.get(), device.get()) == 0);
      zarvel_frame_t* out = nullptr;
      ASSERT_EQ(zarvel_tensor_to_frames(device ? device.get() : tensor.get(), ct, item, &out), 0);
      FramePtr back(out);
      ASSERT_EQ(visible_bytes(back.get()), back_want) << "iter " << iter;
    }
  }
}

// Every pairing of colour type and frame format, accepted or refused with its message.
// Statuses of the other refusals, which leave the tensor untouched: no pixel data -1; a device
// tensor or an element type other than U8 and F32 -1000; an item reaching past the tensor's
// data -1; and the host slot's own format check. A device frame is downloaded, with a note.
TEST(FrameToTensor, PairingsRefusalsAndNotes) {
  FramePtr rgb(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 1, 1, nullptr, 0));
  zarvel_frame_t no_data = *rgb;
  no_data.plane[0] = nullptr;
  TensorPtr u8 = host_tensor(ZARVEL_ELEM_U8, 1, 3, 2, 2),
            s8 = host_tensor(ZARVEL_ELEM_S8, 1, 3, 2, 2);
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
  log.clear();
  EXPECT_EQ(bytes_of(s8.get()), std::vector<uint8_t>(12, 0x5A));
  EXPECT_EQ(bytes_of(u8.get()), std::vector<uint8_t>(12, 0));
  auto message = [](const char* head, uint32_t format) {
    return std::string("[zarvel_frame_to_tensor] ") + head +
           " frame, given frame's format: " + zarvel_frame_pixfmt_to_string(format) + "\n";
  };
  for (uint32_t format : kAllFormats) {
    FramePtr frame(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 2, 2, nullptr, 0));
    const bool packed = format == ZARVEL_PIXFMT_RGB24 || format == ZARVEL_PIXFMT_BGR24;
    for (uint32_t ct : {0u, 1u, 2u, 3u, 77u}) {
      std::string want;  // empty: accepted
      if (ct <= 1 && !packed) want = message("RGB/GBR tensor needs RGB/BGR", format);
      if (ct == 2 && !packed && format != ZARVEL_PIXFMT_GREY)
        want = message("GRAY tensor needs RGB/BGR/GRAY", format);
      if (ct > 2)
        want = "[zarvel_frame_to_tensor] Unknown tensor color type: " + std::to_string(ct) + "\n";
      EXPECT_EQ(call(u8, 0, ct, frame.get()), want.empty() ? 0 : -1000) << format << " " << ct;
      log.expect(want.empty() ? std::vector<LogCapture::Expected>{}
                              : std::vector<LogCapture::Expected>{{4, "aux", want}});
    }
  }
  FramePtr grey(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 1, 1, nullptr, 0));
  for (uint32_t ct : {1u, 9u})
    EXPECT_EQ(
        zarvel::aux::host_device_api().to_tensor(u8.get(), 0, ct, grey.get(), kMean, kStd, kPad),
        -1000);
  log.expect({{4, "aux.host",
               "[frame_utils_cpu_to_tensor] Writing a frame in format [GREY] into a tensor is not "
               "supported!\n"}});
  EXPECT_EQ(call(u8, 0, 1, to_device(rgb.get()).get()), 0);
  log.expect({{0, "aux.host",
               "[frame_utils_cpu_to_tensor] Memory type not match between frame and tensor, will "
               "follow tensor memory type: host.\n"}});
}

// The scalar blocks (which do nothing) and the vector ones, or false without AVX2; k[2] (when
// given) the 256-bit ones alone.
bool block_kernels(tt::BlockKernels k[], bool with_256 = false) {
  // The mask holds until the end of the full expression that selects.
  const auto select = [](uint32_t mask) { return FeatureMask(mask), tt::select_block_kernels(); };
  k[0] = select(0u), k[1] = select(~0u);
  if (with_256) k[2] = select(~zarvel::aux::kCpuAvx512Vbmi);
  return (zarvel::aux::cpu_features() & zarvel::aux::kCpuAvx2) != 0;
}

// Runs a row with the scalar and the vector blocks into sentinel-filled planes (n samples
// plus a tail that must stay as it was): the bytes must be identical.
template <typename T, typename Row>
void same_rows(const tt::BlockKernels k[2], int64_t n, int planes, Row row) {
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
  tt::BlockKernels k[3];
  if (!block_kernels(k, true)) GTEST_SKIP() << "no AVX2";
  const tt::BlockKernels k256[2] = {k[0], k[2]};
  std::mt19937 rng(5);
  const float nan = std::nanf("");
  // Means and deviations; the first pair leaves 8-bit samples as they are.
  const float params[][3] = {{0, 0, 0},   {1, 1, 1}, {12.5f, -3, 255}, {0.3f, 57.1f, 1e-3f},
                             {nan, 0, 1}, {0, 0, 0}};
  const float stds[][3] = {{1, 1, 1},        {1, 1, 1},   {64, 0.7f, 3},
                           {0, 1e30f, 5.5f}, {1, nan, 1}, {-0.0f, 3, 1}};
  std::vector<int64_t> lengths = {70, 301};
  for (int64_t n = 0; n <= 2 * tt::kBlockPixels + 1; ++n) lengths.push_back(n);
  for (const int64_t n : lengths) {
    for (int start = 0; start < 3; ++start) {
      GuardedBuffer packed(static_cast<size_t>(3 * n + start));
      for (int64_t i = 0; i < 3 * n + start; ++i) packed.data()[i] = static_cast<uint8_t>(rng());
      const uint8_t* src = packed.data() + start;
      for (size_t p = 0; p < std::size(params); ++p) {
        const float *m = params[p], *s = stds[p], r[3] = {1.0f / s[0], 1.0f / s[1], 1.0f / s[2]};
        const bool identity = p == 0;
        for (const tt::BlockKernels* pair : {static_cast<const tt::BlockKernels*>(k), k256})
          same_rows<float>(pair, n, 3,
                           [&](auto& b, auto d) { tt::packed_f32_row(b, src, n, d, m, r); });
        same_rows<uint8_t>(
            k, n, 3, [&](auto& b, auto d) { tt::packed_u8_row(b, src, n, d, identity, m, r); });
        for (int r_byte : {0, 2})
          same_rows<float>(k, n, 1, [&](auto& b, auto d) {
            tt::luma_f32_row(b, src, n, r_byte, d[0], m[1], s[1]);
          });
        same_rows<float>(k, n, 1,
                         [&](auto& b, auto d) { tt::grey_f32_row(b, src, n, d[0], m[0], s[0]); });
        if (float rc; tt::grey_reciprocal_exact(m[0], s[0], &rc))
          same_rows<float>(
              k, n, 1, [&](auto& b, auto d) { tt::grey_f32_row(b, src, n, d[0], m[0], s[0], rc); });
      }
      same_rows<uint8_t>(
          k, n, 1, [&](auto& b, auto d) { tt::luma_u8_row(b, src, n, start == 1 ? 2 : 0, d[0]); });
    }
  }
}

// The division-free grey row against the division, on every byte, wherever the exhaustive
// check allows it: normalisation parameters on both the 0..255 and the unit scale, and an
// extreme deviation whose reciprocal overflows, which the check must refuse.
TEST(ToTensorKernels, GreyRowWithoutDivisionOnEveryByte) {
  tt::BlockKernels k[2];
  if (!block_kernels(k)) GTEST_SKIP() << "no AVX2";
  std::vector<uint8_t> src(3 * 256);
  for (size_t i = 0; i < src.size(); ++i) src[i] = static_cast<uint8_t>(i * 7);
  int exact = 0;
  for (auto [m, s] : {std::pair{123.675f, 58.395f},
                      {116.28f, 57.12f},
                      {103.53f, 57.375f},
                      {127.5f, 127.5f},
                      {0.485f, 0.229f},
                      {0.0f, 255.0f},
                      {-3.0f, 1e-3f}}) {
    float rc = 0.0f;
    if (!tt::grey_reciprocal_exact(m, s, &rc)) continue;
    ++exact;
    same_rows<float>(k, static_cast<int64_t>(src.size()), 1, [&](auto& b, auto d) {
      tt::grey_f32_row(b, src.data(), static_cast<int64_t>(src.size()), d[0], m, s, rc);
    });
  }
  EXPECT_GT(exact, 0);
  float rc = 0.0f;
  EXPECT_FALSE(tt::grey_reciprocal_exact(10.0f, 1e-39f, &rc));
}

// Every RGB triple, red byte first; BGR order only moves the red byte, covered above.
TEST(ToTensorKernels, LumaRowsAgreeOnEveryTriple) {
  tt::BlockKernels k[2];
  if (!block_kernels(k)) GTEST_SKIP() << "no AVX2";
  constexpr int64_t kRow = 1 << 16;
  std::vector<uint8_t> src(3 * kRow);
  for (int r = 0; r < 256; ++r) {
    for (int64_t i = 0; i < 3 * kRow; i += 3)
      src[i] = r, src[i + 1] = i / 3 >> 8, src[i + 2] = i / 3;
    same_rows<uint8_t>(k, kRow, 1,
                       [&](auto& b, auto d) { tt::luma_u8_row(b, src.data(), kRow, 0, d[0]); });
    for (auto [m, s] : {std::pair{0.0f, 1.0f}, {16.5f, 3.3f}})
      same_rows<float>(k, kRow, 1, [&](auto& b, auto d) {
        tt::luma_f32_row(b, src.data(), kRow, 0, d[0], m, s);
      });
  }
}

TEST(TensorToFrames, RefusalsAndTheirStatuses) {
  TensorPtr tensor = host_tensor(ZARVEL_ELEM_U8, 1, 3, 2, 2);
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

// A scratch-buffer slot, freed at the end of the scope.
struct Scratch {
  zarvel_buffer_t* slot;
  explicit Scratch(int64_t size = 0)
      : slot(size > 0 ? zarvel_buffer_alloc(size, ZARVEL_MEM_HOST) : nullptr) {}
  ~Scratch() { zarvel_buffer_free(&slot); }
};

// Item i written the composed way: crop the region, resize it, write it.
void compose(zarvel_tensor_t* t, int item, uint32_t color_type, zarvel_frame_t* frame, Area2D roi,
             Size2D size, const float* mean, const float* std, const float* pad) {
  zarvel_frame_t *cut = nullptr, *resized = nullptr;
  ASSERT_EQ(zarvel_frame_crop(frame, &cut, roi), 0);
  FramePtr cut_owned(cut);
  ASSERT_EQ(zarvel_frame_resize(cut, &resized, size), 0);
  FramePtr resized_owned(resized);
  const auto offset = static_cast<int32_t>(zarvel_tensor_calc_offset(t, item, 0, 0, 0));
  ASSERT_EQ(zarvel_frame_to_tensor(t, offset, color_type, resized, mean, std, pad), 0);
}

// Regions inside, partly outside and of one pixel, scaled up and down, with per-item pads,
// over every colour and element type and both kernel variants, into dense tensors and into
// strided views of larger ones (rows and items follow the parent's strides, and nothing
// outside the view changes).
TEST(TransformToTensor, FusedEqualsComposed) {
  std::mt19937 rng(2024);
  const float mean[3] = {10.0f, 120.5f, 200.0f}, std[3] = {50.0f, 60.0f, 0.5f};
  const float pads[9] = {1, 2, 3, 300, -1, 7, 0.5f, 0.25f, 9};
  const uint32_t formats[] = {ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24, ZARVEL_PIXFMT_GREY};
  for (int variant = 0; variant < 2 * 3 * 2 * 6; ++variant) {
    const uint32_t ct = variant / 12 % 3, elem = variant / 6 % 2 ? ZARVEL_ELEM_F32 : ZARVEL_ELEM_U8;
    FeatureMask features(variant < 36 ? 0u : ~0u);
    const int fw = 20 + int(rng() % 60), fh = 10 + int(rng() % 50);
    auto frame = random_frame(rng, formats[rng() % (ct == 2 ? 3 : 2)], fw, fh);
    const int n = 3, H = 8 + int(rng() % 30), W = 8 + int(rng() % 30), v = variant % 2;
    const int32_t start[4] = {v, 0, 3 * v, 5 * v}, shape[4] = {n, ct == 2 ? 1 : 3, H, W};
    TensorPtr parents[2], views[2];
    for (int k = 0; k < 2; ++k) {
      parents[k] = host_tensor(elem, n + v, shape[1], H + 3 * v, W + 5 * v);
      std::memset(zarvel_buffer_raw_pointer(parents[k]->buffer), 0x5A,
                  zarvel_buffer_size(parents[k]->buffer));
      views[k].reset(zarvel_tensor_roi(parents[k].get(), start, shape));
    }
    std::vector<zarvel_frame_t*> frames(n, frame.get());
    const Area2D rois[3] = {
        {int(rng() % 10), int(rng() % 5), 1 + int(rng() % 10), 1 + int(rng() % 5)},
        {-5 + int(rng() % 10), fh - 6, 8 + int(rng() % 50), 12},
        {int(rng() % fw), int(rng() % fh), 1, 1}};
    float sy[3], sx[3];
    Scratch scratch(16);
    const int mode = int(rng() % 2);
    ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(views[0].get(), ct, n, frames.data(), rois,
                                                     mode, mean, std, pads, &scratch.slot, sy, sx),
              0);
    for (int i = 0; i < n; ++i) {
      const Size2D size = {std::max(1, int(std::lround(rois[i].width / double(sx[i])))),
                           std::max(1, int(std::lround(rois[i].height / double(sy[i]))))};
      compose(views[1].get(), i, ct, frame.get(), rois[i], size, mean, std, &pads[3 * i]);
    }
    ASSERT_EQ(bytes_of(parents[0].get()), bytes_of(parents[1].get())) << variant << " " << mode;
  }
}

// Wide regions partly outside the frame (left and top, so every row is cut) reduced about 12x
// both ways to 48 columns: the 3-channel pixel-gather rows, with both source rows of each
// output row taken in one pass from the two cut rows.
TEST(TransformToTensor, StronglyReducedCutRegionsEqualComposed) {
  std::mt19937 rng(77);
  const float mean[3] = {1, 2, 3}, std[3] = {4, 5, 6}, pads[3] = {0, 0, 0};
  auto frame = random_frame(rng, ZARVEL_PIXFMT_BGR24, 600, 90);
  zarvel_frame_t* frames[1] = {frame.get()};
  for (const Area2D roi : {Area2D{-100, -20, 560, 100}, Area2D{40, -7, 555, 97}}) {
    for (uint32_t mask : {0u, ~0u}) {
      FeatureMask features(mask);
      TensorPtr fused = host_tensor(ZARVEL_ELEM_F32, 1, 3, 8, 48);
      TensorPtr composed = host_tensor(ZARVEL_ELEM_F32, 1, 3, 8, 48);
      float sy = 0, sx = 0;
      Scratch scratch(16);
      ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(fused.get(), 0, 1, frames, &roi, 1, mean,
                                                       std, pads, &scratch.slot, &sy, &sx),
                0);
      compose(composed.get(), 0, 0, frame.get(), roi,
              {int(std::lround(roi.width / double(sx))), int(std::lround(roi.height / double(sy)))},
              mean, std, pads);
      ASSERT_EQ(bytes_of(fused.get()), bytes_of(composed.get())) << roi.x << " " << mask;
    }
  }
}

// Through the option record: resize mode matches the composed path (the second item is
// larger than the tensor and is clipped as to-tensor clips); frame_count 0 writes nothing; the
// identity warp gives the frame itself in both items, here its 16x12 corner (the vector
// perspective path divides through a reciprocal estimate, so there a byte may be off by one).
// Refused: mixed memory types, a histogram into a colour tensor, a warp mode without matrices.
// A host scratch buffer with device frames is replaced by a 1024-byte device buffer, with a
// note. Channel norm: each plane of each item has mean 0 and population deviation 1, for RGB
// and BGR frames (the statistics follow the frame's byte order) and for a grey tensor from a
// colour frame, equalised first (the conversion is logged); on a device it needs a device of
// the supported families.
TEST(TransformToTensor, OptionRecordModesNormAndRefusals) {
  std::mt19937 rng(7);
  auto a = random_frame(rng, ZARVEL_PIXFMT_RGB24, 40, 30), dev = to_device(a.get()),
       b = random_frame(rng, ZARVEL_PIXFMT_BGR24, 25, 35),
       g = random_frame(rng, ZARVEL_PIXFMT_GREY, 25, 30);
  Area2D rois[2] = {{3, 4, 30, 20}, {-4, 10, 20, 30}};
  Size2D sizes[2] = {{16, 12}, {40, 30}};
  float matrices[18] = {1, 0, 0, 0, 1, 0, 0, 0, 1, 1, 0, 2, 0, 1, 1, 0, 0, 1};  // item 1: +(2, 1)
  LogCapture log;
  Scratch scratch(8), device_scratch(8);  // the second for the device frames alone
  auto run = [&](const TensorPtr& t, uint32_t flags, uint64_t n, std::array<zarvel_frame_t*, 2> f,
                 float* m = nullptr, uint32_t ct = 1) {
    log.clear();
    Scratch& slot = f[0] == dev.get() ? device_scratch : scratch;
    const TransformToTensorOption o{t.get(), ct, flags,     n,         f.data(), rois,
                                    sizes,   m,  {0, 0, 0}, {1, 1, 1}, nullptr,  &slot.slot};
    return zarvel_frame_transform_to_tensor(&o);
  };
  auto t = host_tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16),
       expected = host_tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16);
  std::memset(zarvel_tensor_raw_pointer(t.get()), 0xFF, 2 * 3 * 16 * 16 * 4);  // pads null: 0
  ASSERT_EQ(run(t, ZARVEL_TRANSFORM_RESIZE, 2, {a.get(), b.get()}), 0);
  for (int i = 0; i < 2; ++i)
    compose(expected.get(), i, 1, i ? b.get() : a.get(), rois[i], sizes[i], kMean, kStd, kPad);
  EXPECT_EQ(bytes_of(t.get()), bytes_of(expected.get()));
  auto untouched = host_tensor(ZARVEL_ELEM_F32, 2, 3, 16, 16);
  EXPECT_EQ(run(untouched, ZARVEL_TRANSFORM_NONE, 0, {a.get(), b.get()}), 0);
  EXPECT_EQ(bytes_of(untouched.get()), std::vector<uint8_t>(16 * 16 * 3 * 2 * 4, 0));
  auto warped = host_tensor(ZARVEL_ELEM_U8, 2, 3, 12, 16);
  for (uint32_t mode : {ZARVEL_TRANSFORM_AFFINE, ZARVEL_TRANSFORM_PERSPECTIVE}) {
    ASSERT_EQ(run(warped, mode, 2, {a.get(), a.get()}, matrices), 0);
    for (int i = 0; i < 2 * 12 * 16 * 3; ++i) {
      const int item = i / 576, y = i / 48 % 12, x = i % 48;
      ASSERT_NEAR(
          *static_cast<uint8_t*>(zarvel_tensor_data_at(warped.get(), item, x % 3, y, x / 3)),
          a->plane[0][(y + item) * a->stride[0] + x + 6 * item],
          mode == ZARVEL_TRANSFORM_PERSPECTIVE ? 1 : 0)
          << mode << " " << i;
    }
  }
  auto last_text = [&] { return log.messages().empty() ? "" : log.messages().back().text; };
  EXPECT_EQ(run(t, ZARVEL_TRANSFORM_RESIZE, 2, {a.get(), dev.get()}), -1);
  EXPECT_EQ(last_text(), "[zarvel_frame_transform_to_tensor] frames' mem type not the same\n");
  EXPECT_NE(run(t, ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_HISTOGRAM, 2, {a.get(), a.get()}), 0);
  EXPECT_EQ(last_text(), "histogram only available in [gray] tensor.\n");
  for (uint32_t mode : {ZARVEL_TRANSFORM_AFFINE, ZARVEL_TRANSFORM_PERSPECTIVE})
    EXPECT_EQ(run(t, mode, 2, {a.get(), a.get()}), -1) << "no matrices";
  EXPECT_EQ(run(t, ZARVEL_TRANSFORM_NONE, 2, {dev.get(), dev.get()}), 0);
  EXPECT_EQ(zarvel_buffer_mem_type(device_scratch.slot), ZARVEL_MEM_DEVICE);
  EXPECT_EQ(zarvel_buffer_size(device_scratch.slot), 1024);
  log.expect({{0, "aux",
               "[zarvel_frame_transform_to_tensor] frame mem type: " +
                   std::string(zarvel_device_get_name()) +
                   ", buffer mem type: host, reallocate buffer memory.\n"}},
             "aux");
  const uint32_t norm = ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM;
  rois[0] = rois[1] = {3, 4, 20, 20}, sizes[1] = sizes[0];
  auto colour = host_tensor(ZARVEL_ELEM_F32, 2, 3, 12, 16),
       grey = host_tensor(ZARVEL_ELEM_F32, 2, 1, 12, 16);
  for (const TensorPtr* n : {&colour, &grey}) {
    ASSERT_EQ(run(*n, norm | (n == &grey ? ZARVEL_TRANSFORM_HISTOGRAM : 0), 2,
                  {n == &grey ? g.get() : a.get(), b.get()}, nullptr, n == &grey ? 2 : 1),
              0);
    for (int k = 0; k < 2 * (*n)->shape[1]; ++k) {  // planes of 16 x 12, back to back
      const float* p = static_cast<const float*>(zarvel_tensor_raw_pointer(n->get())) + 192 * k;
      double sum = 0, sq = 0;
      for (int i = 0; i < 192; ++i) sum += p[i], sq += double(p[i]) * p[i];
      EXPECT_NEAR(sum / 192, 0.0, 1e-4) << k;
      EXPECT_NEAR(std::sqrt(sq / 192 - (sum / 192) * (sum / 192)), 1.0, 1e-4) << k;
    }
  }
  log.expect(
      {{2, "aux", "[HISTOGRAM] requires gray frame, but got [BGR24]. Convert color first.\n"}},
      "aux");
  EXPECT_EQ(run(colour, norm, 2, {dev.get(), dev.get()}), -1000);
  EXPECT_EQ(last_text(),
            std::string("No support channel norm. on device:[") + zarvel_device_get_name() + "]\n");
  zarvel_device_set_name("hidevice-test");
  EXPECT_EQ(run(colour, norm, 2, {dev.get(), dev.get()}), 0);
  zarvel_device_set_name(nullptr);
}

// 200x100 into 100x100: scales 2, 2 keeping the aspect, 1, 2 stretched. A region wholly
// outside is refused, one partly outside accepted; more frames than items fail silently.
// Device frames are downloaded with a note.
TEST(TransformToTensorBatch, ScalesRegionsBatchSizeAndDeviceFrames) {
  std::mt19937 rng(11);
  LogCapture log;
  auto frame = random_frame(rng, ZARVEL_PIXFMT_RGB24, 300, 200), dev = to_device(frame.get());
  auto t = host_tensor(ZARVEL_ELEM_U8, 1, 3, 100, 100);
  zarvel_frame_t* frames[1] = {frame.get()};
  Scratch scratch;
  float sy[2], sx[2];
  auto run = [&](Area2D roi, int mode, uint64_t count = 1) {
    log.clear();
    return zarvel_frame_transform_to_tensor_batch(t.get(), 1, count, frames, &roi, mode, kMean,
                                                  kStd, nullptr, &scratch.slot, sy, sx);
  };
  ASSERT_EQ(run({0, 0, 200, 100}, 0), 0);
  EXPECT_EQ(std::pair(sy[0], sx[0]), std::pair(2.0f, 2.0f));
  ASSERT_EQ(run({0, 0, 200, 100}, 1), 0);
  EXPECT_EQ(std::pair(sy[0], sx[0]), std::pair(1.0f, 2.0f));
  EXPECT_EQ(run({-10, -10, 20, 20}, 0), 0);
  EXPECT_EQ(run({-10, -10, 5, 5}, 0), -1);
  log.expect(
      {{4, "aux", "[zarvel_frame_transform_to_tensor_batch] invalid roi: {-10, -10, 5, 5}\n"}});
  EXPECT_EQ(run({0, 0, 200, 100}, 0, 2), -1);
  EXPECT_TRUE(log.messages().empty());
  frames[0] = dev.get();
  ASSERT_EQ(run({-5, 7, 40, 50}, 0), 0);
  EXPECT_NE(log.messages().at(0).text.find("time\xEF\xBC\x8Cspace and bandwidth"),
            std::string::npos);
}

}  // namespace
