"""Objects that outlive what they stand for raise instead of crashing. Each case runs in its own
interpreter, so that a crash fails that case only."""

import textwrap

import pytest

# Each snippet prints the message of every RuntimeError that `use` raises, one per line.
PRELUDE = textwrap.dedent("""
    import gc, sys, time
    import kelo

    def use(action):
        try:
            action()
        except RuntimeError as error:
            print(error)
        else:
            print("no error")
""")

CASES = {
    "delete": ("""
        w = kelo.World()
        s = w.create_source()
        e = w.create_emitter()
        s.delete(); e.delete()
        print(s.deleted, e.deleted)
        use(lambda: s.state)
        use(lambda: s.set_param(loop=True))
        use(lambda: e.position)
        use(lambda: e.set_hull(1, 2, 3, 4))
        use(lambda: e.delete())
        print(sorted(w.sources), sorted(w.emitters))
    """, ["True True", "source 1 was deleted", "source 1 was deleted", "emitter 2 was deleted",
          "emitter 2 was deleted", "emitter 2 was deleted", "[] []"]),
    "clear_world": ("""
        w = kelo.World()
        s = w.create_source(3)
        e = w.create_emitter(id=12)
        e.source = s
        w.clear_world()
        use(lambda: s.emitters)
        use(lambda: setattr(e, "state", kelo.State.PLAY))
        print(w.create_source().id)
    """, ["source 3 was deleted", "emitter 12 was deleted", "13"]),
    "reset_world": ("""
        w = kelo.World()
        s = w.create_source()
        w.reset_world()
        use(lambda: s.set_data(None, 8000))
        use(lambda: s.data)
    """, ["source 1 was deleted"] * 2),
    "close": ("""
        w = kelo.World()
        s = w.create_source()
        e = w.create_emitter(["a"])
        b = w.add_backend("silent")
        w.close()
        print(w.closed)
        use(lambda: s.pitch)
        use(lambda: e.labels)
        use(lambda: b.world)
        use(lambda: w.create_source())
        use(lambda: w.update())
        use(lambda: w.enabled)
        w.close()
    """, ["True", "source 1 was deleted", "emitter 2 was deleted", "backend 'silent' was deleted",
          "the world was closed", "the world was closed", "the world was closed"]),
    "backends": ("""
        class Mine(kelo.Backend):
            pass
        kelo.register_backend("mine", Mine)
        w = kelo.World()
        m = w.add_backend("mine", "labels=x")
        w.delete_all_backends()
        use(lambda: m.world)
        use(lambda: m.labels)
        use(lambda: m.param("labels"))
        use(lambda: m.set_source_duration(w.create_source(), 1.0))
        print(m.deleted, w.backends)
    """, ["backend 'mine' was deleted"] * 4 + ["True []"]),
    "server_reset": ("""
        server = kelo.Server(0, "127.0.0.1", multicast=False)
        s = server.create_source(5)
        client = kelo.World()
        client.add_backend("client", f"servers=127.0.0.1:{server.port}")
        deadline = time.monotonic() + 10
        while not s.deleted and time.monotonic() < deadline:
            client.update()
            server.wait_for_events(0.05)
            server.receive()
        use(lambda: s.loop)
        print(server.sources)
        client.close()
        server.close()
    """, ["source 5 was deleted", "{}"]),
}


@pytest.mark.parametrize("case", sorted(CASES))
def test_use_after_deletion(run_python, case):
    code, expected = CASES[case]
    rc, out, err = run_python(PRELUDE + textwrap.dedent(code))
    assert rc == 0, err
    # The client backend's receive thread says goodbye on stdout too.
    lines = [line for line in out.splitlines() if not line.startswith("INFO: exit ClientBackend")]
    assert lines == expected


def test_parts_keep_their_world(run_python):
    rc, out, err = run_python(PRELUDE + textwrap.dedent("""
        w = kelo.World()
        s = w.create_source()
        e = w.create_emitter()
        e.source = s
        del w
        gc.collect()
        s.set_param(pitch=2.0)
        e.state = kelo.State.PLAY
        print(s.pitch, s.state == kelo.State.PLAY, e.source is s, s.deleted)
        del s
        gc.collect()
        print(e.source.pitch)
    """))
    assert rc == 0, err
    assert out.splitlines() == ["2.0 True True False", "2.0"]


@pytest.mark.parametrize("collect", ["at_exit", "gc"])
def test_world_with_python_backend_collected(run_python, collect):
    rc, out, err = run_python(PRELUDE + textwrap.dedent(f"""
        class Keeper(kelo.Backend):
            def __init__(self):
                super().__init__()
                self.keep = self.world  # a cycle through the world
                self.destroyed = 0

            def destroy_emitter(self, emitter):
                self.destroyed += 1

        kelo.register_backend("keeper", Keeper)
        w = kelo.World()
        b = w.add_backend("keeper")
        s = w.create_source()
        w.create_emitter().source = s
        if "{collect}" == "gc":
            del w, b, s
            gc.collect()
        print("done")
    """))
    assert rc == 0, err
    assert out.splitlines() == ["done"]
    assert "Fatal Python error" not in err and "Traceback" not in err
