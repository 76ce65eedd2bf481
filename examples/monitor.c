/*
 * monitor [SECONDS]: prints, every second, the channels that are in use in the process that loaded
 * the module last. It needs the shared table only, not the library.
 *
 * cc monitor.c $(pkg-config --cflags qxv_rtp) -o monitor
 */
#include <QXV_RTP_table.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

/* The table that is there now, mapped for reading; null where there is none. */
static const QXV_RTP_Table* map(void) {
    const int file = open(QXV_RTP_TABLE_PATH, O_RDONLY | O_CLOEXEC);
    struct stat status;
    void* table = MAP_FAILED;
    /* To read beyond the end of a file that is shorter would be a SIGBUS. */
    if (file >= 0 && fstat(file, &status) == 0 && status.st_size >= (off_t)sizeof(QXV_RTP_Table))
        table = mmap(NULL, sizeof(QXV_RTP_Table), PROT_READ, MAP_SHARED, file, 0);
    if (file >= 0)
        close(file);
    return table != MAP_FAILED ? table : NULL;
}

/* volatile: the module writes the numbers at any time. */
static void print(const volatile QXV_RTP_TableChannel* channel) {
    char address[QXV_RTP_ADDRESS_SIZE];
    size_t length = 0;
    if (channel->BufferSize == 0)
        return;
    /* The text may be changing: what is copied ends in any case. */
    for (; length < sizeof(address) - 1 && channel->Config.RemoteAddress[length] != 0; ++length)
        address[length] = channel->Config.RemoteAddress[length];
    address[length] = 0;
    printf("%s %u: %s port %u, %s, %s, %u bit/s\n",
           channel->Direction == QXV_RTP_SEND ? "send" : "receive", channel->Channel, address,
           channel->Config.Port, channel->Config.Rtp ? "RTP" : "raw",
           channel->Reopen ? "no socket" : "socket open", channel->BitrateActual);
}

int main(int argc, char** argv) {
    long seconds = argc > 1 ? strtol(argv[1], NULL, 10) : 60;
    for (; seconds > 0; --seconds) {
        /* Mapped anew each time, since another process may have made a new file. */
        const QXV_RTP_Table* const table = map();
        if (table == NULL) {
            fprintf(stderr, "monitor: no table at %s\n", QXV_RTP_TABLE_PATH);
            return 1;
        }
        for (uint32_t i = 0; i < 2 * QXV_RTP_CHANNELS; ++i)
            print(&table->Channels[i / QXV_RTP_CHANNELS][i % QXV_RTP_CHANNELS]);
        munmap((void*)table, sizeof(*table));
        fflush(stdout);
        sleep(1);
    }
    return 0;
}
