// zarvel-aux end to end: each subcommand on small generated files, outputs decoded and compared
// with the library's own result or an index oracle, exit statuses, and no stray files.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zarvel/aux.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "gtest/gtest.h"

extern char** environ;

namespace {
namespace fs = std::filesystem;

struct FrameFree {
  void operator()(zarvel_frame_t* f) const { zarvel_frame_free(&f); }
};
using Frame = std::unique_ptr<zarvel_frame_t, FrameFree>;

struct Result {
  int status = -1;
  std::string out, err;
};

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// A tiny .npy reader: version 1.0 header fields and the raw data.
struct Npy {
  std::string descr, shape;
  bool fortran = true;
  std::string data;
};
Npy read_npy(const fs::path& p) {
  const std::string bytes = slurp(p);
  Npy npy;
  if (bytes.size() < 10 || bytes.compare(0, 6, "\x93NUMPY") != 0 || bytes[6] != 1) return npy;
  const size_t len = static_cast<uint8_t>(bytes[8]) | static_cast<uint8_t>(bytes[9]) << 8;
  const std::string header = bytes.substr(10, len);
  EXPECT_EQ((10 + len) % 64, 0u);
  EXPECT_EQ(header.back(), '\n');
  const auto field = [&](const std::string& key, char open, char close) {
    const size_t at = header.find("'" + key + "': ");
    if (at == std::string::npos) return std::string();
    const size_t start = header.find(open, at + key.size() + 4);
    return header.substr(start + 1, header.find(close, start + 1) - start - 1);
  };
  npy.descr = field("descr", '\'', '\'');
  npy.shape = field("shape", '(', ')');
  npy.fortran = header.find("'fortran_order': False") == std::string::npos;
  npy.data = bytes.substr(10 + len);
  return npy;
}

// Packed 8-bit frames: visible bytes equal.
bool same_pixels(const zarvel_frame_t* a, const zarvel_frame_t* b) {
  if (a == nullptr || b == nullptr || a->format != b->format || a->width != b->width ||
      a->height != b->height)
    return false;
  const int64_t row = int64_t{a->width} * zarvel_frame_pixel_size(a->format);
  for (int32_t y = 0; y < a->height; ++y)
    if (std::memcmp(a->plane[0] + y * a->stride[0], b->plane[0] + y * b->stride[0], row) != 0)
      return false;
  return true;
}

const uint8_t* px(const zarvel_frame_t* f, int32_t x, int32_t y) {
  return f->plane[0] + int64_t{y} * f->stride[0] + int64_t{x} * zarvel_frame_pixel_size(f->format);
}

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zarvel-aux-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    rgb_ = make(ZARVEL_PIXFMT_RGB24, 40, 30, "in.png");
    grey_ = make(ZARVEL_PIXFMT_GREY, 20, 40, "grey.png");
  }
  void TearDown() override { fs::remove_all(dir_); }

  Frame make(uint32_t format, int32_t w, int32_t h, const char* name) {
    Frame f(zarvel_frame_alloc(ZARVEL_MEM_HOST, format, w, h, nullptr, 0));
    const int32_t ps = zarvel_frame_pixel_size(format);
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w * ps; ++x)
        f->plane[0][y * f->stride[0] + x] = static_cast<uint8_t>(x * 7 + y * 13 + (x % 3) * 50);
    EXPECT_EQ(zarvel_frame_save(f.get(), path(name).c_str()), 0);
    return f;
  }
  std::string path(const std::string& name) const { return (dir_ / name).string(); }
  Frame load(const std::string& name) const { return Frame(zarvel_frame_load(path(name).c_str())); }
  std::set<std::string> files() const {
    std::set<std::string> names;
    for (const auto& e : fs::recursive_directory_iterator(dir_)) names.insert(e.path().string());
    return names;
  }

  Result tool(std::vector<std::string> args) const {
    args.insert(args.begin(), ZARVEL_AUX_TOOL);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const fs::path out = fs::path(dir_).concat(".out"), err = fs::path(dir_).concat(".err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    Result run;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
      int wstatus = 0;
      waitpid(pid, &wstatus, 0);
      run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    }
    posix_spawn_file_actions_destroy(&actions);
    run.out = slurp(out);
    run.err = slurp(err);
    fs::remove(out);
    fs::remove(err);
    return run;
  }

  fs::path dir_;
  Frame rgb_, grey_;
};

