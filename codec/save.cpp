// zarvel_frame_save and zarvel_frame_encode.
#include <zarvel/aux.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "codec/codec.h"
#include "frame_api/frame_api.h"
#include "plugin/log.h"
#include "plugin/status.h"

namespace zarvel::aux::codec {
namespace {

bool ends_with(const std::string& text, const char* ending) {
  const size_t n = std::strlen(ending);
  return text.size() >= n && text.compare(text.size() - n, n, ending) == 0;
}

// A host frame whose plane 0 holds the pixels the writer reads, and their channel count.
struct WritableFrame {
  FramePtr frame;
  int32_t components = 0;
};

// Brings `frame` to host memory with contiguous rows, then to what the writer takes: "GREY" as
// one channel for PNG, "RGB24" for everything else. Returns kFailed when the frame cannot be
// brought to the host; a frame that cannot be converted leaves `out->frame` null, which the
// writer step reports as its own failure.
int32_t prepare(zarvel_frame_t* frame, ImageFormat format, WritableFrame* out) {
  FramePtr host;
  if (zarvel_frame_mem_type(frame) == ZARVEL_MEM_HOST) {
    host.reset(zarvel_frame_ref(frame));
  } else {
    zarvel_frame_t* downloaded = nullptr;
    const int32_t status = zarvel_frame_download(frame, &downloaded);
    host.reset(downloaded);
    if (status != kOk) return kFailed;
  }
  if (!host) return kFailed;
  if (!zarvel_frame_is_contiguous(host.get())) {
    host.reset(zarvel_frame_duplicate(host.get()));
    if (!host) return kFailed;
  }
  if (format == ImageFormat::kPng && host->format == ZARVEL_PIXFMT_GREY) {
    out->frame = std::move(host);
    out->components = 1;
    return kOk;
  }
  // A conversion that fails leaves rgb null; the writer step then reports the failure.
  zarvel_frame_t* rgb = nullptr;
  (void)zarvel_frame_cvt_color(host.get(), &rgb, ZARVEL_PIXFMT_RGB24);
  out->frame.reset(rgb);
  out->components = 3;
  return kOk;
}

// Runs the writer over a prepared frame; false when there is nothing fit to write.
bool write_prepared(ImageFormat format, const WritableFrame& prepared, WriteFn write,
                    void* context) {
  const zarvel_frame_t* f = prepared.frame.get();
  if (f == nullptr ||
      f->format != (prepared.components == 1 ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24)) {
    return false;
  }
  return encode_image(format, f->plane[0], f->width, f->height, prepared.components, f->stride[0],
                      write, context);
}

struct FileSink {
  std::FILE* file;
  bool failed = false;
};

void write_to_file(void* context, void* data, int size) {
  auto* sink = static_cast<FileSink*>(context);
  if (size > 0 &&
      std::fwrite(data, 1, static_cast<size_t>(size), sink->file) != static_cast<size_t>(size)) {
    sink->failed = true;
  }
}

// Appends to a host buffer. The buffer grows geometrically (the JPEG and BMP writers hand over
// many small chunks) and is cut to the bytes written at the end.
struct BufferSink {
  zarvel_buffer_t* buffer;
  int64_t used = 0;
  int64_t capacity = 0;
  bool failed = false;
};

void write_to_buffer(void* context, void* data, int size) {
  auto* sink = static_cast<BufferSink*>(context);
  if (sink->failed || size <= 0) return;
  const int64_t needed = sink->used + size;
  if (needed > sink->capacity) {
    int64_t capacity = sink->capacity < 65536 ? 65536 : sink->capacity * 2;
    if (capacity < needed) capacity = needed;
    if (zarvel_buffer_resize(sink->buffer, capacity) != kOk) {
      sink->failed = true;
      return;
    }
    sink->capacity = capacity;
  }
  std::memcpy(static_cast<uint8_t*>(zarvel_buffer_raw_pointer(sink->buffer)) + sink->used, data,
              static_cast<size_t>(size));
  sink->used = needed;
}

int32_t save(zarvel_frame_t* frame, const char* path) {
  const ImageFormat format = format_from_name(path);
  if (format == ImageFormat::kNone) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Unsuppported save format, only support jp[e]g/bmp/png!\n");
    return kUnsupported;
  }
  if (frame == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Invalid input frame!\n");
    return kInvalidArgument;
  }
  WritableFrame prepared;
  if (prepare(frame, format, &prepared) != kOk) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Download failed!\n");
    return kFailed;
  }
  // Nothing is opened (or truncated) for a frame the writer cannot take.
  if (!prepared.frame) return kFailed;
  FileSink sink{std::fopen(path, "wb")};
  if (sink.file == nullptr) return kFailed;
  bool written = write_prepared(format, prepared, &write_to_file, &sink) && !sink.failed;
  written = (std::fclose(sink.file) == 0) && written;
  // A half-written image is worse than none.
  if (!written) std::remove(path);
  return written ? kOk : kFailed;
}

int32_t encode(zarvel_frame_t* frame, int32_t format_number, zarvel_buffer_t* buffer) {
  if (format_number < 1 || format_number > 3) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Unsupported save format, only support JPG/BMP/PNG\n");
    return kUnsupported;
  }
  if (frame == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Invalid input frame!\n");
    return kInvalidArgument;
  }
  if (buffer == nullptr || zarvel_buffer_mem_type(buffer) != ZARVEL_MEM_HOST) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Invalid buffer, expect a zarvel_buffer with HOST memory!\n");
    return kInvalidArgument;
  }
  const auto format = static_cast<ImageFormat>(format_number);
  WritableFrame prepared;
  if (prepare(frame, format, &prepared) != kOk) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Download failed!\n");
    return kFailed;
  }
  BufferSink sink{buffer};
  bool written = zarvel_buffer_resize(buffer, 0) == kOk &&
                 write_prepared(format, prepared, &write_to_buffer, &sink) && !sink.failed &&
                 zarvel_buffer_resize(buffer, sink.used) == kOk;
  if (!written) {
    zarvel_buffer_resize(buffer, 0);
    ZA_LOG(ZARVEL_LOG_FAILURE, "Monochrome frame serialize failed error!\n");
    return kFailed;
  }
  return kOk;
}

}  // namespace

ImageFormat format_from_name(const char* name) {
  if (name == nullptr) return ImageFormat::kNone;
  std::string lower(name);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (ends_with(lower, ".jpg") || ends_with(lower, ".jpeg")) return ImageFormat::kJpeg;
  if (ends_with(lower, ".bmp")) return ImageFormat::kBmp;
  if (ends_with(lower, ".png")) return ImageFormat::kPng;
  return ImageFormat::kNone;
}

}  // namespace zarvel::aux::codec

extern "C" {

ZARVEL_AUX_API int32_t zarvel_frame_save(zarvel_frame_t* frame, const char* path) {
  try {
    return zarvel::aux::codec::save(frame, path);
  } catch (const std::bad_alloc&) {
    return zarvel::aux::kFailed;
  }
}

ZARVEL_AUX_API int32_t zarvel_frame_encode(zarvel_frame_t* frame, int32_t format,
                                           zarvel_buffer_t* buffer) {
  try {
    return zarvel::aux::codec::encode(frame, format, buffer);
  } catch (const std::bad_alloc&) {
    return zarvel::aux::kFailed;
  }
}

}  // extern "C"
