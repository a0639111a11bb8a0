// Subcommands that change pixel values: cvt, equalize.
#include <cstdio>

#include "common.h"

namespace zarvel::tool {
namespace {

void save(zarvel_frame_t* frame, const std::string& path) {
  Outputs outputs;
  outputs.save_frame(frame, path);
  outputs.commit();
  std::printf("%s: %s\n", path.c_str(), describe(frame).c_str());
}

Frame convert(zarvel_frame_t* src, uint32_t format) {
  zarvel_frame_t* out = nullptr;
  const int32_t status = zarvel_frame_cvt_color(src, &out, format);
  Frame dst(out);
  check("zarvel_frame_cvt_color", status);
  return dst;
}

void add_cvt(CLI::App& app) {
  struct Args {
    Io io;
    std::string to;
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand(
      "cvt",
      "Convert to another pixel format. Raw YUV in with --raw WxH:FORMAT, out with an output "
      "name that is not .png/.jpg/.jpeg/.bmp");
  add_io(sub, &args->io);
  sub->add_option("-t,--to", args->to, "GREY, RGB24, BGR24, NV12, NV21 or YU12 (I420)")
      ->required()
      ->check(format_check());
  set_runner(sub, [args] {
    uint32_t format = 0;
    parse_format(args->to, &format);
    const Frame src = load_input(args->io.input, args->io.raw);
    const Frame dst = convert(src.get(), format);
    save(dst.get(), args->io.output);
  });
}

void add_equalize(CLI::App& app) {
  auto io = std::make_shared<Io>();
  CLI::App* sub = app.add_subcommand(
      "equalize", "Histogram equalisation; colour input is converted to GREY first");
  add_io(sub, io.get());
  set_runner(sub, [io] {
    Frame src = load_input(io->input, io->raw);
    if (src->format != ZARVEL_PIXFMT_GREY) src = convert(src.get(), ZARVEL_PIXFMT_GREY);
    zarvel_frame_t* out = nullptr;
    const int32_t status = zarvel_frame_equalize_hist(src.get(), &out);
    const Frame dst(out);
    check("zarvel_frame_equalize_hist", status);
    save(dst.get(), io->output);
  });
}

}  // namespace

void add_color(CLI::App& app) {
  add_cvt(app);
  add_equalize(app);
}

}  // namespace zarvel::tool
