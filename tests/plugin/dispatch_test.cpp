// Output preparation, the shared frame checks and the dispatch sequence, driven through a
// test slot, with every message captured from the core library's sink.
#include "plugin/dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "frame_api/frame_api.h"
#include "log_capture.h"
#include "plugin/status.h"

namespace za = zarvel::aux;
using zarvel::test::LogCapture;
using zarvel::test::LogMessage;

namespace {

constexpr const char* kOp = "zarvel_frame_test_op";

za::FramePtr alloc(uint32_t format, int w, int h, uint32_t mem = ZARVEL_MEM_HOST) {
  return za::FramePtr(zarvel_frame_alloc(mem, format, w, h, nullptr, 0));
}

void expect_message(const LogMessage& m, uint32_t level, const std::string& text) {
  EXPECT_EQ(m.level, level);
  EXPECT_EQ(m.tag, "aux");
  EXPECT_TRUE(m.tag_padded);
  EXPECT_GT(m.line, 0u);
  EXPECT_EQ(m.text, text);
}

std::string even_message(const char* name, int w, int h) {
  return std::string("[") + name +
         "] Width and height should be even numbers for NV21/12 or YU12, current frame:\n"
         "\twidth: " +
         std::to_string(w) + "\n\theight: " + std::to_string(h) + "\n";
}

TEST(PrepareOutput, NullArgumentsAreRefusedSilently) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_GREY, 4, 4);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(za::prepare_output(nullptr, &out, {4, 4}, kOp), za::kInvalidArgument);
  EXPECT_EQ(za::prepare_output(src.get(), nullptr, {4, 4}, kOp), za::kInvalidArgument);
  EXPECT_EQ(out, nullptr);
  EXPECT_TRUE(log.messages().empty());
}

TEST(PrepareOutput, AllocatesWithSourceFormatMemoryTypeAndMetaWord) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_NV12, 8, 6);
  src->meta_word1 = 0xfeedu;
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(za::prepare_output(src.get(), &out, {4, 2}, kOp), za::kOk);
  za::FramePtr owned(out);
  EXPECT_EQ(out->format, ZARVEL_PIXFMT_NV12);
  EXPECT_EQ(out->width, 4);
  EXPECT_EQ(out->height, 2);
  EXPECT_EQ(out->meta_word1, 0xfeedu);
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_HOST);
  EXPECT_TRUE(log.messages().empty());
}

TEST(PrepareOutput, OddSizesOfFourTwoZeroFramesAreRefusedBeforeAllocating) {
  LogCapture log;
  auto nv12 = alloc(ZARVEL_PIXFMT_GREY, 5, 4);
  nv12->format = ZARVEL_PIXFMT_NV12;  // an odd-width 4:2:0 record, as a caller might build
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(za::prepare_output(nv12.get(), &out, {4, 4}, kOp), za::kInvalidArgument);
  EXPECT_EQ(out, nullptr);
  nv12->format = ZARVEL_PIXFMT_GREY;
  auto messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  expect_message(messages[0], 4, even_message(kOp, 5, 4));

  // The same odd size is fine for a grey frame.
  log.clear();
  auto grey = alloc(ZARVEL_PIXFMT_GREY, 5, 3);
  ASSERT_EQ(za::prepare_output(grey.get(), &out, {5, 3}, kOp), za::kOk);
  za::FramePtr owned(out);
  EXPECT_TRUE(log.messages().empty());

  // An odd required size for an even 4:2:0 source is refused without allocating.
  log.clear();
  auto even = alloc(ZARVEL_PIXFMT_YU12, 4, 4);
  zarvel_frame_t* odd_out = nullptr;
  EXPECT_EQ(za::prepare_output(even.get(), &odd_out, {3, 2}, kOp), za::kInvalidArgument);
  EXPECT_EQ(odd_out, nullptr);
  messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  expect_message(messages[0], 4, even_message(kOp, 3, 2));
}

