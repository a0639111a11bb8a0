/* zarvel frame library: frames, buffers and tensors in host or device memory. */
#ifndef ZARVEL_FRAME_H_
#define ZARVEL_FRAME_H_

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(ZARVEL_FRAME_BUILDING)
#define ZARVEL_FRAME_API __attribute__((visibility("default")))
#else
#define ZARVEL_FRAME_API
#endif

/* Pixel formats: four-character codes read as little-endian 32-bit words. */
#define ZARVEL_PIXFMT_GREY 0x59455247u   /* "GREY": 8-bit luma, one plane */
#define ZARVEL_PIXFMT_RGB24 0x18424752u  /* "RGB" 0x18: packed R,G,B */
#define ZARVEL_PIXFMT_BGR24 0x18524742u  /* "BGR" 0x18: packed B,G,R */
#define ZARVEL_PIXFMT_NV12 0x3231564Eu   /* "NV12": Y plane, interleaved U,V plane */
#define ZARVEL_PIXFMT_NV21 0x3132564Eu   /* "NV21": Y plane, interleaved V,U plane */
#define ZARVEL_PIXFMT_YU12 0x32315559u   /* "YU12": Y plane, U plane, V plane */
#define ZARVEL_PIXFMT_GREY16 0x10003159u /* one plane of unsigned 16-bit samples */

/* Memory types. Device memory is not reachable from the host: plane pointers, buffer raw
 * pointers and tensor pointers of device memory are device addresses, and host code that
 * dereferences one faults. Only this library's copies, uploads and downloads move bytes in and
 * out of it. */
#define ZARVEL_MEM_HOST 0u
#define ZARVEL_MEM_DEVICE 1u

/* Tensor element types. */
#define ZARVEL_ELEM_S8 11u
#define ZARVEL_ELEM_U8 51u
#define ZARVEL_ELEM_F32 101u

/* Library statuses (0 is success). */
#define ZARVEL_OK 0
#define ZARVEL_EINVAL (-1)
#define ZARVEL_EFAIL (-4)

typedef struct Area2D {
  int32_t x;
  int32_t y;
  int32_t width;
  int32_t height;
} Area2D;

typedef struct Size2D {
  int32_t width;
  int32_t height;
} Size2D;

typedef struct zarvel_buffer zarvel_buffer_t;

/* A frame record. Records are created, referenced and freed only through this library;
 * pixels are shared between records through the owning buffer's reference count. */
typedef struct zarvel_frame {
  uint32_t mem_type; /* use zarvel_frame_mem_type() */
  uint32_t format;
  int32_t width;
  int32_t height;
  int32_t stride[4];      /* bytes per row of each plane */
  uint64_t plane_size[4]; /* bytes each plane spans (stride x rows) */
  uint64_t plane_count;
  uint8_t* plane[4];
  uint64_t meta_word0;
  uint64_t meta_word1;
  zarvel_buffer_t* buffer; /* owns the pixels */
  zarvel_buffer_t* extra;  /* optional attachment, released with the record */
} zarvel_frame_t;

/* A tensor record: a strided 4-D view (N, C, H, W) over a buffer. */
typedef struct zarvel_tensor {
  uint32_t elem_type;      /* ZARVEL_ELEM_* */
  int32_t shape[4];        /* N, C, H, W */
  int64_t stride[4];       /* in elements */
  int64_t offset;          /* element offset of (0,0,0,0) inside the buffer */
  zarvel_buffer_t* buffer; /* owns the data */
} zarvel_tensor_t;

/* ---- frames ----
 *
 * Every function refuses bad arguments with null or ZARVEL_EINVAL (and a failure message
 * through zarvel_log) rather than crashing; allocation failures give null or ZARVEL_EFAIL.
 * The 4:2:0 formats (NV12, NV21, YU12) need even widths, heights and region corners. */

/* Allocates a frame; strides of 0 (or null strides) let the library choose tight rows:
 * plane 0 holds width x pixel size bytes, the NV12/NV21 chroma plane has plane 0's stride and
 * the YU12 chroma planes half of it. Planes lie back to back in one allocation starting on a
 * 64-byte boundary. Nonzero strides are honoured and must hold a visible row.
 * meta_word0 starts at 0, extra at null. */
