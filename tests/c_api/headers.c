// The public headers compile as C99, and the C entry points link and run from C.
#include <stdio.h>
#include <string.h>
#include <zarvel/aux.h>
#include <zarvel/core.h>
#include <zarvel/frame.h>

static int captured;
static void sink(void* user, const zarvel_log_record_t* record, const char* text) {
  captured += user == NULL && record->level == 4 && strcmp(record->tag, "aux") == 0 &&
              strcmp(text, "x=7\n") == 0;
}

int main(void) {
  zarvel_log_record_t record = {4, "aux", __LINE__};
  Area2D area = {0, 0, 4, 2};
  zarvel_log_set_sink(sink, NULL);
  zarvel_log(&record, "x=%d\n", 7);
  zarvel_log_set_sink(NULL, NULL);
  zarvel_frame_t* frame =
      zarvel_frame_alloc(ZARVEL_MEM_HOST, ZARVEL_PIXFMT_NV12, area.width, area.height, NULL, 0);
  captured += frame != NULL && frame->plane_count == 2 && zarvel_frame_is_contiguous(frame);
  zarvel_frame_free(&frame);
  captured += frame == NULL && strcmp(__plugin_name(), "zarvel_aux") == 0 &&
              strcmp(zarvel_aux_version(), "1.4.1") == 0;
  printf("c api: %d of 3 checks passed\n", captured);
  return captured == 3 ? 0 : 1;
}