TEST(PrepareOutput, GivenOutputMustMatchTypeFormatAndBeLargeEnough) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_RGB24, 8, 8);

  auto larger = alloc(ZARVEL_PIXFMT_RGB24, 10, 9);
  zarvel_frame_t* slot = larger.get();
  EXPECT_EQ(za::prepare_output(src.get(), &slot, {8, 8}, kOp), za::kOk);
  EXPECT_EQ(slot, larger.get());
  EXPECT_TRUE(log.messages().empty());

  struct Case {
    uint32_t format;
    int w, h;
    uint32_t mem;
  };
  const Case refused[] = {{ZARVEL_PIXFMT_RGB24, 7, 8, ZARVEL_MEM_HOST},
                          {ZARVEL_PIXFMT_RGB24, 8, 7, ZARVEL_MEM_HOST},
                          {ZARVEL_PIXFMT_BGR24, 8, 8, ZARVEL_MEM_HOST},
                          {ZARVEL_PIXFMT_RGB24, 8, 8, ZARVEL_MEM_DEVICE}};
  for (const Case& c : refused) {
    log.clear();
    auto given = alloc(c.format, c.w, c.h, c.mem);
    ASSERT_NE(given, nullptr);
    zarvel_frame_t* given_slot = given.get();
    EXPECT_EQ(za::prepare_output(src.get(), &given_slot, {8, 8}, kOp), za::kInvalidArgument);
    EXPECT_EQ(given_slot, given.get());  // the caller's frame is never freed
    auto messages = log.messages();
    ASSERT_EQ(messages.size(), 1u);
    const std::string expected =
        std::string("[") + kOp +
        "] Required_frame and given_frame not match:\n\treq:\tgiven:\nmem:\t0\t" +
        std::to_string(c.mem) + "\nfmt:\t" + zarvel_frame_pixfmt_to_string(ZARVEL_PIXFMT_RGB24) +
        "\t" + zarvel_frame_pixfmt_to_string(c.format) + "\nwidth:\t8\t" + std::to_string(c.w) +
        "\nheight:\t8\t" + std::to_string(c.h) + "\n";
    expect_message(messages[0], 4, expected);
  }
}

TEST(PrepareOutput, AllocationFailureGivesMinusFourWithoutMessage) {
  LogCapture log;
  auto src = alloc(ZARVEL_PIXFMT_RGB24, 8, 8);
  zarvel_frame_t* out = nullptr;
  EXPECT_EQ(za::prepare_output(src.get(), &out, {0x7fffffff, 0x7fffffff}, kOp), za::kFailed);
  EXPECT_EQ(out, nullptr);
  for (const LogMessage& m : log.messages()) EXPECT_NE(m.tag, "aux") << m.text;  // library's own
}

TEST(SameFormatCheck, MismatchAndOddSizesGiveMinusFour) {
  LogCapture log;
  auto a = alloc(ZARVEL_PIXFMT_GREY, 8, 8);
  auto b = alloc(ZARVEL_PIXFMT_GREY, 3, 5);  // sizes are not compared
  EXPECT_EQ(za::is_same_frame_fmt_and_memtype(a.get(), b.get(), kOp), za::kOk);
  EXPECT_TRUE(log.messages().empty());

  auto rgb = alloc(ZARVEL_PIXFMT_RGB24, 8, 8);
  EXPECT_EQ(za::is_same_frame_fmt_and_memtype(a.get(), rgb.get(), kOp), za::kFailed);
  auto dev = alloc(ZARVEL_PIXFMT_GREY, 8, 8, ZARVEL_MEM_DEVICE);
  EXPECT_EQ(za::is_same_frame_fmt_and_memtype(a.get(), dev.get(), kOp), za::kFailed);
  auto messages = log.messages();
  ASSERT_EQ(messages.size(), 2u);
  const std::string grey = zarvel_frame_pixfmt_to_string(ZARVEL_PIXFMT_GREY);
  const std::string rgb_name = zarvel_frame_pixfmt_to_string(ZARVEL_PIXFMT_RGB24);
  const std::string head =
      std::string("[") + kOp + "] Required_frame and given_frame not match:\n\treq:\tgiven:\n";
  expect_message(messages[0], 4, head + "mem:\t0\t0\nfmt:\t" + grey + "\t" + rgb_name + "\n");
  expect_message(messages[1], 4, head + "mem:\t0\t1\nfmt:\t" + grey + "\t" + grey + "\n");

  // Odd 4:2:0 frames are reported under the check's own name.
  log.clear();
  auto odd = alloc(ZARVEL_PIXFMT_GREY, 6, 3);
  odd->format = ZARVEL_PIXFMT_YU12;
  auto even = alloc(ZARVEL_PIXFMT_YU12, 6, 4);
  EXPECT_EQ(za::is_same_frame_fmt_and_memtype(even.get(), odd.get(), kOp), za::kFailed);
  odd->format = ZARVEL_PIXFMT_GREY;
  messages = log.messages();
  ASSERT_EQ(messages.size(), 1u);
  expect_message(messages[0], 4, even_message("is_same_frame_fmt_and_memtype", 6, 3));
}

