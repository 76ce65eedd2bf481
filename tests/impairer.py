#!/usr/bin/env python3
"""impairer.py LISTEN_PORT TO_PORT [NAME=VALUE...]: a bad network between two UDP ports of 127.0.0.1, for both
directions. Names: loss, duplicate, reorder (parts of 1), burst (datagrams that are lost together), delay, jitter
and late (seconds; `late` is how much later a reordered datagram comes), seed. Kernels without netem have no other.
One seed gives one sequence of decisions, whatever the times."""
import heapq, random, select, socket, sys, threading, time


class Impairer(threading.Thread):
    def __init__(self, port, to, loss=0.0, burst=1, duplicate=0.0, reorder=0.0, delay=0.0, jitter=0.0, late=0.005,
                 seed=1):
        super().__init__(daemon=True)
        self.to, self.loss, self.burst, self.duplicate = ("127.0.0.1", int(to)), loss, int(burst), duplicate
        self.reorder, self.delay, self.jitter, self.late = reorder, delay, jitter, late
        self.random = random.Random(int(seed))
        self.front = self.open()
        self.front.bind(("127.0.0.1", int(port)))
        self.backs = {}  # a socket for each address that sends to the front
        self.clients = {}  # and the other way round
        self.queue, self.number, self.losing, self.ended = [], 0, 0, False
        self.seen = self.lost = self.duplicated = self.reordered = 0
        self.start()

    @staticmethod
    def open():
        new = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        new.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        new.setblocking(False)
        return new

    def decide(self):  # the delays of the copies that come out
        self.seen += 1
        if self.losing == 0 and self.random.random() < self.loss / self.burst:
            self.losing = self.burst
        chances = [self.random.random() for _ in range(3)]
        if self.losing > 0:
            self.losing -= 1
            self.lost += 1
            return []
        delay = self.delay + self.jitter * chances[0]
        if chances[1] < self.reorder:
            self.reordered += 1
            delay += self.late
        if chances[2] < self.duplicate:
            self.duplicated += 1
            return [delay, delay]
        return [delay]

    def add(self, data, out, address):
        for delay in self.decide():
            self.number += 1
            heapq.heappush(self.queue, (time.monotonic() + delay, self.number, data, out, address))

    def take(self, ready):
        while True:
            try:
                data, address = ready.recvfrom(65536)
            except (BlockingIOError, ConnectionRefusedError):
                return
            if ready is not self.front:
                self.add(data, self.front, self.clients[ready])
                continue
            if address not in self.backs:
                self.backs[address] = self.open()
                self.clients[self.backs[address]] = address
            self.add(data, self.backs[address], self.to)

    def run(self):
        while not self.ended:
            wait = min(self.queue[0][0] - time.monotonic(), 0.1) if self.queue else 0.1
            for ready in select.select([self.front, *self.clients], [], [], max(wait, 0))[0]:
                self.take(ready)
            while self.queue and self.queue[0][0] <= time.monotonic():
                _, _, data, out, address = heapq.heappop(self.queue)
                try:
                    out.sendto(data, address)
                except OSError:
                    pass  # nobody listens there yet
        for one in [self.front, *self.clients]:
            one.close()

    def end(self):
        self.ended = True
        self.join()


class Disorder(threading.Thread):
    """Passes on what comes to a port: `order` says, for each datagram, how many copies leave, and behind how many
    of the next ones."""

    def __init__(self, port, to, order):
        super().__init__(daemon=True)
        self.port, self.to, self.order = port, to, order
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, 33, 8 << 20)  # SO_RCVBUFFORCE
        self.socket.bind(("127.0.0.1", port))
        self.start()

    def run(self):
        held, number = [], 0
        while data := self.socket.recv(2048):
            copies, behind = self.order(number)
            held += [(number + behind, data)] * copies
            held.sort(key=lambda entry: entry[0])
            while held and held[0][0] <= number:
                self.socket.sendto(held.pop(0)[1], ("127.0.0.1", self.to))
            number += 1

    def end(self):
        self.socket.sendto(b"", ("127.0.0.1", self.port))
        self.join()
        self.socket.close()


if __name__ == "__main__":
    impairer = Impairer(*sys.argv[1:3], **{name: float(value) for name, value in (a.split("=") for a in sys.argv[3:])})
    try:
        impairer.join()
    except KeyboardInterrupt:
        impairer.end()
        print(f"{impairer.seen} seen, {impairer.lost} lost, {impairer.duplicated} twice, "
              f"{impairer.reordered} out of order", file=sys.stderr)
