/* zarvel_aux: image operations on zarvel frames and tensors. */
#ifndef ZARVEL_AUX_H_
#define ZARVEL_AUX_H_

#include <stdint.h>

#include "zarvel/core.h"
#include "zarvel/frame.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(ZARVEL_AUX_BUILDING)
#define ZARVEL_AUX_API __attribute__((visibility("default")))
#else
#define ZARVEL_AUX_API
#endif

/* Statuses returned by the operations. Frame-library statuses are passed through. */
#define ZARVEL_AUX_OK 0
#define ZARVEL_AUX_INVALID_ARGUMENT (-1)
#define ZARVEL_AUX_HOST_TENSOR_FAILED (-3)
#define ZARVEL_AUX_FAILED (-4)
#define ZARVEL_AUX_UNSUPPORTED (-1000)
#define ZARVEL_AUX_TENSOR_ARGUMENT 75

/* ---- identity: static strings owned by the module ---- */

/* "zarvel_aux" */
ZARVEL_AUX_API const char* __plugin_name(void);
/* "1.4.1" */
ZARVEL_AUX_API const char* zarvel_aux_version(void);
/* 40 lower-case hexadecimal digits naming the source revision of this build. */
ZARVEL_AUX_API const char* zarvel_aux_revision(void);
/* A multi-line banner describing the build, ending in two newlines. */
ZARVEL_AUX_API const char* zarvel_aux_meta(void);

/* ---- crop, resize, scale ----
 * The output slot: when *dst is null the operation allocates the output (the caller frees it
 * with zarvel_frame_free); otherwise *dst must have the source's memory type and pixel format
 * and be at least the required size. */

/* Cuts out `area`; parts outside the source become black (luma 0, chroma 128) in a new
 * output and keep their contents in a caller-supplied one. */
ZARVEL_AUX_API int32_t zarvel_frame_crop(zarvel_frame_t* src, zarvel_frame_t** dst, Area2D area);
/* Bilinear resampling to `size` (fixed point, 11-bit weights), plane by plane. */
ZARVEL_AUX_API int32_t zarvel_frame_resize(zarvel_frame_t* src, zarvel_frame_t** dst, Size2D size);
/* Resize to the source size times `ratio`, truncated toward zero. */
ZARVEL_AUX_API int32_t zarvel_frame_scale(zarvel_frame_t* src, zarvel_frame_t** dst, float ratio);

/* ---- colour conversion ----
 * Converts src into `dst_format` (a ZARVEL_PIXFMT_* code), same width and height. When *out
 * is null the result is allocated (equal formats, and a 4:2:0 source to GREY, return a new
 * reference sharing the source's pixels instead); otherwise *out must have src's memory type
 * and size and the format dst_format. Returns 0, -1, -4, or -1000 for an unsupported pair. */
ZARVEL_AUX_API int32_t zarvel_frame_cvt_color(zarvel_frame_t* src, zarvel_frame_t** out,
                                              uint32_t dst_format);

/* ---- rotation ----
 * Turns src clockwise: code 0 by 90 degrees, 1 by 180, 2 by 270; any other code gives -1 and
 * leaves *dst alone. The output slot works as for resize, with the rotated size required; a
 * larger given output receives the rotated image in its top-left corner and keeps the rest. */
ZARVEL_AUX_API int32_t zarvel_frame_rotate(zarvel_frame_t* src, zarvel_frame_t** dst,
                                           int32_t code);

/* ---- histogram equalisation ----
 * Spreads the grey levels of a "GREY" frame over 0..255 through its cumulative histogram
 * (other formats give -1000). The output slot works as for resize, with the source size. */
ZARVEL_AUX_API int32_t zarvel_frame_equalize_hist(zarvel_frame_t* src, zarvel_frame_t** dst);

