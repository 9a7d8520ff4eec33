"""The scene seen from Python: sample arrays, ids, shared play state, parts' round trips."""

import wave

import numpy as np
import pytest

import kelo

State = kelo.State


@pytest.mark.parametrize("samples, bits, channels", [
    (np.arange(-50, 50, dtype=np.int16) * 300, 16, 1),
    (np.arange(1, 201, dtype=np.int16).reshape(100, 2), 16, 2),
    (np.arange(1, 91, dtype=np.uint8).reshape(30, 3), 8, 3),
])
def test_set_data_round_trip(world, samples, bits, channels):
    s = world.create_source()
    s.set_data(samples, 22050)
    assert (s.data_type, s.bits, s.channels, s.frequency) == ("pcm", bits, channels, 22050)
    data = s.data
    assert data.dtype == samples.dtype and np.array_equal(data, samples)
    # Copies both ways.
    samples.flat[0] = data.flat[1] = 0
    assert s.data.flat[0] != 0 and s.data.flat[1] != 0


def test_set_data_refusals(world):
    s = world.create_source()
    mono = np.ones(64, dtype=np.int16)
    for bad in (np.zeros(64), np.zeros(64, dtype=np.int32)):
        with pytest.raises(TypeError):
            s.set_data(bad, 8000)
    for bad in (np.zeros((4, 4, 2), dtype=np.int16), np.zeros((), dtype=np.int16), mono[::2],
                np.zeros((8, 4), dtype=np.int16).T):
        with pytest.raises(ValueError):
            s.set_data(bad, 8000)
    for frequency in (0, -8000):
        with pytest.raises(ValueError):
            s.set_data(mono, frequency)
    assert s.data_type == "none" and s.data.size == 0 and s.data.dtype == np.int16
    s.set_data(mono, 8000)
    s.set_data(None, 8000)
    assert s.data.size == 0
    s.set_data(mono, 8000)
    s.set_data(np.zeros(0, dtype=np.uint8), 8000)
    assert s.data.size == 0


def test_dump_wav(world, scratch):
    s = world.create_source()
    with pytest.raises(ValueError):
        s.dump_wav(str(scratch / "none.wav"))
    samples = (np.arange(600, dtype=np.int16) * 37 - 9000).reshape(300, 2)
    s.set_data(samples, 11025)
    path = scratch / "dump.wav"
    s.dump_wav(str(path))
    with wave.open(str(path), "rb") as w:
        assert (w.getnchannels(), w.getsampwidth(), w.getframerate(), w.getnframes()) == \
            (2, 2, 11025, 300)
        frames = np.frombuffer(w.readframes(300), dtype="<i2")
    assert np.array_equal(frames.reshape(300, 2), samples)
    assert path.stat().st_size == 44 + samples.nbytes
    with pytest.raises(OSError):
        s.dump_wav(str(scratch / "no" / "dir.wav"))


def test_set_data_from_url(world, scratch, monkeypatch):
    monkeypatch.chdir(scratch)
    s = world.create_source()
    assert s.url is None
    s.set_data_from_url("http://example.com/a.wav")
    assert (s.data_type, s.url) == ("url", "http://example.com/a.wav")
    with pytest.raises(ValueError):
        s.set_data_from_url("http://bad host/x")
    s.set_data_from_url("bell.wav")
    assert s.url == f"file://{scratch}/bell.wav"


def test_ids_and_clashes(world):
    s1, e2 = world.create_source(), world.create_emitter()
    assert (s1.id, e2.id) == (1, 2)
    s10 = world.create_source(10)
    assert world.create_emitter().id == 11
    with pytest.raises(ValueError):
        world.create_source(10)
    with pytest.raises(ValueError):
        world.create_emitter(id=11)
    assert world.create_emitter(id=10).id == 10  # one counter, clashes per kind
    assert world.get_source(10) is s10 and world.sources[10] is s10
    assert world.get_emitter(2) is e2 and world.emitters[2] is e2
    assert world.get_source(2) is None and world.get_emitter(99) is None
    assert sorted(world.sources) == [1, 10] and sorted(world.emitters) == [2, 10, 11]
    world.sources.clear()
    assert len(world.sources) == 2


