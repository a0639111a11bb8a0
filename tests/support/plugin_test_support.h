// The component's message checks (drain, device_fallback) live with the log capture.
#include "log_capture.h"  // IWYU pragma: export
