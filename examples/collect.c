/*
 * collect FOLDER PORT ADDRESS...: receives up to 16 transport streams of 188-byte packets, raw or
 * under RTP, each from a multicast group or on an address of this machine, into FOLDER/0.ts,
 * FOLDER/1.ts and so on, until it is interrupted. One thread serves all channels.
 *
 * cc collect.c $(pkg-config --cflags --libs qxv_rtp) -o collect
 */
#include <QXV_RTP.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "receiving.h"

/* A channel's buffer of 4 MiB holds a second of 33 Mbit/s. The longer this is, the less it costs to
   wake up, and the later the files grow. */
static const struct timespec k_interval = {0, 25000000}; /* 25 ms */

struct input {
    const char* address;
    FILE* file;
    struct packets packets;
    QXV_RTP_Statistics seen;
};

static void* g_module;
static struct input g_inputs[QXV_RTP_CHANNELS];
static volatile sig_atomic_t g_stop;

/* No call waits for data, so that there is nothing to cancel. */
static void on_signal(int number) {
    (void)number;
    g_stop = 1;
}

static int start(uint32_t channel, const char* address, const char* folder, uint16_t port) {
    struct input* const input = &g_inputs[channel];
    char path[4096];
    snprintf(path, sizeof(path), "%s/%u.ts", folder, channel);
    if (!configure(g_module, channel, address, port)) {
        fprintf(stderr, "collect: '%s' is not an IPv4 or IPv6 address\n", address);
        return 0;
    }
    input->address = address;
    input->file = fopen(path, "wb");
    if (input->file == NULL) {
        perror(path);
        return 0;
    }
    setvbuf(input->file, NULL, _IONBF, 0); /* what is written is large enough */
    return QXV_RTP_ReceiveStart(g_module, channel) != 0;
}

/* Says what has happened since the last look. */
static void report(uint32_t channel, const QXV_RTP_Statistics* now) {
    struct input* const input = &g_inputs[channel];
    RtpChannelConfig config;
    if (now->SocketOpen != input->seen.SocketOpen)
        fprintf(stderr, "%s: %s\n", input->address, now->SocketOpen ? "listening" : "no socket");
    if (now->ModeChanges != input->seen.ModeChanges &&
        QXV_RTP_GetConfig(g_module, QXV_RTP_RECEIVE, channel, &config))
        fprintf(stderr, "%s: %s arrives now\n", input->address, config.Rtp ? "RTP" : "raw traffic");
    if (now->DatagramsDropped != input->seen.DatagramsDropped)
        fprintf(stderr, "%s: %llu datagrams dropped, since this host was late\n", input->address,
                (unsigned long long)(now->DatagramsDropped - input->seen.DatagramsDropped));
    input->seen = *now;
}

/* Takes what is there now, without waiting for more. Returns 0 when it could not be written. */
static int collect(uint32_t channel) {
    struct input* const input = &g_inputs[channel];
    struct packets* const packets = &input->packets;
    QXV_RTP_Statistics now = {.Size = sizeof(now)};
    QXV_RTP_GetStatistics(g_module, QXV_RTP_RECEIVE, channel, &now);
    const uint64_t skipped = packets->skipped;
    for (uint32_t left = now.BufferedBytes; left > 0;) {
        const uint32_t room = (uint32_t)sizeof(packets->bytes) - packets->length;
        const uint32_t length = left < room ? left : room;
        QXV_RTP_Receive(g_module, channel, packets->bytes + packets->length, length);
        packets->length += length;
        left -= length;
        if (!write_packets(packets, input->file)) {
            perror(input->address);
            return 0;
        }
    }
    report(channel, &now);
    if (packets->skipped != skipped)
        fprintf(stderr, "%s: skipped %llu bytes that are not packets\n", input->address,
                (unsigned long long)(packets->skipped - skipped));
    return 1;
}

int main(int argc, char** argv) {
    const uint32_t count = argc > 3 ? (uint32_t)argc - 3 : 0;
    g_module = QXV_RTP_Create(0);
    if (count == 0 || count > QXV_RTP_CHANNELS || g_module == NULL) {
        fprintf(stderr, "usage: collect FOLDER PORT ADDRESS..., at most %u\n", QXV_RTP_CHANNELS);
        return 2;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);
    int good = 1;
    for (uint32_t channel = 0; good && channel < count; ++channel)
        good = start(channel, argv[3 + channel], argv[1], (uint16_t)strtoul(argv[2], NULL, 10));
    while (good) {
        const int last = g_stop; /* what came before the signal is still collected */
        for (uint32_t channel = 0; good && channel < count; ++channel)
            good = collect(channel);
        if (last)
            break;
        nanosleep(&k_interval, NULL);
    }
    for (uint32_t channel = 0; channel < count; ++channel) {
        QXV_RTP_ReceiveEnd(g_module, channel); /* harmless where nothing was started */
        if (g_inputs[channel].file != NULL && fclose(g_inputs[channel].file) != 0)
            good = 0;
    }
    QXV_RTP_Destroy(g_module);
    return good ? 0 : 1;
}
