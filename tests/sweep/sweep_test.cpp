// Bad input at every export: null pointers in every position, zero, negative and huge sizes
// and strides (including products that wrap in 32 bits), mismatched formats and memory types,
// non-finite parameters and unknown codes. Each call must return a failure status (or null, or
// nothing for the estimators), leave the source and a caller's output unchanged when it refuses,
// and leak nothing (the sanitizer build runs this binary with leak checks). Odd 4:2:0 sizes are
// refused by the output preparation and frame checks every operation shares (the plugin test);
// regions far outside frames and non-finite matrices are left to the frame-operation fuzzer and
// the warp model test. Last, every operation on a device source: the host fallback's messages
// and the host run's bytes.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <cmath>
#include <functional>
#include <map>
#include <tuple>

#include "frame_test_support.h"
#include "op_test_support.h"

namespace {

using zarvel::aux::FramePtr;
using zarvel::aux::TensorPtr;
using zarvel::test::LogLines;
constexpr float kNaN = NAN, kInf = INFINITY;
constexpr int32_t kMax = INT32_MAX, kMin = INT32_MIN;

// Sizes no frame may take: empty, negative, or so large that the pixel count wraps in 32 bits
// and the bytes exceed any allocation (so a correct refusal costs no memory).
std::vector<Size2D> bad_sizes() {
  std::vector<Size2D> sizes;
  for (int32_t w : {8, 0, -2, kMin, 1 << 17, 1 << 24, kMax - 1, kMax})
    for (int32_t h : {8, 0, -2, kMin, 1 << 17, 1 << 24, kMax - 1, kMax})
      if (w <= 0 || h <= 0 || int64_t{w} * h >= int64_t{1} << 47) sizes.push_back({w, h});
  return sizes;
}

// A patterned frame in either memory type.
FramePtr frame(uint32_t format, int32_t w, int32_t h, int seed = 1, uint32_t mem = 0) {
  FramePtr host(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 7));
  zarvel::test::fill_pattern(host.get(), seed);
  return mem == ZARVEL_MEM_HOST ? std::move(host) : zarvel::test::to_device(host.get());
}

// Visible bytes of a frame in either memory type; none for null.
std::vector<uint8_t> bytes_of(const zarvel_frame_t* f) {
  if (f == nullptr) return {};
  return zarvel::test::visible_bytes(zarvel_frame_mem_type(f) ? zarvel::test::to_host(f).get() : f);
}

using FrameOp = std::function<int32_t(zarvel_frame_t* src, zarvel_frame_t** dst)>;
// An operation from a call on `s` (the source) and `d` (the output slot).
#define OP(call) [=](zarvel_frame_t* s, zarvel_frame_t** d) -> int32_t { return call; }

// Runs `op` with an empty output slot (unless `empty_slot` is false) and, when given, with a
// caller's output frame: each run must fail and leave the source, the caller's frame and its
// slot unchanged. Whatever a refusal leaves in the empty slot is freed here.
void expect_refused(const std::string& what, zarvel_frame_t* src, zarvel_frame_t* given,
                    const FrameOp& op, bool empty_slot = true) {
  SCOPED_TRACE(what);
  const std::vector<uint8_t> src_before = bytes_of(src), given_before = bytes_of(given);
  zarvel_frame_t* slot = nullptr;
  EXPECT_TRUE(!empty_slot || op(src, &slot) != 0) << "with an empty slot";
  zarvel_frame_free(&slot);
  slot = given;
  EXPECT_TRUE(given == nullptr || op(src, &slot) != 0) << "with a given output";
  EXPECT_TRUE(slot == given && bytes_of(given) == given_before && bytes_of(src) == src_before);
}

// The single-frame operations with valid parameters, by name.
constexpr float kIdentity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
const std::vector<std::pair<std::string, FrameOp>>& frame_ops() {
  static const std::vector<std::pair<std::string, FrameOp>> ops = {
      {"crop", OP(zarvel_frame_crop(s, d, Area2D{0, 0, 4, 4}))},
      {"resize", OP(zarvel_frame_resize(s, d, Size2D{6, 6}))},
      {"scale", OP(zarvel_frame_scale(s, d, 0.5f))},
      {"rotate", OP(zarvel_frame_rotate(s, d, 0))},
      {"equalize_hist", OP(zarvel_frame_equalize_hist(s, d))},
      {"cvt_color", OP(zarvel_frame_cvt_color(s, d, ZARVEL_PIXFMT_BGR24))},
      {"warpaffine", OP(zarvel_frame_warpaffine(s, d ? *d : nullptr, kIdentity))},
      {"warpperspective", OP(zarvel_frame_warpperspective(s, d ? *d : nullptr, kIdentity))}};
  return ops;
}

