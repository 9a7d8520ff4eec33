"""Backends written in Python: replay, labels, errors, registry, built-in handles."""

import itertools
import logging

import pytest

import kelo

State = kelo.State
NOTIFY_ERROR = "a backend cannot change the world from a notification"
_names = itertools.count()


@pytest.fixture
def register():
    """Registers a class under a name of its own (types outlive worlds, so never reused)."""

    def add(cls, base="py"):
        name = f"{base}{next(_names)}"
        kelo.register_backend(name, cls)
        return name

    return add


@pytest.fixture
def python_log(caplog):
    kelo.log_to_python("kelo")
    caplog.set_level(logging.DEBUG, logger="kelo")
    yield caplog
    kelo.flush_log()
    kelo.log_to_stderr()


SOURCE_CALLS = ("create_source", "set_source_data", "set_source_param", "set_source_state")
EMITTER_VALUES = {
    "create_emitter": lambda e: e.labels,
    "set_emitter_transform": lambda e: (e.position, e.rotation),
    "set_emitter_hull": lambda e: (e.max_back, e.max_front, e.min_back, e.min_front),
    "set_emitter_param": lambda e: (e.spatialize, e.extra, e.gain),
    "set_emitter_connection": lambda e: e.source.id if e.source else None,
    "set_emitter_state": lambda e: e.state,
}


class Recorder(kelo.Backend):
    """Notes (method, id, values) for every notification."""

    def __init__(self):
        super().__init__()
        self.calls = []

    def set_enabled(self):
        self.calls.append(("set_enabled", None, self.world.enabled))

    def set_listener_transform(self):
        w = self.world
        self.calls.append(("set_listener_transform", None,
                           (w.listener_position, w.listener_rotation)))

    def reset_backend(self):
        self.calls.append(("reset_backend", None, ()))

    def update(self):
        self.calls.append(("update", None, ()))


def _noting(method):
    read = EMITTER_VALUES.get(method) or (
        (lambda s: (s.data_type, s.loop, s.pitch, s.state)) if method in SOURCE_CALLS
        else (lambda part: ()))
    return lambda self, part: self.calls.append((method, part.id, read(part)))


for _method in SOURCE_CALLS + tuple(EMITTER_VALUES) + ("destroy_source", "destroy_emitter"):
    setattr(Recorder, _method, _noting(_method))


def test_replay_then_changes(world, register):
    name = register(Recorder)
    world.set_listener_transform(position=(1, 2, 3))
    s = world.create_source()                                     # 1
    s.set_param(loop=True, pitch=1.5)
    front = world.create_emitter(["front", "side"])              # 2
    front.set_transform(position=(4, 5, 6))
    front.set_hull(1, 2, 3, 4)
    front.set_param(gain=0.5)
    front.source = s
    front.state = State.PLAY
    rear = world.create_emitter(["rear"])                         # 3
    plain = world.create_emitter()                                # 4
    b = world.add_backend(name, "labels=front")
    assert isinstance(b, Recorder) and b.world is world and b.type == name
    assert b.labels == ("front",) and b.param("labels") == "front"
    assert b.param("nothing") is None and b.param("nothing", "x") == "x"
    assert b.has_same_label(front) and not b.has_same_label(rear) and b.has_same_label(plain)
    src = ("none", True, 1.5, State.PLAY)
    emitter_calls = tuple(EMITTER_VALUES)  # in the replay's order
    front_values = (("front", "side"), ((4, 5, 6), (0, 0, 0, 1)), (1, 2, 3, 4), (True, 0.0, 0.5),
                    1, State.PLAY)
    plain_values = ((), ((0, 0, 0), (0, 0, 0, 1)), (10, 10, 0, 0), (True, 0.0, 1.0), None,
                    State.NONE)
    assert b.calls == [
        ("set_enabled", None, True),
        ("set_listener_transform", None, ((1, 2, 3), (0, 0, 0, 1))),
        *[(m, 1, src) for m in SOURCE_CALLS],
        *[(m, 2, v) for m, v in zip(emitter_calls, front_values)],
        *[(m, 4, v) for m, v in zip(emitter_calls, plain_values)],
    ]
    b.calls.clear()
    rear.set_transform(position=(9, 9, 9))
    rear.state = State.PLAY
    front.set_transform(position=(7, 8, 9))
    s.state = State.PAUSE
    world.spatialize = False
    world.enabled = True
    assert world.update() is True
    world.update()
    front.delete()
    rear.delete()
    s.delete()
    assert b.calls == [
        ("set_emitter_transform", 2, ((7, 8, 9), (0, 0, 0, 1))),
        ("set_source_state", 1, ("none", True, 1.5, State.PAUSE)),
        ("set_emitter_state", 2, State.PAUSE),
        ("set_enabled", None, True),
        ("update", None, ()),
        ("update", None, ()),
        ("set_emitter_connection", 2, None),
        ("destroy_emitter", 2, ()),
        ("destroy_source", 1, ()),
    ]
    world.reset_world()
    assert b.calls[-2:] == [("destroy_emitter", 4, ()), ("reset_backend", None, ())]