// Fills src with a ramp; the test slot writes 255 - src into dst.
struct InvertSlot {
  int calls = 0;
  uint32_t seen_src_mem = 99, seen_dst_mem = 99;
  int32_t status = za::kOk;
  int32_t operator()(zarvel_frame_t* src, zarvel_frame_t* dst) {
    ++calls;
    seen_src_mem = zarvel_frame_mem_type(src);
    seen_dst_mem = zarvel_frame_mem_type(dst);
    if (status != za::kOk) return status;
    for (int y = 0; y < src->height; ++y)
      for (int x = 0; x < src->width; ++x)
        dst->plane[0][y * dst->stride[0] + x] = 255 - src->plane[0][y * src->stride[0] + x];
    return za::kOk;
  }
};

za::FramePtr ramp_frame(int w, int h) {
  auto f = alloc(ZARVEL_PIXFMT_GREY, w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) f->plane[0][y * f->stride[0] + x] = static_cast<uint8_t>(y * w + x);
  f->meta_word0 = 11;
  f->meta_word1 = 22;
  return f;
}

TEST(Dispatch, HostSuccessInheritsMetadataAndExtra) {
  LogCapture log;
  auto src = ramp_frame(5, 3);
  src->extra = zarvel_buffer_alloc(16, ZARVEL_MEM_HOST);
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(za::prepare_output(src.get(), &out, {5, 3}, kOp), za::kOk);
  InvertSlot slot;
  ASSERT_EQ(za::dispatch_frame_op(kOp, src.get(), &out, true, slot), za::kOk);
  za::FramePtr owned(out);
  EXPECT_EQ(slot.calls, 1);
  EXPECT_EQ(out->meta_word0, 11u);
  EXPECT_EQ(out->meta_word1, 22u);
  EXPECT_EQ(out->extra, src->extra);
  EXPECT_EQ(out->plane[0][out->stride[0] * 2 + 4], 255 - 14);
  EXPECT_TRUE(log.messages().empty());
}

TEST(Dispatch, DeviceSourceFallsBackToHostAndUploads) {
  LogCapture log;
  auto host = ramp_frame(6, 4);
  zarvel_frame_t* dev = nullptr;
  ASSERT_EQ(zarvel_frame_upload(host.get(), &dev), za::kOk);
  za::FramePtr dev_src(dev);
  dev_src->meta_word0 = 5;
  zarvel_frame_t* out = nullptr;
  ASSERT_EQ(za::prepare_output(dev_src.get(), &out, {6, 4}, kOp), za::kOk);
  EXPECT_EQ(zarvel_frame_mem_type(out), ZARVEL_MEM_DEVICE);

  InvertSlot slot;
  ASSERT_EQ(za::dispatch_frame_op(kOp, dev_src.get(), &out, true, slot), za::kOk);
  za::FramePtr dev_out(out);
  EXPECT_EQ(slot.seen_src_mem, ZARVEL_MEM_HOST);  // the slot only ever sees host frames
  EXPECT_EQ(slot.seen_dst_mem, ZARVEL_MEM_HOST);
  EXPECT_EQ(out->meta_word0, 5u);

  zarvel_frame_t* back = nullptr;
  ASSERT_EQ(zarvel_frame_download(out, &back), za::kOk);
  za::FramePtr result(back);
  for (int i = 0; i < 24; ++i)
    EXPECT_EQ(result->plane[0][(i / 6) * result->stride[0] + i % 6], 255 - i);

  auto messages = log.messages();
  ASSERT_EQ(messages.size(), 2u);
  expect_message(messages[0], 4, "No device api found, pls rebuild with specific device on!\n");
  expect_message(messages[1], 0,
                 std::string("Device api not support, fallback to CPU - [") + kOp + "]!\n");
}

TEST(Dispatch, SlotFailureFreesOnlyAnOutputTheCallAllocated) {
  for (uint32_t mem : {ZARVEL_MEM_HOST, ZARVEL_MEM_DEVICE}) {
    SCOPED_TRACE(mem);
    auto src = alloc(ZARVEL_PIXFMT_GREY, 4, 4, mem);
    InvertSlot failing;
    failing.status = -1000;

    zarvel_frame_t* out = nullptr;
    ASSERT_EQ(za::prepare_output(src.get(), &out, {4, 4}, kOp), za::kOk);
    EXPECT_EQ(za::dispatch_frame_op(kOp, src.get(), &out, true, failing), -1000);
    EXPECT_EQ(out, nullptr);

    auto given = alloc(ZARVEL_PIXFMT_GREY, 4, 4, mem);
    zarvel_frame_t* given_slot = given.get();
    EXPECT_EQ(za::dispatch_frame_op(kOp, src.get(), &given_slot, false, failing), -1000);
    EXPECT_EQ(given_slot, given.get());
    EXPECT_EQ(given->extra, nullptr);  // nothing inherited on failure
    EXPECT_EQ(failing.calls, 2);
  }
}

}  // namespace
