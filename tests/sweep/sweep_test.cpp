// Bad input at every export: null pointers in every position, zero, negative and huge sizes
// and strides (including products that wrap in 32 bits), odd 4:2:0 sizes, mismatched formats
// and memory types, regions outside frames, non-finite matrices and parameters and unknown
// codes. Each call must return a failure status (or null, or nothing for the estimators),
// leave the source and a caller's output unchanged when it refuses, and leak nothing (the
// sanitizer build runs this binary with leak checks).
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

using zarvel::test::fill_pattern;
using zarvel::test::LogCapture;
using zarvel::test::visible_bytes;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kMin = std::numeric_limits<int32_t>::min();

constexpr uint32_t kFormats[] = {ZARVEL_PIXFMT_GREY, ZARVEL_PIXFMT_RGB24, ZARVEL_PIXFMT_BGR24,
                                 ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21,  ZARVEL_PIXFMT_YU12};

// Sizes no frame may take: empty, negative, and large enough that the pixel count wraps in 32
// bits and the bytes exceed any allocation (so a correct refusal costs no memory).
constexpr Size2D kBadSizes[] = {{0, 0},
                                {0, 8},
                                {8, 0},
                                {-2, 8},
                                {8, -2},
                                {kMin, 8},
                                {kMax, kMax},
                                {1 << 24, 1 << 24},
                                {kMax - 1, 1 << 17},
                                {1 << 17, kMax - 1},
                                {kMin, kMin}};

// Visible bytes of a frame in either memory type.
std::vector<uint8_t> bytes_of(const zarvel_frame_t* f) {
  zarvel_frame_t* host = nullptr;
  if (zarvel_frame_download(f, &host) != 0) return {};
  std::vector<uint8_t> out = visible_bytes(host);
  zarvel_frame_free(&host);
  return out;
}

struct Frame {
  zarvel_frame_t* f = nullptr;
  Frame(uint32_t mem, uint32_t format, int32_t w, int32_t h, int seed = 1) {
    zarvel_frame_t* host = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 7);
    if (host != nullptr) fill_pattern(host, seed);
    if (mem == ZARVEL_MEM_HOST || host == nullptr) {
      f = host;
    } else {
      zarvel_frame_upload(host, &f);
      zarvel_frame_free(&host);
    }
  }
  ~Frame() { zarvel_frame_free(&f); }
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
};

using FrameOp = std::function<int32_t(zarvel_frame_t* src, zarvel_frame_t** dst)>;
// An operation from a call on `s` (the source) and `d` (the output slot).
#define OP(call) [=](zarvel_frame_t* s, zarvel_frame_t** d) -> int32_t { return call; }

// Runs `op` with a null output slot and (when given) with a caller's output frame: each must
// fail, leave the source and the caller's frame untouched and the caller's slot pointing at
// its frame. Whatever a refusal leaves in the null slot is freed here.
void expect_refused(const char* what, zarvel_frame_t* src, zarvel_frame_t* given,
                    const FrameOp& op) {
  SCOPED_TRACE(what);
  const std::vector<uint8_t> src_before = src ? bytes_of(src) : std::vector<uint8_t>{};
  zarvel_frame_t* slot = nullptr;
  EXPECT_NE(op(src, &slot), 0);
  zarvel_frame_free(&slot);
  if (given != nullptr) {
    const std::vector<uint8_t> given_before = bytes_of(given);
    zarvel_frame_t* kept = given;
    EXPECT_NE(op(src, &kept), 0);
    EXPECT_EQ(kept, given);
    EXPECT_EQ(bytes_of(given), given_before);
  }
  EXPECT_EQ(src ? bytes_of(src) : std::vector<uint8_t>{}, src_before);
}

// The single-frame operations with valid parameters, by name.
struct NamedOp {
  std::string name;
  FrameOp op;
};
std::vector<NamedOp> frame_ops() {
  static const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  return {{"crop", OP(zarvel_frame_crop(s, d, Area2D{0, 0, 4, 4}))},
          {"resize", OP(zarvel_frame_resize(s, d, Size2D{6, 6}))},
          {"scale", OP(zarvel_frame_scale(s, d, 0.5f))},
          {"rotate", OP(zarvel_frame_rotate(s, d, 0))},
          {"equalize_hist", OP(zarvel_frame_equalize_hist(s, d))},
          {"cvt_color", OP(zarvel_frame_cvt_color(s, d, ZARVEL_PIXFMT_BGR24))},
          {"warpaffine", OP(zarvel_frame_warpaffine(s, d ? *d : nullptr, m))},
          {"warpperspective", OP(zarvel_frame_warpperspective(s, d ? *d : nullptr, m))}};
}

