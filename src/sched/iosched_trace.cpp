// The trace hook: one callback through which the loop and the chunk allocator report what they do.

#include "sched/sched_internal.h"

SchedTraceFunc iosched_lib::schedTraceCallbackFunc = nullptr;
int iosched_lib::schedTraceLevel = 0;

void SetSchedTraceCallback(SchedTraceFunc func, int level) {
    const bool on = func != nullptr && level != 0;
    schedTraceCallbackFunc = on ? func : nullptr;
    schedTraceLevel = on ? level : 0;
}
