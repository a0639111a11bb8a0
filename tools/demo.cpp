// A first look at the plugin: its identity, and a frame's trip to the device and back.
#include <zarvel/aux.h>

#include <cstdio>
#include <cstring>

int main() {
  std::fputs(zarvel_aux_meta(), stdout);

  const int32_t width = 64, height = 48;
  zarvel_frame_t* host =
      zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_NV12, width, height, nullptr, 0);
  if (host == nullptr) {
    std::fprintf(stderr, "could not allocate a frame\n");
    return 1;
  }
  for (int32_t y = 0; y < height; ++y)
    std::memset(host->plane[0] + y * host->stride[0], y * 5, static_cast<size_t>(width));

  zarvel_frame_t* device = nullptr;
  zarvel_frame_t* back = nullptr;
  int status = zarvel_frame_upload(host, &device);
  if (status == 0) status = zarvel_frame_download(device, &back);
  const bool same = status == 0 && std::memcmp(host->plane[0], back->plane[0],
                                               static_cast<size_t>(width) * height) == 0;
  std::printf("%s frame %dx%d: host -> %s -> host %s\n",
              zarvel_frame_pixfmt_to_string(host->format), width, height, zarvel_device_get_name(),
              same ? "unchanged" : "FAILED");
  zarvel_frame_free(&back);
  zarvel_frame_free(&device);
  zarvel_frame_free(&host);
  return same ? 0 : 1;
}
