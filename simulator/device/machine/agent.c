/*
 * Runs in the booted camera in place of the processes around the service: binds their sockets, and hands what comes
 * through a channel to the simulator outside, where the processes are played.
 *
 * usage: camera-agent CHANNEL
 *
 * A frame of the channel is its length (u32, little-endian, of what follows), its kind and its text:
 *
 *   to the agent   + PATH            bind a datagram socket        = PATH         listen for connections of packets
 *                  - PATH            remove either                 d FROM\0TO\0DATA  send a datagram
 *                  w PATH\0DATA      write a file                  x TAG\0COMMAND run a command with sh
 *                  p NUMBER\0DATA    a packet for a connection     k NUMBER\0     close it
 *   from it        h                 it is there, and begins anew  d TO\0DATA     a datagram that came
 *                  o NUMBER\0WHAT    opened: "event", "log PID", "run TAG"
 *                  a NUMBER\0DATA    what it wrote                 c NUMBER\0STATUS  closed; what the command ended
 * with
 *
 * While nobody is at the other end the first write waits, and everything stays in the sockets: so the memory of a
 * machine can be kept in a file and taken up again.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#define LOG_SOCKET "/tmp/.camera/log"

enum { FREE, CHANNEL, DATAGRAMS, EVENT_LISTENER, LOG_LISTENER, EVENT, LOG, RUN };
enum { SLOTS = 32, LONGEST = 4 << 20, CHUNK = 256 << 10 };

struct slot
{
    int kind;
    int descriptor;
    int number; /* in frames: a descriptor's number may be used again at once */
    pid_t child;
    char path[108];
};

static struct slot slots[SLOTS];
static char frame[LONGEST];
static char chunk[CHUNK];
static int channel;
static int lastNumber;

static void fail(const char* what)
{
    perror(what);
    exit(1);
}

static void writeAll(const void* data, size_t length)
{
    for (const char* next = data; length > 0;) {
        const ssize_t written = write(channel, next, length);
        if (written <= 0 && errno != EINTR && errno != EAGAIN) {
            fail("channel");
        }
        next += written > 0 ? written : 0;
        length -= written > 0 ? (size_t)written : 0;
    }
}

/** Sends a frame of a text with its NUL, if there is one, and data. */
static void sendFrame(char kind, const char* text, const void* data, size_t length)
{
    const size_t size = text == NULL ? 0 : strlen(text) + 1;
    const uint32_t all = (uint32_t)(1 + size + length);
    writeAll(&all, sizeof all);
    writeAll(&kind, 1);
    writeAll(text, size);
    writeAll(data, length);
}

static void sendNumbered(char kind, int number, const void* data, size_t length)
{
    char text[16];
    snprintf(text, sizeof text, "%d", number);
    sendFrame(kind, text, data, length);
}

static struct slot* newSlot(int kind, int descriptor, const char* path)
{
    for (struct slot* one = slots; one < slots + SLOTS; ++one) {
        if (one->kind == FREE) {
            *one = (struct slot){.kind = kind, .descriptor = descriptor, .number = ++lastNumber};
            snprintf(one->path, sizeof one->path, "%s", path);
            return one;
        }
    }
    close(descriptor);
    return NULL;
}

/** The slot of a path, or of a number where the path is NULL. */
static struct slot* find(const char* path, const char* number)
{
    for (struct slot* one = slots; one < slots + SLOTS; ++one) {
        if (one->kind != FREE &&
            (path != NULL ? path[0] != '\0' && strcmp(one->path, path) == 0 : one->number == atoi(number))) {
            return one;
        }
    }
    return NULL;
}

static struct sockaddr_un addressOf(const char* path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    return address;
}

/** A socket at a path, for everybody; a stale file there is replaced. */
static void bindSocket(int kind, int type, const char* path)
{
    const struct sockaddr_un address = addressOf(path);
    const int descriptor = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    const int room = 2 << 20;
    const struct timeval limit = {.tv_sec = 5};
    setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    unlink(path);
    if (bind(descriptor, (const struct sockaddr*)&address, sizeof address) == -1) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        close(descriptor);
        return;
    }
    chmod(path, 0666);
    listen(descriptor, 16); /* fails for datagrams, which need none */
    newSlot(kind, descriptor, path);
}