/* ---- affine and perspective warps ----
 * `out` must exist, with the format and memory type of `in`; its size is the output size.
 * The row-major matrix (6 floats affine, 9 perspective) maps each output pixel position to
 * the input position sampled bilinearly; positions outside the input read 0 (luma and packed
 * planes) or 128 (chroma planes). */
ZARVEL_AUX_API int32_t zarvel_frame_warpaffine(zarvel_frame_t* in, zarvel_frame_t* out,
                                               const float* matrix);
ZARVEL_AUX_API int32_t zarvel_frame_warpperspective(zarvel_frame_t* in, zarvel_frame_t* out,
                                                    const float* matrix);

/* ---- transform estimation ----
 * Points are (x, y) float pairs. Outputs are row-major 3x3 matrices (9 floats) whose forward
 * form maps source points to destination points; the inverse is its exact 3x3 inverse. */

/* The affine transform through exactly three point pairs. */
ZARVEL_AUX_API void zarvel_find_affine_transform(const float* src, const float* dst,
                                                 float* forward, float* inverse);
/* The least-squares rotation-with-scale and translation [a b tx; -b a ty] of three pairs. */
ZARVEL_AUX_API void zarvel_find_similarity_transform(const float* src, const float* dst,
                                                     float* forward, float* inverse);
/* The same least-squares model over n pairs; the scale is not removed. */
ZARVEL_AUX_API void zarvel_find_rigid_transform(const float* src, const float* dst, int32_t n,
                                                float* forward);

/* ---- frames into tensors and back ----
 * Tensor colour types: 0 BGR planes, 1 RGB planes, 2 one GRAY plane. */

/* Writes a packed RGB/BGR or GREY host or device frame into a host tensor (element types 51
 * u8 or 101 f32) as planes starting at element `offset`: plane c at offset + c * stride[1],
 * rows stride[2] apart. The frame is clipped to the tensor's H x W from its top-left corner and
 * the rest of the item is filled with `pad`. f32 samples are (value - mean) / std; u8 samples
 * are the raw values and pads are truncated to their low 8 bits. mean, std and pad hold three
 * floats in R, G, B order whatever the colour type. */
ZARVEL_AUX_API int32_t zarvel_frame_to_tensor(zarvel_tensor_t* tensor, int32_t offset,
                                              uint32_t color_type, zarvel_frame_t* frame,
                                              const float* mean, const float* std,
                                              const float* pad);
/* Reads batch item `index` of a dense planar tensor (element types 101, 51, 11) into a new
 * packed host frame (BGR24, RGB24 or GREY by colour type) stored in *frame; tensor channel c
 * becomes byte c of each pixel, float samples are truncated to their low 8 bits. Returns 75
 * for a refused colour type or a null tensor; an unknown element type stores null and
 * returns 0. */
ZARVEL_AUX_API int32_t zarvel_tensor_to_frames(const zarvel_tensor_t* tensor, uint32_t color_type,
                                               int64_t index, zarvel_frame_t** frame);

/* ---- one-call preprocessing ----
 * Mode (bits 0-3 of `flags`) and options of zarvel_frame_transform_to_tensor. */
#define ZARVEL_TRANSFORM_NONE 0u        /* each frame as it is */
#define ZARVEL_TRANSFORM_RESIZE 1u      /* region `rois[i]` resized to `sizes[i]` */
#define ZARVEL_TRANSFORM_AFFINE 2u      /* warped by matrices[9 i .. 9 i + 5] */
#define ZARVEL_TRANSFORM_PERSPECTIVE 3u /* warped by matrices[9 i .. 9 i + 8] */
#define ZARVEL_TRANSFORM_CHANNEL_NORM 0x10u /* resize mode: each item's own mean and deviation */
#define ZARVEL_TRANSFORM_HISTOGRAM 0x20u    /* resize mode, GRAY tensors: equalised items */

