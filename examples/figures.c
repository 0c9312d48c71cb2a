/* How large a file system is, and how much of it the caller may still use. */
#include <iosched/util.h>
#include <stdio.h>

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "/";
    FSInfo info;
    SetQuotaBlockSize(1024); /* the unit of quota limits; 0 is the kernel's own */
    if (GetFSInfo(-1, path, 0, &info) != 0) return perror(path), 1;
    printf("%s: %llu of %llu blocks of %llu bytes free, %llu file nodes%s%s\n", path,
           (unsigned long long)info.freeBlocks, (unsigned long long)info.totalBlocks,
           (unsigned long long)info.blockSize, (unsigned long long)info.freeFiles,
           info.flags & FSINFO_DISK_FS ? ", on a disk" : "",
           info.flags & FSINFO_QUOTA ? ", within a quota" : "");
    printf("processors: %d, groups that a process may be in: %ld\n", availableProcessors(),
           maxGroups());
    return 0;
}
