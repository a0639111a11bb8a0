// The identity entry points and the banner's exact shape; the processor-feature word and its
// test mask; output preparation, the shared frame checks and the dispatch sequence, driven
// through a test slot, with every message captured from the core library's sink. (Concurrent
// first use of the feature word is covered by the threads test; every operation's device
// fallback by the sweep.)
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <regex>

#include "op_test_support.h"
#include "plugin/dispatch.h"
#include "plugin/status.h"

namespace za = zarvel::aux;
using zarvel::test::drain;
using zarvel::test::LogLines;

namespace {

TEST(Identity, NamesVersionAndBanner) {
  EXPECT_EQ(std::string(__plugin_name()) + " " + zarvel_aux_version(), "zarvel_aux 1.4.1");
  const std::string revision = zarvel_aux_revision();
  EXPECT_TRUE(std::regex_match(revision, std::regex("[0-9a-f]{40}"))) << revision;
  // Line by line; the component line's trailing blank is part of it.
  const std::regex banner(
      "ZARVEL 1\\.4\\.1\n.+\n\nComponent    : zarvel_aux \nRevision     : " + revision +
      "\n\nSystem       : \\S+-\\S+\nArchitecture : AMD64\n"
      "C Compiler   : \\S+ [0-9.]+\nC\\+\\+ Compiler : \\S+ [0-9.]+\n"
      "Build Config : \\S+\n\nContact      : \\S+@\\S+\n\n");
  EXPECT_TRUE(std::regex_match(std::string(zarvel_aux_meta()), banner)) << zarvel_aux_meta();
}

TEST(CpuFeatures, MaskFiltersTheDetectedWord) {
  const uint32_t all = za::cpu_features();
  // Each bit implies the narrower ones (the 512-bit counts need VBMI, AVX-512 needs FMA-256,
  // FMA-256 needs AVX2, AVX2 needs AVX); no others are set.
  EXPECT_TRUE((!(all & za::kCpuAvx512Bits) || (all & za::kCpuAvx512Vbmi)) &&
              (!(all & za::kCpuAvx512Vbmi) || (all & za::kCpuAvx2Fma)) &&
              (!(all & za::kCpuAvx2Fma) || (all & za::kCpuAvx2)) &&
              (!(all & za::kCpuAvx2) || (all & za::kCpuAvx)) &&
              !(all & ~(za::kCpuAvx | za::kCpuAvx2 | za::kCpuAvx2Fma | za::kCpuAvx512Vbmi |
                        za::kCpuAvx512Bits)));
  for (uint32_t mask : {0u, za::kCpuAvx, ~0u}) {
    za::set_cpu_feature_mask(mask);
    EXPECT_EQ(za::cpu_features(), all & mask);
  }
}

constexpr const char* kOp = "zarvel_frame_test_op";

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

std::string even(const char* name, int w, int h) {
  return std::string("4 aux [") + name +
         "] Width and height should be even numbers for NV21/12 or YU12, current frame:\n"
         "\twidth: " +
         std::to_string(w) + "\n\theight: " + std::to_string(h) + "\n";
}
std::string mismatch(uint32_t mem, uint32_t format, const std::string& sizes = "") {
  return std::string("4 aux [") + kOp +
         "] Required_frame and given_frame not match:\n\treq:\tgiven:\nmem:\t0\t" +
         std::to_string(mem) + "\nfmt:\tRGB24\t" + zarvel_frame_pixfmt_to_string(format) + "\n" +
         sizes;
}

TEST(PrepareOutput, AllocatesOrValidatesTheOutput) {
  zarvel::test::LogCapture log;
  zarvel_frame_t* out = nullptr;
  auto nv12 = alloc(ZARVEL_PIXFMT_NV12, 8, 6), grey = alloc(ZARVEL_PIXFMT_GREY, 5, 3);
  nv12->meta_word1 = 0xfeedu;
  // Null arguments are refused silently; odd sizes are fine outside 4:2:0.
  EXPECT_TRUE(za::prepare_output(nullptr, &out, {4, 4}, kOp) == za::kInvalidArgument &&
              za::prepare_output(nv12.get(), nullptr, {4, 4}, kOp) == za::kInvalidArgument);
  ASSERT_EQ(za::prepare_output(nv12.get(), &out, {4, 2}, kOp), za::kOk);
  za::FramePtr owned(out);
  EXPECT_TRUE(out->format == ZARVEL_PIXFMT_NV12 && out->width == 4 && out->height == 2 &&
              out->meta_word1 == 0xfeedu && zarvel_frame_mem_type(out) == ZARVEL_MEM_HOST);
  out = nullptr;
  ASSERT_EQ(za::prepare_output(grey.get(), &out, {5, 3}, kOp), za::kOk);
  owned.reset(out);
  EXPECT_EQ(drain(log), LogLines{});

  // Odd 4:2:0 sizes, of the source record or the required size, are refused before allocating.
  out = nullptr;
  grey->format = ZARVEL_PIXFMT_NV12;  // an odd-width 4:2:0 record, as a caller might build
  EXPECT_EQ(za::prepare_output(grey.get(), &out, {4, 4}, kOp), za::kInvalidArgument);
  grey->format = ZARVEL_PIXFMT_GREY;
  EXPECT_EQ(za::prepare_output(nv12.get(), &out, {3, 2}, kOp), za::kInvalidArgument);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(drain(log), (LogLines{even(kOp, 5, 3), even(kOp, 3, 2)}));

  // Allocation failure: -4 and no message of the component's own.
  EXPECT_EQ(za::prepare_output(nv12.get(), &out, {0x7ffffffe, 0x7ffffffe}, kOp), za::kFailed);
  EXPECT_EQ(out, nullptr);
  for (const auto& m : log.messages()) EXPECT_NE(m.tag, "aux") << m.text;
  log.clear();

  // A caller's output must match memory type and format and be at least as large; it is
  // never freed. Each row: format, width, height, memory type.
  auto rgb = alloc(ZARVEL_PIXFMT_RGB24, 8, 8);
  constexpr uint32_t kRgb = ZARVEL_PIXFMT_RGB24;
  const uint32_t given[][4] = {{kRgb, 10, 9, 0},
                               {kRgb, 7, 8, 0},
                               {kRgb, 8, 7, 0},
                               {ZARVEL_PIXFMT_BGR24, 8, 8, 0},
                               {kRgb, 8, 8, 1}};
  for (const auto [format, w, h, mem] : given) {
    auto frame = alloc(format, w, h, mem);
    zarvel_frame_t* slot = frame.get();
    const bool fits = w == 10;
    EXPECT_EQ(za::prepare_output(rgb.get(), &slot, {8, 8}, kOp),
              fits ? za::kOk : za::kInvalidArgument);
    EXPECT_EQ(slot, frame.get());
    const std::string sizes =
        "width:\t8\t" + std::to_string(w) + "\nheight:\t8\t" + std::to_string(h) + "\n";
    EXPECT_EQ(drain(log), fits ? LogLines{} : LogLines{mismatch(mem, format, sizes)});
  }

  // The same-format check compares format and memory type, not sizes: -4 with the message
  // (no size lines); an odd 4:2:0 frame is reported under the check's own name.
  auto small = alloc(ZARVEL_PIXFMT_RGB24, 3, 5), dev = alloc(ZARVEL_PIXFMT_RGB24, 8, 8, 1);
  auto bgr = alloc(ZARVEL_PIXFMT_BGR24, 8, 8), odd = alloc(ZARVEL_PIXFMT_GREY, 6, 3);
  odd->format = ZARVEL_PIXFMT_YU12;
  EXPECT_TRUE(za::is_same_frame_fmt_and_memtype(rgb.get(), small.get(), kOp) == za::kOk &&
              za::is_same_frame_fmt_and_memtype(rgb.get(), bgr.get(), kOp) == za::kFailed &&
              za::is_same_frame_fmt_and_memtype(rgb.get(), dev.get(), kOp) == za::kFailed &&
              za::is_same_frame_fmt_and_memtype(alloc(ZARVEL_PIXFMT_YU12, 6, 4).get(), odd.get(),
                                                kOp) == za::kFailed);
  odd->format = ZARVEL_PIXFMT_GREY;
  EXPECT_EQ(drain(log),
            (LogLines{mismatch(0, ZARVEL_PIXFMT_BGR24), mismatch(1, ZARVEL_PIXFMT_RGB24),
                      even("is_same_frame_fmt_and_memtype", 6, 3)}));
}

// A grey ramp with metadata through a slot that writes 255 - src (or fails with `status`): on
// success the output inherits the source's metadata; on failure only an output the call
// allocated is freed. (Device sources through every operation's slot are in the sweep.)
TEST(Dispatch, ThroughASlot) {
  zarvel::test::LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_GREY, 6, 4);
  for (int i = 0; i < 24; ++i) src->plane[0][i] = uint8_t(i);  // tight rows
  src->meta_word0 = 11;
  src->extra = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
  int calls = 0;
  int32_t status = za::kOk;
  const auto slot = [&](zarvel_frame_t* s, zarvel_frame_t* d) {
    ++calls;
    for (int i = 0; status == za::kOk && i < 24; ++i) d->plane[0][i] = 255 - s->plane[0][i];
    return status;
  };
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(za::prepare_output(src.get(), &out, {6, 4}, kOp), za::kOk);
  ASSERT_EQ(za::dispatch_frame_op(kOp, src.get(), &out, true, slot), za::kOk);
  za::FramePtr owned(out);
  EXPECT_TRUE(out->meta_word0 == 11u && out->extra == src->extra);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(out->plane[0][i], 255 - i);
  EXPECT_EQ(drain(log), LogLines{});

  status = -1000;
  zarvel_frame_t* fresh = nullptr;
  ASSERT_EQ(za::prepare_output(src.get(), &fresh, {6, 4}, kOp), za::kOk);
  EXPECT_EQ(za::dispatch_frame_op(kOp, src.get(), &fresh, true, slot), -1000);
  EXPECT_EQ(fresh, nullptr);
  auto given = alloc(ZARVEL_PIXFMT_GREY, 6, 4);
  zarvel_frame_t* given_slot = given.get();
  EXPECT_EQ(za::dispatch_frame_op(kOp, src.get(), &given_slot, false, slot), -1000);
  EXPECT_TRUE(given_slot == given.get() && given->extra == nullptr);  // nothing inherited
  EXPECT_EQ(calls, 3);
}

}  // namespace