TEST_F(ToolTest, InfoShowsBannerFeaturesAndKernels) {
  const Result r = tool({"info"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind(zarvel_aux_meta(), 0), 0u);
  EXPECT_NE(r.out.find("Features     : 0x"), std::string::npos);
  for (const char* family : {"resize", "cvt", "rotate", "warp", "equalize", "tensor"})
    EXPECT_NE(r.out.find(std::string("  ") + family), std::string::npos) << family;
}

TEST_F(ToolTest, CropMatchesAnIndexOracle) {
  ASSERT_EQ(tool({"crop", path("in.png"), path("crop.png"), "--area", "16x10-4+6"}).status, 0);
  const Frame crop = load("crop.png");
  ASSERT_TRUE(crop && crop->width == 16 && crop->height == 10);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 16; ++x)
      for (int c = 0; c < 3; ++c)
        ASSERT_EQ(px(crop.get(), x, y)[c], x < 4 ? 0 : px(rgb_.get(), x - 4, y + 6)[c]) << x << y;
}

TEST_F(ToolTest, FrameOperationsGiveTheLibraryResult) {
  using Op = std::function<int32_t(zarvel_frame_t*, zarvel_frame_t**)>;
  const struct {
    std::vector<std::string> args;
    Op op;
  } cases[] = {
      {{"resize", "in.png", "r.png", "--size", "17x9"},
       [](auto s, auto d) {
         return zarvel_frame_resize(s, d, Size2D{17, 9});
       }},
      {{"resize", "in.png", "r.png", "--scale", "0.7"},
       [](auto s, auto d) { return zarvel_frame_scale(s, d, 0.7f); }},
      {{"rotate", "in.png", "r.bmp", "--angle", "90"},
       [](auto s, auto d) { return zarvel_frame_rotate(s, d, 0); }},
      {{"rotate", "in.png", "r.png", "-a", "270"},
       [](auto s, auto d) { return zarvel_frame_rotate(s, d, 2); }},
      {{"cvt", "in.png", "r.png", "--to", "grey"},
       [](auto s, auto d) { return zarvel_frame_cvt_color(s, d, ZARVEL_PIXFMT_GREY); }},
      {{"equalize", "grey.png", "r.png"},
       [](auto s, auto d) { return zarvel_frame_equalize_hist(s, d); }},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = c.args;
    args[1] = path(args[1]);
    args[2] = path(args[2]);
    const Result r = tool(args);
    ASSERT_EQ(r.status, 0) << args[0] << ": " << r.err;
    const Frame src = load(c.args[1]);
    zarvel_frame_t* expected = nullptr;
    ASSERT_EQ(c.op(src.get(), &expected), 0);
    const Frame owner(expected);
    EXPECT_TRUE(same_pixels(load(c.args[2]).get(), expected)) << args[0] << " " << args.back();
  }
}

TEST_F(ToolTest, CvtWritesAndReadsRawYuv) {
  ASSERT_EQ(tool({"cvt", path("in.png"), path("out.nv12"), "--to", "NV12"}).status, 0);
  zarvel_frame_t* nv12 = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(rgb_.get(), &nv12, ZARVEL_PIXFMT_NV12), 0);
  const Frame nv12_owner(nv12);
  const std::string raw = slurp(path("out.nv12"));
  ASSERT_EQ(raw.size(), 40u * 30 * 3 / 2);
  EXPECT_EQ(std::memcmp(raw.data(), nv12->plane[0], 40 * 30), 0);
  EXPECT_EQ(std::memcmp(raw.data() + 40 * 30, nv12->plane[1], 40 * 15), 0);

  ASSERT_EQ(
      tool({"cvt", path("out.nv12"), path("back.png"), "--raw", "40x30:nv12", "--to", "RGB24"})
          .status,
      0);
  zarvel_frame_t* back = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(nv12, &back, ZARVEL_PIXFMT_RGB24), 0);
  const Frame back_owner(back);
  EXPECT_TRUE(same_pixels(load("back.png").get(), back));
}

