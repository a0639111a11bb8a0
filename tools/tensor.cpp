// The tensor subcommand: one or many images into one network input batch (.npy).
#include <cstdio>
#include <filesystem>

#include "common.h"

namespace zarvel::tool {
namespace {

struct Args {
  std::vector<std::string> inputs;
  std::string output, scales, size, raw, color = "rgb", dtype = "f32";
  std::string mean = "0,0,0", std = "1,1,1", pad = "0,0,0";
  std::vector<std::string> rois;
  bool stretch = false;
};

// The frame in a format the colour type accepts: RGB24/BGR24 for colour, those or GREY for grey.
Frame accepted_frame(Frame frame, uint32_t color_type) {
  const uint32_t f = frame->format;
  if (f == ZARVEL_PIXFMT_RGB24 || f == ZARVEL_PIXFMT_BGR24 ||
      (color_type == 2 && f == ZARVEL_PIXFMT_GREY))
    return frame;
  zarvel_frame_t* out = nullptr;
  const int32_t status = zarvel_frame_cvt_color(
      frame.get(), &out, color_type == 2 ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24);
  Frame converted(out);
  check("zarvel_frame_cvt_color", status);
  return converted;
}

std::string default_scales_path(const std::string& output) {
  std::filesystem::path p(output);
  return (p.parent_path() / (p.stem().string() + "_scales.npy")).string();
}

void run(const Args& a) {
  const size_t n = a.inputs.size();
  if (!a.rois.empty() && a.rois.size() != 1 && a.rois.size() != n)
    throw UsageError("tensor: give one --roi for all images or one per image (" +
                     std::to_string(n) + ")");
  Size2D size{};
  parse_size(a.size, &size);
  std::vector<float> mean, std, pad;
  parse_floats(a.mean, 3, &mean);
  parse_floats(a.std, 3, &std);
  parse_floats(a.pad, 3, &pad);
  const uint32_t color_type = a.color == "bgr" ? 0 : a.color == "rgb" ? 1 : 2;

  std::vector<Frame> frames;
  std::vector<zarvel_frame_t*> raw_frames;
  std::vector<Area2D> rois;
  {
    Progress progress("loading", n);
    for (size_t i = 0; i < n; ++i) {
      frames.push_back(accepted_frame(load_input(a.inputs[i], a.raw), color_type));
      raw_frames.push_back(frames.back().get());
      Area2D roi{0, 0, frames.back()->width, frames.back()->height};
      if (!a.rois.empty()) parse_area(a.rois[a.rois.size() == 1 ? 0 : i], &roi);
      rois.push_back(roi);
      progress.step();
    }
  }
  const Tensor tensor(zarvel_tensor_alloc(
      ZARVEL_MEM_HOST, a.dtype == "u8" ? ZARVEL_ELEM_U8 : ZARVEL_ELEM_F32, static_cast<int32_t>(n),
      color_type == 2 ? 1 : 3, size.height, size.width));
  check("zarvel_tensor_alloc", tensor ? 0 : ZARVEL_EFAIL);
  std::vector<float> pads;
  for (size_t i = 0; i < n; ++i) pads.insert(pads.end(), pad.begin(), pad.end());
  std::vector<float> scale_y(n), scale_x(n);
  zarvel_buffer_t* scratch = nullptr;
  const int32_t status = zarvel_frame_transform_to_tensor_batch(
      tensor.get(), color_type, n, raw_frames.data(), rois.data(), a.stretch ? 1 : 0, mean.data(),
      std.data(), pads.data(), &scratch, scale_y.data(), scale_x.data());
  const Buffer scratch_owner(scratch);
  check("zarvel_frame_transform_to_tensor_batch", status);

  std::vector<float> scales;  // one row per item: scale_x, scale_y
  for (size_t i = 0; i < n; ++i) scales.insert(scales.end(), {scale_x[i], scale_y[i]});
  const std::string scales_path = a.scales.empty() ? default_scales_path(a.output) : a.scales;
  Outputs outputs;
  outputs.save_npy(tensor.get(), a.output);
  outputs.save_npy(scales, {static_cast<int64_t>(n), 2}, scales_path);
  outputs.commit();
  std::printf("%s: %zux%dx%dx%d %s\n%s: scale_x, scale_y per item\n", a.output.c_str(), n,
              tensor->shape[1], size.height, size.width, a.dtype.c_str(), scales_path.c_str());
  for (size_t i = 0; i < n && i < 20; ++i)
    std::printf("  %zu %s: %g %g\n", i, a.inputs[i].c_str(), scale_x[i], scale_y[i]);
}

}  // namespace

void add_tensor(CLI::App& app) {
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand(
      "tensor",
      "Images into one NCHW batch written as .npy, with each item's scales (frame x = roi x + "
      "item x * scale_x) in a second .npy");
  sub->add_option("inputs", args->inputs, "input images, one batch item each")
      ->required()
      ->check(CLI::ExistingFile);
  sub->add_option("-o,--output", args->output, "the batch, .npy")->required();
  sub->add_option("--scales", args->scales,
                  "the scales, .npy (default: OUTPUT stem + _scales.npy)");
  sub->add_option("-s,--size", args->size, "item size WxH")->required()->check(size_check());
  sub->add_flag("--stretch", args->stretch,
                "stretch each region to the item size (default: keep the aspect ratio and pad "
                "right or bottom)");
  sub->add_option("--roi", args->rois, "region WxH+X+Y or X,Y,W,H; once for all or once per image")
      ->check(area_check());
  sub->add_option("-c,--color", args->color, "tensor channels")
      ->capture_default_str()
      ->check(CLI::IsMember({"rgb", "bgr", "gray"}));
  sub->add_option("-t,--dtype", args->dtype, "element type")
      ->capture_default_str()
      ->check(CLI::IsMember({"u8", "f32"}));
  sub->add_option("--mean", args->mean, "R,G,B means subtracted (f32)")
      ->capture_default_str()
      ->check(floats_check(3));
  sub->add_option("--std", args->std, "R,G,B deviations divided by (f32)")
      ->capture_default_str()
      ->check(floats_check(3));
  sub->add_option("--pad", args->pad, "R,G,B value of the padding")
      ->capture_default_str()
      ->check(floats_check(3));
  sub->add_option("--raw", args->raw, "the inputs are headerless pixels of this geometry")
      ->check(raw_check());
  set_runner(sub, [args] { run(*args); });
}

}  // namespace zarvel::tool
