// The single-plane bilinear resampler used by the host resize.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace zarvel::aux::resample {

// Resamples a plane of `channels` interleaved 8-bit channels from sw x sh to dw x dh.
// Strides are in bytes. Returns 0, or -4 when the scratch block cannot be allocated.
int32_t resample_plane(const uint8_t* src, int32_t sw, int32_t sh, int32_t src_stride, uint8_t* dst,
                       int32_t dw, int32_t dh, int32_t dst_stride, int32_t channels);

// One axis of the coordinate table: for each destination index, the first source tap and
// the two weights (scaled by 2048). Taps never leave [0, source size): a tap clamped at the
// last pixel is expressed as the pair (size - 2, size - 1) with weights (0, 2048).
struct AxisTap {
  int32_t index;
  int16_t w0;
  int16_t w1;
};
// Fills taps[0 .. count) (count <= dst_size; the default -1 means dst_size).
void compute_axis_taps(int32_t src_size, int32_t dst_size, AxisTap* taps, int32_t count = -1);

// The resampler of one plane geometry: tables built once, then output rows produced one at
// a time from source rows that the caller supplies (a plane, or rows cut out of a frame on
// the fly), so that a caller can stream each output row onward without a whole frame.
class PlaneResampler {
 public:
  // Builds the tables. `readable` is how many bytes from the start of every source row may
  // be read (at least sw * channels; 0 means exactly that): more lets the vector rows reach
  // the row's end. Returns 0, or -4 when the scratch block cannot be allocated or the
  // geometry is out of range. Sizes must be positive. `out_w` x `out_h` (when positive, at
  // most dw x dh) limits the output to its top-left corner: the scale stays that of dw x dh
  // but only those rows and columns are computed, and the tables are sized for them.
  // Called again with the same arguments and processor features, it keeps the tables it has,
  // so a resampler kept for a stream of same-sized frames builds them once.
  int32_t init(int32_t sw, int32_t sh, int32_t dw, int32_t dh, int32_t channels,
               int64_t readable = 0, int32_t out_w = 0, int32_t out_h = 0);

  // Produces every output row: source_row(sy) -> const uint8_t* (sw * channels bytes, valid
  // until the second call after it: a caller that cuts rows keeps two), output_row(dy) ->
  // uint8_t* (dw * channels bytes to fill), then row_done(dy).
  // source_address(sy) -> const uint8_t* names where source row sy lies (or null when it is
  // made on demand) so that it can be fetched into the cache one output row ahead.
  template <class SourceRow, class OutputRow, class RowDone, class SourceAddress>
  void run(SourceRow&& source_row, OutputRow&& output_row, RowDone&& row_done,
           SourceAddress&& source_address) {
    int32_t cached[2] = {-1, -1};
    for (int32_t dy = 0; dy < dh_; ++dy) {
      const int32_t sy0 = row_taps_[dy].index;
      const int32_t sy1 = sh_ >= 2 ? sy0 + 1 : sy0;
      const bool next_reuses = dy + 1 < dh_ && row_taps_[dy + 1].index <= sy1;
      if (dy + 1 < dh_ && !next_reuses) {
        const int32_t next = row_taps_[dy + 1].index;
        prefetch(source_address(next));
        if (sh_ >= 2) prefetch(source_address(next + 1));
      }
      if (wide_gather_ && sy1 != sy0 && !next_reuses && cached[0] < sy0 && cached[1] < sy0) {
        // Two rows that no other output row takes: both passes at once, no sums kept.
        const uint8_t* row0 = source_row(sy0);
        const uint8_t* row1 = source_row(sy1);
        both_passes(dy, row0, row1, output_row(dy));
        cached[0] = cached[1] = -1;
      } else {
        if (cached[0] != sy0 && cached[1] == sy0) swap_rows(cached);
        if (cached[0] != sy0) {
          horizontal(source_row(sy0), sums_[0]);
          cached[0] = sy0;
        }
        if (cached[1] != sy1) {
          horizontal(source_row(sy1), sums_[1]);
          cached[1] = sy1;
        }
        vertical(dy, output_row(dy));
      }
      row_done(dy);
    }
  }

 private:
  enum class Form { kWindow, kSplit, kGather };
  void plan_vector_rows(int64_t readable);
  void plan_wide_rows(int64_t readable);
  uint32_t pick(int32_t t0) const;
  // Horizontal sums of a row's elements [first, n); first is 0 or where the 512-bit row ends.
  void horizontal(const uint8_t* row, int16_t* out, int first = 0) const;
  void vertical(int32_t dy, uint8_t* out, int first = 0) const;
  void both_passes(int32_t dy, const uint8_t* row0, const uint8_t* row1, uint8_t* out);
  void swap_rows(int32_t cached[2]);
  // Asks for the head of an upcoming row (its first eight cache lines): the hardware's stream
  // prefetcher fetches the rest of a long row once the head is read, while prefetching a
  // whole long row stalls the row at hand on the miss buffers.
  void prefetch(const uint8_t* row) const {
    if (row == nullptr) return;
    const int64_t head = std::min<int64_t>(source_bytes_, 512);
    for (int64_t at = 0; at < head; at += 64) __builtin_prefetch(row + at);
  }

  std::unique_ptr<uint8_t, decltype(&std::free)> block_{nullptr, &std::free};
  int64_t key_[9] = {};  // the arguments and features the tables were built for
  int32_t sh_ = 0, dh_ = 0, n_ = 0, step_ = 0;
  int64_t source_bytes_ = 0;
  bool avx2_ = false;
  Form form_ = Form::kGather;
  int vector_elements_ = 0;   // elements the vector horizontal row may take
  int wide_elements_ = 0;     // elements the 512-bit row takes first (whole blocks)
  bool wide_gather_ = false;  // that row is the pixel-gather form, else the window form
  int32_t* pixel_ofs_ = nullptr;
  uint16_t* w_low_ = nullptr;  // split weight pairs of every element
  uint16_t* w_high_ = nullptr;
  int32_t* wide_base_ = nullptr;
  uint16_t* wide_picks_ = nullptr;  // tap byte pairs of the window form
  int32_t* ofs_ = nullptr;
  int32_t* weights_ = nullptr;
  uint32_t* shuffle_ = nullptr;
  int32_t* base_ = nullptr;
  int32_t* split_hi_ = nullptr;
  AxisTap* row_taps_ = nullptr;
  int16_t* sums_[2] = {nullptr, nullptr};
};

}  // namespace zarvel::aux::resample
