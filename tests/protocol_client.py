#!/usr/bin/python3
"""A Kelo client in plain Python 3, written from docs/protocol.md alone.

It connects to a sound server, exchanges the preamble, sends a small scene (a reset, the
listener, one emitter with labels, its transform, hull and parameters, its connection to one of
the server's sounds, play) and prints the playing times the server reports:

    protocol_client.py HOST PORT [--source ID] [--wait SECONDS]

Used as a module by test_protocol_client.py.
"""

import argparse
import socket
import struct
import sys
import time

PREAMBLE = b"KELO" + struct.pack("<I", 1)
STAMP = 3378
MAX_FRAME = 64 << 20
KEEP_ALIVE_AFTER = 5.0  # seconds without sending anything

# Connection frames
KEEP_ALIVE = 0
GOODBYE = 1

# Event types
COMMAND_EVENT = 200
TRANSFORM_EVENT = 201
CREATE_EMITTER_EVENT = 202
EMITTER_CONNECTION_EVENT = 203
EMITTER_HULL_EVENT = 204
EMITTER_PARAM_EVENT = 205
SOURCE_PARAM_EVENT = 206
SOURCE_DATA_EVENT = 207
SOURCE_DURATION_EVENT = 208

# Commands
RESET_WORLD = 10
SET_LISTENER_TRANSFORM = 13
SOURCE_DURATION = 23
CREATE_EMITTER = 30
SET_EMITTER_PARAM = 32
SET_EMITTER_CONNECTION = 33
SET_EMITTER_TRANSFORM = 34
SET_EMITTER_HULL = 35
PLAY_EMITTER = 36

IDENTITY = (0.0, 0.0, 0.0, 1.0)


class ProtocolError(Exception):
    """The peer sent something the protocol does not allow."""


class Goodbye(Exception):
    """The peer closed the connection on purpose; args[0] is its reason."""

    @property
    def reason(self):
        return self.args[0]


def frame(type_id, body, stamp=STAMP):
    """A whole frame: length, type id, stamp, body."""
    rest = struct.pack("<Hh", type_id, stamp) + body
    return struct.pack("<I", len(rest)) + rest


def string(text):
    data = text.encode() if isinstance(text, str) else bytes(text)
    return struct.pack("<I", len(data)) + data


def command(cmd, ident):
    return frame(COMMAND_EVENT, struct.pack("<hh", cmd, ident))


def transform(cmd, ident, position, rotation=IDENTITY):
    return frame(TRANSFORM_EVENT, struct.pack("<hh7f", cmd, ident, *position, *rotation))


def create_emitter(ident, labels):
    body = struct.pack("<hhI", CREATE_EMITTER, ident, len(labels))
    body += b"".join(string(label) for label in labels)
    return frame(CREATE_EMITTER_EVENT, body)


def emitter_hull(ident, max_back, max_front, min_back, min_front):
    return frame(EMITTER_HULL_EVENT, struct.pack("<hh4f", SET_EMITTER_HULL, ident, max_back,
                                                 max_front, min_back, min_front))


def emitter_param(ident, gain, extra_param, spatialize):
    # Gain first, then the extra parameter, then the switch.
    return frame(EMITTER_PARAM_EVENT, struct.pack("<hhffB", SET_EMITTER_PARAM, ident, gain,
                                                  extra_param, 1 if spatialize else 0))


def emitter_connection(ident, source_id):
    return frame(EMITTER_CONNECTION_EVENT,
                 struct.pack("<hhh", SET_EMITTER_CONNECTION, ident, source_id))


def keep_alive():
    return frame(KEEP_ALIVE, b"", stamp=0)