// Keeps the expected failure messages off the console.
class Sweep : public ::testing::Test {
 protected:
  zarvel::test::LogCapture log_;
};

// Null pointers in every position: refused, or the documented empty answer; freeing null is a
// no-op.
TEST_F(Sweep, NullPointersAreRefused) {
  FramePtr grey = frame(ZARVEL_PIXFMT_GREY, 8, 8), out = frame(ZARVEL_PIXFMT_GREY, 8, 8, 3);
  for (const auto& [name, op] : frame_ops()) {
    expect_refused(name, nullptr, out.get(), op);
    EXPECT_NE(op(grey.get(), nullptr), 0) << name;  // warps: a null output frame
  }

  TensorPtr t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 1, 2, 2));
  zarvel_frame_t* none = nullptr;
  const int32_t start[4] = {}, shape[4] = {1, 1, 1, 1};
  EXPECT_TRUE(!zarvel_frame_make(0, 1, nullptr, 2, 2, nullptr, nullptr, nullptr, nullptr) &&
              !zarvel_frame_ref(nullptr) && !zarvel_frame_duplicate(nullptr) &&
              !zarvel_frame_roi(nullptr, Area2D{0, 0, 1, 1}) &&
              !zarvel_frame_is_contiguous(nullptr) && zarvel_frame_mem_type(nullptr) == UINT32_MAX);
  for (const auto& transfer : {zarvel_frame_copy, zarvel_frame_download, zarvel_frame_upload}) {
    EXPECT_TRUE(transfer(nullptr, &none) == ZARVEL_EINVAL && none == nullptr);
    EXPECT_EQ(transfer(grey.get(), nullptr), ZARVEL_EINVAL);
  }
  EXPECT_TRUE(zarvel_frame_reset(nullptr, 0) == ZARVEL_EINVAL &&
              zarvel_buffer_copy(nullptr, nullptr) == ZARVEL_EINVAL &&
              zarvel_buffer_resize(nullptr, 4) == ZARVEL_EINVAL &&
              zarvel_buffer_set(nullptr, 0) == ZARVEL_EINVAL &&
              zarvel_buffer_mem_type(nullptr) == UINT32_MAX);
  EXPECT_TRUE(!zarvel_tensor_roi(nullptr, start, shape) &&
              !zarvel_tensor_roi(t.get(), nullptr, shape) &&
              !zarvel_tensor_roi(t.get(), start, nullptr));
  EXPECT_TRUE(zarvel_tensor_copy(nullptr, t.get()) == ZARVEL_EINVAL &&
              zarvel_tensor_copy(t.get(), nullptr) == ZARVEL_EINVAL &&
              zarvel_tensor_calc_offset(nullptr, 0, 0, 0, 0) == -1 &&
              zarvel_tensor_mem_type(nullptr) == UINT32_MAX &&
              !zarvel_tensor_data_at(nullptr, 0, 0, 0, 0));
  // Image files, encoding, the batch call (tensor, frames, regions, buffer slot) and the way back.
  zarvel_buffer_t* no_buffer = nullptr;
  zarvel_tensor_t* no_tensor = nullptr;
  zarvel_buffer_t* buffer = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  EXPECT_TRUE(zarvel_frame_save(nullptr, "never.png") == -1 &&
              zarvel_frame_save(grey.get(), nullptr) == -1000 &&
              zarvel_frame_encode(nullptr, ZARVEL_IMAGE_PNG, buffer) == -1 &&
              zarvel_frame_encode(grey.get(), ZARVEL_IMAGE_PNG, nullptr) != 0 &&
              !zarvel_frame_load(nullptr) && !zarvel_frame_load_from_memory(nullptr, 64) &&
              zarvel_tensor_to_frames(nullptr, 2, 0, &none) == 75 && none == nullptr);
  zarvel_frame_t* items[1] = {grey.get()};
  const Area2D roi{0, 0, 2, 2};
  const float ones[3] = {1, 1, 1};
  auto batch = [&](zarvel_tensor_t* to, zarvel_frame_t** f, const Area2D* r, zarvel_buffer_t** b) {
    return zarvel_frame_transform_to_tensor_batch(to, 2, 1, f, r, 0, ones, ones, nullptr, b,
                                                  nullptr, nullptr);
  };
  EXPECT_TRUE(
      batch(nullptr, items, &roi, &buffer) == -1 && batch(t.get(), nullptr, &roi, &buffer) == -1 &&
      batch(t.get(), items, nullptr, &buffer) == -1 && batch(t.get(), items, &roi, nullptr) == -1);
  zarvel_buffer_free(&buffer);
  zarvel_frame_free(nullptr), zarvel_frame_free(&none), zarvel_tensor_free(nullptr);
  zarvel_tensor_free(&no_tensor), zarvel_buffer_free(nullptr), zarvel_buffer_free(&no_buffer);
}