class Sweep : public ::testing::Test {
 protected:
  // Keeps the expected failure messages off the console; dumps them when a case fails.
  void TearDown() override {
    if (!HasFailure()) return;
    for (const auto& m : log_.messages())
      std::fprintf(stderr, "[%s] %s", m.tag.c_str(), m.text.c_str());
  }
  LogCapture log_;
};

TEST_F(Sweep, FrameOperationsRefuseNullPointersBadSizesAndParameters) {
  Frame grey(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 8, 8);
  Frame out(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 8, 8, 3);
  for (const NamedOp& n : frame_ops()) {
    expect_refused(n.name.c_str(), nullptr, out.f, n.op);
    EXPECT_NE(n.op(grey.f, nullptr), 0) << n.name;  // warps: a null output frame
  }
  const float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  EXPECT_NE(zarvel_frame_warpaffine(grey.f, out.f, nullptr), 0);
  EXPECT_NE(zarvel_frame_warpperspective(grey.f, out.f, nullptr), 0);
  EXPECT_NE(zarvel_frame_warpaffine(nullptr, nullptr, m), 0);

  for (uint32_t format : kFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    Frame src(ZARVEL_MEM_HOST, format, 8, 8);
    Frame given(ZARVEL_MEM_HOST, format, 8, 8, 5);
    for (const Size2D size : kBadSizes) {
      expect_refused("resize", src.f, nullptr, OP(zarvel_frame_resize(s, d, size)));
      expect_refused("crop", src.f, nullptr,
                     OP(zarvel_frame_crop(s, d, Area2D{0, 0, size.width, size.height})));
    }
    // Ratios that give no pixels, no number, or sizes beyond int32.
    for (float ratio : {0.0f, -1.0f, kNaN, kInf, -kInf, 1e-30f, 1e30f, 3e9f})
      expect_refused("scale", src.f, nullptr, OP(zarvel_frame_scale(s, d, ratio)));
    for (int32_t code : {-1, 3, 4, kMax, kMin})
      expect_refused("rotate", src.f, given.f, OP(zarvel_frame_rotate(s, d, code)));
    for (uint32_t to : {0u, 0x34325241u, ~0u})
      expect_refused("cvt_color", src.f, nullptr, OP(zarvel_frame_cvt_color(s, d, to)));
  }
}

TEST_F(Sweep, OddYuv420SizesAreRefusedBeforeTouchingPixels) {
  for (uint32_t format : {ZARVEL_PIXFMT_NV12, ZARVEL_PIXFMT_NV21, ZARVEL_PIXFMT_YU12}) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    Frame src(ZARVEL_MEM_HOST, format, 8, 8);
    Frame given(ZARVEL_MEM_HOST, format, 8, 8, 9);
    // Odd sizes asked for through parameters. (A given even output takes an odd-sized resize
    // in its top-left corner, so only the allocating form must refuse.)
    for (const Size2D size : {Size2D{7, 8}, Size2D{8, 7}, Size2D{1, 1}}) {
      expect_refused("resize", src.f, nullptr, OP(zarvel_frame_resize(s, d, size)));
      expect_refused("crop", src.f, given.f,
                     OP(zarvel_frame_crop(s, d, Area2D{0, 0, size.width, size.height})));
    }
    expect_refused("scale to 3", src.f, nullptr, OP(zarvel_frame_scale(s, d, 0.375f)));
    // A record whose size became odd: every operation but colour conversion (which leaves odd
    // sizes open and must only stay inside the planes) refuses it.
    zarvel_frame_t odd = *src.f;
    odd.width = 7;
    for (const NamedOp& n : frame_ops()) {
      if (n.name != "cvt_color") {
        expect_refused(n.name.c_str(), &odd, given.f, n.op);
        continue;
      }
      zarvel_frame_t* out = nullptr;
      n.op(&odd, &out);
      zarvel_frame_free(&out);
    }
  }
  Frame grey(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_GREY, 7, 5);
  expect_refused("odd grey to NV12", grey.f, nullptr,
                 OP(zarvel_frame_cvt_color(s, d, ZARVEL_PIXFMT_NV12)));
}

