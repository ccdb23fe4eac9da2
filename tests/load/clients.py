"""Clients of the web service by the hundred: one TLS connection each, all in one event loop."""

import asyncio
import json
import re

from world import HOST, Reply, client_context, raw_request

# What a connection raises whose other side is gone. ssl.SSLError is an OSError.
BROKEN = (OSError, asyncio.IncompleteReadError)


class Client:
    """One connection, opened by the first request and again after close()."""

    context = None

    def __init__(self, port):
        self.port = port
        self._reader = self._writer = None

    async def open(self):
        Client.context = Client.context or client_context()
        self._reader, self._writer = await asyncio.open_connection(
            HOST, self.port, ssl=Client.context, server_hostname=HOST
        )

    def close(self):
        if self._writer is not None:
            self._writer.transport.abort()
        self._reader = self._writer = None

    async def request(self, method, target, body=None):
        """The answer to one request; `body` may be an object or bytes. Raises one of BROKEN when none comes."""
        if self._writer is None:
            await self.open()
        content = body if isinstance(body, bytes) else b"" if body is None else json.dumps(body).encode()
        self._writer.write(raw_request(method, target, content))
        await self._writer.drain()
        return await read_reply(self._reader)


async def read_reply(reader):
    head = await reader.readuntil(b"\r\n\r\n")
    status = int(head.split(None, 2)[1])
    length = re.search(rb"Content-Length: (\d+)", head)
    if length:
        return Reply(status, {}, await reader.readexactly(int(length[1])))
    if b"Transfer-Encoding: chunked" in head:
        return Reply(status, {}, await read_chunks(reader))
    assert status == 204, head
    return Reply(status, {}, b"")


async def read_chunks(reader):
    parts = []
    while True:
        size = int(await reader.readline(), 16)
        parts.append((await reader.readexactly(size + 2))[:-2])
        if size == 0:
            return b"".join(parts)
