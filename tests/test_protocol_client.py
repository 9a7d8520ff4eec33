#!/usr/bin/python3
"""Runs protocol_client.py, the client written from docs/protocol.md alone, against kelo-server
on loopback:

    test_protocol_client.py PATH_TO_KELO_SERVER

The server holds one sound of 1.5 s, renders through OpenAL Soft's null driver and shows its
world on a status page, where the scene the client sent must appear.
"""

import json
import os
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.request
import wave

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import protocol_client as kelo  # noqa: E402

SERVER = None  # set from the command line
RATE = 8000
FRAMES = 12000  # 1.5 s
SECONDS = FRAMES / RATE


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class KeloServer:
    """kelo-server on 127.0.0.1 with one sound and a status page; stopped with SIGTERM."""

    def __init__(self, directory):
        sound = os.path.join(directory, "tone.wav")
        with wave.open(sound, "wb") as w:
            w.setnchannels(1)
            w.setsampwidth(2)
            w.setframerate(RATE)
            w.writeframes(b"".join(struct.pack("<h", (i % 40 - 20) * 800) for i in range(FRAMES)))
        conf = os.path.join(directory, "alsoft.conf")
        with open(conf, "w") as f:
            f.write("[general]\ndrivers=null\n")
        self.web_port = free_port()
        self.log = open(os.path.join(directory, "server.log"), "w+")
        env = dict(os.environ, ALSOFT_CONF=conf)
        self.process = subprocess.Popen(
            [SERVER, "--host", "127.0.0.1", "--port", "0", "--no-multicast",
             "--sound", "1=" + sound, "-b", "openal", "-b", "web:port=%d" % self.web_port],
            cwd=directory, env=env, stdout=subprocess.PIPE, stderr=self.log)
        line = self._line(10.0)
        match = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
        if not match:
            self.stop()
            raise RuntimeError("kelo-server did not start: %r\n%s" % (line, self.stderr()))
        self.port = int(match.group(1))

    def _line(self, seconds):
        ready, _, _ = select.select([self.process.stdout], [], [], seconds)
        return self.process.stdout.readline().decode() if ready else ""

    def stderr(self):
        self.log.flush()
        self.log.seek(0)
        return self.log.read()

    def scene(self):
        url = "http://127.0.0.1:%d/scene.json" % self.web_port
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(url, timeout=5) as reply:
            return json.load(reply)

    def stop(self):
        """The exit status after SIGTERM (None if it had to be killed)."""
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        try:
            return self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return None
        finally:
            self.process.stdout.close()


class ProtocolClientTest(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory(prefix="kelo-protocol-")
        self.server = KeloServer(self.directory.name)

    def tearDown(self):
        status = self.server.stop()
        log = self.server.stderr()
        self.server.log.close()
        self.directory.cleanup()
        self.assertEqual(status, 0, "kelo-server did not stop cleanly:\n" + log)

    def durations(self, peer, count, seconds=10.0):
        reports = []
        deadline = time.monotonic() + seconds
        while len(reports) < count:
            reports.append(peer.read_duration(deadline))
        return reports

    def test_scene_is_applied_and_durations_come_back(self):
        with kelo.Connection("127.0.0.1", self.server.port) as peer:
            # What the server knows is sent right after the preamble ...
            self.assertEqual(self.durations(peer, 1), [(1, SECONDS)])
            peer.send(*kelo.scene(emitter=7, source=1, labels=("front", "rear wall"),
                                  listener=(0.0, 0.0, 0.5)))
            # ... and again once the reset has made it load its sound anew.
            self.assertEqual(self.durations(peer, 1), [(1, SECONDS)])

            deadline = time.monotonic() + 5
            emitters = []
            while not emitters and time.monotonic() < deadline:
                emitters = self.server.scene()["emitters"]
                time.sleep(0.05)
            self.assertEqual(len(emitters), 1, emitters)
            self.assertEqual(self.server.scene()["listener"]["position"], [0, 0, 0.5])
            e = emitters[0]
            self.assertEqual(e["id"], 7)
            self.assertEqual(e["labels"], ["front", "rear wall"])
            self.assertEqual(e["position"], [1, 2, 3])
            self.assertEqual(e["rotation"], [0, 0, 0, 1])
            self.assertEqual(e["hull"], {"maxBack": 10, "maxFront": 20, "minBack": 1,
                                         "minFront": 2})
            self.assertEqual(e["gain"], 0.5)
            self.assertTrue(e["spatialize"])
            self.assertEqual(e["source"], 1)
            self.assertEqual(e["state"], 1)  # playing

    def test_quiet_connection_gets_keep_alives_and_stays(self):
        with kelo.Connection("127.0.0.1", self.server.port) as peer:
            self.durations(peer, 1)
            # Nothing but keep-alives may arrive while neither side has anything to say.
            with self.assertRaises(TimeoutError):
                peer.read_event(time.monotonic() + 7)
            self.assertGreaterEqual(peer.keep_alives, 1, "no keep-alive within 7 s")
            peer.send(kelo.command(kelo.RESET_WORLD, 0))
            self.assertEqual(self.durations(peer, 1), [(1, SECONDS)])

    def test_oversized_frame_is_refused_with_a_goodbye(self):
        for _ in range(5):  # the reason must not lose a race with the close
            with kelo.Connection("127.0.0.1", self.server.port) as peer:
                self.durations(peer, 1)
                peer.send(struct.pack("<I", kelo.MAX_FRAME + 1))
                with self.assertRaises(kelo.Goodbye) as refused:
                    peer.read_event(time.monotonic() + 5)
                self.assertEqual(refused.exception.reason,
                                 "frame of 67108865 bytes, more than the 67108864 allowed")

    def test_client_beyond_the_cap_gets_a_goodbye(self):
        peers = []
        try:
            for _ in range(70):
                peer = kelo.Connection("127.0.0.1", self.server.port)
                peers.append(peer)
                try:
                    self.assertEqual(peer.read_duration(time.monotonic() + 5), (1, SECONDS))
                except kelo.Goodbye as bye:
                    self.assertTrue(bye.reason.startswith("too many clients"), bye.reason)
                    break
            self.assertEqual(len(peers), 65, "the 65th client must be refused")
        finally:
            for peer in peers:
                peer.close()


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    SERVER = os.path.abspath(sys.argv.pop(1))
    unittest.main(verbosity=2)
