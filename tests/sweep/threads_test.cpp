// Many threads run every operation family at once on frames of their own, starting together so
// that the processor-feature word is first computed concurrently; each thread's results must
// equal the single-threaded ones. Built with -fsanitize=thread by `scripts/test.sh --tsan`.
#include <gtest/gtest.h>
#include <zarvel/aux.h>

#include <latch>
#include <thread>

#include "frame_test_support.h"
#include "log_capture.h"

namespace {

zarvel_frame_t* make(uint32_t format, int32_t w, int32_t h, int seed) {
  zarvel_frame_t* f = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0);
  zarvel::test::fill_pattern(f, seed);
  return f;
}

// Every operation once on fresh frames; the statuses and bytes of all results in one vector.
std::vector<uint8_t> run_all(int seed) {
  std::vector<uint8_t> out;
  // Runs op(&slot) with the slot holding `dst` (null: the operation allocates); appends the
  // status and the visible bytes of the frame left in the slot, then frees it.
  const auto one = [&out](zarvel_frame_t* dst, auto op) {
    out.push_back(static_cast<uint8_t>(op(&dst)));
    if (dst) std::ranges::copy(zarvel::test::visible_bytes(dst), std::back_inserter(out));
    zarvel_frame_free(&dst);
  };
  zarvel_frame_t* rgb = make(ZARVEL_PIXFMT_RGB24, 37, 29, seed);
  zarvel_frame_t* nv12 = make(ZARVEL_PIXFMT_NV12, 40, 22, seed);
  zarvel_frame_t* grey = make(ZARVEL_PIXFMT_GREY, 35, 27, seed);
  using Slot = zarvel_frame_t**;
  one(nullptr, [&](Slot d) { return zarvel_frame_resize(nv12, d, Size2D{66, 18}); });
  one(nullptr, [&](Slot d) { return zarvel_frame_rotate(rgb, d, 2); });
  one(nullptr, [&](Slot d) { return zarvel_frame_equalize_hist(grey, d); });
  one(nullptr, [&](Slot d) { return zarvel_frame_cvt_color(nv12, d, ZARVEL_PIXFMT_BGR24); });
  one(nullptr, [&](Slot d) { return zarvel_frame_cvt_color(rgb, d, ZARVEL_PIXFMT_YU12); });
  const float affine[6] = {0.9f, 0.2f, -3.0f, -0.1f, 1.1f, 2.5f};
  const float persp[9] = {1.0f, 0.1f, 2.0f, 0.05f, 0.9f, -1.0f, 0.001f, 0.002f, 1.0f};
  one(make(ZARVEL_PIXFMT_RGB24, 41, 23, seed + 1),
      [&](Slot d) { return zarvel_frame_warpaffine(rgb, *d, affine); });
  one(make(ZARVEL_PIXFMT_NV12, 30, 20, seed + 1),
      [&](Slot d) { return zarvel_frame_warpperspective(nv12, *d, persp); });

  zarvel_tensor_t* tensor = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 24, 24);
  const float mean[3] = {10, 20, 30}, std3[3] = {2, 3, 4}, pads[6] = {1, 2, 3, 4, 5, 6};
  out.push_back(static_cast<uint8_t>(zarvel_frame_to_tensor(tensor, 0, 1, rgb, mean, std3, pads)));
  zarvel_frame_t* frames[2] = {rgb, rgb};
  const Area2D rois[2] = {{0, 0, 30, 20}, {5, 5, 40, 40}};
  zarvel_buffer_t* scratch = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  out.push_back(static_cast<uint8_t>(zarvel_frame_transform_to_tensor_batch(
      tensor, 0, 2, frames, rois, 0, mean, std3, pads, &scratch, nullptr, nullptr)));
  const auto* t = static_cast<const uint8_t*>(zarvel_tensor_raw_pointer(tensor));
  out.insert(out.end(), t, t + 2 * 3 * 24 * 24 * sizeof(float));
  one(nullptr, [&](Slot d) { return zarvel_tensor_to_frames(tensor, 1, 1, d); });

  zarvel_buffer_t* png = zarvel_buffer_alloc(0, ZARVEL_MEM_HOST);
  out.push_back(static_cast<uint8_t>(zarvel_frame_encode(rgb, ZARVEL_IMAGE_PNG, png)));
  one(nullptr, [&](Slot d) {
    *d = zarvel_frame_load_from_memory(zarvel_buffer_raw_pointer(png), zarvel_buffer_size(png));
    return *d ? 0 : 1;
  });
  const float from[6] = {1, 2, 30, 4, 7, 25}, to[6] = {3, 1, 33, 9, 2, 27};
  float fit[4][9];
  zarvel_find_affine_transform(from, to, fit[0], fit[1]);
  zarvel_find_similarity_transform(from, to, fit[2], fit[3]);
  const auto* fits = reinterpret_cast<const uint8_t*>(fit);
  out.insert(out.end(), fits, fits + sizeof(fit));
  for (zarvel_buffer_t* b : {png, scratch}) zarvel_buffer_free(&b);
  zarvel_tensor_free(&tensor);
  for (zarvel_frame_t* f : {grey, nv12, rgb}) zarvel_frame_free(&f);
  return out;
}

TEST(Threads, ConcurrentOperationsMatchSingleThreaded) {
  zarvel::test::LogCapture log;            // the sink is shared by every thread
  constexpr int kThreads = 8, kSeeds = 2;  // threads share seeds pairwise but never frames
  std::vector<std::vector<uint8_t>> results(kThreads);
  {
    std::latch start(kThreads);
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i)
      threads.emplace_back([i, &start, &results] {
        start.arrive_and_wait();
        for (int round = 0; round < 2; ++round) results[i] = run_all(i % kSeeds);
      });
  }
  for (int seed = 0; seed < kSeeds; ++seed) {
    const std::vector<uint8_t> expected = run_all(seed);
    ASSERT_GT(expected.size(), 1000u);
    for (int i = seed; i < kThreads; i += kSeeds) EXPECT_TRUE(results[i] == expected) << i;
  }
}

}  // namespace
