#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""trace_test.py KORVANE-TV CLIPS: what --trace records, read by protoc and compared with the CSV.

Field numbers are those of Perfetto's published format, so that a fault of the encoder shows. As
Perfetto does, the reader sorts by time; what has the same time stays in the order of the file.
"""
import csv
import json
import os
import resource
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from collections import defaultdict

KORVANE_TV, CLIPS = sys.argv[1:3]
BEGIN, END, INSTANT, COUNTER = 1, 2, 3, 4
ON_TIME, LATE, EARLY, DROPPED = 1, 2, 3, 4

PLAYS = {  # name: (options, present types that must come, jank types that must come)
    "smooth": ("24.mp4", {ON_TIME}, {1}),
    "underflow": ("30.mp4 --audio-underflow 1s:700ms", {ON_TIME}, {1}),
    "stall": ("24.mp4 --video-stall 1s:600ms", {ON_TIME, LATE, DROPPED}, {1, 64, 64 | 1024}),
    "seek": ("25.mp4 --seek 1s:0s --flush-at 2s", {ON_TIME, DROPPED}, {1}),
    "peek": ("24.mp4 --peek --rate 50", {ON_TIME, EARLY}, {1}),
    "no sound": ("60.mp4 --no-audio --rate 59.94", {ON_TIME}, {1}),
}


def message(lines):
    """A message of `protoc --decode_raw`: lists of values by field number."""
    fields = defaultdict(list)
    for line in lines:
        text = line.strip()
        if text == "}":
            break
        if text.endswith(" {"):
            fields[int(text[:-2])].append(message(lines))
        else:
            number, value = text.split(": ", 1)
            value = value[1:-1] if value[0] == '"' else int(value, 0)
            fields[int(number)].append(value)
    return fields


def without_cut_packet(data):
    """A kill may cut the last packet; the Perfetto UI leaves it out, too."""
    at = end = 0
    while at < len(data):
        size = shift = 0
        at += 1
        while at < len(data) and data[at] >= 128:
            size |= (data[at] & 127) << shift
            at, shift = at + 1, shift + 7
        at += 1 + (size | data[at:at + 1].ljust(1, b"\0")[0] << shift)
        end = at if at <= len(data) else end
    return data[:end]


class Track:
    def __init__(self):
        self.name, self.parent, self.thread = "", 0, False
        self.open, self.slices, self.instants, self.counts = [], [], [], []


class Trace:
    def __init__(self, data):
        raw = subprocess.run(["protoc", "--decode_raw"], input=data, check=True,
                             capture_output=True).stdout.decode()
        packets = message(iter(raw.splitlines()))[1]
        self.tracks, self.names, self.log = defaultdict(Track), {}, []
        self.flows, self.timeline, cookies = defaultdict(list), defaultdict(list), {}
        assert 6 in packets[0], "the clocks come first"
        timed = [p for p in packets if 8 in p]
        for packet in packets:
            for entry in packet[60]:
                track = self.tracks[entry[1][0]]
                track.name = (entry[2] or [(entry[4] or entry[3])[0][5 if entry[4] else 6][0]])[0]
                track.parent, track.thread = entry[5], bool(entry[4])
            for entry in packet[12]:
                self.names.update({name[1][0]: name[2][0] for name in entry[2]})
        for packet in sorted(timed, key=lambda p: p[8][0]):
            assert packet[58] == [3] and packet[10] == [1]
            for event in packet[11]:
                self.event(event, packet[8][0])
            for event in packet[76]:
                ((kind, (frame,)),) = event.items()
                if kind == 5:
                    key, begun = cookies.pop(frame[1][0])
                    self.timeline[key].append((begun, packet[8][0]))
                else:
                    cookies[frame[1][0]] = (kind, frame[2][0], *verdict(kind, frame)), packet[8][0]
            self.log += [line for entry in packet[39] for line in entry[1]]
        self.unended = cookies

    def event(self, event, ns):
        kind, track = event[9][0], self.tracks[event[11][0]]
        assert track.name, "described before its first event"
        name = (event[23] or [self.names.get(number) for number in event[10]] or [""])[0]
        args = {a[10][0]: (a[4] or a[6])[0] for a in event[4]}
        for flow in event[47] + event[48]:
            self.flows[flow - 1].append((track.name, ns, flow in event[48]))
        if kind == BEGIN:
            track.open.append((name, ns, args))
        elif kind == END:
            begun = track.open.pop()
            track.slices.append((begun[0], begun[1], ns, begun[2]))
        elif kind == INSTANT:
            track.instants.append((name, ns, args))
        else:
            track.counts.append((ns, event[30][0]))

    def named(self, name):
        return next((t for t in self.tracks.values() if t.name == name), Track())


def verdict(kind, frame):
    """Present type and jank of an actual frame."""
    at = {2: (4, 7), 4: (6, 9)}.get(kind)
    return (frame[at[0]][0], frame[at[1]][0]) if at else ()


class TraceTest(unittest.TestCase):
    def setUp(self):
        self.scratch = tempfile.TemporaryDirectory()
        self.addCleanup(self.scratch.cleanup)

    def path(self, name):
        return os.path.join(self.scratch.name, name)

    def read(self, name, mode="r"):
        with open(self.path(name), mode) as file:
            return file.read()

    def play(self, options, *outputs, status=0, **how):
        film, *rest = options.split()
        command = [KORVANE_TV, "play", os.path.join(CLIPS, film), *rest, "--quiet"]
        for output in outputs:
            command += ["--" + output, self.path(output)]
        run = subprocess.run(command, capture_output=True, text=True, **how)
        self.assertEqual(run.returncode, status, run.stderr)
        return run

    def test_agrees_with_the_ledger(self):
        for name, (options, presents, janks) in PLAYS.items():
            with self.subTest(name):
                self.play(options, "events")
                without = self.read("events")
                self.play(options, "events", "trace", "csv", "json")
                self.assertEqual(self.read("events"), without)
                self.check(presents, janks)

    def test_real_time(self):
        self.play("24.mp4 --clock real", "trace", "csv", "json")
        self.check({ON_TIME}, {1})

    def check(self, presents, janks):
        trace = Trace(self.read("trace", "rb"))
        rows = list(csv.DictReader(self.read("csv").splitlines()))
        summary = json.loads(self.read("json"))
        shown = [row for row in rows if row["outcome"] == "shown"]
        self.assertEqual(trace.unended, {}, "frames")
        (_, start, facts), = trace.named("playback").instants
        self.assertEqual(facts["command_line"], summary["command_line"])
        self.assertEqual([s[0] for s in trace.named("playback").slices], [summary["verdict"]])
        self.assertEqual(summary["trace_lost"], 0)

        def us(ns):
            return str(int((ns - start) / 1000))

        screen = trace.named("screen, tunnel 0").slices
        vsyncs = [ns for ns, _ in trace.named("vsync").counts]
        self.assertEqual(
            [("frame " + r["frame"], r["shown_us"], r["released_us"], r["dwell_vsyncs"])
             for r in shown],
            [(name, us(begin), us(end), str(sum(begin <= v < end for v in vsyncs)))
             for name, begin, end, _ in screen])

        actual = {kind[1]: (kind[2], kind[3], span) for kind, (span,) in trace.timeline.items()
                  if kind[0] == 4}
        for row in rows:
            present, _, (begin, end) = actual[int(row["frame"])]
            self.assertEqual(present == DROPPED, row["outcome"] != "shown", row)
            if row["outcome"] == "shown":
                self.assertEqual((us(begin), us(end)), (row["shown_us"], row["released_us"]))
        self.assertEqual(len(actual), len(rows))
        self.assertLessEqual(presents, {present for present, _, _ in actual.values()})
        self.assertLessEqual(janks, {jank for _, jank, _ in actual.values()})
        period_us = 1e6 / summary["display_hz"]
        self.assertEqual(
            [(str(kind[1]), kind[2]) for kind in trace.timeline if kind[0] == 2],
            [(r["vsync"], LATE if r["present_us"] != "at_once" and
              int(r["shown_us"]) - int(r["present_us"]) >= period_us else ON_TIME) for r in shown])

        self.assertEqual(set(trace.flows), {int(row["frame"]) for row in rows})
        for row in rows:
            way = trace.flows[int(row["frame"])]
            self.assertEqual((way[0][0], us(way[0][1])), ("handed in", row["sent_us"]))
            self.assertEqual([ends for _, _, ends in way], [False] * (len(way) - 1) + [True])
            self.assertEqual("screen, tunnel 0" in [track for track, _, _ in way], row in shown)
            if row["returned_us"]:
                self.assertEqual((way[-1][0], us(way[-1][1])), ("back", row["returned_us"]))

        for track in list(trace.tracks.values()):
            if trace.tracks[(track.parent or [0])[0]].name != "sound":  # whose states go on
                self.assertEqual(track.open, [], track.name)
        sections = [s[0] for t in list(trace.tracks.values()) if t.thread for s in t.slices]
        queued = sum(bool(row["queued_us"]) for row in rows)
        self.assertIn(sections.count("showFrame") - queued, range(3), "a flush may refuse it")
        passed = {value for _, value in trace.named("getShowFramePtsTunnel").counts}
        self.assertLessEqual({int(r["media_us"]) for r in shown}, passed)
        self.assertGreater(len(trace.log), 5)
        holders = {s[0] for t in list(trace.tracks.values()) if t.name.startswith("buffer ")
                   for s in t.slices}
        self.assertEqual(holders, {"library", "tunnel", "screen", "panel"})

    def test_a_full_disk_leaves_whole_packets(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (95001, 95001))  # a frame buffer fits

        run = self.play("60.mp4", "trace", status=1, preexec_fn=limit)
        self.assertIn("File too large", run.stderr)
        self.assertGreater(len(Trace(self.read("trace", "rb")).named("vsync").counts), 10)

    def test_a_killed_run_leaves_what_was_written(self):
        trace = self.path("killed")
        for clock in ("real", "virtual"):
            run = subprocess.Popen([KORVANE_TV, "play", os.path.join(CLIPS, "24.mp4"), "--clock",
                                    clock, "--trace", trace, "--quiet"], stdout=subprocess.DEVNULL)
            while run.poll() is None and not (os.path.exists(trace)
                                              and os.path.getsize(trace) > 10000):
                time.sleep(0.001)
            run.send_signal(signal.SIGKILL)
            run.wait()
            packets = without_cut_packet(self.read("killed", "rb"))
            self.assertGreater(len(Trace(packets).named("vsync").counts), 1, clock)
            os.unlink(trace)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[3:])
