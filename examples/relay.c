/*
 * relay FROM PORT TO PORT BITRATE: takes a stream of 188-byte packets, raw or under RTP, from one
 * IPv4 multicast group and sends it to another one under RTP, paced to BITRATE bits per second.
 * relay.cpp does the same in C++.
 *
 * cc relay.c $(pkg-config --cflags --libs qxv_rtp) -o relay
 */
#include <QXV_RTP.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>

static void* g_module;

/* Makes the waiting Receive, or Send, return 0. */
static void on_signal(int number) {
    (void)number;
    /* NOLINTNEXTLINE(bugprone-signal-handler,cert-sig30-c): cancelling takes no lock */
    QXV_RTP_Cancel(g_module);
}

/* What a channel is configured to at load serves, but for the group and the port. */
static uint32_t configure(uint32_t direction, const char* group, const char* port) {
    RtpChannelConfig config;
    if (!QXV_RTP_GetConfig(g_module, direction, 0, &config))
        return 0;
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", group);
    config.Port = (uint16_t)strtoul(port, NULL, 10);
    return QXV_RTP_SetConfig(g_module, direction, 0, &config);
}

int main(int argc, char** argv) {
    static uint8_t packets[7 * 188];
    g_module = QXV_RTP_Create(0);
    if (argc != 6 || g_module == NULL) {
        fprintf(stderr, "usage: relay FROM PORT TO PORT BITRATE\n");
        return 2;
    }
    if (!configure(QXV_RTP_RECEIVE, argv[1], argv[2]) ||
        !configure(QXV_RTP_SEND, argv[3], argv[4])) {
        fprintf(stderr, "relay: '%s' and '%s' must be IPv4 groups\n", argv[1], argv[3]);
        return 2;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    const uint32_t units = 4096; /* the send channel's buffer: 1 MiB */
    int failed = 1;
    if (QXV_RTP_SendStart(g_module, 0, (uint32_t)strtoul(argv[5], NULL, 10), units)) {
        QXV_RTP_ReceiveStart(g_module, 0);
        while (QXV_RTP_Receive(g_module, 0, packets, sizeof(packets)) &&
               QXV_RTP_Send(g_module, 0, packets, sizeof(packets))) {
        }
        failed = 0;
    } else {
        fprintf(stderr, "relay: '%s' is no bitrate\n", argv[5]);
    }
    QXV_RTP_ReceiveEnd(g_module, 0); /* harmless where nothing was started */
    QXV_RTP_SendEnd(g_module, 0);
    QXV_RTP_Destroy(g_module);
    return failed;
}