// Outputs of the other memory type or format, or too small, are refused and kept. (An inner
// crop is a frame copy, which writes into a frame of either memory type.)
TEST_F(Sweep, MismatchedOutputsAreRefusedAndKept) {
  for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
    Frame src(mem, ZARVEL_PIXFMT_RGB24, 8, 8);
    Frame other_mem(mem ^ 1u, ZARVEL_PIXFMT_RGB24, 8, 8, 4);
    Frame other_format(mem, ZARVEL_PIXFMT_GREY, 8, 8, 4);
    Frame too_small(mem, ZARVEL_PIXFMT_RGB24, 2, 2, 4);
    for (const NamedOp& n : frame_ops()) {
      const bool sized = n.name == "resize" || n.name == "rotate" || n.name == "equalize_hist";
      for (zarvel_frame_t* given : {other_mem.f, other_format.f, too_small.f}) {
        if ((n.name == "cvt_color" && given == other_format.f) ||
            (n.name == "crop" && given == other_mem.f) || (!sized && given == too_small.f))
          continue;
        const std::vector<uint8_t> before = bytes_of(given);
        zarvel_frame_t* kept = given;
        EXPECT_NE(n.op(src.f, &kept), 0) << n.name;
        EXPECT_EQ(kept, given);
        EXPECT_EQ(bytes_of(given), before);
      }
    }
  }
}

// Crops far outside the frame and warps with non-finite or huge entries: any status, a
// successful crop has the asked size, and no pixel read lies outside the source (ASan, and
// the sentinel rows of the frame library's allocation).
TEST_F(Sweep, CropsOutsideTheFrameAndNonFiniteWarpsAreSafe) {
  for (uint32_t format : kFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    Frame src(ZARVEL_MEM_HOST, format, 16, 8), out(ZARVEL_MEM_HOST, format, 10, 6);
    for (const Area2D a :
         {Area2D{-100, -100, 4, 4}, Area2D{100, 100, 4, 4}, Area2D{-2, -2, 20, 12},
          Area2D{kMax - 3, kMax - 3, 2, 2}, Area2D{kMin, kMin, 2, 2}, Area2D{14, 6, 4, 4}}) {
      zarvel_frame_t* crop = nullptr;
      EXPECT_TRUE(zarvel_frame_crop(src.f, &crop, a) != 0 ||
                  (crop->width == a.width && crop->height == a.height))
          << a.x;
      zarvel_frame_free(&crop);
    }
    for (float v : {kNaN, kInf, -kInf, 1e30f, -1e30f, 3e9f, 0.0f}) {
      for (int i = 0; i < 9; ++i) {
        float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
        m[i] = v;
        zarvel_frame_warpaffine(src.f, out.f, m);
        zarvel_frame_warpperspective(src.f, out.f, m);
      }
    }
  }
}

// The estimators check nothing by design (null pointers are the caller's fault); counts and
// degenerate or non-finite points must still stay inside the given arrays.
TEST_F(Sweep, EstimatorsSurviveDegeneratePoints) {
  const float pts[6] = {0, 0, 1, 0, 0, 1}, line[6] = {0, 0, 1, 1, 2, 2};
  const float same[6] = {1, 1, 1, 1, 1, 1}, bad[6] = {kNaN, 0, kInf, 0, 0, -kInf};
  float fwd[9], inv[9];
  for (int32_t n : {0, -1, kMin}) zarvel_find_rigid_transform(pts, pts, n, fwd);
  for (const float* p : {line, same, bad}) {
    zarvel_find_affine_transform(p, pts, fwd, inv);
    zarvel_find_similarity_transform(p, pts, fwd, inv);
    zarvel_find_rigid_transform(p, pts, 3, fwd);
    zarvel_find_rigid_transform(pts, p, 3, fwd);
  }
}

// Tensors of every element type, in host and device memory.
struct Tensor {
  zarvel_tensor_t* t;
  Tensor(uint32_t mem, uint32_t elem, int n, int c, int h, int w)
      : t(zarvel_tensor_alloc(mem, elem, n, c, h, w)) {}
  ~Tensor() { zarvel_tensor_free(&t); }
};

