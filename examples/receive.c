/*
 * receive ADDRESS PORT > STREAM: receives a transport stream, raw or under RTP, from a multicast
 * group or on an address of this machine, until it is interrupted.
 *
 * cc receive.c $(pkg-config --cflags --libs qxv_rtp) -o receive
 */
#include <QXV_RTP.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void* g_module;

/* Makes the waiting Receive return 0. */
static void on_signal(int number) {
    (void)number;
    /* NOLINTNEXTLINE(bugprone-signal-handler,cert-sig30-c): cancelling takes no lock */
    QXV_RTP_Cancel(g_module);
}

/* A group is joined as it stands; any other address is the one to listen on. */
static uint32_t configure(const char* address, uint16_t port) {
    RtpChannelConfig config;
    memset(&config, 0, sizeof(config));
    const char* const any = strchr(address, ':') != NULL ? "::" : "0.0.0.0";
    config.Rtp = 1; /* to begin with; the module finds out */
    config.Port = port;
    config.Multicast = 1;
    snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", any);
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", address);
    if (QXV_RTP_SetConfig(g_module, QXV_RTP_RECEIVE, 0, &config))
        return 1;
    config.Multicast = 0;
    snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", address);
    return QXV_RTP_SetConfig(g_module, QXV_RTP_RECEIVE, 0, &config);
}

int main(int argc, char** argv) {
    static uint8_t packets[7 * 188]; /* the payload of one datagram, as most senders send it */
    g_module = QXV_RTP_Create(0);
    if (argc != 3 || g_module == NULL) {
        fprintf(stderr, "usage: receive ADDRESS PORT > STREAM\n");
        return 2;
    }
    if (!configure(argv[1], (uint16_t)strtoul(argv[2], NULL, 10))) {
        fprintf(stderr, "receive: '%s' is not an IPv4 or IPv6 address\n", argv[1]);
        return 2;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    QXV_RTP_ReceiveStart(g_module, 0);
    int written = 1;
    while (written && QXV_RTP_Receive(g_module, 0, packets, sizeof(packets)))
        written = fwrite(packets, 1, sizeof(packets), stdout) == sizeof(packets);
    QXV_RTP_ReceiveEnd(g_module, 0);
    QXV_RTP_Destroy(g_module);
    if (fflush(stdout) == 0 && written)
        return 0;
    perror("receive: standard output");
    return 1;
}