// Sizes, strides, ratios and codes no frame, tensor or buffer may take, through the frame
// library and the size-taking operations (every size product is guarded in 64 bits), and
// counts and points the estimators cannot use.
TEST_F(Sweep, BadSizesAndCodesAreRefused) {
  for (uint32_t format : zarvel::test::kAllFormats) {
    SCOPED_TRACE(zarvel_frame_pixfmt_to_string(format));
    FramePtr src = frame(format, 8, 8);
    for (const auto [w, h] : bad_sizes()) {
      EXPECT_EQ(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0), nullptr);
      EXPECT_TRUE((w > 0 && h > 0) || zarvel_frame_inferred_size(format, w, h, nullptr) == -1);
      expect_refused("resize", src.get(), nullptr, OP(zarvel_frame_resize(s, d, Size2D{w, h})));
      expect_refused("crop", src.get(), nullptr, OP(zarvel_frame_crop(s, d, Area2D{0, 0, w, h})));
    }
    // Ratios that give no pixels, no number, or sizes beyond int32.
    for (float ratio : {0.0f, -1.0f, kNaN, kInf, -kInf, 1e-30f, 1e30f, 3e9f})
      expect_refused("scale", src.get(), nullptr, OP(zarvel_frame_scale(s, d, ratio)));
    // Strides: negative, short of a row, and huge enough that stride x rows wraps in 32 bits.
    for (int32_t stride : {-1, 1, kMin, kMax}) {
      const int32_t strides[4] = {stride, stride, stride, stride};
      EXPECT_EQ(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, 16, 1 << 20, strides, 0), nullptr);
    }
  }
  // Exact 64-bit answers where 32 bits would wrap.
  EXPECT_EQ(zarvel_frame_inferred_size(ZARVEL_PIXFMT_RGB24, 65536, 65536, nullptr), 3LL << 32);
  EXPECT_EQ(zarvel_frame_inferred_size(ZARVEL_PIXFMT_NV12, 65536, 65536, nullptr), 3LL << 31);
  EXPECT_EQ(zarvel_frame_inferred_size(0x34325241u, 8, 8, nullptr), -1);
  EXPECT_TRUE(
      !zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 0, 3, 8, 8) &&
      !zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, kMin, 3, 8, 8) &&
      !zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, kMax, kMax, kMax, kMax) &&
      !zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1 << 16, 1 << 16, 1 << 16, 1) &&
      !zarvel_tensor_alloc(ZARVEL_MEM_HOST, 7u, 1, 1, 1, 1) &&
      !zarvel_tensor_alloc(3u, ZARVEL_ELEM_S8, 1, 1, 1, 1));
  EXPECT_TRUE(!zarvel_buffer_alloc(-1, 0) && !zarvel_buffer_alloc(1LL << 62, 0) &&
              !zarvel_buffer_alloc(INT64_MAX, 0) && !zarvel_buffer_alloc(1LL << 62, 1) &&
              !zarvel_buffer_alloc(8, 7u));
  // The estimators check nothing by design (null pointers are the caller's fault); counts and
  // non-finite points must still stay inside the given arrays. (Collinear and coincident
  // points are in the estimators' own test.)
  const float pts[6] = {0, 0, 1, 0, 0, 1}, bad[6] = {kNaN, 0, kInf, 0, 0, -kInf};
  float fwd[9], inv[9];
  for (int32_t n : {0, -1, kMin}) zarvel_find_rigid_transform(pts, pts, n, fwd);
  zarvel_find_affine_transform(bad, pts, fwd, inv), zarvel_find_rigid_transform(bad, pts, 3, fwd);
  zarvel_find_similarity_transform(bad, pts, fwd, inv),
      zarvel_find_rigid_transform(pts, bad, 3, fwd);
}

