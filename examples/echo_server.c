/* Echoes what TCP clients send. Output is registered only while something waits to be sent. */
#include <arpa/inet.h>
#include <iosched/sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

typedef struct Client {
    char bytes[4096];
    ssize_t used, sent; /* equal: nothing waits, and the client may be read */
} Client;

static int stopping;
static void onTerm(int sig) {
    stopping = sig;
}
static void onClient(void *arg, int fd) {
    Client *client = arg;
    int reading = client->sent == client->used;
    char *unsent = client->bytes + client->sent;
    ssize_t count = reading ? read(fd, client->bytes, sizeof client->bytes)
                            : send(fd, unsent, (size_t)(client->used - client->sent), MSG_NOSIGNAL);
    if (count > 0) {
        client->used = reading ? count : client->used;
        client->sent = reading ? 0 : client->sent + count;
        reading = client->sent == client->used; /* a client that does not read is not read either */
        registerInput(fd, reading ? onClient : NULL, client);
        registerOutput(fd, reading ? NULL : onClient, client);
        return;
    }
    registerInput(fd, NULL, NULL); /* both, always, before the descriptor is closed */
    registerOutput(fd, NULL, NULL);
    close(fd);
    free(client);
}

static void onConnection(void *arg, int listener) {
    int fd = accept4(listener, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0 && (arg = calloc(1, sizeof(Client))) != NULL)
        registerInput(fd, onClient, arg);
    else if (fd >= 0)
        close(fd);
}

int main(int argc, char **argv) {
    struct sockaddr_in at = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    at.sin_port = htons((uint16_t)(argc > 1 ? strtoul(argv[1], NULL, 10) : 7007));
    if (bind(listener, (struct sockaddr *)&at, sizeof at) != 0 || listen(listener, 128) != 0)
        return perror("echo_server"), 1;
    if (InitSched(SCHED_VERSION_MAJOR, SCHED_VERSION_MINOR, NULL, 0) != 0) return 1;
    catchSignal(SIGTERM, onTerm);
    registerInput(listener, onConnection, NULL);
    while (!stopping)
        iosched(-1);
    return ExitSched();
}
