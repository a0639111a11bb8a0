#include "common.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace zarvel::tool {
namespace fs = std::filesystem;

// ---- library log ----
namespace {

struct LogState {
  bool verbose = false;
  std::vector<std::pair<uint32_t, std::string>> messages;  // since the last check()
};
LogState& log_state() {
  static LogState state;
  return state;
}

void keep_message(void*, const zarvel_log_record_t* record, const char* text) {
  LogState& state = log_state();
  if (state.verbose) std::fprintf(stderr, "[%s:%u] %s", record->tag, record->level, text);
  std::string line;
  for (const char* c = text; *c != '\0'; ++c) {  // one line: newlines and tabs become blanks
    const bool blank = *c == '\n' || *c == '\t' || *c == ' ';
    if (!blank || (!line.empty() && line.back() != ' ')) line += blank ? ' ' : *c;
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  state.messages.emplace_back(record->level, std::move(line));
}

}  // namespace

void capture_library_log(bool verbose) {
  log_state().verbose = verbose;
  zarvel_log_set_sink(keep_message, nullptr);
}

void check(const char* call, int32_t status) {
  auto& messages = log_state().messages;
  if (status == 0) {
    messages.clear();
    return;
  }
  std::string text;
  for (const auto& [level, line] : messages) {
    if (level < ZARVEL_LOG_FAILURE) continue;
    text += text.empty() ? line : "; " + line;
  }
  if (text.empty() && !messages.empty()) text = messages.back().second;
  messages.clear();
  throw OpError(std::string(call) + " failed with status " + std::to_string(status) +
                (text.empty() ? "" : ": " + text));
}

// ---- parsers ----
namespace {

// Reads a signed integer at `pos`; advances it.
bool read_int(const std::string& s, size_t& pos, int32_t* value) {
  size_t start = pos;
  if (pos < s.size() && (s[pos] == '+' || s[pos] == '-')) ++pos;
  const size_t digits = pos;
  while (pos < s.size() && std::isdigit(static_cast<unsigned char>(s[pos]))) ++pos;
  if (pos == digits || pos - digits > 9) return false;
  *value = static_cast<int32_t>(std::strtol(s.c_str() + start, nullptr, 10));
  return true;
}

std::string upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

bool is_yuv420(uint32_t format) {
  return format == ZARVEL_PIXFMT_NV12 || format == ZARVEL_PIXFMT_NV21 ||
         format == ZARVEL_PIXFMT_YU12;
}

CLI::Validator validator(std::function<bool(const std::string&)> ok, std::string expected,
                         std::string name) {
  return CLI::Validator(
      [ok = std::move(ok), expected](std::string& text) -> std::string {
        return ok(text) ? std::string() : "'" + text + "' is not " + expected;
      },
      name);
}

}  // namespace

bool parse_size(const std::string& text, Size2D* size) {
  size_t pos = 0;
  Size2D s{};
  if (!read_int(text, pos, &s.width) || pos >= text.size() ||
      (text[pos] != 'x' && text[pos] != 'X'))
    return false;
  ++pos;
  if (!read_int(text, pos, &s.height) || pos != text.size()) return false;
  if (s.width <= 0 || s.height <= 0 || !std::isdigit(static_cast<unsigned char>(text[0])))
    return false;
  if (size != nullptr) *size = s;
  return true;
}

bool parse_area(const std::string& text, Area2D* area) {
  Area2D a{};
  if (text.find(',') != std::string::npos) {
    size_t pos = 0;
    int32_t* fields[] = {&a.x, &a.y, &a.width, &a.height};
    for (int i = 0; i < 4; ++i) {
      if (i > 0 && (pos >= text.size() || text[pos++] != ',')) return false;
      if (!read_int(text, pos, fields[i])) return false;
    }
    if (pos != text.size()) return false;
  } else {
    const size_t sign = text.find_first_of("+-", 1);
    Size2D s{};
    if (sign == std::string::npos || !parse_size(text.substr(0, sign), &s)) return false;
    size_t pos = sign;
    if (!read_int(text, pos, &a.x) || pos >= text.size() || (text[pos] != '+' && text[pos] != '-'))
      return false;
    if (!read_int(text, pos, &a.y) || pos != text.size()) return false;
    a.width = s.width;
    a.height = s.height;
  }
  if (a.width <= 0 || a.height <= 0) return false;
  if (area != nullptr) *area = a;
  return true;
}

bool parse_floats(const std::string& text, size_t n, std::vector<float>* values) {
  std::vector<float> v;
  const char* p = text.c_str();
  while (true) {
    char* end = nullptr;
    errno = 0;
    const float f = std::strtof(p, &end);
    if (end == p || errno != 0 || !std::isfinite(f)) return false;
    v.push_back(f);
    p = end;
    while (*p == ' ') ++p;
    if (*p == '\0') break;
    if (*p++ != ',') return false;
  }
  if (n != 0 && v.size() != n) return false;
  if (values != nullptr) *values = std::move(v);
  return true;
}

bool parse_format(const std::string& text, uint32_t* format) {
  static const std::pair<const char*, uint32_t> kNames[] = {
      {"GREY", ZARVEL_PIXFMT_GREY}, {"GRAY", ZARVEL_PIXFMT_GREY},    {"RGB24", ZARVEL_PIXFMT_RGB24},
      {"RGB", ZARVEL_PIXFMT_RGB24}, {"BGR24", ZARVEL_PIXFMT_BGR24},  {"BGR", ZARVEL_PIXFMT_BGR24},
      {"NV12", ZARVEL_PIXFMT_NV12}, {"NV21", ZARVEL_PIXFMT_NV21},    {"YU12", ZARVEL_PIXFMT_YU12},
      {"I420", ZARVEL_PIXFMT_YU12}, {"GREY16", ZARVEL_PIXFMT_GREY16}};
  const std::string name = upper(text);
  for (const auto& [n, code] : kNames) {
    if (name == n) {
      if (format != nullptr) *format = code;
      return true;
    }
  }
  return false;
}

bool parse_raw(const std::string& text, RawGeometry* raw) {
  const size_t colon = text.find(':');
  RawGeometry r;
  if (colon == std::string::npos || !parse_size(text.substr(0, colon), &r.size) ||
      !parse_format(text.substr(colon + 1), &r.format))
    return false;
  if (is_yuv420(r.format) && (r.size.width % 2 != 0 || r.size.height % 2 != 0)) return false;
  if (raw != nullptr) *raw = r;
  return true;
}

CLI::Validator size_check() {
  return validator([](const std::string& s) { return parse_size(s, nullptr); },
                   "a size WIDTHxHEIGHT such as 640x480", "WxH");
}
CLI::Validator area_check() {
  return validator([](const std::string& s) { return parse_area(s, nullptr); },
                   "a region WxH+X+Y or X,Y,W,H", "AREA");
}
CLI::Validator floats_check(size_t n) {
  return validator([n](const std::string& s) { return parse_floats(s, n, nullptr); },
                   n == 0 ? std::string("a comma-separated list of numbers")
                          : std::to_string(n) + " comma-separated numbers",
                   "F,F,...");
}
CLI::Validator format_check() {
  return validator([](const std::string& s) { return parse_format(s, nullptr); },
                   "a pixel format (GREY, RGB24, BGR24, NV12, NV21, YU12, GREY16)", "FORMAT");
}
CLI::Validator raw_check() {
  return validator([](const std::string& s) { return parse_raw(s, nullptr); },
                   "WxH:FORMAT such as 640x480:NV12 (4:2:0 sizes even)", "WxH:FORMAT");
}

// ---- inputs ----
namespace {

std::vector<uint8_t> read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw OpError("cannot read " + path + ": " + std::strerror(errno));
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

}  // namespace

Frame load_input(const std::string& path, const std::string& raw) {
  if (raw.empty()) {
    Frame frame(zarvel_frame_load(path.c_str()));
    if (!frame) throw OpError("zarvel_frame_load could not decode " + path);
    check("zarvel_frame_load", 0);
    return frame;
  }
  RawGeometry g;
  if (!parse_raw(raw, &g)) throw UsageError("--raw: '" + raw + "' is not WxH:FORMAT");
  const std::vector<uint8_t> bytes = read_file(path);
  const int64_t need = zarvel_frame_inferred_size(g.format, g.size.width, g.size.height, nullptr);
  if (need < 0 || static_cast<int64_t>(bytes.size()) != need)
    throw OpError(path + " holds " + std::to_string(bytes.size()) + " bytes, " + raw + " needs " +
                  std::to_string(need));
  Frame frame(
      zarvel_frame_alloc(ZARVEL_MEM_HOST, g.format, g.size.width, g.size.height, nullptr, 0));
  check("zarvel_frame_alloc", frame ? 0 : ZARVEL_EFAIL);
  // Default strides are tight and the planes back to back, as in the file.
  size_t offset = 0;
  for (uint64_t p = 0; p < frame->plane_count; ++p) {
    const size_t n = frame->plane_size[p];
    if (offset + n > bytes.size()) throw OpError("raw layout of " + raw + " does not match");
    std::memcpy(frame->plane[p], bytes.data() + offset, n);
    offset += n;
  }
  return frame;
}

bool is_image_path(const std::string& path) {
  const std::string ext = upper(fs::path(path).extension().string());
  return ext == ".PNG" || ext == ".JPG" || ext == ".JPEG" || ext == ".BMP";
}

std::string describe(const zarvel_frame_t* frame) {
  return std::to_string(frame->width) + "x" + std::to_string(frame->height) + " " +
         zarvel_frame_pixfmt_to_string(frame->format);
}

// ---- outputs ----
Outputs::~Outputs() {
  for (const auto& file : files_) std::remove(file.first.c_str());
}

std::string Outputs::temporary_for(const std::string& path) {
  const fs::path final_path(path);
  if (path.empty() || final_path.filename().empty()) throw UsageError("no output file name given");
  // Same folder (so the rename stays on one file system) and same ending (the encoder picks
  // the image format from it).
  const fs::path temp = final_path.parent_path() /
                        ("." + final_path.stem().string() + ".tmp" + std::to_string(getpid()) +
                         std::to_string(files_.size()) + final_path.extension().string());
  files_.emplace_back(temp.string(), path);
  return temp.string();
}

void Outputs::write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  const std::string temp = temporary_for(path);
  std::FILE* f = std::fopen(temp.c_str(), "wb");
  if (f == nullptr) throw OpError("cannot write " + path + ": " + std::strerror(errno));
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok)
    throw OpError("cannot write " + path + ": " + std::strerror(errno));
}

