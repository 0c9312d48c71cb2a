// Included into every unit of the library by the build, before the unit itself.
//
// The private `system` defines no symbol that a program could ask for, so nothing would pull its
// warning out of the static library. Therefore every object refers to the object that holds the
// warning: whatever a program takes from the archive brings it along, and exactly once (the section
// repeated in each object would be reported once for each). The reference stands in a section that
// the linker excludes from its output and costs nothing. The name is that of
// iosched_lib::systemWarning.
#pragma once

__asm__(".pushsection .iosched.needs,\"e\",@progbits\n\t"
        ".quad _ZN11iosched_lib13systemWarningE\n\t"
        ".popsection");
