// zarvel-aux end to end: each subcommand on small generated files, outputs decoded and compared
// with the library's own result, exit statuses, and no stray files.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <zarvel/aux.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "frame_api/frame_api.h"
#include "frame_test_support.h"

namespace {
namespace fs = std::filesystem;
using Frame = zarvel::aux::FramePtr;

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A tiny .npy reader: version 1.0, a header padded to 64 bytes ending in a newline, C order;
// the header's descr and shape fields, and the data.
struct Npy {
  std::string descr, shape, data;
};
Npy read_npy(const fs::path& p) {
  const std::string bytes = slurp(p);
  if (bytes.size() < 10 || bytes.compare(0, 7, "\x93NUMPY\x01") != 0) return {};
  const size_t len = static_cast<uint8_t>(bytes[8]) | static_cast<uint8_t>(bytes[9]) << 8;
  const std::string header = bytes.substr(10, len);
  EXPECT_TRUE((10 + len) % 64 == 0 && header.back() == '\n' &&
              header.find("'fortran_order': False") != std::string::npos);
  // The text after "'key': " and its opening quote or parenthesis, up to `close`.
  const auto field = [&](const std::string& key, char close) {
    const size_t start = header.find("'" + key + "': ") + key.size() + 5;
    return header.substr(start, header.find(close, start) - start);
  };
  return {field("descr", '\''), field("shape", ')'), bytes.substr(10 + len)};
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zarvel-aux-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    for (const auto& [format, w, h, name] : {std::tuple{ZARVEL_PIXFMT_RGB24, 40, 30, "in.png"},
                                             std::tuple{ZARVEL_PIXFMT_GREY, 20, 40, "grey.png"}}) {
      Frame f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
      zarvel::test::fill_pattern(f.get(), 3);
      ASSERT_EQ(zarvel_frame_save(f.get(), path(name).c_str()), 0);
    }
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  Frame load(const std::string& name) const { return Frame(zarvel_frame_load(path(name).c_str())); }
  std::set<fs::path> files() const { return {fs::recursive_directory_iterator(dir_), {}}; }

  // Runs the tool in the scratch directory (file names in `args` are relative to it) with its
  // output and error streams captured; status 128 + n for signal n.
  struct Result {
    int status;
    std::string out, err;
  };
  Result tool(const std::string& args) const {
    const std::string out = dir_.string() + ".out", err = dir_.string() + ".err";
    const int ws = std::system(
        ("cd " + dir_.string() + " && " ZARVEL_AUX_TOOL " " + args + " >" + out + " 2>" + err)
            .c_str());
    Result r{WIFEXITED(ws) ? WEXITSTATUS(ws) : 128 + WTERMSIG(ws), slurp(out), slurp(err)};
    fs::remove(out), fs::remove(err);
    return r;
  }

  fs::path dir_;
};

TEST_F(ToolTest, InfoShowsTheBannerAndFeatures) {
  const Result r = tool("info");
  EXPECT_TRUE(r.status == 0 && r.out.starts_with(zarvel_aux_meta()) &&
              r.out.find("Features     : 0x") != r.out.npos)
      << r.err;
}

// A library call on `s` (the source) and `d` (the output slot); a warp writes into a new frame
// of size W x H.
using Op = std::function<int32_t(zarvel_frame_t*, zarvel_frame_t**)>;
#define OP(call) [](zarvel_frame_t* s, zarvel_frame_t** d) -> int32_t { return call; }
#define WARP(fn, W, H, ...)                                                  \
  OP((*d = zarvel_frame_alloc(ZARVEL_MEM_HOST, s->format, W, H, nullptr, 0), \
      fn(s, *d, std::vector<float>{__VA_ARGS__}.data())))

// Each subcommand writes what the library gives for the same input and parameters: the
// second and third words are the input and the output.
TEST_F(ToolTest, FrameOperationsGiveTheLibraryResult) {
  const Op shift = WARP(zarvel_frame_warpaffine, 40, 30, 1, 0, 3, 0, 1, 2);
  // Points (3, 2), (13, 2), (3, 12) onto (0, 0), (10, 0), (0, 10): the same shift. (Each
  // model gives it, so only one is run.)
  const std::string points =
      "warp in.png p.png --from-points 3,2,13,2,3,12 --to-points 0,0,10,0,0,10 --model ";
  const std::pair<std::string, Op> cases[] = {
      {"crop in.png c.png --area 16x10-4+6", OP(zarvel_frame_crop(s, d, {-4, 6, 16, 10}))},
      {"resize in.png r.png --size 17x9", OP(zarvel_frame_resize(s, d, {17, 9}))},
      {"rotate in.png r.bmp -a 270", OP(zarvel_frame_rotate(s, d, 2))},
      {"cvt in.png r.png --to grey", OP(zarvel_frame_cvt_color(s, d, ZARVEL_PIXFMT_GREY))},
      {"equalize grey.png r.png", OP(zarvel_frame_equalize_hist(s, d))},
      {"warp in.png a.png --affine 1,0,3,0,1,2", shift},
      {points + "affine", shift},
      {"warp in.png q.png --perspective 1,0,0,0,1,0,0,0,1 --size 20x10",
       WARP(zarvel_frame_warpperspective, 20, 10, 1, 0, 0, 0, 1, 0, 0, 0, 1)},
  };
  for (const auto& [command, op] : cases) {
    const Result r = tool(command);
    ASSERT_EQ(r.status, 0) << command << ": " << r.err;
    char in[16], out[16];
    ASSERT_EQ(std::sscanf(command.c_str(), "%*s %15s %15s", in, out), 2);
    zarvel_frame_t* expected = nullptr;
    ASSERT_EQ(op(load(in).get(), &expected), 0) << command;
    const Frame got = load(out), want(expected);
    EXPECT_TRUE(got && got->format == want->format && got->width == want->width &&
                zarvel::test::visible_bytes(got.get()) == zarvel::test::visible_bytes(want.get()))
        << command;
  }
}

TEST_F(ToolTest, TensorWritesNpyThatMatchesTheLibrary) {
  const Result r =
      tool("tensor in.png grey.png -o t.npy --size 16x16 --mean 10,20,30 --std 2,4,8 --pad 1,2,3");
  ASSERT_EQ(r.status, 0) << r.err;
  const Npy t = read_npy(path("t.npy"));
  EXPECT_TRUE(t.descr == "<f4" && t.shape == "2, 3, 16, 16") << t.descr << t.shape;
  // The library on the same frames (the grey one as RGB24, as the tool feeds it).
  zarvel_frame_t* grey_rgb = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(load("grey.png").get(), &grey_rgb, ZARVEL_PIXFMT_RGB24), 0);
  const Frame rgb = load("in.png"), grey_owner(grey_rgb);
  zarvel_frame_t* frames[2] = {rgb.get(), grey_rgb};
  const Area2D rois[2] = {{0, 0, 40, 30}, {0, 0, 20, 40}};
  const float mean[3] = {10, 20, 30}, std[3] = {2, 4, 8}, pads[6] = {1, 2, 3, 1, 2, 3};
  zarvel::aux::TensorPtr expected(
      zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 16, 16));
  zarvel_buffer_t* scratch = nullptr;
  ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(expected.get(), 1, 2, frames, rois, 0, mean, std,
                                                   pads, &scratch, nullptr, nullptr),
            0);
  zarvel_buffer_free(&scratch);
  EXPECT_EQ(t.data, std::string(static_cast<char*>(zarvel_tensor_raw_pointer(expected.get())),
                                2 * 3 * 16 * 16 * sizeof(float)));
  // Scales: max(40 / 16, 30 / 16) and max(20 / 16, 40 / 16), keeping the aspect.
  const float keep[4] = {2.5f, 2.5f, 2.5f, 2.5f};
  EXPECT_EQ(read_npy(path("t_scales.npy")).data,
            std::string(reinterpret_cast<const char*>(keep), 16));
}