void Outputs::save_frame(zarvel_frame_t* frame, const std::string& path) {
  if (is_image_path(path)) {
    const std::string temp = temporary_for(path);
    check("zarvel_frame_save", zarvel_frame_save(frame, temp.c_str()));
    return;
  }
  // Raw planes: a copy with the library's default (tight) strides is laid out as the file is.
  zarvel_frame_t* copy = nullptr;
  check("zarvel_frame_copy", zarvel_frame_copy(frame, &copy));
  const Frame tight(copy);
  std::vector<uint8_t> bytes;
  for (uint64_t p = 0; p < tight->plane_count; ++p)
    bytes.insert(bytes.end(), tight->plane[p], tight->plane[p] + tight->plane_size[p]);
  write_bytes(path, bytes);
}

std::vector<uint8_t> npy_header(const char* descr, const std::vector<int64_t>& shape) {
  std::string dict = std::string("{'descr': '") + descr + "', 'fortran_order': False, 'shape': (";
  for (size_t i = 0; i < shape.size(); ++i)
    dict += std::to_string(shape[i]) + (shape.size() == 1 || i + 1 < shape.size() ? "," : "") +
            (i + 1 < shape.size() ? " " : "");
  dict += "), }";
  // Magic, version 1.0, 16-bit header length; the header ends in '\n' and pads the whole
  // preamble to a multiple of 64 bytes.
  const size_t unpadded = 10 + dict.size() + 1;
  dict.append((64 - unpadded % 64) % 64, ' ');
  dict += '\n';
  std::string preamble = "\x93NUMPY\x01";
  preamble += '\0';
  preamble += static_cast<char>(dict.size() & 0xff);
  preamble += static_cast<char>(dict.size() >> 8);
  preamble += dict;
  return std::vector<uint8_t>(preamble.begin(), preamble.end());
}

