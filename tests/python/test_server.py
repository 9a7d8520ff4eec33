"""A Python client world mirrored by a Python kelo.Server over loopback."""

import threading
import time

import pytest

import kelo

State = kelo.State


class HoldingServer(kelo.Server):
    """Keeps its own sound, source 1, across every reset."""

    def __init__(self):
        super().__init__(0, "127.0.0.1", multicast=False)
        self.resets = 0
        self.create_source(1)

    def reset_world(self):
        super().reset_world()
        self.resets += 1
        self.create_source(1)


def scene(world):
    """Everything a client sends, as seen in a world."""
    emitters = {}
    for i, e in world.emitters.items():
        emitters[i] = (e.labels, e.position, e.rotation,
                       (e.max_back, e.max_front, e.min_back, e.min_front),
                       (e.spatialize, e.extra, e.gain),
                       e.source.id if e.source else None, e.state)
    s = world.get_source(1)
    return emitters, (s.loop, s.pitch, s.state) if s else None


def exchange(client, server):
    client.update()
    server.wait_for_events(0.02)
    server.receive()
    server.update()


@pytest.mark.parametrize("busy_poll", [0, 5000])
def test_mirror(poll, busy_poll):
    with HoldingServer() as server, kelo.World() as client:
        server.busy_poll = busy_poll
        with pytest.raises(ValueError, match="busy_poll must be from 0 to 1000000"):
            server.busy_poll = 1000001
        assert server.busy_poll == busy_poll
        with pytest.raises(ValueError, match="scheduler_slice must be 0 or from 100 to 100000"):
            server.scheduler_slice = 50
        server.scheduler_slice = 100
        assert server.scheduler_slice == 100
        # The busy-polling run also takes its client through the local socket.
        server.local_socket = busy_poll > 0
        assert server.local_socket == (busy_poll > 0)
        first = server.get_source(1)
        s = client.create_source()
        s.set_param(loop=True, pitch=0.75)
        a = client.create_emitter(["front", "rear"])
        a.set_transform(position=(1.5, -2, 30), rotation=(0, 0, 0.6, 0.8))
        a.set_hull(1, 2, 3, 4)
        a.set_param(spatialize=False, extra=0.25, gain=0.5)
        a.source = s
        a.state = State.PLAY
        b = client.create_emitter(id=40)
        b.state = State.PAUSE
        local = "true" if busy_poll else "false"
        client.add_backend("client", f"servers=127.0.0.1:{server.port} local={local}")
        assert poll(lambda: scene(server) == scene(client), lambda: exchange(client, server))
        # The client's reset came first and took the first source; reset_world() made another.
        assert server.resets >= 1 and first.deleted
        kept = server.get_source(1)
        assert kept is not None and not kept.deleted and kept.emitters[a.id] is server.emitters[a.id]
        assert server.clients == 1 and server.received_count > 10
        assert scene(server)[0][a.id][1:] == \
            ((1.5, -2, 30), pytest.approx((0, 0, 0.6, 0.8)), (1, 2, 3, 4), (False, 0.25, 0.5),
             1, State.PLAY)

        # Live changes follow.
        a.set_transform(position=(5, 5, 5))
        b.source = s
        s.state = State.STOP
        c = client.create_emitter(["side"])
        a.delete()
        assert poll(lambda: scene(server) == scene(client), lambda: exchange(client, server))
        assert sorted(server.emitters) == [b.id, c.id] and server.emitters[c.id].labels == ("side",)
        assert server.get_source(1).state == State.STOP and server.get_source(1) is kept


def test_duration_reaches_client(poll):
    class Timing(kelo.Backend):
        def set_source_state(self, source):
            if source.state == State.PLAY:
                self.set_source_duration(source, 2.5)

    kelo.register_backend("timing", Timing)
    with HoldingServer() as server, kelo.World() as client:
        server.add_backend("timing")
        s = client.create_source()
        client.add_backend("client", f"servers=127.0.0.1:{server.port}")
        assert poll(lambda: server.clients == 1, lambda: exchange(client, server))
        assert s.duration == 0.0
        s.state = State.PLAY
        assert poll(lambda: s.duration == 2.5, lambda: exchange(client, server))
        assert server.get_source(1).duration == 2.5


def test_run_releases_gil(server):
    count = 0
    done = threading.Event()

    def counter():
        nonlocal count
        while not done.is_set():
            count += 1

    thread = threading.Thread(target=counter)
    thread.start()
    try:
        start = time.monotonic()
        server.run(duration=0.5)
        elapsed = time.monotonic() - start
    finally:
        done.set()
        thread.join()
    assert 0.45 <= elapsed < 5
    # Counting alone does millions in 0.5 s; a GIL held while run() waits would leave the counter
    # a small fraction of that.
    assert count > 500_000


def test_stop_from_another_thread(server):
    timer = threading.Timer(0.2, server.stop)
    timer.start()
    start = time.monotonic()
    server.run(duration=30)
    elapsed = time.monotonic() - start
    timer.join()
    assert 0.15 <= elapsed < 10
    # run() without a duration ends by stop() as well (in a thread, so that a fault cannot hang
    # the run).
    runner = threading.Thread(target=server.run, daemon=True)
    runner.start()
    deadline = time.monotonic() + 10
    while runner.is_alive() and time.monotonic() < deadline:
        server.stop()
        runner.join(0.05)
    assert not runner.is_alive()