// Runs `call` on a valid argument record (which must succeed), then once per spoiler on a
// fresh copy spoiled by it (which must fail).
template <class Args>
void expect_spoilers_refused(const Args& valid, const std::function<int32_t(Args&)>& call,
                             const std::vector<std::function<void(Args&)>>& spoilers) {
  Args ok = valid;
  EXPECT_EQ(call(ok), 0) << "the valid record";
  for (size_t i = 0; i < spoilers.size(); ++i) {
    Args a = valid;
    spoilers[i](a);
    EXPECT_NE(call(a), 0) << "spoiler " << i;
  }
}

TEST_F(Sweep, FrameToTensorAndBackRefuseBadArguments) {
  Frame rgb(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 8, 8),
      nv12(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_NV12, 8, 8);
  Tensor host(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 8, 8);
  Tensor device(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_F32, 1, 3, 8, 8);
  Tensor s8(ZARVEL_MEM_HOST, ZARVEL_ELEM_S8, 1, 3, 8, 8);
  const float zero[3] = {0, 0, 0}, one[3] = {1, 1, 1};
  struct Args {
    zarvel_tensor_t* t;
    int32_t offset;
    uint32_t color;
    zarvel_frame_t* f;
    const float *mean, *std, *pad;
  };
  std::vector<std::function<void(Args&)>> spoilers = {
      [](Args& a) { a.t = nullptr; },    [](Args& a) { a.f = nullptr; },
      [](Args& a) { a.mean = nullptr; }, [](Args& a) { a.std = nullptr; },
      [](Args& a) { a.pad = nullptr; },  [&](Args& a) { a.t = device.t; },
      [&](Args& a) { a.t = s8.t; },      [&](Args& a) { a.f = nv12.f; }};
  for (uint32_t color : {3u, 99u, ~0u}) spoilers.push_back([=](Args& a) { a.color = color; });
  // Offsets that put the item before the tensor or (after 32-bit wrap-around) past it.
  for (int32_t offset : {-1, kMin, 1, 3 * 8 * 8, kMax})
    spoilers.push_back([=](Args& a) { a.offset = offset; });
  expect_spoilers_refused<Args>(
      {host.t, 0, 0, rgb.f, zero, one, zero},
      [](Args& a) {
        return zarvel_frame_to_tensor(a.t, a.offset, a.color, a.f, a.mean, a.std, a.pad);
      },
      spoilers);
  // Non-finite statistics are the caller's numbers: any status, no crash.
  const float weird[3] = {kNaN, kInf, 0.0f};
  zarvel_frame_to_tensor(host.t, 0, 0, rgb.f, weird, weird, weird);

  // Back to frames: null arguments, unknown colour types and items outside the batch fail;
  // a device tensor gives any status without host access; an unknown element type stores null.
  Tensor t(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 2, 3, 4, 4),
      dev(ZARVEL_MEM_DEVICE, ZARVEL_ELEM_U8, 2, 3, 4, 4);
  zarvel_frame_t* frame = nullptr;
  EXPECT_NE(zarvel_tensor_to_frames(nullptr, 0, 0, &frame), 0);
  EXPECT_NE(zarvel_tensor_to_frames(t.t, 0, 0, nullptr), 0);
  for (uint32_t color : {3u, ~0u}) EXPECT_NE(zarvel_tensor_to_frames(t.t, color, 0, &frame), 0);
  EXPECT_EQ(frame, nullptr);
  for (int64_t index : {int64_t{-1}, int64_t{2}, int64_t{1} << 40, int64_t{kMin}}) {
    EXPECT_NE(zarvel_tensor_to_frames(t.t, 0, index, &frame), 0) << index;
    zarvel_frame_free(&frame);
  }
  zarvel_tensor_to_frames(dev.t, 0, 0, &frame);
  zarvel_frame_free(&frame);
  zarvel_tensor_t unknown = *t.t;
  unknown.elem_type = 7;
  frame = reinterpret_cast<zarvel_frame_t*>(&unknown);
  zarvel_tensor_to_frames(&unknown, 0, 0, &frame);
  EXPECT_EQ(frame, nullptr);
}