static void closeSlot(struct slot* one)
{
    close(one->descriptor);
    unlink(one->path); /* fails for what has none */
    one->kind = FREE;
}

/** From a socket of its own where the sender has none. */
static void sendDatagram(const char* from, const char* to, const char* data, size_t length)
{
    const struct sockaddr_un address = addressOf(to);
    const struct slot* const one = find(from, NULL);
    const int descriptor = one != NULL ? one->descriptor : socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sendto(descriptor, data, length, 0, (const struct sockaddr*)&address, sizeof address) == -1) {
        fprintf(stderr, "%s to %s: %s\n", from, to, strerror(errno));
    }
    if (one == NULL) {
        close(descriptor);
    }
}

static void writeFile(char* path, const char* data, size_t length)
{
    for (char* end = strchr(path + 1, '/'); end != NULL; end = strchr(end + 1, '/')) {
        *end = '\0';
        mkdir(path, 0777);
        *end = '/';
    }
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file == -1 || write(file, data, length) != (ssize_t)length) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
    }
    close(file);
}

static void run(const char* tag, const char* command)
{
    int ends[2];
    char text[64];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        fail("pipe");
    }
    const pid_t child = fork();
    if (child == 0) {
        const int nothing = open("/dev/null", O_RDONLY);
        setsid();
        umask(022);
        dup2(nothing, 0);
        dup2(ends[1], 1);
        dup2(ends[1], 2);
        execl("/bin/sh", "sh", "-c", command, NULL);
        _exit(127);
    }
    close(ends[1]);
    struct slot* const one = newSlot(RUN, ends[0], "");
    if (one != NULL) {
        one->child = child;
        snprintf(text, sizeof text, "run %s", tag);
        sendNumbered('o', one->number, text, strlen(text));
    }
}

/** A frame that came, `length` bytes with a NUL behind them. */
static void obey(size_t length)
{
    char* const text = frame + 1;
    char* const second = text + strlen(text) + 1;
    const char* const third = second + strlen(second) + 1;
    const char* const end = frame + length;
    struct slot* one = NULL;
    switch (frame[0]) {
        case '+':
            bindSocket(DATAGRAMS, SOCK_DGRAM, text);
            break;
        case '=':
            bindSocket(EVENT_LISTENER, SOCK_SEQPACKET, text);
            break;
        case '-':
        case 'k':
            one = find(frame[0] == 'k' ? NULL : text, text);
            if (one != NULL) {
                closeSlot(one);
            }
            break;
        case 'd':
            sendDatagram(text, second, third, (size_t)(end - third));
            break;
        case 'w':
            writeFile(text, second, (size_t)(end - second));
            break;
        case 'x':
            run(text, second);
            break;
        case 'p':
            if ((one = find(NULL, text)) != NULL) {
                send(one->descriptor, second, (size_t)(end - second), MSG_NOSIGNAL);
            }
            break;
        default:
            fprintf(stderr, "unknown kind of frame: %d\n", frame[0]);
    }
}

/** Reads exactly so much of the channel. Returns 0 when nobody is at its other end. */
static int readAll(char* data, size_t length)
{
    while (length > 0) {
        const ssize_t got = read(channel, data, length);
        if (got == 0 || (got == -1 && errno != EINTR && errno != EAGAIN)) {
            return 0;
        }
        data += got > 0 ? got : 0;
        length -= got > 0 ? (size_t)got : 0;
    }
    return 1;
}

static int takeFrame(void)
{
    uint32_t length = 0;
    if (!readAll((char*)&length, sizeof length)) {
        return 0;
    }
    if (length == 0 || length >= LONGEST || !readAll(frame, length)) {
        return 0;
    }
    frame[length] = '\0';
    obey(length);
    return 1;
}

