/* zarvel core library: logging and device naming. */
#ifndef ZARVEL_CORE_H_
#define ZARVEL_CORE_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(ZARVEL_CORE_BUILDING)
#define ZARVEL_CORE_API __attribute__((visibility("default")))
#else
#define ZARVEL_CORE_API
#endif

/* Severity levels used across the SDK. */
enum {
  ZARVEL_LOG_NOTE = 0,   /* internal decision, result unchanged */
  ZARVEL_LOG_ADAPT = 2,  /* caller's data adapted, operation continues */
  ZARVEL_LOG_ADVICE = 3, /* legal but wasteful request */
  ZARVEL_LOG_FAILURE = 4 /* failure or unsupported request */
};

/* One log call's record, built on the caller's stack. */
typedef struct zarvel_log_record {
  uint32_t level;
  char tag[16]; /* NUL-padded module name, e.g. "aux" */
  uint32_t line;
} zarvel_log_record_t;

/* Receives every message: its record and the formatted text. */
typedef void (*zarvel_log_sink_t)(void* user, const zarvel_log_record_t* record, const char* text);

/* Formats and emits one message. Returns the number of characters of the text,
 * or -1 when the record or format is null. */
ZARVEL_CORE_API int32_t zarvel_log(const zarvel_log_record_t* record, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

/* Installs a sink that receives every message whatever its level; null restores the
 * default sink, which writes messages at or above the threshold to stderr. */
ZARVEL_CORE_API void zarvel_log_set_sink(zarvel_log_sink_t sink, void* user);

/* Threshold of the default stderr sink (default 2: notes are hidden). */
ZARVEL_CORE_API void zarvel_log_set_level(uint32_t level);

/* Name of the current accelerator device (memory type 1). Never null. */
ZARVEL_CORE_API const char* zarvel_device_get_name(void);

/* Renames the current device; null or empty restores the default name. */
ZARVEL_CORE_API void zarvel_device_set_name(const char* name);

#ifdef __cplusplus
}
#endif

#endif /* ZARVEL_CORE_H_ */