TEST_F(ToolTest, WarpByMatrixAndByPointsAgree) {
  ASSERT_EQ(tool({"warp", path("in.png"), path("a.png"), "--affine", "1,0,3,0,1,2"}).status, 0);
  const Frame a = load("a.png");
  ASSERT_TRUE(a && a->width == 40 && a->height == 30);
  for (int32_t y = 0; y < 30; ++y)
    for (int32_t x = 0; x < 40; ++x) {
      const bool inside = x + 3 < 40 && y + 2 < 30;
      for (int c = 0; c < 3; ++c)
        ASSERT_EQ(px(a.get(), x, y)[c], inside ? px(rgb_.get(), x + 3, y + 2)[c] : 0) << x << y;
    }
  // Input points (3, 2), (13, 2), (3, 12) land on (0, 0), (10, 0), (0, 10): the same shift.
  for (const char* model : {"affine", "similarity", "rigid"}) {
    const Result r = tool({"warp", path("in.png"), path("p.png"), "--from-points", "3,2,13,2,3,12",
                           "--to-points", "0,0,10,0,0,10", "--model", model});
    ASSERT_EQ(r.status, 0) << model << ": " << r.err;
    EXPECT_TRUE(same_pixels(load("p.png").get(), a.get())) << model;
  }
  ASSERT_EQ(tool({"warp", path("in.png"), path("q.png"), "--perspective", "1,0,0,0,1,0,0,0,1",
                  "--size", "20x10"})
                .status,
            0);
  const Frame expected(
      zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_RGB24, 20, 10, nullptr, 0));
  const float identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  ASSERT_EQ(zarvel_frame_warpperspective(rgb_.get(), expected.get(), identity), 0);
  EXPECT_TRUE(same_pixels(load("q.png").get(), expected.get()));
}

TEST_F(ToolTest, TensorWritesNpyThatMatchesTheLibrary) {
  const Result r = tool({"tensor", path("in.png"), path("grey.png"), "-o", path("t.npy"), "--size",
                         "16x16", "--mean", "10,20,30", "--std", "2,4,8", "--pad", "1,2,3"});
  ASSERT_EQ(r.status, 0) << r.err;
  const Npy t = read_npy(path("t.npy"));
  EXPECT_EQ(t.descr, "<f4");
  EXPECT_EQ(t.shape, "2, 3, 16, 16");
  EXPECT_FALSE(t.fortran);
  // The library on the same frames (the grey one as RGB24, as the tool feeds it).
  zarvel_frame_t* grey_rgb = nullptr;
  ASSERT_EQ(zarvel_frame_cvt_color(grey_.get(), &grey_rgb, ZARVEL_PIXFMT_RGB24), 0);
  const Frame grey_owner(grey_rgb);
  zarvel_frame_t* frames[2] = {rgb_.get(), grey_rgb};
  const Area2D rois[2] = {{0, 0, 40, 30}, {0, 0, 20, 40}};
  const float mean[3] = {10, 20, 30}, std[3] = {2, 4, 8}, pads[6] = {1, 2, 3, 1, 2, 3};
  zarvel_tensor_t* expected = zarvel_tensor_alloc(ZARVEL_MEM_HOST, ZARVEL_ELEM_F32, 2, 3, 16, 16);
  zarvel_buffer_t* scratch = nullptr;
  ASSERT_EQ(zarvel_frame_transform_to_tensor_batch(expected, 1, 2, frames, rois, 0, mean, std, pads,
                                                   &scratch, nullptr, nullptr),
            0);
  ASSERT_EQ(t.data.size(), 2u * 3 * 16 * 16 * 4);
  EXPECT_EQ(std::memcmp(t.data.data(), zarvel_tensor_raw_pointer(expected), t.data.size()), 0);
  zarvel_buffer_free(&scratch);
  zarvel_tensor_free(&expected);

  const Npy s = read_npy(path("t_scales.npy"));
  EXPECT_EQ(s.descr, "<f4");
  EXPECT_EQ(s.shape, "2, 2");
  ASSERT_EQ(s.data.size(), 16u);
  float scales[4];
  std::memcpy(scales, s.data.data(), sizeof scales);
  EXPECT_FLOAT_EQ(scales[0], 2.5f);  // max(40 / 16, 30 / 16)
  EXPECT_FLOAT_EQ(scales[3], 2.5f);  // max(20 / 16, 40 / 16)

  // u8, gray, stretched region: scales are the region over the item size.
  ASSERT_EQ(
      tool({"tensor", path("in.png"), "-o", path("u.npy"), "--scales", path("s.npy"), "--size",
            "8x4", "--dtype", "u8", "--color", "gray", "--stretch", "--roi", "2,4,16,12"})
          .status,
      0);
  const Npy u = read_npy(path("u.npy"));
  EXPECT_EQ(u.descr, "|u1");
  EXPECT_EQ(u.shape, "1, 1, 4, 8");
  EXPECT_EQ(u.data.size(), 32u);
  std::memcpy(scales, read_npy(path("s.npy")).data.data(), 8);
  EXPECT_FLOAT_EQ(scales[0], 2.0f);
  EXPECT_FLOAT_EQ(scales[1], 3.0f);
}