typedef struct TransformToTensorOption {
  zarvel_tensor_t* tensor; /* destination; batch item i comes from frames[i] */
  uint32_t color_type;     /* 0 BGR, 1 RGB, 2 GRAY */
  uint32_t flags;          /* mode | options */
  uint64_t frame_count;
  zarvel_frame_t** frames;
  Area2D* rois;            /* resize mode: region of each frame */
  Size2D* sizes;           /* resize mode: item size of each region */
  float* matrices;         /* warp modes: 9 floats a frame */
  float mean[3];           /* R, G, B order */
  float std[3];            /* R, G, B order */
  float* pads;             /* 3 floats a frame, or null for zeros */
  zarvel_buffer_t** buffer; /* scratch buffer slot, kept (and grown or replaced) across calls */
} TransformToTensorOption;

/* Turns each frame into one batch item of option->tensor. In resize mode without options the
 * region is cut (outside the frame it reads 0), resized with the bilinear resampler of
 * zarvel_frame_resize and written as zarvel_frame_to_tensor writes it, in one pass. With
 * CHANNEL_NORM the mean and deviation are the item's own (population statistics per channel,
 * R, G, B order). Returns 0, -1, -3, -4, -1000 or the failing stage's status. */
ZARVEL_AUX_API int32_t zarvel_frame_transform_to_tensor(const TransformToTensorOption* option);

/* Fills every batch item of a host tensor from region rois[i] of frames[i]. resize_mode 0
 * keeps the aspect ratio: scale = max(region width / W, region height / H) and the item size
 * is the region size divided by it, rounded to the nearest integer, so the region fills the
 * item's width or height and the rest (right or bottom) is padding; resize_mode 1 stretches
 * the region to W x H. The region sits at the item's top-left corner; parts of it outside the
 * frame read 0. scale_y / scale_x (may be null) receive each item's scales, so that results
 * can be mapped back: frame x = region x + item x * scale_x. */
ZARVEL_AUX_API int32_t zarvel_frame_transform_to_tensor_batch(
    zarvel_tensor_t* tensor, uint32_t color_type, uint64_t frame_count, zarvel_frame_t** frames,
    const Area2D* rois, int32_t resize_mode, const float* mean, const float* std,
    const float* pads, zarvel_buffer_t** buffer, float* scale_y, float* scale_x);

/* ---- image files ----
 * Loading decodes any image the built-in decoder reads into a new host frame (the caller frees
 * it): 1 or 2 channels give "GREY", 3 or 4 give "RGB24"; alpha is dropped. Images wider or
 * taller than 32768 pixels or larger than 64 Mi pixels are refused. Every failure gives null. */
ZARVEL_AUX_API zarvel_frame_t* zarvel_frame_load(const char* path);
ZARVEL_AUX_API zarvel_frame_t* zarvel_frame_load_from_memory(const void* data, int32_t size);

/* Image format numbers of zarvel_frame_encode. */
#define ZARVEL_IMAGE_JPEG 1
#define ZARVEL_IMAGE_BMP 2
#define ZARVEL_IMAGE_PNG 3

/* Writes the frame (host or device memory) as JPEG (quality 100), BMP or PNG, chosen by the
 * path's ending (".jpg", ".jpeg", ".bmp", ".png", any case). "GREY" frames go to PNG as one
 * channel; everything else is converted to "RGB24" first. Returns 0, -1000 for another
 * ending, -1 for a null frame, -4 when the frame cannot be read or written. */
ZARVEL_AUX_API int32_t zarvel_frame_save(zarvel_frame_t* frame, const char* path);
/* As zarvel_frame_save, into a host buffer whose contents are replaced; `format` is one of
 * ZARVEL_IMAGE_*. Returns 0, -1000 for another format, -1 for a null frame or a null or
 * non-host buffer, -4 when the frame cannot be read or encoded. */
ZARVEL_AUX_API int32_t zarvel_frame_encode(zarvel_frame_t* frame, int32_t format,
                                           zarvel_buffer_t* buffer);

#ifdef __cplusplus
}
#endif

#endif /* ZARVEL_AUX_H_ */
