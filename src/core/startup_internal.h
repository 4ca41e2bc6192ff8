// The library's start and stop: the one place that composes the log, the runtime's engine and the
// socket engine's pools. Neither of those calls the other to start.
#pragma once

#include "korvex/korvex.h"

// The start count of sdk_os_startup and sdk_os_cleanup, and the log check timer of the current
// start (null when none), for inspection.
int kx_start_count(void);
_SdkTimer *kx_log_check_timer(void);