ZARVEL_FRAME_API zarvel_frame_t* zarvel_frame_alloc(uint32_t mem_type, uint32_t format,
                                                    int32_t width, int32_t height,
                                                    const int32_t strides[4], uint64_t meta_word1);
/* Wraps existing pixels laid out from `data` as zarvel_frame_alloc would lay them out; no copy.
 * release(release_arg) (may be null) runs once, when the last record or view over the pixels
 * is freed; if the call fails it never runs and the pixels stay the caller's. For device
 * memory, the whole frame must lie inside one allocation of this library's device memory;
 * host frames must not lie in device memory. `reserved` is ignored. */
ZARVEL_FRAME_API zarvel_frame_t* zarvel_frame_make(uint32_t mem_type, uint32_t format, void* data,
                                                   int32_t width, int32_t height,
                                                   const int32_t strides[4], void* reserved,
                                                   void (*release)(void*), void* release_arg);
/* A new record with the same fields over the same pixels (and attachment); free each record. */
ZARVEL_FRAME_API zarvel_frame_t* zarvel_frame_ref(zarvel_frame_t* frame);
/* A new record viewing `area` of the frame: same strides and meta words, shared pixels and
 * attachment. Null unless the area is non-empty and wholly inside the frame. */
ZARVEL_FRAME_API zarvel_frame_t* zarvel_frame_roi(zarvel_frame_t* frame, Area2D area);
/* Copies the visible pixels of src. When *dst is null, allocates it with src's memory type,
 * format, size, meta words and default strides; otherwise *dst (a view too, in any memory
 * type) must have src's format and at least its width and height, and receives the pixels
 * in its top-left corner. Returns ZARVEL_OK, ZARVEL_EINVAL for bad
 * arguments or a mismatched destination, ZARVEL_EFAIL when allocation fails. */
ZARVEL_FRAME_API int32_t zarvel_frame_copy(const zarvel_frame_t* src, zarvel_frame_t** dst);
/* A contiguous deep copy in the same memory type with the same meta words; shares the
 * attachment. Null on failure. */
ZARVEL_FRAME_API zarvel_frame_t* zarvel_frame_duplicate(const zarvel_frame_t* frame);
/* As zarvel_frame_copy, but a destination it allocates is in host memory (download) or in
 * device memory (upload). The source may be in either memory type. */
ZARVEL_FRAME_API int32_t zarvel_frame_download(const zarvel_frame_t* dev, zarvel_frame_t** host);
ZARVEL_FRAME_API int32_t zarvel_frame_upload(const zarvel_frame_t* host, zarvel_frame_t** dev);
/* Frees the record and its references of pixels and attachment; sets *frame to null.
 * A null slot or a null *frame is allowed. */
ZARVEL_FRAME_API void zarvel_frame_free(zarvel_frame_t** frame);
/* Sets every visible byte of every plane to (uint8_t)value; row padding is left alone. */
ZARVEL_FRAME_API int32_t zarvel_frame_reset(zarvel_frame_t* frame, int32_t value);
/* The frame's memory type; UINT32_MAX (no memory type) for a null frame. */
ZARVEL_FRAME_API uint32_t zarvel_frame_mem_type(const zarvel_frame_t* frame);
/* Bytes per pixel of plane 0; 0 for an unknown format. */
ZARVEL_FRAME_API int32_t zarvel_frame_pixel_size(uint32_t format);
/* "GREY", "RGB24", "BGR24", "NV12", "NV21", "YU12", "GREY16", or "UNKNOWN". Never null. */
ZARVEL_FRAME_API const char* zarvel_frame_pixfmt_to_string(uint32_t format);
/* Bytes a contiguous frame of this geometry needs, laid out as zarvel_frame_alloc does;
 * fills `strides` (may be null) with the strides used: zero entries chosen, nonzero ones
 * kept, entries past the last plane zeroed. -1 on bad arguments. */
ZARVEL_FRAME_API int64_t zarvel_frame_inferred_size(uint32_t format, int32_t width, int32_t height,
                                                    int32_t strides[4]);
/* True when each plane's stride is its visible row and each plane starts where the previous
 * one ends. False for a null frame. */
ZARVEL_FRAME_API bool zarvel_frame_is_contiguous(const zarvel_frame_t* frame);

/* ---- buffers ----
 *
 * A buffer is reference counted (atomically): zarvel_buffer_ref adds a reference and returns
 * the same pointer, zarvel_buffer_free drops one and sets the slot to null. */

