/* nfq_peer: the plainest libnetfilter_queue consumer, accepting every packet
 * at once; the reference the interceptor is measured against.
 *   nfq_peer <queue> <seconds>   prints "packets N" at the end */
#include <arpa/inet.h>
#include <libnetfilter_queue/libnetfilter_queue.h>
#include <linux/netfilter.h>
#include <linux/netlink.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

static volatile sig_atomic_t g_stop;
static unsigned long long g_packets;

static void OnSignal(int sig) {
    (void)sig;
    g_stop = 1;
}

static int OnPacket(struct nfq_q_handle* qh, struct nfgenmsg* msg, struct nfq_data* nfa,
                    void* data) {
    (void)msg;
    (void)data;
    const struct nfqnl_msg_packet_hdr* header = nfq_get_msg_packet_hdr(nfa);
    ++g_packets;
    return nfq_set_verdict(qh, header == NULL ? 0 : ntohl(header->packet_id), NF_ACCEPT, 0, NULL);
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: nfq_peer <queue> <seconds>\n");
        return 2;
    }
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);

    struct nfq_handle* h = nfq_open();
    struct nfq_q_handle* qh =
        h == NULL ? NULL : nfq_create_queue(h, (uint16_t)atoi(argv[1]), OnPacket, NULL);
    if (qh == NULL || nfq_set_mode(qh, NFQNL_COPY_PACKET, 0xffff) < 0) {
        perror("nfq_peer");
        return 1;
    }
    const int fd = nfq_fd(h);
    const int one = 1;
    const int buffer = 8 << 20;
    const struct timeval tick = {0, 100000};
    setsockopt(fd, SOL_NETLINK, NETLINK_NO_ENOBUFS, &one, sizeof(one));
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof(tick));
    printf("ready\n");
    fflush(stdout);

    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    const double seconds = atof(argv[2]);
    static char buf[0xffff + 2048];
    while (!g_stop) {
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if ((double)(now.tv_sec - start.tv_sec) + (double)(now.tv_nsec - start.tv_nsec) / 1e9 >
            seconds) {
            break;
        }
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n > 0) {
            nfq_handle_packet(h, buf, (int)n);
        }
    }
    printf("packets %llu\n", g_packets);
    nfq_destroy_queue(qh);
    nfq_close(h);
    return 0;
}
