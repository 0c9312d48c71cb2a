/* iosched/util.h: small system utilities that need no loop.
 *
 * Option parsing, file-system figures and quotas, mapped file views, bounded strings, file times.
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

#define MEMMAP_READ 0x001u
#define MEMMAP_WRITE 0x002u
#define MEMMAP_EXEC 0x004u
#define MEMMAP_SHARED 0x010u
#define MEMMAP_PRIVATE 0x020u
#define MEMMAP_FIXED 0x040u
#define MEMMAP_NORESERVE 0x200u
#define MEMMAP_DONTNEED 0x800u

int MemMap(uint64_t *length, uint32_t flags, int fd, int64_t *offset, void **mapAddress,
           void **address);
int MemUnmap(void *mapAddress, uint64_t length);

/* ---- option parsing ---- */

extern int ZORoptind;
extern int ZORopterr;
extern int ZORoptopt;
extern char *ZORoptarg;
extern int ZORoptreset;
int ZORgetopt(int argc, char *const *argv, const char *optstring);

/* ---- file-system figures and quotas ---- */

typedef struct FSInfo {
    uint64_t blockSize;
    uint64_t freeBlocks;
    uint64_t totalBlocks;
    uint64_t freeFiles;
    uint64_t totalFiles;
    uint64_t fsFreeBlocks;
    uint64_t fsTotalBlocks;
    uint64_t fsFreeFiles;
    uint64_t fsTotalFiles;
    uint32_t flags;
} FSInfo;

#define FSINFO_DISK_FS 2u
#define FSINFO_QUOTA 4u
#define FSINFO_ALL_FREE 1
#define FSINFO_NO_QUOTA 2

int GetFSInfo(int fd, const char *path, int options, FSInfo *info);
int SetQuotaBlockSize(int size);

/* ---- small portability functions ---- */

long maxGroups(void);
int64_t win2unixtime(uint64_t fileTime);
uint64_t unix2wintime(int64_t seconds);
int SetBlockingMode(int fd, int blocking);
int availableProcessors(void);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
#endif