// Outputs of the other memory type or format, or too small, are refused and kept; the source
// is on the device, so the checks come before any download. (An inner crop is a frame copy,
// which writes into a frame of either memory type.)
TEST_F(Sweep, MismatchedOutputsAreRefusedAndKept) {
  FramePtr src = frame(ZARVEL_PIXFMT_RGB24, 8, 8, 1, ZARVEL_MEM_DEVICE);
  FramePtr other_mem = frame(ZARVEL_PIXFMT_RGB24, 8, 8, 4, ZARVEL_MEM_HOST);
  FramePtr other_format = frame(ZARVEL_PIXFMT_GREY, 8, 8, 4, ZARVEL_MEM_DEVICE);
  FramePtr too_small = frame(ZARVEL_PIXFMT_RGB24, 2, 2, 4, ZARVEL_MEM_DEVICE);
  for (const auto& [name, op] : frame_ops()) {
    const bool sized = name == "resize" || name == "rotate" || name == "equalize_hist";
    if (name != "crop") expect_refused(name, src.get(), other_mem.get(), op, false);
    if (name != "cvt_color") expect_refused(name, src.get(), other_format.get(), op, false);
    if (sized) expect_refused(name, src.get(), too_small.get(), op, false);
  }
}

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
// Spoilers: argument K of an argument tuple, or a member of an option record, set to `value`.
template <size_t K, class T>
auto set(T value) {
  return [=](auto& args) { std::get<K>(args) = value; };
}
template <class M, class T>
auto set(M member, T value) {
  return [=](auto& record) { record.*member = value; };
}

// Frames into tensors: one item and the fused transforms. (The null arguments of the batch
// call and the way back are in the null-pointer test.)
TEST_F(Sweep, TensorPathsRefuseBadArguments) {
  FramePtr rgb = frame(ZARVEL_PIXFMT_RGB24, 16, 16);
  TensorPtr t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 8, 8));
  // Arrays hold three items so that a count of three (one more than the tensor's batch) is
  // only the tensor's problem; spoilers that change an item point at these copies.
  zarvel_frame_t *frames[3] = {rgb.get(), rgb.get(), rgb.get()},
                 *with_null[3] = {rgb.get(), nullptr, rgb.get()};
  Area2D rois[3] = {{0, 0, 8, 8}, {4, 4, 8, 8}, {0, 0, 8, 8}};
  Area2D negative[3] = {rois[0], {0, 0, -8, 8}, rois[2]};
  Area2D huge_roi[3] = {rois[0], {0, 0, kMax, kMax}, rois[2]};
  Size2D sizes[3] = {{8, 8}, {8, 8}, {8, 8}}, huge_size[3] = {sizes[0], {kMax, kMax}, sizes[2]};
  const float ones[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};  // means, deviations and pads
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);

  // One item: null pointers, an unknown colour type, and offsets that put the item before the
  // tensor or (after 32-bit wrap-around) past it.
  using Item = std::tuple<zarvel_tensor_t*, int32_t, uint32_t, zarvel_frame_t*, const float*,
                          const float*, const float*>;
  expect_spoilers_refused<Item>({t.get(), 0, 0, rgb.get(), ones, ones, ones},
                                [](Item& a) { return std::apply(zarvel_frame_to_tensor, a); },
                                {set<0>(nullptr), set<3>(nullptr), set<4>(nullptr), set<5>(nullptr),
                                 set<6>(nullptr), set<2>(~0u), set<1>(-1), set<1>(kMin),
                                 set<1>(3 * 8 * 8 + 1), set<1>(2 * 3 * 8 * 8), set<1>(kMax)});

  using O = TransformToTensorOption;
  const O base{
      t.get(), 0,       ZARVEL_TRANSFORM_RESIZE, 2, frames, rois, sizes, nullptr, {}, {1, 1, 1},
      nullptr, &scratch};
  EXPECT_NE(zarvel_frame_transform_to_tensor(nullptr), 0);
  // Nulls, more items than the tensor holds, unknown colour types and modes, and bad items.
  // (Warp modes without matrices and refused batch regions are in the tensor tests; items far
  // larger than the tensor, which are clipped, in the transform fuzzer's reach.)
  expect_spoilers_refused<O>(
      base, [](O& o) { return zarvel_frame_transform_to_tensor(&o); },
      {set(&O::tensor, nullptr), set(&O::frames, nullptr), set(&O::rois, nullptr),
       set(&O::sizes, nullptr), set(&O::buffer, nullptr), set(&O::frame_count, 3u),
       set(&O::color_type, 3u), set(&O::flags, 4u), set(&O::flags, 15u), set(&O::sizes, huge_size),
       set(&O::rois, negative), set(&O::rois, huge_roi), set(&O::frames, with_null)});

  zarvel_buffer_free(&scratch);
}

