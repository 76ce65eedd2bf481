/* host GROUP PORT BITRATE < STREAM: sends a transport stream to a multicast group under RTP. */
#include <QXV_RTP.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
    static uint8_t bytes[65536];
    const uint32_t units = 1024, bitrate = argc == 4 ? (uint32_t)strtoul(argv[3], NULL, 10) : 0;
    RtpChannelConfig config;
    void* const module = QXV_RTP_Create(0);
    if (argc != 4 || !QXV_RTP_GetConfig(module, QXV_RTP_SEND, 0, &config))
        return 2;
    snprintf(config.RemoteAddress, sizeof(config.RemoteAddress), "%s", argv[1]);
    config.Port = (uint16_t)strtoul(argv[2], NULL, 10);
    if (!QXV_RTP_SetConfig(module, QXV_RTP_SEND, 0, &config) ||
        !QXV_RTP_SendStart(module, 0, bitrate, units))
        return 1;
    for (size_t n; (n = fread(bytes, 1, sizeof(bytes), stdin)) > 0;)
        QXV_RTP_Send(module, 0, bytes, (uint32_t)n); /* waits while the channel's buffer is full */
    sleep(1 + units * QXV_RTP_BUFFER_UNIT * 8 / bitrate); /* what is in the buffer leaves by then */
    QXV_RTP_SendEnd(module, 0);
    QXV_RTP_Destroy(module);
    return 0;
}
