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

#ifdef __cplusplus
}
#endif

#endif /* ZARVEL_AUX_H_ */