TEST_F(ToolTest, BadArgumentsExitTwoWithOneLineAndNoFiles) {
  const std::string in = path("in.png"), out = path("bad.png");
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"frobnicate"},
      {"crop", in, out},
      {"crop", in, out, "--area", "1x2"},
      {"resize", in, out, "--size", "12by3"},
      {"resize", in, out},
      {"resize", in, out, "--size", "4x4", "--scale", "2"},
      {"rotate", in, out, "--angle", "45"},
      {"cvt", in, out, "--to", "XYZ"},
      {"cvt", path("missing.png"), out, "--to", "GREY"},
      {"cvt", in, out, "--to", "GREY", "--raw", "3x3:NV12"},
      {"warp", in, out},
      {"warp", in, out, "--from-points", "0,0,1,1", "--to-points", "0,0,1,1"},
      {"warp", in, out, "--affine", "1,0,0,0,1"},
      {"tensor", in, "-o", path("t.npy"), "--size", "4x4", "--roi", "1x1+0+0", "--roi", "1x1+0+0"},
      {"tensor", in, "-o", path("t.npy"), "--size", "4x4", "--dtype", "f16"},
  };
  const auto before = files();
  for (const auto& args : cases) {
    const Result r = tool(args);
    const std::string joined = args.empty() ? "(none)" : args[0];
    EXPECT_EQ(r.status, 2) << joined << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << joined << ": " << r.err;
    EXPECT_EQ(r.err.rfind("zarvel-aux: ", 0), 0u) << r.err;
  }
  EXPECT_EQ(files(), before);
}

TEST_F(ToolTest, FailingOperationsExitOneAndLeaveNothing) {
  std::ofstream(path("grey16.raw"), std::ios::binary) << std::string(8 * 4 * 2, '\x10');
  std::ofstream(path("junk.png"), std::ios::binary) << "not an image";
  const auto before = files();
  // GREY16 converts to GREY only: the library's -1000 and its message reach stderr.
  Result r =
      tool({"cvt", path("grey16.raw"), path("o.png"), "--raw", "8x4:GREY16", "--to", "RGB24"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("zarvel_frame_cvt_color failed with status -1000: "), std::string::npos)
      << r.err;
  EXPECT_EQ(tool({"resize", path("junk.png"), path("o.png"), "--scale", "2"}).status, 1);
  EXPECT_EQ(tool({"cvt", path("grey16.raw"), path("o.png"), "--raw", "9x4:GREY16", "--to", "GREY"})
                .status,
            1);
  EXPECT_EQ(tool({"rotate", path("in.png"), path("no/such/dir/o.png")}).status, 1);
  // A failure after the first output of two is written: neither stays.
  r = tool({"tensor", path("in.png"), "-o", path("t.npy"), "--scales", path("no/dir/s.npy"),
            "--size", "4x4"});
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_EQ(files(), before);
}

TEST_F(ToolTest, HelpOnEverySubcommand) {
  for (const char* sub :
       {"info", "crop", "resize", "rotate", "cvt", "warp", "equalize", "tensor", "demo"}) {
    const Result r = tool({sub, "--help"});
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_NE(r.out.find(sub), std::string::npos) << sub;
    EXPECT_NE(r.out.find("--help"), std::string::npos) << sub;
  }
}

TEST_F(ToolTest, DemoWritesEveryResult) {
  const Result r = tool({"demo", "-o", path("demo"), "--chart-size", "64x48"});
  ASSERT_EQ(r.status, 0) << r.err;
  for (const char* name : {"chart.png", "preprocess.npy", "letterbox.png", "crop.png", "resize.png",
                           "scale.jpg", "rotate90.png", "nv12.yuv", "grey.png", "equalize.png",
                           "warp_affine.png", "warp_perspective.png"}) {
    EXPECT_TRUE(fs::exists(dir_ / "demo" / name)) << name;
    EXPECT_NE(r.out.find(name), std::string::npos) << name;
  }
  const Frame chart = load("demo/chart.png");
  ASSERT_TRUE(chart && chart->width == 64 && chart->height == 48);
  EXPECT_EQ(px(chart.get(), 0, 0)[0], 255);  // white bar
  EXPECT_EQ(px(chart.get(), 63, 0)[0], 0);   // black bar
  EXPECT_EQ(read_npy(dir_ / "demo" / "preprocess.npy").shape, "1, 3, 224, 224");
  const Frame box = load("demo/letterbox.png");
  ASSERT_TRUE(box && box->width == 256 && box->height == 256);
  EXPECT_EQ(px(box.get(), 0, 255)[0], 114);  // padding below the 4:3 chart
  EXPECT_EQ(slurp(dir_ / "demo" / "nv12.yuv").size(), 64u * 48 * 3 / 2);
}

}  // namespace
