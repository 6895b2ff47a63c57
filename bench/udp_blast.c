/* udp_blast: a bounded UDP flood and its sink, for the end-to-end benches.
 *   udp_blast send <dst-ip> <port> <seconds> <payload-bytes> [pps]  prints "sent N"
 *   udp_blast sink <bind-ip> <port> <seconds>                       prints "received N"
 * The sender sends flat out, or paced at `pps` packets per second. Both stop
 * at the time limit; the sink also on SIGINT/SIGTERM. */
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kBatch = 64 };

static volatile sig_atomic_t g_stop;

static void OnSignal(int sig) {
    (void)sig;
    g_stop = 1;
}

static double Now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static int Address(const char* ip, int port, struct sockaddr_storage* sa, socklen_t* len) {
    memset(sa, 0, sizeof(*sa));
    struct sockaddr_in* in = (struct sockaddr_in*)sa;
    struct sockaddr_in6* in6 = (struct sockaddr_in6*)sa;
    if (inet_pton(AF_INET, ip, &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
        in->sin_port = htons((unsigned short)port);
        *len = sizeof(*in);
        return AF_INET;
    }
    if (inet_pton(AF_INET6, ip, &in6->sin6_addr) == 1) {
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons((unsigned short)port);
        *len = sizeof(*in6);
        return AF_INET6;
    }
    return -1;
}

static int Send(const char* ip, int port, double seconds, int payload, double pps) {
    struct sockaddr_storage sa;
    socklen_t len;
    const int family = Address(ip, port, &sa, &len);
    const int fd = family < 0 ? -1 : socket(family, SOCK_DGRAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr*)&sa, len) != 0) {
        perror("udp_blast send");
        return 1;
    }
    char data[1500] = {0};
    struct iovec iov = {data, (size_t)payload};
    struct mmsghdr msgs[kBatch];
    memset(msgs, 0, sizeof(msgs));
    for (int i = 0; i < kBatch; ++i) {
        msgs[i].msg_hdr.msg_iov = &iov;
        msgs[i].msg_hdr.msg_iovlen = 1;
    }
    unsigned long long sent = 0;
    const double start = Now();
    const double end = start + seconds;
    for (double now = start; !g_stop && now < end; now = Now()) {
        int batch = kBatch;
        if (pps > 0) {
            /* As many as are due by now, so that a late wake-up catches up
             * without a burst beyond one batch. */
            const double due = pps * (now - start) - (double)sent;
            if (due < 1) {
                const struct timespec pause = {0, 20000};
                nanosleep(&pause, NULL);
                continue;
            }
            batch = due < kBatch ? (int)due : kBatch;
        }
        const int n = sendmmsg(fd, msgs, (unsigned)batch, 0);
        if (n > 0) {
            sent += (unsigned long long)n;
        }
    }
    printf("sent %llu\n", sent);
    close(fd);
    return 0;
}

static int Sink(const char* ip, int port, double seconds) {
    struct sockaddr_storage sa;
    socklen_t len;
    const int family = Address(ip, port, &sa, &len);
    const int fd = family < 0 ? -1 : socket(family, SOCK_DGRAM, 0);
    const int buffer = 8 << 20;
    const struct timeval tick = {0, 100000};
    if (fd < 0 || bind(fd, (struct sockaddr*)&sa, len) != 0) {
        perror("udp_blast sink");
        return 1;
    }
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof(tick));
    char data[kBatch][2048];
    struct iovec iov[kBatch];
    struct mmsghdr msgs[kBatch];
    memset(msgs, 0, sizeof(msgs));
    for (int i = 0; i < kBatch; ++i) {
        iov[i].iov_base = data[i];
        iov[i].iov_len = sizeof(data[i]);
        msgs[i].msg_hdr.msg_iov = &iov[i];
        msgs[i].msg_hdr.msg_iovlen = 1;
    }
    printf("ready\n");
    fflush(stdout);
    unsigned long long received = 0;
    const double end = Now() + seconds;
    while (!g_stop && Now() < end) {
        const int n = recvmmsg(fd, msgs, kBatch, 0, NULL);
        if (n > 0) {
            received += (unsigned long long)n;
        }
    }
    printf("received %llu\n", received);
    close(fd);
    return 0;
}

int main(int argc, char** argv) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    if ((argc == 6 || argc == 7) && strcmp(argv[1], "send") == 0) {
        return Send(argv[2], atoi(argv[3]), atof(argv[4]), atoi(argv[5]),
                    argc == 7 ? atof(argv[6]) : 0);
    }
    if (argc == 5 && strcmp(argv[1], "sink") == 0) {
        return Sink(argv[2], atoi(argv[3]), atof(argv[4]));
    }
    fprintf(stderr,
            "usage: udp_blast send <ip> <port> <seconds> <payload> [pps]\n"
            "       udp_blast sink <ip> <port> <seconds>\n");
    return 2;
}
