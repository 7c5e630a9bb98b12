/*
 * Sends the command in a file to the service, and prints the reply.
 *
 * usage: client FILE [FOLDER]
 *
 * FOLDER stands for /tmp, off the camera. Exit code: 0 a reply came; 1 none did, as standard error explains; 2 wrong
 * usage. Numbers are little-endian, as the camera's processor and every PC have them.
 */
#include "camgate_messages.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { LONGEST_BODY = 65536 };
enum { WAIT_SECONDS = 10 }; /* whiteListClear waits for the face library, as long as that takes */
enum { DONE, FAILED, WRONG_USAGE };

static int fail(const char *what, const char *why, const char *advice)
{
    fprintf(stderr, "client: %s: %s; %s\n", what, why, advice);
    return FAILED;
}

static int read_command(const char *path, char *body, uint32_t *length)
{
    FILE *file = fopen(path, "r");
    if (file == NULL)
        return fail(path, strerror(errno), "name a file with a command, {\"taskName\": ...}");
    *length = (uint32_t)fread(body, 1, LONGEST_BODY, file);
    const int problem = ferror(file) ? errno : *length == LONGEST_BODY ? EFBIG : 0;
    fclose(file);
    return problem ? fail(path, strerror(problem), "name a file with a command, {\"taskName\": ...}") : DONE;
}

static int set_path(struct sockaddr_un *address, const char *folder, const char *name)
{
    const size_t size = sizeof address->sun_path;
    address->sun_family = AF_UNIX;
    if ((size_t)snprintf(address->sun_path, size, "%s/%s", folder, name) >= size)
        return fail(folder, strerror(ENAMETOOLONG), "reach it through a link with a shorter name");
    return DONE;
}

static int send_command(int client, const struct sockaddr_un *service, uint32_t tag, const char *body, uint32_t length)
{
    const struct timeval patience = {.tv_sec = WAIT_SECONDS};
    const CommandHead head = {
        .destPath = COMMAND_SOCKET, .srcPath = CLIENT_SOCKET, .tag = tag, .bodyLength = length};
    if (connect(client, (const struct sockaddr *)service, sizeof *service) != 0)
        return fail(service->sun_path, strerror(errno), "is the service running, and ITGT ready? Try again later");
    if (setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
        send(client, &head, sizeof head, 0) < 0 || send(client, body, length, 0) < 0)
        return fail(service->sun_path, strerror(errno), "the command did not arrive whole, send it again later");
    return DONE;
}

/* Waits for the two datagrams of the reply. An earlier command's late reply, or a lone head, may come first. */
static int print_reply(int client, uint32_t tag)
{
    char reply[LONGEST_BODY];
    uint32_t answered = tag - 1;
    const time_t deadline = time(NULL) + WAIT_SECONDS;
    struct pollfd readable = {.fd = client, .events = POLLIN};
    for (time_t left; (left = deadline - time(NULL)) >= 0;) {
        if (poll(&readable, 1, (int)left * 1000 + 1) <= 0)
            continue;
        const ssize_t size = recv(client, reply, sizeof reply, 0);
        if (size < 0)
            return fail("no reply", strerror(errno), "send the command again");
        if ((size_t)size == sizeof(CommandHead) && memcmp(reply, CLIENT_SOCKET, sizeof CLIENT_SOCKET) == 0)
            memcpy(&answered, reply + offsetof(CommandHead, tag), sizeof answered);
        else if (answered == tag)
            return printf("%.*s\n", (int)size, reply) < 0 ? FAILED : DONE;
    }
    return fail("no reply", strerror(ETIMEDOUT), "read the service's log before you send the command again");
}

int main(int argc, char **argv)
{
    struct sockaddr_un own = {0}, service = {0};
    static char body[LONGEST_BODY];
    uint32_t length = 0;
    const uint32_t tag = (uint32_t)getpid();
    const char *folder = argc > 2 ? argv[2] : "/tmp";
    if (argc != 2 && argc != 3) {
        fputs("usage: client FILE [FOLDER]\n", stderr);
        return WRONG_USAGE;
    }
    if (read_command(argv[1], body, &length) || set_path(&own, folder, "KH") || set_path(&service, folder, "HK"))
        return FAILED;
    const int client = socket(AF_UNIX, SOCK_DGRAM, 0);
    unlink(own.sun_path); /* left by a client that was killed */
    if (client < 0 || bind(client, (const struct sockaddr *)&own, sizeof own) != 0)
        return fail(own.sun_path, strerror(errno), "run as root or as a user who may write to its folder");
    int code = FAILED;
    if (chmod(own.sun_path, 0666) != 0) /* the service answers as another user */
        fail(own.sun_path, strerror(errno), "it must be writable for the service");
    else if ((code = send_command(client, &service, tag, body, length)) == DONE)
        code = print_reply(client, tag);
    unlink(own.sun_path);
    return code;
}