TEST_F(Sweep, TransformToTensorRefusesBadOptions) {
  Frame rgb(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 16, 16);
  Tensor tensor(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 8, 8);
  // Arrays hold three items so that a count of three (one more than the tensor's batch) is
  // only the tensor's problem; spoilers that change an item point at these copies.
  zarvel_frame_t *frames[3] = {rgb.f, rgb.f, rgb.f}, *with_null[3] = {rgb.f, nullptr, rgb.f};
  Area2D rois[3] = {{0, 0, 8, 8}, {4, 4, 8, 8}, {0, 0, 8, 8}};
  Area2D negative[3] = {rois[0], {0, 0, -8, 8}, rois[2]};
  Area2D huge_roi[3] = {rois[0], {0, 0, kMax, kMax}, rois[2]};
  Area2D far[3] = {{kMin, kMin, 8, 8}, {kMax - 8, kMax - 8, 8, 8}, rois[2]};
  Size2D sizes[3] = {{8, 8}, {8, 8}, {8, 8}}, huge_size[3] = {sizes[0], {kMax, kMax}, sizes[2]};
  // An item far larger than the tensor: only the corner the tensor holds is computed, so a
  // size whose pixel count passes 2^47 is clipped like any other, without huge tables.
  Size2D clipped[3] = {{1 << 24, 1 << 24}, {8, 8}, {8, 8}};
  float matrices[27], nan_matrices[27];
  for (int i = 0; i < 27; ++i) matrices[i] = (i % 9) % 4 == 0 ? 1.0f : 0.0f;
  std::fill(nan_matrices, nan_matrices + 27, kNaN);
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  TransformToTensorOption base{};
  base.tensor = tensor.t;
  base.flags = ZARVEL_TRANSFORM_RESIZE;
  base.frame_count = 2;
  base.frames = frames;
  base.rois = rois;
  base.sizes = sizes;
  base.matrices = matrices;
  base.std[0] = base.std[1] = base.std[2] = 1.0f;
  base.buffer = &scratch;
  EXPECT_NE(zarvel_frame_transform_to_tensor(nullptr), 0);
  expect_spoilers_refused<TransformToTensorOption>(
      base, [](TransformToTensorOption& o) { return zarvel_frame_transform_to_tensor(&o); },
      {[](auto& o) { o.tensor = nullptr; }, [](auto& o) { o.frames = nullptr; },
       [](auto& o) { o.rois = nullptr; }, [](auto& o) { o.sizes = nullptr; },
       [](auto& o) { o.buffer = nullptr; },
       [](auto& o) { o.frame_count = 3; },  // more items than the tensor holds
       [](auto& o) { o.color_type = 3; }, [](auto& o) { o.flags = 4; },
       [](auto& o) { o.flags = 15; }, [&](auto& o) { o.sizes = huge_size; },
       [&](auto& o) { o.rois = negative; }, [&](auto& o) { o.rois = huge_roi; },
       [&](auto& o) { o.frames = with_null; },
       [](auto& o) { o.flags = ZARVEL_TRANSFORM_AFFINE, o.matrices = nullptr; },
       [](auto& o) { o.flags = ZARVEL_TRANSFORM_PERSPECTIVE, o.matrices = nullptr; }});
  TransformToTensorOption big = base;
  big.frame_count = 1;
  big.sizes = clipped;
  EXPECT_EQ(zarvel_frame_transform_to_tensor(&big), 0);
  // Non-finite statistics, matrices and regions far outside the frame: any status, no crash.
  for (uint32_t mode :
       {ZARVEL_TRANSFORM_NONE, ZARVEL_TRANSFORM_RESIZE, ZARVEL_TRANSFORM_AFFINE,
        ZARVEL_TRANSFORM_PERSPECTIVE, ZARVEL_TRANSFORM_RESIZE | ZARVEL_TRANSFORM_CHANNEL_NORM}) {
    TransformToTensorOption o = base;
    o.flags = mode;
    o.mean[0] = kNaN, o.std[1] = 0.0f, o.std[2] = kInf;
    o.rois = far;
    o.matrices = nan_matrices;
    zarvel_frame_transform_to_tensor(&o);
  }
  zarvel_buffer_free(&scratch);
}