static void opened(int kind, int listener)
{
    struct ucred peer = {0};
    socklen_t size = sizeof peer;
    char text[32] = "event";
    const int descriptor = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
    getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size);
    if (kind == LOG) {
        snprintf(text, sizeof text, "log %d", (int)peer.pid);
    }
    const struct slot* const one = descriptor == -1 ? NULL : newSlot(kind, descriptor, "");
    if (one != NULL) {
        sendNumbered('o', one->number, text, strlen(text));
    }
}

static int isReady(const struct slot* one)
{
    struct pollfd waiting = {.fd = one->descriptor, .events = POLLIN};
    return poll(&waiting, 1, 0) == 1;
}

/** Hands on what one connection or command wrote; returns whether there may be more. */
static int handOn(struct slot* one)
{
    if (!isReady(one)) {
        return 0;
    }
    const ssize_t got = read(one->descriptor, chunk, sizeof chunk);
    if (got > 0) {
        sendNumbered('a', one->number, chunk, (size_t)got);
        return 1;
    }
    char text[16] = "0";
    if (one->kind == RUN) {
        int status = 0;
        waitpid(one->child, &status, 0);
        snprintf(text, sizeof text, "%d", WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    }
    sendNumbered('c', one->number, text, strlen(text));
    closeSlot(one);
    return 0;
}

/** What the service logged before it did something goes before that. */
static void drainLogs(void)
{
    for (struct slot* one = slots; one < slots + SLOTS; ++one) {
        if (one->kind == LOG_LISTENER && isReady(one)) {
            opened(LOG, one->descriptor);
        }
    }
    for (struct slot* one = slots; one < slots + SLOTS; ++one) {
        while (one->kind == LOG && handOn(one)) {
        }
    }
}

static void takeDatagram(const struct slot* one)
{
    static char datagram[CHUNK];
    const ssize_t got = recv(one->descriptor, datagram, sizeof datagram, MSG_DONTWAIT);
    drainLogs();
    if (got >= 0) {
        sendFrame('d', one->path, datagram, (size_t)got);
    }
}

/** Serves whatever is ready. Returns 0 when nobody is at the other end of the channel. */
static int serve(void)
{
    struct pollfd ready[SLOTS];
    for (int number = 0; number < SLOTS; ++number) {
        ready[number] = (struct pollfd){slots[number].kind == FREE ? -1 : slots[number].descriptor, POLLIN, 0};
    }
    if (poll(ready, SLOTS, -1) == -1) {
        return 1;
    }
    drainLogs();
    for (int number = 0; number < SLOTS; ++number) {
        struct slot* const one = &slots[number];
        if (ready[number].revents == 0 || one->kind == FREE || one->descriptor != ready[number].fd) {
            continue;
        }
        if (one->kind == CHANNEL && ((ready[number].revents & POLLIN) == 0 || !takeFrame())) {
            return 0;
        } else if (one->kind == DATAGRAMS) {
            takeDatagram(one);
        } else if (one->kind == EVENT_LISTENER) {
            opened(EVENT, one->descriptor);
        } else if (one->kind == EVENT || one->kind == RUN) {
            handOn(one);
        }
    }
    return 1;
}

/** Tells the service manager that others may start now. */
static void tellReady(void)
{
    const char* const path = getenv("NOTIFY_SOCKET");
    if (path != NULL) {
        const struct sockaddr_un address = addressOf(path);
        const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sendto(descriptor, "READY=1", 7, 0, (const struct sockaddr*)&address, sizeof address);
        close(descriptor);
    }
}

int main(int count, char** arguments)
{
    if (count != 2 || (channel = open(arguments[1], O_RDWR | O_CLOEXEC)) == -1) {
        fail("usage: camera-agent CHANNEL");
    }
    umask(0);
    mkdir("/tmp/.camera", 0777);
    mkdir("/tmp/.camera/cache", 0777);
    newSlot(CHANNEL, channel, "");
    bindSocket(LOG_LISTENER, SOCK_STREAM, LOG_SOCKET);
    tellReady();
    while (1) {
        sendFrame('h', NULL, NULL, 0);
        while (serve()) {
        }
    }
}
