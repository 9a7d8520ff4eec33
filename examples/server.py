#!/usr/bin/python3
"""A sound server in Python: client applications play its sounds by id.

    server.py --sound 1=bell.wav --sound 2=http://media.local/rain.wav
"""
import argparse
import re
import signal

import kelo


class SoundServer(kelo.Server):
    def __init__(self, sounds, **options):
        self.sounds = sounds  # {id: path or URL}
        super().__init__(**options)

    def reset_world(self):
        # A client's reset empties the world, our own sounds included: put them back.
        super().reset_world()
        self.load_sounds()

    def load_sounds(self):
        for ident, location in self.sounds.items():
            (self.get_source(ident) or self.create_source(ident)).set_data_from_url(location)


parser = argparse.ArgumentParser(description="A kelo sound server.")
parser.add_argument("-s", "--sound", action="append", default=[], metavar="ID=PATH_OR_URL")
parser.add_argument("-b", "--backend", default="openal", metavar="TYPE[:PARAMETERS]")
parser.add_argument("--host", default="", help="the address to listen on (default: all)")
parser.add_argument("-p", "--port", type=int, default=0, help="the port (default: a free one)")
parser.add_argument("--no-multicast", action="store_true", help="do not announce the server")
args = parser.parse_args()
sounds = {}
for text in args.sound:
    ident, _, where = text.partition("=")
    number = int(ident) if re.fullmatch(r"-?[0-9]{1,5}", ident) else 0
    if not -32768 <= number <= 32767 or number == 0 or number in sounds or not where:
        parser.error(f"--sound {text}: not ID=PATH_OR_URL, an id from -32768 to 32767 but 0, once")
    sounds[number] = where
if not 0 <= args.port <= 65535:
    parser.error(f"--port: {args.port} is not in 0..65535")

with SoundServer(sounds, port=args.port, host=args.host,
                 multicast=not args.no_multicast) as server:
    kind, _, params = args.backend.partition(":")
    try:
        server.add_backend(kind, params)
    except ValueError as error:
        parser.error(f"--backend: {error}")
    server.load_sounds()
    signal.signal(signal.SIGTERM, lambda *_: server.stop())
    print(f"listening on {server.host}:{server.port}", flush=True)
    try:
        server.run()
    except KeyboardInterrupt:
        print("stopped")
