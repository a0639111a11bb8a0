// Shared pieces of the zarvel-aux tool: owners for library records, argument parsers, input
// loading, all-or-nothing output files, the library log capture and terminal progress.
#pragma once

#include <zarvel/aux.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zarvel::tool {

// ---- owners ----
struct FrameFree {
  void operator()(zarvel_frame_t* f) const { zarvel_frame_free(&f); }
};
struct TensorFree {
  void operator()(zarvel_tensor_t* t) const { zarvel_tensor_free(&t); }
};
struct BufferFree {
  void operator()(zarvel_buffer_t* b) const { zarvel_buffer_free(&b); }
};
using Frame = std::unique_ptr<zarvel_frame_t, FrameFree>;
using Tensor = std::unique_ptr<zarvel_tensor_t, TensorFree>;
using Buffer = std::unique_ptr<zarvel_buffer_t, BufferFree>;

// ---- failures ----
// A bad argument found after parsing: one line on stderr, exit status 2.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// A failing operation or file: one line on stderr, exit status 1.
struct OpError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Installs a log sink that keeps the library's messages; with `verbose` they are echoed to
// stderr as they come.
void capture_library_log(bool verbose);
// Throws OpError naming the call, its status and the failure messages the library logged
// since the previous check, unless status is 0.
void check(const char* call, int32_t status);

// ---- argument parsing ----
// "WxH", e.g. 640x480; both positive.
bool parse_size(const std::string& text, Size2D* size);
// "WxH+X+Y" (offsets may be negative: 64x64-8+16), or "X,Y,W,H".
bool parse_area(const std::string& text, Area2D* area);
// Exactly n comma-separated floats.
bool parse_floats(const std::string& text, size_t n, std::vector<float>* values);
// Pixel format by name (GREY, RGB24, BGR24, NV12, NV21, YU12, GREY16; I420 for YU12), any case.
bool parse_format(const std::string& text, uint32_t* format);
// "WxH:FORMAT" describing headerless raw pixels.
struct RawGeometry {
  Size2D size{0, 0};
  uint32_t format = 0;
};
bool parse_raw(const std::string& text, RawGeometry* raw);

// CLI11 validators wrapping the parsers above, so that bad values are parse errors.
CLI::Validator size_check();
CLI::Validator area_check();
CLI::Validator floats_check(size_t n);
CLI::Validator format_check();
CLI::Validator raw_check();

// ---- inputs and outputs ----
// Decodes an image file, or reads raw pixels when `raw` (a "WxH:FORMAT" text) is not empty.
Frame load_input(const std::string& path, const std::string& raw);
// True for the endings the library encodes (.png, .jpg, .jpeg, .bmp, any case).
bool is_image_path(const std::string& path);

// Output files that appear all together or not at all: each is written under a temporary name
// in its own folder and renamed into place by commit(); uncommitted ones are removed.
class Outputs {
 public:
  Outputs() = default;
  Outputs(const Outputs&) = delete;
  Outputs& operator=(const Outputs&) = delete;
  ~Outputs();
  // Writes the frame as an image (by the path's ending) or as raw planes, tight rows.
  void save_frame(zarvel_frame_t* frame, const std::string& path);
  // Writes a host tensor as a .npy array with the tensor's N, C, H, W shape.
  void save_npy(const zarvel_tensor_t* tensor, const std::string& path);
  // Writes float32 values as a .npy array of the given shape.
  void save_npy(const std::vector<float>& values, const std::vector<int64_t>& shape,
                const std::string& path);
  void commit();

 private:
  std::string temporary_for(const std::string& path);
  void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes);
  std::vector<std::pair<std::string, std::string>> files_;  // temporary, final
};

// The .npy header for a little-endian C-order array of `descr` ("<f4", "|u1") and shape.
std::vector<uint8_t> npy_header(const char* descr, const std::vector<int64_t>& shape);

// "320x240 RGB24"
std::string describe(const zarvel_frame_t* frame);

// ---- progress over many items ----
// Count, rate and time left on one refreshed stderr line, only when stderr is a terminal.
class Progress {
 public:
  Progress(const char* label, size_t total);
  ~Progress();
  void step();

 private:
  using Clock = std::chrono::steady_clock;
  const char* label_;
  size_t total_;
  size_t done_ = 0;
  bool enabled_;
  Clock::time_point start_, last_;
};

// ---- subcommands ----
// The input image, the output file and the raw-input geometry most subcommands share.
struct Io {
  std::string input, output, raw;
};
void add_io(CLI::App* sub, Io* io);
// Registers what a subcommand does once the whole command line has been parsed.
void set_runner(CLI::App* sub, std::function<void()> run);
// Runs the runner of each selected subcommand; they may throw the errors above.
void run_selected(const CLI::App& app);

// Each adds its subcommand(s) to the app.
void add_info(CLI::App& app);
void add_geometry(CLI::App& app);  // crop, resize, rotate, warp
void add_color(CLI::App& app);     // cvt, equalize
void add_tensor(CLI::App& app);
void add_demo(CLI::App& app);

}  // namespace zarvel::tool
