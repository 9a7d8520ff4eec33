#!/usr/bin/python3
"""A pulsing tone circling the listener, rendered through OpenAL.

    circle.py                       plays it on the sound device
    circle.py --wav circle.wav      no sound device: renders what would be heard into a WAV file
                                    (in real time); KELO_WAV=circle.wav does the same

The sound starts in front of the listener and passes to the right, behind and to the left.
"""
import argparse
import math
import os
import tempfile
import time

import numpy as np

import kelo

RATE = 44100  # samples per second
ORBIT = 4.0  # seconds per circle
FRAMES = 50  # updates per second


def pulses(seconds=2.0):
    """A bright tone pulsing four times a second: easy to follow around the head."""
    t = np.arange(int(seconds * RATE)) / RATE
    envelope = np.sin(np.pi * np.fmod(4 * t, 1.0)) ** 2
    wave = np.sin(2 * np.pi * 660 * t) + 0.3 * np.sin(2 * np.pi * 1320 * t)
    return np.round(16000 * envelope * wave).astype(np.int16)


def render_into(wav):
    """Points OpenAL Soft at its wave writer instead of a device. It reads its configuration
    once, when the first OpenAL device opens: so this must come before add_backend("openal")."""
    with tempfile.NamedTemporaryFile("w", suffix=".alsoft.conf", delete=False) as conf:
        conf.write("[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n"
                   f"[wave]\nfile={os.path.abspath(wav)}\n")
    os.environ["ALSOFT_CONF"] = conf.name
    return conf.name


def main():
    parser = argparse.ArgumentParser(description="A sound circling the listener.")
    parser.add_argument("--seconds", type=float, default=6.0, help="how long (default 6)")
    parser.add_argument("--radius", type=float, default=2.0, help="metres (default 2)")
    parser.add_argument("--wav", default=os.environ.get("KELO_WAV") or None,
                        help="render into this WAV file instead of the sound device")
    args = parser.parse_args()
    if not 0 < args.seconds <= 3600:
        parser.error(f"--seconds: {args.seconds} is not in (0, 3600]")
    if not 0 < args.radius <= 1000:
        parser.error(f"--radius: {args.radius} is not in (0, 1000]")

    conf = render_into(args.wav) if args.wav else None
    try:
        with kelo.World() as world:
            world.add_backend("openal")
            sound = world.create_source()
            sound.set_data(pulses(), RATE)
            sound.set_param(loop=True)
            emitter = world.create_emitter(["circling"])
            # Full loudness within 1 m, fading with distance out to 12 m. (An inner range of 0
            # would leave it all but silent anywhere but on the listener.)
            emitter.set_hull(12, 12, 1, 1)
            emitter.source = sound
            emitter.state = kelo.State.PLAY

            start = time.monotonic()
            for frame in range(int(args.seconds * FRAMES)):
                time.sleep(max(0.0, start + frame / FRAMES - time.monotonic()))
                angle = 2 * math.pi * frame / FRAMES / ORBIT  # front, right, behind, left
                emitter.set_transform((args.radius * math.sin(angle), 0.0,
                                       -args.radius * math.cos(angle)))
                world.update()
            emitter.state = kelo.State.STOP
            played = sound.duration
    finally:
        if conf:
            os.remove(conf)

    if played == 0:
        print("OpenAL did not take the sound: is there a sound device? Try --wav FILE.")
        return 1
    print(f"a {played:.2f} s sound circled the listener at {args.radius:g} m for "
          f"{args.seconds:g} s, once round every {ORBIT:g} s")
    if args.wav:
        print(f"no sound device used; what would be heard is in {args.wav}")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
