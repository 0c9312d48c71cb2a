/* Options, bounded strings, file times and a mapped file.
 *
 *   options [-v] [-n NAME] FILE */
#include <fcntl.h>
#include <iosched/util.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(int argc, char **argv) {
    char text[16] = "";
    int option, verbose = 0;
    GetUTF8Args(&argc, &argv);
    while ((option = ZORgetopt(argc, argv, "vn:")) != -1) {
        if (option == 'v')
            verbose = 1;
        else if (option == 'n')
            strlcpy(text, ZORoptarg, sizeof text);
        else /* a line on standard error has said what is wrong with which option */
            return fprintf(stderr, "usage: options [-v] [-n NAME] FILE (at -%c)\n", ZORoptopt), 2;
    }
    if (strlcat(text, "!", sizeof text) >= sizeof text) printf("cut: ");
    printf("%s, verbose %d\n", text, verbose);

    int fd = ZORoptind < argc ? open(argv[ZORoptind], O_RDONLY | O_CLOEXEC) : -1;
    uint64_t length = 0; /* to the end of the file */
    int64_t offset = 0;
    void *start, *bytes;
    if (fd < 0 || MemMap(&length, MEMMAP_READ | MEMMAP_PRIVATE, fd, &offset, &start, &bytes) != 0)
        return perror("options"), 1;
    printf("%llu bytes, the first is '%c'\n", (unsigned long long)length, *(char *)bytes);
    MemUnmap(start, length);
    close(fd);
    printf("1970 as a file time: %llu, and back: %lld\n", (unsigned long long)unix2wintime(0),
           (long long)win2unixtime(unix2wintime(0)));

    ZORoptind = 1; /* once more from the start, without messages */
    ZORopterr = 0;
    ZORoptreset = 1;
    return ZORgetopt(argc, argv, "") == '?' ? 0 : 3;
}
