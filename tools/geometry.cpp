// Subcommands that change an image's geometry: crop, resize, rotate, warp.
#include <cstdio>

#include "common.h"

namespace zarvel::tool {
namespace {

// Runs a frame operation with a null output slot and writes the result.
template <typename Op>
void run_and_save(const char* call, const Io& io, Op op) {
  const Frame src = load_input(io.input, io.raw);
  zarvel_frame_t* out = nullptr;
  const int32_t status = op(src.get(), &out);
  const Frame dst(out);
  check(call, status);
  Outputs outputs;
  outputs.save_frame(dst.get(), io.output);
  outputs.commit();
  std::printf("%s: %s\n", io.output.c_str(), describe(dst.get()).c_str());
}

void add_crop(CLI::App& app) {
  struct Args {
    Io io;
    std::string area;
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand(
      "crop", "Cut out a region; parts outside the image are black (luma 0, chroma 128)");
  add_io(sub, &args->io);
  sub->add_option("-a,--area", args->area, "the region: WxH+X+Y (ImageMagick style) or X,Y,W,H")
      ->required()
      ->check(area_check());
  set_runner(sub, [args] {
    Area2D area{};
    parse_area(args->area, &area);
    run_and_save("zarvel_frame_crop", args->io, [area](zarvel_frame_t* src, zarvel_frame_t** dst) {
      return zarvel_frame_crop(src, dst, area);
    });
  });
}

void add_resize(CLI::App& app) {
  struct Args {
    Io io;
    std::string size;
    float scale = 0.0f;
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand("resize", "Bilinear resize to a size or by a factor");
  add_io(sub, &args->io);
  CLI::Option* size =
      sub->add_option("-s,--size", args->size, "output size WxH")->check(size_check());
  sub->add_option("--scale", args->scale, "factor of the input size (sizes truncated)")
      ->check(CLI::PositiveNumber)
      ->excludes(size);
  set_runner(sub, [args] {
    if (args->size.empty() == (args->scale == 0.0f))
      throw UsageError("resize: give either --size or --scale");
    if (!args->size.empty()) {
      Size2D s{};
      parse_size(args->size, &s);
      run_and_save("zarvel_frame_resize", args->io, [s](zarvel_frame_t* src, zarvel_frame_t** dst) {
        return zarvel_frame_resize(src, dst, s);
      });
    } else {
      const float ratio = args->scale;
      run_and_save("zarvel_frame_scale", args->io,
                   [ratio](zarvel_frame_t* src, zarvel_frame_t** dst) {
                     return zarvel_frame_scale(src, dst, ratio);
                   });
    }
  });
}

void add_rotate(CLI::App& app) {
  struct Args {
    Io io;
    int angle = 90;
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand("rotate", "Rotate clockwise by 90, 180 or 270 degrees");
  add_io(sub, &args->io);
  sub->add_option("-a,--angle", args->angle, "clockwise angle in degrees")
      ->capture_default_str()
      ->check(CLI::IsMember({90, 180, 270}));
  set_runner(sub, [args] {
    const int32_t code = args->angle / 90 - 1;
    run_and_save("zarvel_frame_rotate", args->io,
                 [code](zarvel_frame_t* src, zarvel_frame_t** dst) {
                   return zarvel_frame_rotate(src, dst, code);
                 });
  });
}

void add_warp(CLI::App& app) {
  struct Args {
    Io io;
    std::string affine, perspective, from, to, size, model = "affine";
  };
  auto args = std::make_shared<Args>();
  CLI::App* sub = app.add_subcommand(
      "warp",
      "Affine or perspective warp. Matrices map each output pixel to the input position it "
      "samples (bilinear; outside the input reads black)");
  add_io(sub, &args->io);
  CLI::Option* affine = sub->add_option("--affine", args->affine, "2x3 matrix, 6 numbers by rows")
                            ->check(floats_check(6));
  CLI::Option* persp =
      sub->add_option("--perspective", args->perspective, "3x3 matrix, 9 numbers by rows")
          ->check(floats_check(9));
  CLI::Option* from =
      sub->add_option("--from-points", args->from, "points x,y,x,y,... in the input")
          ->check(floats_check(0))
          ->excludes(affine)
          ->excludes(persp);
  sub->add_option("--to-points", args->to, "where those points go in the output")
      ->check(floats_check(0))
      ->needs(from);
  from->needs("--to-points");
  affine->excludes(persp);
  sub->add_option("--model", args->model,
                  "fit for --from-points: affine (3 pairs), similarity (3 pairs), rigid (2 or "
                  "more pairs: rotation, scale, shift)")
      ->capture_default_str()
      ->check(CLI::IsMember({"affine", "similarity", "rigid"}));
  sub->add_option("-s,--size", args->size, "output size WxH (default: the input size)")
      ->check(size_check());
  set_runner(sub, [args] {
    float m[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    std::vector<float> v;
    bool perspective = false;
    if (!args->affine.empty()) {
      parse_floats(args->affine, 6, &v);
      std::copy(v.begin(), v.end(), m);
    } else if (!args->perspective.empty()) {
      parse_floats(args->perspective, 9, &v);
      std::copy(v.begin(), v.end(), m);
      perspective = true;
    } else if (!args->from.empty()) {
      std::vector<float> from, to;
      parse_floats(args->from, 0, &from);
      parse_floats(args->to, 0, &to);
      const size_t pairs = from.size() / 2;
      const bool three = args->model != "rigid";
      if (from.size() % 2 != 0 || from.size() != to.size() || (three && pairs != 3) || pairs < 2)
        throw UsageError("warp: --from-points and --to-points need the same number of x,y pairs (" +
                         std::string(three ? "3" : "2 or more") + " for --model " + args->model +
                         ")");
      // Fitting output points onto input points gives the sampling matrix directly.
      float inverse[9];
      if (args->model == "affine")
        zarvel_find_affine_transform(to.data(), from.data(), m, inverse);
      else if (args->model == "similarity")
        zarvel_find_similarity_transform(to.data(), from.data(), m, inverse);
      else
        zarvel_find_rigid_transform(to.data(), from.data(), static_cast<int32_t>(pairs), m);
      std::printf("matrix: %g %g %g; %g %g %g\n", m[0], m[1], m[2], m[3], m[4], m[5]);
    } else {
      throw UsageError("warp: give --affine, --perspective or --from-points");
    }
    const Frame src = load_input(args->io.input, args->io.raw);
    Size2D size{src->width, src->height};
    if (!args->size.empty()) parse_size(args->size, &size);
    const Frame dst(zarvel_frame_alloc(ZARVEL_MEM_HOST, src->format, size.width, size.height,
                                       nullptr, src->meta_word1));
    check("zarvel_frame_alloc", dst ? 0 : ZARVEL_EFAIL);
    if (perspective)
      check("zarvel_frame_warpperspective", zarvel_frame_warpperspective(src.get(), dst.get(), m));
    else
      check("zarvel_frame_warpaffine", zarvel_frame_warpaffine(src.get(), dst.get(), m));
    Outputs outputs;
    outputs.save_frame(dst.get(), args->io.output);
    outputs.commit();
    std::printf("%s: %s\n", args->io.output.c_str(), describe(dst.get()).c_str());
  });
}

}  // namespace

void add_geometry(CLI::App& app) {
  add_crop(app);
  add_resize(app);
  add_rotate(app);
  add_warp(app);
}

}  // namespace zarvel::tool