TEST_F(Sweep, BatchTransformRefusesBadArguments) {
  Frame rgb(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 16, 16);
  Tensor tensor(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 8, 8);
  zarvel_frame_t *frames[3] = {rgb.f, rgb.f, rgb.f}, *with_null[2] = {rgb.f, nullptr};
  const Area2D rois[3] = {{0, 0, 8, 8}, {4, 4, 8, 8}, {0, 0, 8, 8}};
  const float mean[3] = {0, 0, 0}, std1[3] = {1, 1, 1}, pads[9] = {};
  float sy[3], sx[3];
  zarvel_buffer_t* scratch = nullptr;
  struct Args {
    zarvel_tensor_t* t;
    int32_t offset, count;
    zarvel_frame_t** frames;
    const Area2D* rois;
    int32_t mode;
    const float *mean, *std;
    zarvel_buffer_t** buffer;
  };
  std::vector<std::function<void(Args&)>> spoilers = {
      [](Args& a) { a.t = nullptr; },        [](Args& a) { a.frames = nullptr; },
      [](Args& a) { a.rois = nullptr; },     [](Args& a) { a.mean = nullptr; },
      [](Args& a) { a.std = nullptr; },      [](Args& a) { a.buffer = nullptr; },
      [](Args& a) { a.count = 3; },          [](Args& a) { a.offset = 3; },
      [&](Args& a) { a.frames = with_null; }};
  for (int32_t mode : {-1, 2, kMax}) spoilers.push_back([=](Args& a) { a.mode = mode; });
  const auto call = [&](Args& a) {
    return zarvel_frame_transform_to_tensor_batch(a.t, a.offset, a.count, a.frames, a.rois, a.mode,
                                                  a.mean, a.std, pads, a.buffer, sy, sx);
  };
  expect_spoilers_refused<Args>({tensor.t, 0, 2, frames, rois, 0, mean, std1, &scratch}, call,
                                spoilers);
  // Empty and negative regions are refused; others read 0 outside the frame.
  for (const Area2D bad : {Area2D{0, 0, 0, 8}, Area2D{0, 0, -8, 8}, Area2D{0, 0, kMax, kMax},
                           Area2D{kMin, kMin, 8, 8}}) {
    const Area2D r[2] = {rois[0], bad};
    Args a{tensor.t, 0, 2, frames, r, 1, mean, std1, &scratch};
    EXPECT_TRUE(call(a) != 0 || bad.width > 0);
  }
  zarvel_buffer_free(&scratch);
}

TEST_F(Sweep, FrameLibraryGuardsSizeProducts) {
  for (uint32_t format : kFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    for (const Size2D size : kBadSizes) {
      EXPECT_EQ(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, size.width, size.height, nullptr, 0),
                nullptr);
      EXPECT_TRUE((size.width > 0 && size.height > 0) ||
                  zarvel_frame_inferred_size(format, size.width, size.height, nullptr) == -1);
    }
    // Strides: negative, short of a row, and huge enough that stride x rows wraps in 32 bits.
    for (int32_t stride : {-1, 1, kMin, kMax}) {
      const int32_t strides[4] = {stride, stride, stride, stride};
      EXPECT_EQ(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 16, 1 << 20, strides, 0), nullptr);
    }
    EXPECT_EQ(zarvel_frame_alloc(7u, format, 8, 8, nullptr, 0), nullptr);
  }
  // Exact 64-bit answers where 32 bits would wrap.
  EXPECT_EQ(zarvel_frame_inferred_size(ZARVEL_PIXFMT_RGB24, 65536, 65536, nullptr),
            int64_t{3} << 32);
  EXPECT_EQ(zarvel_frame_inferred_size(ZARVEL_PIXFMT_NV12, 65536, 65536, nullptr),
            int64_t{3} << 31);
  EXPECT_EQ(zarvel_frame_inferred_size(0x34325241u, 8, 8, nullptr), -1);
  const int32_t shapes[][4] = {{0, 3, 8, 8},
                               {-1, 3, 8, 8},
                               {kMin, 3, 8, 8},
                               {kMax, kMax, kMax, kMax},
                               {1 << 16, 1 << 16, 1 << 16, 1}};
  for (const auto& s : shapes)
    EXPECT_EQ(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, s[0], s[1], s[2], s[3]),
              nullptr);
  EXPECT_EQ(zarvel_tensor_alloc(ZARVEL_MEM_HOST, 7u, 1, 1, 1, 1), nullptr);
  EXPECT_EQ(zarvel_tensor_alloc(3u, ZARVEL_ELEM_S8, 1, 1, 1, 1), nullptr);
  for (int64_t size : {int64_t{-1}, int64_t{1} << 62, INT64_MAX})
    EXPECT_EQ(zarvel_buffer_alloc(size, ZARVEL_MEM_HOST), nullptr);
  EXPECT_EQ(zarvel_buffer_alloc(int64_t{1} << 62, ZARVEL_MEM_DEVICE), nullptr);
  EXPECT_EQ(zarvel_buffer_alloc(8, 7u), nullptr);
}

}  // namespace
