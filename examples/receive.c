/*
 * receive ADDRESS PORT [SECONDS] > STREAM: receives a transport stream of 188-byte packets, raw or
 * under RTP, from a multicast group or on an address of this machine, until it is interrupted, or
 * until nothing has come for SECONDS.
 *
 * cc receive.c $(pkg-config --cflags --libs qxv_rtp) -o receive
 */
#include <QXV_RTP.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "receiving.h"

static void* g_module;

/* Makes the waiting Receive return 0. */
static void on_signal(int number) {
    (void)number;
    /* NOLINTNEXTLINE(bugprone-signal-handler,cert-sig30-c): cancelling takes no lock */
    QXV_RTP_Cancel(g_module);
}

/* Waits up to the deadline for `wanted` bytes. Returns how many of them can be received without
   waiting: fewer when the time is up, and 0 when the channel was cancelled. */
static uint32_t await_bytes(uint32_t wanted, time_t deadline) {
    const struct timespec interval = {0, 10000000}; /* 10 ms */
    QXV_RTP_Statistics now = {.Size = sizeof(now)};
    struct timespec time;
    do {
        nanosleep(&interval, NULL);
        QXV_RTP_GetStatistics(g_module, QXV_RTP_RECEIVE, 0, &now);
        clock_gettime(CLOCK_MONOTONIC, &time);
    } while (!now.Cancelled && now.BufferedBytes < wanted && time.tv_sec < deadline);
    if (now.Cancelled)
        return 0;
    return now.BufferedBytes < wanted ? now.BufferedBytes : wanted;
}

int main(int argc, char** argv) {
    static struct packets packets;
    const uint32_t datagram = 7 * PACKET_SIZE; /* the payload of one, as most senders send it */
    g_module = QXV_RTP_Create(0);
    if (argc < 3 || argc > 4 || g_module == NULL) {
        fprintf(stderr, "usage: receive ADDRESS PORT [SECONDS] > STREAM\n");
        return 2;
    }
    if (!configure(g_module, 0, argv[1], (uint16_t)strtoul(argv[2], NULL, 10))) {
        fprintf(stderr, "receive: '%s' is not an IPv4 or IPv6 address\n", argv[1]);
        return 2;
    }
    const long seconds = argc == 4 ? strtol(argv[3], NULL, 10) : 0;
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    QXV_RTP_ReceiveStart(g_module, 0);
    int written = 1;
    while (written) {
        uint32_t length = datagram;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (seconds > 0)
            length = await_bytes(datagram, now.tv_sec + seconds);
        /* A length of 0 would always succeed. */
        if (length == 0 || !QXV_RTP_Receive(g_module, 0, packets.bytes + packets.length, length))
            break;
        packets.length += length;
        written = write_packets(&packets, stdout);
    }
    QXV_RTP_ReceiveEnd(g_module, 0);
    QXV_RTP_Destroy(g_module);
    if (packets.skipped > 0)
        fprintf(stderr, "receive: skipped %llu bytes that are not packets\n",
                (unsigned long long)packets.skipped);
    if (fflush(stdout) == 0 && written)
        return 0;
    perror("receive: standard output");
    return 1;
}
