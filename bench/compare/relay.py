"""Passes TCP connections on to a server as a distant or slow one would: bytes arrive late, at a
limited rate, or in bursts. TLS passes through unchanged. The TCP handshake is delayed, and what a
new connection may have underway limited, only with `slow_start`."""

import asyncio
import collections
import contextlib
import math
import socket
import threading
import urllib.parse

MAX_UNDERWAY = 16 << 20  # bytes of one direction of a connection, like a large TCP window

INITIAL_WINDOW = 10 * 1460  # bytes

SEND_BUFFER = 64 << 10  # bytes, for each connection of a line with a limited rate


class Link:
    """One direction of the line that all connections share."""

    def __init__(self, delay, rate=None, burst=None):
        self.delay, self.rate, self.burst = delay, rate, burst  # seconds, bytes per second, seconds
        self.free_at = 0
        self.bytes = 0
        # A slow line takes turns among the connections every two milliseconds.
        self.piece = max(1460, int(rate * 0.002)) if rate else 256 << 10

    def schedule(self, size, now):
        """When the next bytes may be read, and when these arrive."""
        if self.rate:  # a timer that fires late must not make the line slower
            now = self.free_at = max(self.free_at, now - 0.02) + size / self.rate
        arrival = math.ceil(now / self.burst) * self.burst if self.burst else now
        return self.free_at, arrival + self.delay


class Window:
    """What the server of a new connection may have underway: twice as much in each round trip."""

    def __init__(self, round_trip):
        self.round_trip = round_trip
        self.size, self.underway = INITIAL_WINDOW, 0
        self.sent = collections.deque()  # when it is acknowledged, and bytes

    def add(self, size, now):
        self.sent.append((now + self.round_trip, size))
        self.underway += size

    async def room(self, loop):
        """How much may be sent, once that is more than nothing."""
        while True:
            while self.sent and self.sent[0][0] <= loop.time():
                size = self.sent.popleft()[1]
                self.underway -= size
                self.size = min(self.size + size, MAX_UNDERWAY)
            if self.underway < self.size:
                return self.size - self.underway
            await asyncio.sleep(self.sent[0][0] - loop.time())


class Relay:
    """Listens on a port of its own. `connections` counts those accepted, `received` the bytes of
    the server that were passed on."""

    def __init__(self, server, delay=0, rate=None, burst=None, slow_start=False):
        link = urllib.parse.urlsplit(server)
        self._server = link.hostname, link.port
        self._up, self._down = Link(delay), Link(delay, rate, burst)
        self._slow_start = slow_start
        self.connections = 0
        self._loop = asyncio.new_event_loop()
        listening = self._loop.run_until_complete(
            asyncio.start_server(self._accept, "127.0.0.1", 0, limit=1 << 20))
        self.base = f"{link.scheme}://127.0.0.1:{listening.sockets[0].getsockname()[1]}"
        self._thread = threading.Thread(target=self._loop.run_forever, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._loop.call_soon_threadsafe(self._loop.stop)
        self._thread.join()
        for task in asyncio.all_tasks(self._loop):
            task.cancel()
        self._loop.run_until_complete(asyncio.sleep(0.01))
        self._loop.close()

    @property
    def received(self):
        return self._down.bytes

    async def _accept(self, reader, writer):
        self.connections += 1
        if self._down.rate:
            # Otherwise megabytes would wait in the system's buffer and be counted as received,
            # though the client closes the connection without having read them.
            sock = writer.get_extra_info("socket")
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, SEND_BUFFER)
            writer.transport.set_write_buffer_limits(0)
        with contextlib.suppress(asyncio.CancelledError, OSError):
            server_reader, server_writer = await asyncio.open_connection(*self._server,
                                                                         limit=1 << 20)
            window = None
            if self._slow_start:
                window = Window(self._up.delay + self._down.delay)
                await asyncio.sleep(window.round_trip)  # of the handshake
            await asyncio.gather(self._pass_on(reader, server_writer, self._up),
                                 self._pass_on(server_reader, writer, self._down, window))
        writer.close()

    async def _pass_on(self, reader, writer, link, window=None):
        underway = collections.deque()  # arrival time and bytes
        changed = asyncio.Event()
        sender = asyncio.ensure_future(self._send(underway, changed, writer, link))
        try:
            while not sender.done():
                room = await window.room(self._loop) if window else link.piece
                data = await reader.read(min(link.piece, room))
                read_at, arrival = link.schedule(len(data), self._loop.time())
                if window:
                    window.add(len(data), self._loop.time())
                underway.append((arrival, data))
                changed.set()
                if not data:
                    break
                await asyncio.sleep(read_at - self._loop.time() if link.rate else 0)
                while sum(len(data) for _, data in underway) > MAX_UNDERWAY and not sender.done():
                    await asyncio.sleep(0.001)
        except OSError:
            underway.append((0, b""))
            changed.set()
        await sender

    async def _send(self, underway, changed, writer, link):
        """An empty piece closes the connection."""
        try:
            while True:
                while not underway:
                    changed.clear()
                    await changed.wait()
                arrival, data = underway[0]
                if arrival > self._loop.time():
                    await asyncio.sleep(arrival - self._loop.time())
                if not data:
                    break
                writer.write(data)
                await writer.drain()
                underway.popleft()
                link.bytes += len(data)
        except OSError:
            pass
        writer.close()