// Bad arguments exit 2 with one line; failing operations (the library's status and message
// reach stderr) exit 1; neither leaves a file behind, not even the first output of two.
TEST_F(ToolTest, FailuresExitWithAReasonAndLeaveNoFiles) {
  std::ofstream(path("grey16.raw"), std::ios::binary) << std::string(8 * 4 * 2, '\x10');
  std::ofstream(path("junk.png"), std::ios::binary) << "not an image";
  const auto before = files();
  for (const char* args :
       {"", "frobnicate", "crop in.png bad.png --area 1x2", "resize in.png bad.png --size 12by3",
        "resize in.png bad.png", "resize in.png bad.png --size 4x4 --scale 2",
        "rotate in.png bad.png --angle 45", "cvt in.png bad.png --to XYZ",
        "cvt missing.png bad.png --to GREY", "cvt in.png bad.png --to GREY --raw 3x3:NV12",
        "warp in.png bad.png --from-points 0,0,1,1 --to-points 0,0,1,1",
        "tensor in.png -o t.npy --size 4x4 --roi 1x1+0+0 --roi 1x1+0+0",
        "tensor in.png -o t.npy --size 4x4 --dtype f16"}) {
    const Result r = tool(args);
    EXPECT_TRUE(r.status == 2 && std::count(r.err.begin(), r.err.end(), '\n') == 1 &&
                r.err.starts_with("zarvel-aux: "))
        << args << ": " << r.status << " " << r.err;
  }
  // GREY16 converts to GREY only.
  const Result r = tool("cvt grey16.raw o.png --raw 8x4:GREY16 --to RGB24");
  EXPECT_TRUE(r.status == 1 &&
              r.err.find("zarvel_frame_cvt_color failed with status -1000: ") != r.err.npos)
      << r.err;
  for (const char* args : {"resize junk.png o.png --scale 2", "rotate in.png no/such/dir/o.png",
                           "tensor in.png -o t.npy --scales no/dir/s.npy --size 4x4"})
    EXPECT_EQ(tool(args).status, 1) << args;
  EXPECT_EQ(files(), before);
}

// The demo runs every operation; one result decoded: the letterbox, padded below the 4:3 chart.
TEST_F(ToolTest, DemoWritesItsResults) {
  ASSERT_EQ(tool("demo -o demo --chart-size 64x48").status, 0);
  const Frame box = load("demo/letterbox.png");
  EXPECT_TRUE(box && box->width == 256 && box->height == 256 &&
              box->plane[0][255 * box->stride[0]] == 114);
}

}  // namespace
