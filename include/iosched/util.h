/* iosched/util.h: small system utilities that need no loop.
 *
 * Option parsing, file-system figures and quotas, mapped file views, bounded strings, file times.
 * What holds for the whole header:
 *
 * - No start-up call: everything here works before InitSched() and without it.
 * - Not reentrant: the parser, the mount table's cache and the list of views belong to one thread.
 * - Nothing calls back into the program.
 */
#ifndef IOSCHED_UTIL_H
#define IOSCHED_UTIL_H

#include <stddef.h>
#include <stdint.h>
#include <string.h> /* strlcpy and strlcat, where the C library has them */

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- mapped file views ---- */

#define MEMMAP_READ 0x001u /* access; none of the three maps memory that nobody may touch */
#define MEMMAP_WRITE 0x002u
#define MEMMAP_EXEC 0x004u
#define MEMMAP_SHARED 0x010u    /* writes reach the file; one of SHARED and PRIVATE is needed */
#define MEMMAP_PRIVATE 0x020u   /* writes stay in a copy of the process's own */
#define MEMMAP_FIXED 0x040u     /* map at *mapAddress exactly, in place of what is there */
#define MEMMAP_NORESERVE 0x200u /* set no swap space aside */
#define MEMMAP_DONTNEED 0x800u  /* tell the system that the pages are not needed for now */

/* Maps part of an open file. The descriptor may be closed afterwards.
 *
 *   length      in: bytes from the offset on, 0 = to the end of the file. Out: bytes mapped.
 *   flags       MEMMAP_ flags. 0x080, 0x100 and 0x400 are refused; other unknown bits are ignored.
 *   offset      in: where in the file, in bytes. Out: the page boundary at or below that.
 *   mapAddress  in: where to map, a hint without MEMMAP_FIXED, or NULL. Out: the mapping's start,
 *               for MemUnmap().
 *   address     out: the address of the byte at the offset asked for.
 *
 * Returns 0, or -1 with errno: EINVAL when a pointer is null or there is nothing from the offset to
 * the end of the file, else that of the call that failed; a refused flag leaves errno as it was. A
 * failure writes NULL to *mapAddress and *address (except for null pointers) and nothing else. */
int MemMap(uint64_t *length, uint32_t flags, int fd, int64_t *offset, void **mapAddress,
           void **address);

/* Undoes a mapping, given the start and the length that MemMap() returned. Returns 0; -1 with errno
 * from munmap and the mapping still listed; or -1 with errno as it was when MemMap() returned no such
 * start, or it is unmapped already. */
int MemUnmap(void *mapAddress, uint64_t length);

/* ---- option parsing ---- */

/* The parser's state. One parse at a time per process; the parser keeps no other state that a
 * program has to know of. To parse again, or another vector, set ZORoptind to 1. */
extern int ZORoptind;   /* index of the next argument to scan; starts at 1, 0 counts as 1 */
extern int ZORopterr;   /* 1 at first; 0 keeps the parser from reporting on standard error */
extern int ZORoptopt;   /* the option character of the last error */
extern char *ZORoptarg; /* argument of the last option that takes one; points into the vector */
extern int ZORoptreset; /* nonzero abandons a half-scanned group of options; the parser clears it */

/* Takes the next single-letter option out of the vector. Scans in order and stops at the first
 * argument that is no option: a null pointer, "-" alone, or a word without a leading '-'; "--" ends
 * the scan too and is skipped. There are no long options and nothing is reordered.
 *
 *   argc       number of elements; where the scan ends at the latest.
 *   argv       argv[0] is the name used in messages; a null pointer follows the last element. The
 *              strings are not changed and stay the caller's.
 *   optstring  option characters; one that is followed by ':' takes an argument, which is the rest
 *              of its word or else the next element, whatever that begins with. A ':' at the very
 *              start only changes the result for a missing argument.
 *
 * Returns the option character (as a signed char: negative for bytes above 127) with ZORoptarg set
 * if it takes an argument; '?' for an unknown option; '?', or ':' if optstring begins with ':', for
 * a missing argument; -1 when there are no more options, with the first operand at ZORoptind. On an
 * error ZORoptopt holds the character and, unless ZORopterr is 0, one line has gone to standard
 * error: "<argv[0]>: illegal option -- <c>" or "<argv[0]>: option requires an argument -- <c>". The
 * scan goes on behind an error. After -1, set ZORoptind or ZORoptreset before the next call. */
int ZORgetopt(int argc, char *const *argv, const char *optstring);

/* ---- file-system figures and quotas ---- */

/* A file system's size and room, twice: as they apply to the caller, and as the file system itself
 * counts. Blocks are blockSize bytes each. */
