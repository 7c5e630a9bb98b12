/*
 * Sends a command again and again, each when the reply to the one before is there, and prints how long each took.
 *
 * usage: command_client COUNT BODY    prints the nanoseconds of each round trip, one a line
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { HEAD_SIZE = 280, LENGTH_OFFSET = 256, LONGEST_REPLY = 4096, PATIENCE_SECONDS = 20 };

static long long now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1000000000LL + time.tv_nsec;
}

static int open_socket(void)
{
    struct sockaddr_un own = {AF_UNIX, "/tmp/KH"};
    const struct timeval patience = {PATIENCE_SECONDS, 0};
    const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink(own.sun_path);
    if (descriptor < 0 || bind(descriptor, (struct sockaddr*)&own, sizeof(own)) != 0 ||
        chmod(own.sun_path, 0666) != 0) {
        return -1;
    }
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return descriptor;
}

int main(int argc, char** argv)
{
    static char head[HEAD_SIZE] = "/tmp/HK";
    static char reply[LONGEST_REPLY];
    struct sockaddr_un service = {AF_UNIX, "/tmp/HK"};
    if (argc != 3) {
        return 2;
    }
    const int count = atoi(argv[1]);
    const uint32_t length = (uint32_t)strlen(argv[2]);
    memcpy(head + 8, "/tmp/KH", 7);
    memcpy(head + LENGTH_OFFSET, &length, sizeof(length));
    const int descriptor = open_socket();
    if (descriptor < 0) {
        return 1;
    }
    long long* taken = calloc((size_t)count, sizeof(*taken));
    if (taken == NULL) {
        perror("command_client");
        return 1;
    }
    for (int i = 0; i < count; ++i) {
        const long long begin = now();
        if (sendto(descriptor, head, sizeof(head), 0, (struct sockaddr*)&service, sizeof(service)) < 0 ||
            sendto(descriptor, argv[2], length, 0, (struct sockaddr*)&service, sizeof(service)) < 0 ||
            recv(descriptor, reply, sizeof(reply), 0) != HEAD_SIZE || recv(descriptor, reply, sizeof(reply), 0) <= 0) {
            perror("command_client");
            return 1;
        }
        taken[i] = now() - begin;
    }
    for (int i = 0; i < count; ++i) {
        printf("%lld\n", taken[i]);
    }
    return 0;
}
