/*
 * What the receiving examples have in common: the configuration of a receive channel, and a search
 * for the packets in the bytes that come.
 */
#ifndef RECEIVING_H
#define RECEIVING_H

#include <QXV_RTP.h>
#include <stdio.h>
#include <string.h>

/* A group is joined as it stands; any other address is the one to listen on. */
static uint32_t configure(void* module, uint32_t channel, const char* address, uint16_t port) {
    RtpChannelConfig config;
    memset(&config, 0, sizeof(config));
    const char* const any = strchr(address, ':') != NULL ? "::" : "0.0.0.0";
    /* The form to begin with. With 1, raw traffic and RTP both bring packets only; with 0, the
       headers of the first three RTP datagrams end up among the bytes. */
    config.Rtp = 1;
    config.Port = port;
    config.Multicast = 1;
    snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", any);
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", address);
    if (QXV_RTP_SetConfig(module, QXV_RTP_RECEIVE, channel, &config))
        return 1;
    config.Multicast = 0;
    snprintf(config.LocalAddress, sizeof(config.LocalAddress), "%s", address);
    return QXV_RTP_SetConfig(module, QXV_RTP_RECEIVE, channel, &config);
}

enum { PACKET_SIZE = 188, SYNC_BYTE = 0x47 };

/* The bytes of one channel that are still to be written. Zeroed, it is ready for use. */
struct packets {
    uint8_t bytes[65536];
    uint32_t length;
    int aligned;      /* the bytes begin with a packet, or with the first bytes of one */
    uint64_t skipped; /* bytes that belonged to no packet */
};

/*
 * Writes the packets to the file, and keeps an incomplete one for the next call. Where a packet
 * should begin and does not, as may happen after a drop or a change of the sender or its form, it
 * skips bytes up to the next three packets in a row. Returns 0 when the file could not be written.
 */
static int write_packets(struct packets* packets, FILE* file) {
    const uint8_t* const bytes = packets->bytes;
    uint32_t begin = 0;
    for (;;) {
        uint32_t end = begin;
        while (packets->aligned && packets->length - end >= PACKET_SIZE && bytes[end] == SYNC_BYTE)
            end += PACKET_SIZE;
        if (fwrite(bytes + begin, 1, end - begin, file) != end - begin)
            return 0;
        begin = end;
        if (packets->aligned && packets->length - begin < PACKET_SIZE)
            break;
        packets->aligned = 0;
        if (packets->length - begin <= 2 * PACKET_SIZE)
            break;
        packets->aligned = bytes[begin] == SYNC_BYTE && bytes[begin + PACKET_SIZE] == SYNC_BYTE &&
                           bytes[begin + 2 * PACKET_SIZE] == SYNC_BYTE;
        if (!packets->aligned) {
            ++begin;
            ++packets->skipped;
        }
    }
    packets->length -= begin;
    memmove(packets->bytes, bytes + begin, packets->length);
    return 1;
}

#endif
