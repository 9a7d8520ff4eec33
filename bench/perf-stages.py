#!/usr/bin/env python3
"""Splits a perf profile of load_remote into the stages of the path an event takes.

Input: the text of `perf script --no-inline -F tid,time,ip,sym,dso` for a recording made with
call graphs (`perf record -g` or `--call-graph dwarf`). Each sample goes to the stage of the
innermost frame that belongs to one; what matches none is the benchmark's own loop, start-up
or waiting. For the hot functions of each stage it prints, like perf report, the share of all
samples in the window where the function is on the stack (children) and where it is the leaf
(self).

    perf-stages.py PROFILE.txt [--from T] [--to T] [--threads]
"""
import argparse
import collections
import re
import signal
import sys

# Innermost first wins, so the order between stages does not matter; a function belongs to
# the stage that does its work.
STAGES = [
    ("world fan-out", [r"^Kelo::World::set\w+", r"^Kelo::Emitter::set\w+",
                       r"^Kelo::WorldPart::\w+"]),
    ("client backend", [r"^Kelo::ClientBackend::(set\w+|send|fill)"]),
    ("encoder", [r"^Lirra::Event::(encode|send|release)", r"::addFields$",
                 r"^Lirra::Event::add"]),
    ("send queue", [r"^Lirra::MultiCommunicator::write", r"^Lirra::Communicator::write",
                    r"^Lirra::detail::Connection::(write|flush)"]),
    # The network threads of both ends: waiting for and dispatching socket readiness.
    ("event loop (asio, both ends)", [r"^Lirra::detail::NetworkThread::run",
                                      r"^boost::asio::detail::(scheduler|epoll_reactor)"]),
    ("socket (kernel TCP, both ends)", [r"^__sys_sendto$", r"^tcp_sendmsg", r"^__libc_send",
                                        r"^tcp_v4_rcv$", r"^__netif_receive_skb",
                                        r"^net_rx_action$"]),
    ("server read", [r"^Lirra::detail::Connection::(read|chunkRead|received|takeFrames)",
                     r"^Lirra::Communicator::refill", r"^__libc_recv", r"^__sys_recvfrom$",
                     r"^Lirra::MultiCommunicator::(receiveCommunicator|communicatorsAvail|"
                     r"waitForInput)",
                     r"^boost::asio::detail::reactive_socket_recv_op"]),
    ("decoder", [r"^Lirra::Event::(receive|decode|decodeInto|take|get)", r"::getFields$",
                 r"^Lirra::EventType::", r"::create$", r"readExact"]),
    ("server world", [r"^Kelo::Server::(receive|dispatchEvent|set\w+|apply\w*)",
                      r"^Kelo::World::dispatch", r"^\(anonymous namespace\)::Watcher::",
                      r"^__dynamic_cast$", r"^__cxxabiv1::"]),
]
# Costs that cut across the stages: a sample counts when one of these is on its stack.
ACROSS = [
    ("page faults (fresh memory touched)", [r"^exc_page_fault$"]),
    ("memory given back to the kernel (munmap, brk)", [r"^__x64_sys_munmap$", r"^__do_sys_brk$"]),
    ("malloc and free", [r"^(__libc_malloc|_int_malloc|__GI___libc_free|_int_free|"
                         r"operator new|cfree)"]),
    ("mutex and condition variable (futex)", [r"^(pthread_mutex_lock|pthread_mutex_unlock|"
                                              r"__pthread_mutex\w*|futex_\w+|__x64_sys_futex)"]),
    ("wake-ups of another thread", [r"^try_to_wake_up$"]),
    ("event loop wait (epoll)", [r"^(epoll_wait|__x64_sys_epoll_wait|do_epoll_wait)$"]),
]
COMPILED = [(name, [re.compile(p) for p in patterns]) for name, patterns in STAGES]


ACROSS_COMPILED = [(name, [re.compile(p) for p in patterns]) for name, patterns in ACROSS]


SERVER_SIDE = re.compile(r"^Kelo::Server::(receive|dispatchEvent)")
CLIENT_STAGES = ("world fan-out", "client backend")


def stage_of(symbol, server_side=False):
    for name, patterns in COMPILED:
        if any(p.search(symbol) for p in patterns):
            return "server world" if server_side and name in CLIENT_STAGES else name
    return None