void Outputs::save_npy(const zarvel_tensor_t* tensor, const std::string& path) {
  const bool f32 = tensor->elem_type == ZARVEL_ELEM_F32;
  const size_t elem = f32 ? 4 : 1;
  std::vector<int64_t> shape(tensor->shape, tensor->shape + 4);
  size_t count = 1;
  for (int64_t d : shape) count *= static_cast<size_t>(d);
  std::vector<uint8_t> bytes = npy_header(f32 ? "<f4" : "|u1", shape);
  const auto* data = static_cast<const uint8_t*>(zarvel_tensor_raw_pointer(tensor));
  bytes.insert(bytes.end(), data, data + count * elem);  // dense NCHW, as allocated
  write_bytes(path, bytes);
}

void Outputs::save_npy(const std::vector<float>& values, const std::vector<int64_t>& shape,
                       const std::string& path) {
  std::vector<uint8_t> bytes = npy_header("<f4", shape);
  const auto* data = reinterpret_cast<const uint8_t*>(values.data());
  bytes.insert(bytes.end(), data, data + values.size() * sizeof(float));
  write_bytes(path, bytes);
}

void Outputs::commit() {
  for (auto& [temp, final_path] : files_) {
    std::error_code error;
    fs::rename(temp, final_path, error);
    if (error) throw OpError("cannot move " + temp + " to " + final_path + ": " + error.message());
    temp.clear();
  }
  files_.clear();
}