typedef struct FSInfo {
    uint64_t blockSize;    /* bytes */
    uint64_t freeBlocks;   /* for the caller: within the quota if FSINFO_QUOTA is set */
    uint64_t totalBlocks;  /* the quota's hard limit, or the file system's blocks */
    uint64_t freeFiles;    /* file nodes that the caller may still make */
    uint64_t totalFiles;   /* the quota's hard limit on files, or the file system's file nodes */
    uint64_t fsFreeBlocks; /* the file system's own figures, whatever the quota */
    uint64_t fsTotalBlocks;
    uint64_t fsFreeFiles;
    uint64_t fsTotalFiles;
    uint32_t flags; /* FSINFO_DISK_FS, FSINFO_QUOTA */
} FSInfo;

/* Bits of FSInfo.flags. */
#define FSINFO_DISK_FS 2u /* ext2, ext3, ext4, ReiserFS, UFS, XFS or Btrfs by its type number */
#define FSINFO_QUOTA 4u   /* a quota limits the caller's blocks, files or both */

/* Bits of GetFSInfo's options. */
#define FSINFO_ALL_FREE 1 /* count the superuser's reserve as free, and look up no quota */
#define FSINFO_NO_QUOTA 2 /* look up no quota */

/* Tells how large a file system is and how much of it is free, for the file system as a whole and
 * within the user quota of the effective user id.
 *
 *   fd       a descriptor on the file system, or -1 to query path instead.
 *   path     a file or directory on the same file system. May be null beside a descriptor; without
 *            it there are no quota figures, since the device is found by the path.
 *   options  FSINFO_ALL_FREE, FSINFO_NO_QUOTA, or 0.
 *   info     filled in on success.
 *
 * Only hard limits count. A limit of 0 means none: its pair of fields keeps the file system's
 * figures, and with neither limit set FSINFO_QUOTA is not set either. A user above a limit has 0
 * free. Whatever keeps the quota from being looked up (no mount table, no such mount, quotas off)
 * gives the file system's figures.
 *
 * Returns 0, or -1 with the errno of statfs() or fstatfs() and info untouched. The first quota
 * lookup reads /etc/mtab and calls stat() on every mount point; what it finds is kept for the life
 * of the process, and the table is read again only for a device not met before. Such a stat() waits
 * for as long as the mount point's server does: a server whose own export may be mounted on this
 * machine would wait for itself, and asks with FSINFO_NO_QUOTA. */
int GetFSInfo(int fd, const char *path, int options, FSInfo *info);

/* Sets the size in bytes of the blocks that quota limits are counted in, for the whole process and
 * from the next GetFSInfo() on; 0 restores the kernel's own (1024, or 512 where it has no
 * /proc/sys/fs/quota). The size is not checked: a negative one leaves nothing free under any limit.
 * Returns 0. */
int SetQuotaBlockSize(int size);

/* ---- small portability functions ---- */

/* Bounded copy and append, also on systems whose C library has no such functions; where it has, the
 * declarations agree. dst has room for size bytes, ends with a NUL afterwards and must not overlap
 * src. strlcpy with size 0, and strlcat with size not above the length of dst, write nothing.
 *
 * Return the length that the whole result would have had: strlen(src) for strlcpy, strlen(dst)
 * before the call plus strlen(src) for strlcat. A result not below size means that it was cut. */
#if defined(__GLIBC__) && defined(__THROW)
#define IOSCHED_LIBC_NOEXCEPT __THROW /* this C library's own declarations promise it */
#else
#define IOSCHED_LIBC_NOEXCEPT
#endif
size_t strlcpy(char *__restrict dst, const char *__restrict src, size_t size) IOSCHED_LIBC_NOEXCEPT;
size_t strlcat(char *__restrict dst, const char *__restrict src, size_t size) IOSCHED_LIBC_NOEXCEPT;

/* The most supplementary groups that a process can have; -1 when the system names no limit. */
long maxGroups(void);

/* Between file times, 100-nanosecond intervals since 1601-01-01 00:00:00 UTC, and seconds since
 * 1970-01-01 00:00:00 UTC. win2unixtime drops the fraction of a second downwards and gives negative
 * results before 1970. unix2wintime is exact for every time that a file time can hold, from 1601 to
 * far beyond the year 60000, and wraps outside. */
int64_t win2unixtime(uint64_t fileTime);
uint64_t unix2wintime(int64_t seconds);

/* Converts nothing and returns 0: arguments are UTF-8 already. For programs that share their start
 * with systems where that takes work; takes any arguments and ignores them. */
#if defined(__cplusplus) ||                                                                        \
    (__STDC_VERSION__ > 201710L && (__GNUC__ >= 13 || __clang_major__ >= 16))
int GetUTF8Args(...);
#else /* C without parameter lists of "..." alone */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-prototypes"
int GetUTF8Args();
#pragma GCC diagnostic pop
#endif

/* Makes a descriptor blocking (nonzero) or non-blocking (0); its other status flags stay, and every
 * descriptor that shares the open file follows. Returns 0, or -1 with fcntl's errno. */
int SetBlockingMode(int fd, int blocking);

/* The number of processors configured, whether the process may use them or not; at least 1. */
int availableProcessors(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
