// Warnings that the linker prints when a program refers to a blocking call of libc.
//
// GNU ld takes a section named .gnu.warning.NAME for a message about the symbol NAME: it prints the
// text wherever it resolves a reference to NAME after having seen the section, be it in an archive
// member or in a shared library. Two things keep the section alive in the shared library: it is not
// allocated (no load segment, and strip leaves it alone because it is no debugging information),
// and something of its object is kept, which is what --gc-sections goes by for unallocated
// sections.
#pragma once

#define IOSCHED_LINK_WARNING(name)                                                                 \
    __asm__(".pushsection .gnu.warning." #name ",\"\",@progbits\n\t"                               \
            ".asciz \"*** '" #name "' not from sched library.\"\n\t"                               \
            ".popsection")