def test_shared_play_state(world):
    s = world.create_source()
    a, b, loose = world.create_emitter(), world.create_emitter(), world.create_emitter()
    a.source = s
    b.source = s
    assert a.source is s and set(s.emitters) == {a.id, b.id} and s.emitters[a.id] is a
    a.state = State.PAUSE
    assert (s.state, a.state, b.state, loose.state) == (State.PAUSE,) * 3 + (State.NONE,)
    s.state = State.PLAY
    assert (a.state, b.state) == (State.PLAY, State.PLAY)
    b.source = None
    b.state = State.STOP
    assert set(s.emitters) == {a.id} and (s.state, a.state) == (State.PLAY, State.PLAY)
    with kelo.World() as other:
        with pytest.raises(ValueError):
            b.source = other.create_source()
    assert b.source is None


def test_emitter_round_trips(world):
    e = world.create_emitter(["front", "rear"])
    assert e.labels == ("front", "rear")
    assert (e.position, e.rotation) == ((0, 0, 0), (0, 0, 0, 1))
    assert (e.max_back, e.max_front, e.min_back, e.min_front) == (10, 10, 0, 0)
    assert (e.gain, e.extra, e.spatialize) == (1.0, 0.0, True)
    e.set_transform(position=(1.5, -2, 3))
    e.set_transform(rotation=[0, 0, 1, 0])
    e.set_transform()
    assert (e.position, e.rotation) == ((1.5, -2, 3), (0, 0, 1, 0))
    e.set_hull(1, 2, 3, 4.5)
    assert (e.max_back, e.max_front, e.min_back, e.min_front) == (1, 2, 3, 4.5)
    e.set_param(gain=0.5)
    assert (e.spatialize, e.extra, e.gain) == (True, 0.0, 0.5)
    e.set_param(spatialize=False, extra=0.25)  # every value at once, like the library's
    assert (e.spatialize, e.extra, e.gain) == (False, 0.25, 1.0)
    for bad in ({"position": (1, 2)}, {"rotation": (0, 0, 1)}):
        with pytest.raises(ValueError):
            e.set_transform(**bad)
    with pytest.raises(TypeError):
        e.set_transform(position=("a", 2, 3))
    assert e.position == (1.5, -2, 3)


def test_source_params(world):
    s = world.create_source()
    assert (s.loop, s.pitch, s.duration, s.state) == (False, 1.0, 0.0, State.NONE)
    s.set_param(loop=True)
    assert (s.loop, s.pitch) == (True, 1.0)
    s.set_param(pitch=2.5)
    assert (s.loop, s.pitch) == (False, 2.5)


def test_listener_and_switches(world):
    assert (world.listener_position, world.listener_rotation) == ((0, 0, 0), (0, 0, 0, 1))
    world.set_listener_transform(position=(1, 2, 3))
    world.set_listener_transform(rotation=(0, 1, 0, 0))
    assert (world.listener_position, world.listener_rotation) == ((1, 2, 3), (0, 1, 0, 0))
    with pytest.raises(ValueError):
        world.set_listener_transform(position=(1, 2, 3, 4))
    with pytest.raises(TypeError):
        world.set_listener_transform(rotation=(0, None, 0, 1))
    assert world.listener_position == (1, 2, 3)
    world.enabled = False
    world.spatialize = False
    assert (world.enabled, world.spatialize) == (False, False)
    world.enabled = True
    assert (world.enabled, world.spatialize) == (True, False)


def test_labels_refuse_bare_str(world):
    with pytest.raises(TypeError):
        world.create_emitter("front")
    assert world.emitters == {}
    assert world.create_emitter(("a b", "c")).labels == ("a b", "c")