// Every operation on a device source succeeds through the host, logs its fallback messages
// and gives the host run's bytes; an output frame stays on the device. The frame operations
// run on NV12 (two planes each way) but for equalisation, which takes GREY only; the tensor
// paths write GREY sources into a host GRAY tensor and log a download note of their own.
TEST_F(Sweep, DeviceSourcesFallBackToTheHostRun) {
  TensorPtr owner(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 1, 6, 6));
  zarvel_tensor_t* t = owner.get();
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  Area2D roi{1, 1, 6, 5};
  Size2D size{6, 6};
  zarvel_frame_t* item = nullptr;  // the fused transform's one frame
  const TransformToTensorOption o{
      t,       2,       ZARVEL_TRANSFORM_RESIZE, 1, &item, &roi, &size, nullptr, {}, {1, 1, 1},
      nullptr, &scratch};
  std::vector<std::pair<std::string, FrameOp>> ops = frame_ops();
  ops.emplace_back("frame_to_tensor", OP(zarvel_frame_to_tensor(t, 0, 2, s, o.mean, o.std, o.std)));
  ops.emplace_back("frame_transform_to_tensor",
                   OP((*o.frames = s, zarvel_frame_transform_to_tensor(&o))));
  // A crop inside the frame is a frame copy, which moves device pixels itself: no messages.
  // Scaling runs through the resize export; the tensor paths log a download note of their own.
  std::map<std::string, LogLines> own = {
      {"crop", {}},
      {"scale", zarvel::test::device_fallback("zarvel_frame_resize")},
      {"frame_to_tensor",
       {"0 aux.host [frame_utils_cpu_to_tensor] Memory type not match between frame and tensor, "
        "will follow tensor memory type: host.\n"}},
      {"frame_transform_to_tensor",
       {"0 aux [zarvel_frame_transform_to_tensor] frame mem type: zdev, buffer mem type: host, "
        "reallocate buffer memory.\n"}}};
  for (const auto& [name, op] : ops) {
    SCOPED_TRACE(name);
    const bool grey = name == "equalize_hist" || name.ends_with("tensor");
    const uint32_t format = grey ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_NV12;
    std::vector<uint8_t> results[2];
    for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
      FramePtr src = frame(format, 8, 8, 1, mem);
      zarvel_frame_t* out = name.starts_with("warp") ? frame(format, 8, 8, 2, mem).release() : 0;
      auto* tensor = static_cast<uint8_t*>(zarvel_tensor_raw_pointer(t));
      std::fill_n(tensor, 36 * sizeof(float), 0);
      ASSERT_EQ(op(src.get(), &out), 0);
      FramePtr owned(out);
      EXPECT_TRUE(out == nullptr || zarvel_frame_mem_type(out) == mem);
      results[mem] = bytes_of(out);
      results[mem].insert(results[mem].end(), tensor, tensor + 36 * sizeof(float));
      own.try_emplace(name, zarvel::test::device_fallback("zarvel_frame_" + name));
      EXPECT_EQ(zarvel::test::drain(log_), mem ? own[name] : LogLines{});
    }
    EXPECT_EQ(results[0], results[1]);
  }
  zarvel_buffer_free(&scratch);
}

}  // namespace