def test_exception_logged_and_others_still_called(world, register, python_log):
    class Failing(kelo.Backend):
        def create_emitter(self, emitter):
            raise ZeroDivisionError(f"no room for {emitter.id}")

    failing = register(Failing, "failing")
    world.add_backend(failing)
    other = world.add_backend(register(Recorder))
    e = world.create_emitter()
    kelo.flush_log()
    head = f"Python backend '{failing}' failed in create_emitter:"
    records = [r for r in python_log.records if r.getMessage().startswith(head)]
    assert len(records) == 1 and records[0].levelno == logging.ERROR
    text = records[0].getMessage()
    assert "Traceback" in text and f"ZeroDivisionError: no room for {e.id}" in text
    assert ("create_emitter", e.id, ()) in other.calls
    assert world.get_emitter(e.id) is e


def test_init_raising_propagates(world, register):
    class Broken(kelo.Backend):
        def __init__(self):
            super().__init__()
            raise KeyError("no device")

    with pytest.raises(KeyError, match="no device"):
        world.add_backend(register(Broken))
    assert world.backends == []
    with pytest.raises(ValueError):
        world.add_backend("no-such-type")


def test_register_refusals_and_types(register):
    class Mine(kelo.Backend):
        pass

    for wrong in (object, Mine()):
        with pytest.raises(TypeError):
            kelo.register_backend("wrong", wrong)
    with pytest.raises(ValueError):
        kelo.register_backend("log", Mine)
    name = register(Mine)
    with pytest.raises(ValueError):
        kelo.register_backend(name, Mine)
    types = kelo.backend_types()
    assert types == sorted(types) and name in types
    assert {"client", "log", "openal", "play", "silent", "web"} <= set(types)
    assert "wrong" not in types


def test_unregister(register):
    name = register(Recorder)
    with pytest.raises(KeyError):
        kelo.unregister_backend("silent")
    with kelo.World() as w:
        w.add_backend(name)
        with pytest.raises(RuntimeError):
            kelo.unregister_backend(name)
    kelo.unregister_backend(name)
    assert name not in kelo.backend_types()
    with pytest.raises(KeyError):
        kelo.unregister_backend(name)


def test_builtin_handle(world):
    silent = world.add_backend("silent")
    assert type(silent) is kelo.Backend and silent.type == "silent"
    assert silent.world is world and not silent.deleted
    assert len(world.backends) == 1 and world.backends[0] is silent
    world.delete_all_backends()
    assert silent.deleted and world.backends == []
    with pytest.raises(RuntimeError, match="^backend 'silent' was deleted$"):
        silent.world


def test_duration_from_backend(world, register):
    class Timer(kelo.Backend):
        def set_source_param(self, source):
            self.set_source_duration(source, source.pitch * 2)

    world.add_backend(register(Timer))
    s = world.create_source()
    assert s.duration == 0.0
    s.set_param(pitch=1.25)
    assert s.duration == 2.5


def test_change_from_notification_refused(world, register):
    class Meddler(kelo.Backend):
        def __init__(self):
            super().__init__()
            self.errors = []

        def _try(self, change):
            try:
                change()
            except RuntimeError as error:
                self.errors.append(str(error))

        def create_emitter(self, emitter):
            self._try(lambda: self.world.create_source())
            self._try(lambda: emitter.set_hull(1, 1, 1, 1))
            self._try(lambda: setattr(emitter, "state", State.PLAY))
            self._try(lambda: self.world.update())
            self._try(lambda: self.world.add_backend("silent"))
            self._try(lambda: self.world.close())
            # Reading is allowed.
            self.seen = (len(self.world.emitters), emitter.max_back)

    b = world.add_backend(register(Meddler))
    e = world.create_emitter()
    assert b.errors == [NOTIFY_ERROR] * 6
    assert b.seen == (1, 10)
    assert world.sources == {} and e.max_back == 10 and e.state == State.NONE
    assert len(world.backends) == 1 and not world.closed
