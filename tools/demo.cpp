// The demo subcommand: a test chart (or the user's images) through the one-call preprocessing
// path and every operation, results written into a folder with a timing table.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "common.h"

namespace zarvel::tool {
namespace {

// Colour bars, R/G/B gradients, fine lines and a 16-step grey ramp, as an RGB24 frame.
Frame make_chart(int32_t w, int32_t h) {
  Frame chart(zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, w, h, nullptr, 0));
  check("zarvel_frame_alloc", chart ? 0 : ZARVEL_EFAIL);
  static const uint8_t kBars[8][3] = {{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                      {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
  for (int32_t y = 0; y < h; ++y) {
    uint8_t* row = chart->plane[0] + static_cast<int64_t>(y) * chart->stride[0];
    const int band = y * 8 / h;  // 0-2 bars, 3-4 gradients, 5-6 lines, 7 ramp
    for (int32_t x = 0; x < w; ++x) {
      uint8_t* px = row + 3 * x;
      const uint8_t ramp = static_cast<uint8_t>(x * 255 / (w > 1 ? w - 1 : 1));
      if (band < 3) {
        const uint8_t* c = kBars[x * 8 / w];
        px[0] = c[0], px[1] = c[1], px[2] = c[2];
      } else if (band < 5) {
        const int which = (y - 3 * h / 8) * 3 / (h / 4 > 0 ? h / 4 : 1);
        px[0] = which == 0 ? ramp : 0, px[1] = which == 1 ? ramp : 0, px[2] = which >= 2 ? ramp : 0;
      } else if (band < 7) {
        // Left: vertical lines 1, 2 and 4 pixels wide; right: horizontal ones.
        const int period = x < w / 6 ? 1 : x < w / 3 ? 2 : 4;
        const bool on = x < w / 2 ? (x / period) % 2 : (y / (period == 4 ? 1 : 2)) % 2;
        px[0] = px[1] = px[2] = on ? 255 : 0;
      } else {
        px[0] = px[1] = px[2] = static_cast<uint8_t>((x * 16 / w) * 17);
      }
    }
  }
  return chart;
}

class Demo {
 public:
  Demo(std::string folder, std::string prefix) : folder_(std::move(folder)), prefix_(prefix) {}

  // Times one library call; `what` describes its result for the table.
  template <typename Fn>
  void step(const char* name, const std::string& output, Fn fn) {
    const auto start = std::chrono::steady_clock::now();
    const std::string what = fn();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    rows_.push_back({name, output.empty() ? "-" : prefix_ + output, what, ms});
  }
  std::string path(const std::string& name) const {
    return (std::filesystem::path(folder_) / (prefix_ + name)).string();
  }
  void print() const {
    std::printf("%-40s %-24s %-22s %9s\n", "operation", "output", "result", "ms");
    for (const auto& r : rows_)
      std::printf("%-40s %-24s %-22s %9.3f\n", r.name.c_str(), r.output.c_str(), r.what.c_str(),
                  r.ms);
  }
  Outputs outputs;

 private:
  struct Row {
    std::string name, output, what;
    double ms;
  };
  std::string folder_, prefix_;
  std::vector<Row> rows_;
};

template <typename Op>
Frame made(const char* call, Op op) {
  zarvel_frame_t* out = nullptr;
  const int32_t status = op(&out);
  Frame frame(out);
  check(call, status);
  return frame;
}

void run_on(Demo& d, zarvel_frame_t* img) {
  const int32_t w = img->width, h = img->height;
  Frame frame;
  // One call: region, resize, normalisation, planar float tensor.
  {
    Tensor t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 1, 3, 224, 224));
    check("zarvel_tensor_alloc", t ? 0 : ZARVEL_EFAIL);
    zarvel_buffer_t* scratch = zarvel_buffer_alloc(1024, ZARVEL_MEM_HOST);
    const Buffer scratch_owner(scratch);
    Area2D roi{0, 0, w, h};
    Size2D size{224, 224};
    TransformToTensorOption o{};
    o.tensor = t.get();
    o.color_type = 1;
    o.flags = ZARVEL_TRANSFORM_RESIZE;
    o.frame_count = 1;
    o.frames = &img;
    o.rois = &roi;
    o.sizes = &size;
    const float mean[3] = {123.675f, 116.28f, 103.53f}, std[3] = {58.395f, 57.12f, 57.375f};
    std::copy(mean, mean + 3, o.mean);
    std::copy(std, std + 3, o.std);
    o.buffer = &scratch;
    d.step("zarvel_frame_transform_to_tensor", "preprocess.npy", [&] {
      check("zarvel_frame_transform_to_tensor", zarvel_frame_transform_to_tensor(&o));
      return std::string("1x3x224x224 f32");
    });
    d.outputs.save_npy(t.get(), d.path("preprocess.npy"));
  }
  // Letterboxed u8 batch item, read back into a frame.
  {
    Tensor t(zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_U8, 1, 3, 256, 256));
    check("zarvel_tensor_alloc", t ? 0 : ZARVEL_EFAIL);
    zarvel_buffer_t* scratch = nullptr;
    const Area2D roi{0, 0, w, h};
    const float zero[3] = {0, 0, 0}, one[3] = {1, 1, 1}, pad[3] = {114, 114, 114};
    float sy = 0, sx = 0;
    d.step("zarvel_frame_transform_to_tensor_batch", "", [&] {
      const int32_t s = zarvel_frame_transform_to_tensor_batch(t.get(), 1, 1, &img, &roi, 0, zero,
                                                               one, pad, &scratch, &sy, &sx);
      zarvel_buffer_free(&scratch);
      check("zarvel_frame_transform_to_tensor_batch", s);
      char text[64];
      std::snprintf(text, sizeof text, "scale %.3f", sx);
      return std::string(text);
    });
    d.step("zarvel_tensor_to_frames", "letterbox.png", [&] {
      frame = made("zarvel_tensor_to_frames", [&](zarvel_frame_t** out) {
        return zarvel_tensor_to_frames(t.get(), 1, 0, out);
      });
      return describe(frame.get());
    });
    d.outputs.save_frame(frame.get(), d.path("letterbox.png"));
  }
  // Single-frame operations, each written as an image (or raw planes for YUV).
  const auto op = [&](const char* name, const char* output, auto fn) {
    d.step(name, output, [&] {
      frame = made(name, fn);
      return describe(frame.get());
    });
    d.outputs.save_frame(frame.get(), d.path(output));
  };
  op("zarvel_frame_crop", "crop.png", [&](zarvel_frame_t** out) {
    return zarvel_frame_crop(img, out,
                             Area2D{w / 4, h / 4, std::max(w / 2, 1), std::max(h / 2, 1)});
  });
  op("zarvel_frame_resize", "resize.png", [&](zarvel_frame_t** out) {
    return zarvel_frame_resize(img, out, Size2D{w / 2 > 0 ? w / 2 : 1, h / 2 > 0 ? h / 2 : 1});
  });
  op("zarvel_frame_scale", "scale.jpg",
     [&](zarvel_frame_t** out) { return zarvel_frame_scale(img, out, 1.5f); });
  op("zarvel_frame_rotate", "rotate90.png",
     [&](zarvel_frame_t** out) { return zarvel_frame_rotate(img, out, 0); });
  const bool even = w % 2 == 0 && h % 2 == 0;
  if (even) {
    op("zarvel_frame_cvt_color", "nv12.yuv",
       [&](zarvel_frame_t** out) { return zarvel_frame_cvt_color(img, out, ZARVEL_PIXFMT_NV12); });
  }
  op("zarvel_frame_cvt_color", "grey.png",
     [&](zarvel_frame_t** out) { return zarvel_frame_cvt_color(img, out, ZARVEL_PIXFMT_GREY); });
  const Frame grey = std::move(frame);
  op("zarvel_frame_equalize_hist", "equalize.png",
     [&](zarvel_frame_t** out) { return zarvel_frame_equalize_hist(grey.get(), out); });
  // A 10 degree turn about the centre from three point pairs, then a keystone.
  const float cx = w / 2.0f, cy = h / 2.0f, c = std::cos(0.1745f), s = std::sin(0.1745f);
  const float src_pts[6] = {cx, cy, cx + 100, cy, cx, cy + 100};
  const float dst_pts[6] = {cx, cy, cx + 100 * c, cy + 100 * s, cx - 100 * s, cy + 100 * c};
  float m[9], inverse[9];
  zarvel_find_affine_transform(dst_pts, src_pts, m, inverse);
  const float k = -0.4f / static_cast<float>(h);  // rows shrink toward the bottom
  const float keystone[9] = {1, w * k / 2, 0, 0, 1, 0, 0, k, 1};
  const auto warp = [&](const char* name, const char* output, auto fn) {
    frame.reset(zarvel_frame_alloc(ZARVEL_MEM_HOST, img->format, w, h, nullptr, 0));
    check("zarvel_frame_alloc", frame ? 0 : ZARVEL_EFAIL);
    d.step(name, output, [&] {
      check(name, fn(frame.get()));
      return describe(frame.get());
    });
    d.outputs.save_frame(frame.get(), d.path(output));
  };
  warp("zarvel_frame_warpaffine", "warp_affine.png",
       [&](zarvel_frame_t* out) { return zarvel_frame_warpaffine(img, out, m); });
  warp("zarvel_frame_warpperspective", "warp_perspective.png",
       [&](zarvel_frame_t* out) { return zarvel_frame_warpperspective(img, out, keystone); });
  // Encoding into memory.
  const Buffer jpeg(zarvel_buffer_alloc(0, ZARVEL_MEM_HOST));
  check("zarvel_buffer_alloc", jpeg ? 0 : ZARVEL_EFAIL);
  d.step("zarvel_frame_encode", "", [&] {
    check("zarvel_frame_encode", zarvel_frame_encode(img, ZARVEL_IMAGE_JPEG, jpeg.get()));
    return std::to_string(zarvel_buffer_size(jpeg.get())) + " bytes JPEG";
  });
}

void run(const std::vector<std::string>& images, const std::string& folder,
         const std::string& chart_size) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw OpError("cannot create " + folder + ": " + error.message());
  if (images.empty()) {
    Size2D size{};
    parse_size(chart_size, &size);
    Demo d(folder, "");
    Frame chart;
    d.step("test chart", "chart.png", [&] {
      chart = make_chart(size.width, size.height);
      return describe(chart.get());
    });
    d.outputs.save_frame(chart.get(), d.path("chart.png"));
    run_on(d, chart.get());
    d.outputs.commit();
    d.print();
  } else {
    Progress progress("demo", images.size());
    for (const std::string& path : images) {
      Demo d(folder, std::filesystem::path(path).stem().string() + "_");
      Frame img = load_input(path, "");
      if (img->format != ZARVEL_PIXFMT_RGB24) {
        zarvel_frame_t* out = nullptr;
        const int32_t status = zarvel_frame_cvt_color(img.get(), &out, ZARVEL_PIXFMT_RGB24);
        img.reset(out);
        check("zarvel_frame_cvt_color", status);
      }
      run_on(d, img.get());
      d.outputs.commit();
      std::printf("%s (%s)\n", path.c_str(), describe(img.get()).c_str());
      d.print();
      progress.step();
    }
  }
  std::printf("results in %s\n", folder.c_str());
}

}  // namespace

void add_demo(CLI::App& app) {
  struct Args {
    std::vector<std::string> images;
    std::string folder = "zarvel-demo", chart = "640x480";
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand(
      "demo",
      "Runs the preprocessing path and each operation on a test chart (or the named images) and "
      "writes the results into a folder with a table of timings");
  sub->add_option("images", args->images, "images to use instead of the test chart")
      ->check(CLI::ExistingFile);
  sub->add_option("-o,--output", args->folder, "folder for the results")->capture_default_str();
  sub->add_option("--chart-size", args->chart, "size of the test chart")
      ->capture_default_str()
      ->check(size_check());
  set_runner(sub, [args] { run(args->images, args->folder, args->chart); });
}

}  // namespace zarvel::tool
