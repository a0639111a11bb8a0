// zarvel_frame_load and zarvel_frame_load_from_memory.
#include <zarvel/aux.h>

#include <cstdio>
#include <new>

#include "codec/codec.h"
#include "plugin/log.h"

namespace zarvel::aux::codec {
namespace {

// Copies the first `keep` bytes of every `channels`-byte pixel into a new frame with tight rows.
zarvel_frame_t* copy_dropping_alpha(const uint8_t* pixels, int32_t width, int32_t height,
                                    int32_t channels, uint32_t format, int32_t keep) {
  const int32_t strides[4] = {width * keep, 0, 0, 0};
  zarvel_frame_t* frame = zarvel_frame_alloc(ZARVEL_MEM_HOST, format, width, height, strides, 0);
  if (frame == nullptr) return nullptr;
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = pixels + static_cast<int64_t>(y) * width * channels;
    uint8_t* out = frame->plane[0] + static_cast<int64_t>(y) * frame->stride[0];
    for (int32_t x = 0; x < width; ++x, in += channels, out += keep) {
      for (int32_t c = 0; c < keep; ++c) out[c] = in[c];
    }
  }
  return frame;
}

zarvel_frame_t* load_decoded(const DecodedImage& image, const char* path) {
  return frame_from_pixels(image.pixels, image.width, image.height, image.channels,
                           decoder_release(), path);
}

zarvel_frame_t* load(const char* path) {
  if (path == nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Load frame but no file name specified!\n");
    return nullptr;
  }
  std::FILE* file = std::fopen(path, "rb");
  if (file == nullptr) {
    note_open_failure();
    return nullptr;
  }
  DecodedImage image;
  const bool decoded = decode_file(file, &image);
  std::fclose(file);
  return decoded ? load_decoded(image, path) : nullptr;
}

zarvel_frame_t* load_from_memory(const void* data, int32_t size) {
  DecodedImage image;
  if (!decode_memory(static_cast<const uint8_t*>(data), size, &image)) return nullptr;
  return load_decoded(image, nullptr);
}

}  // namespace

zarvel_frame_t* frame_from_pixels(uint8_t* pixels, int32_t width, int32_t height, int32_t channels,
                                  ReleaseFn release, const char* path) {
  if (channels == 1 || channels == 3) {
    const uint32_t format = channels == 1 ? ZARVEL_PIXFMT_GREY : ZARVEL_PIXFMT_RGB24;
    const int32_t strides[4] = {width * channels, 0, 0, 0};
    zarvel_frame_t* frame = zarvel_frame_make(ZARVEL_MEM_HOST, format, pixels, width, height,
                                              strides, nullptr, release, pixels);
    // A frame that could not be made never calls its release function.
    if (frame == nullptr) release(pixels);
    return frame;
  }
  zarvel_frame_t* frame = nullptr;
  if (channels == 2) {
    frame = copy_dropping_alpha(pixels, width, height, 2, ZARVEL_PIXFMT_GREY, 1);
  } else if (channels == 4) {
    frame = copy_dropping_alpha(pixels, width, height, 4, ZARVEL_PIXFMT_RGB24, 3);
  } else if (path != nullptr) {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Can not load image [%s] of which channel is [%d]!\n", path,
           channels);
  } else {
    ZA_LOG(ZARVEL_LOG_FAILURE, "Can not load image of which channel is [%d]!\n", channels);
  }
  release(pixels);
  return frame;
}

}  // namespace zarvel::aux::codec

extern "C" {

ZARVEL_AUX_API zarvel_frame_t* zarvel_frame_load(const char* path) {
  try {
    return zarvel::aux::codec::load(path);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

ZARVEL_AUX_API zarvel_frame_t* zarvel_frame_load_from_memory(const void* data, int32_t size) {
  try {
    return zarvel::aux::codec::load_from_memory(data, size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

}  // extern "C"
