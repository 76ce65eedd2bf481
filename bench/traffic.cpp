// traffic BOARD ROUTINE [RATE_BPS]: one of the routines of Traffic.h as a program of its own, with
// 16 streams. Its counts are in the file BOARD, which other processes may map, too.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Measure.h"
#include "Traffic.h"

namespace {

// What deployed.py knows of the layout.
static_assert(offsetof(Board, stop) == 4);
static_assert(offsetof(Board, sent) == 8);
static_assert(offsetof(Board, stamps) == 272);
static_assert(sizeof(Board::stamps[0]) == 8 << 17);

constexpr struct {
    const char* name;
    void (*run)(Board&, Load);
} kRoutines[] = {{"send-bursts", sendPaced},
                 {"send-spread", sendOneByOne},
                 {"receive-epoll", receiveEpoll},
                 {"receive-stamps", receiveStamps}};

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3) {
        const Load load{kStreams, argc > 3 ? strtod(argv[3], nullptr) : 0.0};
        try {
            shareBoard(argv[1]);
            for (const auto& routine : kRoutines)
                if (strcmp(argv[2], routine.name) == 0) {
                    routine.run(board(), load);
                    return 0;
                }
        } catch (const Failure& failure) {
            fprintf(stderr, "traffic: %s\n", failure.what());
            return 1;
        }
    }
    fprintf(stderr, "usage: traffic BOARD");
    for (const auto& routine : kRoutines)
        fprintf(stderr, " %c%s", &routine == kRoutines ? ' ' : '|', routine.name);
    fprintf(stderr, " [RATE_BPS]\n");
    return 2;
}
