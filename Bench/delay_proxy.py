"""A TCP proxy on loopback that makes a link look like a wide-area one.

Every connection waits one round trip before it is connected to the target (the handshake), and
every chunk read from either side is delivered half a round trip later, without waiting for the
chunk before it, so the delay costs no throughput. With --bandwidth, what flows towards the
clients of all connections together is capped at that many bytes a second. With --cut-after,
every connection is broken (both ways, as a dropped link) once it delivered that many bytes to
its client.

Usage: delay_proxy.py --listen PORT --target PORT --rtt-ms MS [--bandwidth BYTES_PER_SECOND]
                      [--cut-after BYTES]
Runs until killed.
"""
import argparse
import asyncio

CHUNK = 64 * 1024


class SharedCap:
    """Spaces the chunks of all connections so that together they keep to a byte rate."""

    def __init__(self, bytes_per_second):
        self.rate = bytes_per_second
        self.next_free = 0.0

    async def wait_for(self, length):
        if not self.rate:
            return
        loop = asyncio.get_running_loop()
        start = max(loop.time(), self.next_free)
        self.next_free = start + length / self.rate
        await asyncio.sleep(max(0.0, start - loop.time()))


async def pipe(reader, writer, delay, cap, cut_after=0, cut=None):
    """Copies reader to writer, each chunk delay seconds after it was read; once cut_after bytes
    (when not 0) went through, calls cut instead of writing more."""
    loop = asyncio.get_running_loop()
    chunks = asyncio.Queue()

    async def deliver():
        delivered = 0
        while True:
            due, data = await chunks.get()
            if data is None:
                break
            await asyncio.sleep(max(0.0, due - loop.time()))
            if cap is not None:
                await cap.wait_for(len(data))
            if cut_after and delivered + len(data) >= cut_after:
                writer.write(data[: cut_after - delivered])
                await writer.drain()
                cut()
                return
            delivered += len(data)
            writer.write(data)
            await writer.drain()
        writer.close()

    delivery = asyncio.create_task(deliver())
    try:
        while True:
            data = await reader.read(CHUNK)
            chunks.put_nowait((loop.time() + delay, data or None))
            if not data:
                break
    except (ConnectionError, OSError):
        chunks.put_nowait((loop.time(), None))
    try:
        await delivery
    except (ConnectionError, OSError):
        pass


async def serve(args):
    rtt = args.rtt_ms / 1000.0
    cap = SharedCap(args.bandwidth) if args.bandwidth else None

    async def handle(client_reader, client_writer):
        await asyncio.sleep(rtt)
        try:
            target_reader, target_writer = await asyncio.open_connection("127.0.0.1", args.target)
        except OSError:
            client_writer.close()
            return
        def cut():
            client_writer.transport.abort()
            target_writer.transport.abort()

        await asyncio.gather(
            pipe(client_reader, target_writer, rtt / 2, None),
            pipe(target_reader, client_writer, rtt / 2, cap, args.cut_after, cut),
            return_exceptions=True,
        )

    server = await asyncio.start_server(handle, "127.0.0.1", args.listen, backlog=512)
    async with server:
        await server.serve_forever()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--listen", type=int, required=True)
    parser.add_argument("--target", type=int, required=True)
    parser.add_argument("--rtt-ms", type=float, default=50.0)
    parser.add_argument("--bandwidth", type=float, default=0.0)
    parser.add_argument("--cut-after", type=int, default=0)
    asyncio.run(serve(parser.parse_args()))


if __name__ == "__main__":
    main()
