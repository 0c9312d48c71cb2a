// Watches the library's allocations. A program that links alloc_wrap.cpp with
//     -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=reallocarray
// has every such call of the objects linked into it counted; calls inside shared libraries are not.
#pragma once

// Calls since the start of the program.
extern unsigned long allocationCount;

// The call after so many more fails with ENOMEM, once; -1: none does.
extern long allocationsUntilFailure;