/* Zero-filled, 64-byte aligned; size 0 allowed. */
ZARVEL_FRAME_API zarvel_buffer_t* zarvel_buffer_alloc(int64_t size, uint32_t mem_type);
/* Adopts caller memory without copying; release(release_arg) (may be null) runs once when the
 * last reference goes, or earlier if zarvel_buffer_resize moves the data out. On failure it
 * never runs. Device memory must lie inside one of this library's device allocations. */
ZARVEL_FRAME_API zarvel_buffer_t* zarvel_buffer_make(void* data, int64_t size, uint32_t mem_type,
                                                     void (*release)(void*), void* release_arg);
/* Copies all of src into the start of dst, across memory types; dst must be large enough. */
ZARVEL_FRAME_API int32_t zarvel_buffer_copy(const zarvel_buffer_t* src, zarvel_buffer_t* dst);
ZARVEL_FRAME_API int64_t zarvel_buffer_size(const zarvel_buffer_t* buffer);
/* Changes the size, keeping the leading bytes; may move the data. Shrinking stays in place;
 * growing moves into new library memory whose added bytes are zero. Frames store plane
 * addresses, so only resize a buffer no frame views. Size -1 for a null buffer. */
ZARVEL_FRAME_API int32_t zarvel_buffer_resize(zarvel_buffer_t* buffer, int64_t size);
ZARVEL_FRAME_API void* zarvel_buffer_raw_pointer(const zarvel_buffer_t* buffer);
/* UINT32_MAX for a null buffer. */
ZARVEL_FRAME_API uint32_t zarvel_buffer_mem_type(const zarvel_buffer_t* buffer);
/* Sets every byte to (uint8_t)value, in either memory type. */
ZARVEL_FRAME_API int32_t zarvel_buffer_set(zarvel_buffer_t* buffer, int32_t value);
ZARVEL_FRAME_API zarvel_buffer_t* zarvel_buffer_ref(zarvel_buffer_t* buffer);
ZARVEL_FRAME_API void zarvel_buffer_free(zarvel_buffer_t** buffer);

/* ---- tensors ---- */

/* A dense zero-filled NCHW tensor: strides {c*h*w, h*w, w, 1}. Every dimension positive;
 * element types ZARVEL_ELEM_S8, _U8, _F32. */
ZARVEL_FRAME_API zarvel_tensor_t* zarvel_tensor_alloc(uint32_t mem_type, uint32_t elem_type,
                                                      int32_t n, int32_t c, int32_t h, int32_t w);
ZARVEL_FRAME_API void zarvel_tensor_free(zarvel_tensor_t** tensor);
/* Copies elements between two tensors of equal shape and element type, any memory types. */
ZARVEL_FRAME_API int32_t zarvel_tensor_copy(const zarvel_tensor_t* src, zarvel_tensor_t* dst);
/* A view of shape `shape` starting at `start` (N, C, H, W), sharing the data. */
ZARVEL_FRAME_API zarvel_tensor_t* zarvel_tensor_roi(zarvel_tensor_t* tensor, const int32_t start[4],
                                                    const int32_t shape[4]);
/* UINT32_MAX for a null tensor. */
ZARVEL_FRAME_API uint32_t zarvel_tensor_mem_type(const zarvel_tensor_t* tensor);
/* Address of element (0, 0, 0, 0) of the tensor. */
ZARVEL_FRAME_API void* zarvel_tensor_raw_pointer(const zarvel_tensor_t* tensor);
/* Address of element (n, c, h, w); null unless every index is inside its dimension. */
ZARVEL_FRAME_API void* zarvel_tensor_data_at(const zarvel_tensor_t* tensor, int32_t n, int32_t c,
                                             int32_t h, int32_t w);
/* Element offset of (n, c, h, w) from element (0, 0, 0, 0); each index may range from 0 up to
 * and including its dimension, so calc_offset(t, 1, 0, 0, 0) is the batch stride even of a
 * one-image tensor. -1 on bad arguments. */
ZARVEL_FRAME_API int64_t zarvel_tensor_calc_offset(const zarvel_tensor_t* tensor, int32_t n,
                                                   int32_t c, int32_t h, int32_t w);

#ifdef __cplusplus
}
#endif

#endif /* ZARVEL_FRAME_H_ */