// ---- subcommands ----
namespace {
std::vector<std::pair<const CLI::App*, std::function<void()>>>& runners() {
  static std::vector<std::pair<const CLI::App*, std::function<void()>>> list;
  return list;
}
}  // namespace

void add_io(CLI::App* sub, Io* io) {
  sub->add_option("input", io->input, "input image (any format the decoder reads) or raw file")
      ->required()
      ->check(CLI::ExistingFile);
  sub->add_option("output", io->output,
                  "output file: .png, .jpg, .jpeg, .bmp are encoded, any other ending gets the "
                  "raw planes")
      ->required();
  sub->add_option("--raw", io->raw, "the input is headerless pixels of this geometry")
      ->check(raw_check());
}

void set_runner(CLI::App* sub, std::function<void()> run) {
  runners().emplace_back(sub, std::move(run));
}

void run_selected(const CLI::App& app) {
  for (const CLI::App* sub : app.get_subcommands())
    for (const auto& [owner, run] : runners())
      if (owner == sub) run();
}

// ---- progress ----
Progress::Progress(const char* label, size_t total)
    : label_(label),
      total_(total),
      enabled_(total > 1 && isatty(STDERR_FILENO) != 0),
      start_(Clock::now()),
      last_(start_) {}

Progress::~Progress() {
  if (enabled_ && done_ > 0) std::fputc('\n', stderr);
}

void Progress::step() {
  ++done_;
  if (!enabled_) return;
  const auto now = Clock::now();
  if (done_ < total_ && now - last_ < std::chrono::milliseconds(100)) return;
  last_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(done_) / seconds : 0.0;
  const double left = rate > 0 ? static_cast<double>(total_ - done_) / rate : 0.0;
  std::fprintf(stderr, "\r%s %zu/%zu  %.1f/s  %d:%02d left ", label_, done_, total_, rate,
               static_cast<int>(left) / 60, static_cast<int>(left) % 60);
  std::fflush(stderr);
}

}  // namespace zarvel::tool