def samples(lines):
    head = re.compile(r"^\s*(\d+)\s+([\d.]+):")
    frame = re.compile(r"^\s+[0-9a-f]+\s+(.*?)\s+\(([^)]*)\)$")
    tid, time, frames = None, None, []
    for line in lines:
        m = head.match(line)
        if m:
            if tid is not None:
                yield tid, time, frames
            tid, time, frames = int(m.group(1)), float(m.group(2)), []
            continue
        m = frame.match(line)
        if m and tid is not None:
            symbol = re.sub(r"\+0x[0-9a-f]+$", "", m.group(1))
            frames.append(symbol)
    if tid is not None:
        yield tid, time, frames


def short(symbol, width=70):
    symbol = re.sub(r"\(.*\)", "()", symbol) if len(symbol) > width else symbol
    return symbol if len(symbol) <= width else symbol[: width - 3] + "..."


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("profile")
    parser.add_argument("--from", dest="start", type=float, default=0.0)
    parser.add_argument("--to", dest="end", type=float, default=float("inf"))
    parser.add_argument("--threads", action="store_true",
                        help="list the threads: first and last sample, samples")
    parser.add_argument("--top", type=int, default=4, help="hot functions listed per stage")
    parser.add_argument("--freq", type=float, default=2000,
                        help="samples per second of CPU time (perf record -F)")
    args = parser.parse_args()

    with open(args.profile, errors="replace") as f:
        all_samples = [s for s in samples(f) if args.start <= s[1] <= args.end]
    if not all_samples:
        sys.exit("perf-stages: no samples in that window")
    if args.threads:
        seen = collections.OrderedDict()
        for tid, time, _ in all_samples:
            first, last, n = seen.get(tid, (time, time, 0))
            seen[tid] = (first, time, n + 1)
        for tid, (first, last, n) in seen.items():
            print(f"{tid} {first:.3f} {last:.3f} {n}")
        return

    total = len(all_samples)
    by_stage = collections.Counter()
    across = collections.Counter()
    threads = collections.defaultdict(collections.Counter)
    children = collections.defaultdict(collections.Counter)
    selfs = collections.defaultdict(collections.Counter)
    for tid, _, frames in all_samples:
        for name, patterns in ACROSS_COMPILED:
            if any(p.search(symbol) for symbol in frames for p in patterns):
                across[name] += 1
        # The server applies what it receives through its own world: there, the world's
        # functions are the server world's work, not a client's fan-out.
        server_side = any(SERVER_SIDE.search(symbol) for symbol in frames)
        owner = None
        for symbol in frames:
            owner = stage_of(symbol, server_side)
            if owner:
                break
        by_stage[owner or "other (benchmark loop, start-up, waiting)"] += 1
        threads[tid][owner or "other"] += 1
        on_stack = set()
        for symbol in frames:
            s = stage_of(symbol, server_side)
            if s and symbol not in on_stack:
                on_stack.add(symbol)
                children[s][symbol] += 1
        if frames:
            selfs[owner][frames[0]] += 1

    print(f"{total} samples from {all_samples[0][1]:.3f} to {all_samples[-1][1]:.3f}")
    print("| stage | samples (innermost stage) | hot functions: children / self |")
    print("|---|---|---|")
    for name, _ in STAGES + [("other (benchmark loop, start-up, waiting)", None)]:
        n = by_stage.get(name, 0)
        hot = []
        for symbol, c in children[name].most_common(args.top):
            hot.append(f"`{short(symbol)}` {100 * c / total:.1f} / "
                       f"{100 * selfs[name][symbol] / total:.1f}")
        leaves = [f"`{short(s)}` {100 * c / total:.1f}"
                  for s, c in selfs[name].most_common(3) if s not in children[name]]
        text = "; ".join(hot)
        if leaves:
            text += ("; " if text else "") + "leaves: " + ", ".join(leaves)
        print(f"| {name} | {100 * n / total:.1f}% | {text} |")
    print()
    print("| across the stages | share of the samples (on the stack) |")
    print("|---|---|")
    for name, _ in ACROSS:
        print(f"| {name} | {100 * across.get(name, 0) / total:.1f}% |")
    print()
    print("| thread | CPU seconds | stages (share of the thread's samples) |")
    print("|---|---|---|")
    for tid, counts in sorted(threads.items(), key=lambda t: -sum(t[1].values())):
        n = sum(counts.values())
        parts = ", ".join(f"{name} {100 * c / n:.0f}%" for name, c in counts.most_common(3))
        print(f"| {tid} | {n / args.freq:.2f} | {parts} |")


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # quietly, when piped into head
    main()
