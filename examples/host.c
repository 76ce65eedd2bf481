/*
 * host GROUP PORT BITRATE < STREAM: sends a transport stream to an IPv4 multicast group under RTP,
 * paced to BITRATE bits per second.
 *
 * cc host.c $(pkg-config --cflags --libs qxv_rtp) -o host
 */
#include <QXV_RTP.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
    static uint8_t bytes[65536];
    const uint32_t units = 1024; /* the channel's buffer: 256 KiB */
    void* const module = QXV_RTP_Create(0);
    RtpChannelConfig config; /* as loaded: RTP to a group, from any interface, TTL 255 */
    if (argc != 4 || !QXV_RTP_GetConfig(module, QXV_RTP_SEND, 0, &config)) {
        fprintf(stderr, "usage: host GROUP PORT BITRATE < STREAM\n");
        return 2;
    }
    const uint32_t bitrate = (uint32_t)strtoul(argv[3], NULL, 10);
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", argv[1]);
    config.Port = (uint16_t)strtoul(argv[2], NULL, 10);
    if (!QXV_RTP_SetConfig(module, QXV_RTP_SEND, 0, &config) ||
        !QXV_RTP_SendStart(module, 0, bitrate, units)) {
        fprintf(stderr, "host: '%s' is no IPv4 group, or '%s' no bitrate\n", argv[1], argv[3]);
        return 2;
    }
    uint32_t sent = 1; /* Send waits while the channel's buffer is full */
    for (size_t n; sent && (n = fread(bytes, 1, sizeof(bytes), stdin)) > 0;)
        sent = QXV_RTP_Send(module, 0, bytes, (uint32_t)n);
    if (sent)
        sleep(1 + units * QXV_RTP_BUFFER_UNIT * 8 / bitrate); /* until the buffer has left */
    else
        fprintf(stderr, "host: the input is no transport stream\n");
    QXV_RTP_SendEnd(module, 0);
    QXV_RTP_Destroy(module);
    return sent && !ferror(stdin) ? 0 : 1;
}