class Connection:
    """One TCP connection to a Kelo peer, after the preamble."""

    def __init__(self, host, port, timeout=5.0):
        self._sock = socket.create_connection((host, port), timeout=timeout)
        self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._last_sent = 0.0
        self.keep_alives = 0  # received and skipped
        self._send(PREAMBLE)
        theirs = self._read_exact(len(PREAMBLE), time.monotonic() + 5.0)
        if theirs[:4] != PREAMBLE[:4]:
            raise ProtocolError("not a Kelo peer: %r" % theirs)
        if theirs != PREAMBLE:
            raise ProtocolError("another protocol version: %r" % theirs)

    def close(self):
        self._sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _send(self, data):
        self._sock.sendall(data)
        self._last_sent = time.monotonic()

    def send(self, *frames):
        self._send(b"".join(frames))

    def keep_alive_if_quiet(self):
        if time.monotonic() - self._last_sent >= KEEP_ALIVE_AFTER:
            self._send(keep_alive())

    def _read_exact(self, count, deadline):
        data = b""
        while len(data) < count:
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError("nothing complete from the peer in time")
            self._sock.settimeout(min(left, 1.0))
            try:
                chunk = self._sock.recv(count - len(data))
            except socket.timeout:
                self.keep_alive_if_quiet()
                continue
            if not chunk:
                raise ConnectionError("the peer closed the connection")
            data += chunk
        return data

    def read_event(self, deadline):
        """The next event frame as (type id, stamp, body); keep-alives are skipped, a goodbye
        raises Goodbye with its reason."""
        while True:
            (length,) = struct.unpack("<I", self._read_exact(4, deadline))
            if length < 4 or length > MAX_FRAME:
                raise ProtocolError("frame length %d" % length)
            rest = self._read_exact(length, deadline)
            type_id, stamp = struct.unpack_from("<Hh", rest)
            body = rest[4:]
            if type_id == KEEP_ALIVE:
                if body:
                    raise ProtocolError("keep-alive with a body")
                self.keep_alives += 1
                continue
            if type_id == GOODBYE:
                reason = "no reason given"
                if len(body) >= 4:
                    (size,) = struct.unpack_from("<I", body)
                    if size <= 1024 and size == len(body) - 4:
                        reason = body[4:].decode(errors="replace")
                self.close()  # nothing after a goodbye counts
                raise Goodbye(reason)
            if type_id < 200:
                continue  # reserved for later versions
            return type_id, stamp, body

    def read_duration(self, deadline):
        """The next SourceDuration as (source id, seconds); other events are refused."""
        type_id, _, body = self.read_event(deadline)
        if type_id != SOURCE_DURATION_EVENT or len(body) != 8:
            raise ProtocolError("expected a SourceDuration, got type %d" % type_id)
        cmd, ident, seconds = struct.unpack("<hhf", body)
        if cmd != SOURCE_DURATION:
            raise ProtocolError("SourceDurationEvent with command %d" % cmd)
        return ident, seconds


def scene(emitter, source, labels=("front", ""), listener=(0.0, 0.0, 0.0)):
    """The frames of a catch-up with one emitter playing the server's sound source."""
    return [
        command(RESET_WORLD, 0),
        transform(SET_LISTENER_TRANSFORM, 0, listener),
        create_emitter(emitter, list(labels)),
        transform(SET_EMITTER_TRANSFORM, emitter, (1.0, 2.0, 3.0)),
        emitter_hull(emitter, 10.0, 20.0, 1.0, 2.0),
        emitter_param(emitter, 0.5, 0.0, True),
        emitter_connection(emitter, source),
        command(PLAY_EMITTER, emitter),
    ]


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("host")
    parser.add_argument("port", type=int)
    parser.add_argument("--source", type=int, default=1, help="the server's sound to play")
    parser.add_argument("--emitter", type=int, default=1)
    parser.add_argument("--wait", type=float, default=3.0,
                        help="seconds to print the playing times reported")
    args = parser.parse_args(argv)
    with Connection(args.host, args.port) as peer:
        peer.send(*scene(args.emitter, args.source))
        deadline = time.monotonic() + args.wait
        try:
            while True:
                ident, seconds = peer.read_duration(deadline)
                print("source %d plays %.6f s" % (ident, seconds), flush=True)
        except TimeoutError:
            return 0
        except Goodbye as bye:
            print("closed by the server: %s" % bye.reason, file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
