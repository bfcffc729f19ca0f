#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""watch_test.py KORVANE-TV CLIPS: what --live draws on a terminal, read off it and compared with the
report of the same playback; and --window on a display of the test's own, its keys pressed, its sound and
pictures thrown away."""
import fcntl
import json
import os
import pty
import re
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

KORVANE_TV, CLIPS = sys.argv[1:3]


class Screen:
    """A terminal that knows the few codes of --live: rows of text, and where the cursor is."""

    def __init__(self):
        self.rows, self.row, self.column = [""], 0, 0

    def take(self, data):
        for code, text in re.findall(r"(\x1b\[\d*[A-Z]|\r|\n)|([^\x1b\r\n]+)", data):
            row = self.rows[self.row]
            if text:
                self.rows[self.row] = row[:self.column] + text + row[self.column + len(text):]
                self.column += len(text)
            elif code == "\r":
                self.column = 0
            elif code == "\n":
                self.row += 1
                self.rows += [""] * (self.row + 1 - len(self.rows))
            elif code.endswith("A"):
                self.row -= int(code[2:-1])
            elif code == "\x1b[K" or code == "\x1b[J":
                self.rows[self.row] = row[:self.column]
                if code.endswith("J"):
                    del self.rows[self.row + 1:]
            else:
                raise AssertionError(f"unknown code {code!r}")


def play(arguments, terminal="xterm", columns=80, rows=24, interrupt_after=None):
    """Plays with standard error on a terminal; what was written, and the process when it is over."""
    control, line = pty.openpty()
    fcntl.ioctl(line, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
    process = subprocess.Popen([KORVANE_TV, "play", *arguments], stdout=subprocess.PIPE, stderr=line,
                               env={**os.environ, "TERM": terminal}, text=True)
    os.close(line)
    began, written = time.monotonic(), ""
    while True:
        try:
            data = os.read(control, 65536)
        except OSError:  # the other end is closed
            break
        written += data.decode()
        if interrupt_after and time.monotonic() - began > interrupt_after:
            process.send_signal(signal.SIGINT)
            interrupt_after = None
    os.close(control)
    output = process.communicate(timeout=60)[0]
    return written, output, process.returncode


class Live(unittest.TestCase):
    def figures(self, clip, *options, **terminal):
        with tempfile.TemporaryDirectory() as folder:
            path = os.path.join(folder, "summary.json")
            written, _, status = play([f"{CLIPS}/{clip}", "--live", "--json", path, *options], **terminal)
            screen = Screen()
            screen.take(written)
            with open(path, encoding="utf-8") as file:
                return screen.rows, json.load(file), status, written

    def test_agrees_with_the_report(self):
        for clip, options in (("24.mp4", ()), ("25.mp4", ("--rate", "50")),
                              ("24.mp4", ("--no-audio",)),
                              ("24.mp4", ("--video-stall", "1s:600ms"))):
            with self.subTest(clip=clip, options=options):
                rows, summary, status, written = self.figures(clip, *options)
                self.assertEqual(status, 0)
                figures = dict(row.split(None, 1) for row in rows if row and row[0].isalpha())
                self.assertEqual(int(figures["drops"]), summary["frames_dropped"])
                self.assertIn(f"frame {summary['frames_in'] - 1} at vsync ", figures["screen"])
                self.assertIn(f", {summary['frames_in']} frames handed in", rows[-2])
                self.assertEqual(rows[-1], "", "what follows begins on a line of its own")
                dwells = [int(dwell) for dwell in re.findall(r"\d+", figures["dwell"])]
                pattern = re.findall(r"\d+", figures["pattern"])
                if pattern:
                    self.assertLessEqual(set(dwells[-10:-2]), set(map(int, pattern)))
                    self.assertEqual(sorted(map(int, pattern)),
                                     sorted(map(int, re.findall(r"\d+", summary["pattern"]))))

    def test_stays_within_a_small_terminal(self):
        rows, _, _, _ = self.figures("24.mp4", columns=30, rows=5)
        self.assertLessEqual(len(rows), 6)
        self.assertLess(max(map(len, rows)), 30)

    def test_degrades_to_the_usual_progress(self):
        _, _, _, written = self.figures("24.mp4", terminal="dumb")
        self.assertNotIn("\x1b", written)
        _, _, _, written = self.figures("24.mp4", "--quiet")
        self.assertIn("--live has no effect: --quiet is given", written)

    def test_ends_in_order_when_interrupted(self):
        rows, _, status, written = self.figures("24.mp4", "--clock", "real", interrupt_after=1)
        self.assertEqual(status, 128 + signal.SIGINT)
        self.assertEqual(rows[-1], "")
        redraws = written.count("dwell")
        self.assertTrue(5 <= redraws <= 45, f"{redraws} redraws")


class Window(unittest.TestCase):
    """Keys as a viewer presses them, and what the event log says that they did."""

    def run_window(self, clip, keys, environment, *options):
        with tempfile.TemporaryDirectory() as folder:
            paths = [os.path.join(folder, name) for name in ("events", "summary")]
            process = subprocess.Popen(
                [KORVANE_TV, "play", clip, "--window", "-q", "--events", paths[0], "--json", paths[1],
                 *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=environment, text=True)
            for key, wait in keys:
                time.sleep(wait)
                subprocess.run(["xdotool", "search", "--sync", "--onlyvisible", "--name", "korvane-tv",
                                "key", key], env=environment, check=True, timeout=20)
            error = process.communicate(timeout=60)[1]
            with open(paths[0], encoding="utf-8") as events, open(paths[1], encoding="utf-8") as summary:
                lines = [line.split(maxsplit=2) for line in events if not line.startswith("#")]
                return lines, json.load(summary), error, process.returncode

    @unittest.skipUnless(shutil.which("Xvfb") and shutil.which("xdotool"), "no xvfb or no xdotool")
    def test_keys_and_a_machine_without_sound(self):
        number, line = os.pipe()
        with subprocess.Popen(["Xvfb", "-displayfd", str(line), "-screen", "0", "640x480x24"],
                              pass_fds=[line], stderr=subprocess.DEVNULL) as display:
            name = ":" + os.read(number, 16).decode().strip()
            environment = {**os.environ, "DISPLAY": name, "SDL_AUDIODRIVER": "dummy"}
            try:
                keys = (("i", 4), ("space", 1), ("period", 1), ("space", 1), ("Right", 1), ("q", 1))
                lines, summary, error, status = self.run_window(
                    f"{CLIPS}/late-pictures.mkv", keys, environment)
                if "this build shows none" in error:
                    self.skipTest("built without SDL's headers")
                environment["SDL_AUDIODRIVER"] = "none"
                _, _, no_sound, silent_status = self.run_window(f"{CLIPS}/24.mp4", (), environment)
            finally:
                display.terminate()
        self.assertRegex(no_sound, r"^korvane-tv: --window: no audio device \(.*\); the window is silent\n$")
        self.assertEqual((status, silent_status, error), (0, 0, ""))
        self.assertEqual(summary["end"], "stopped")
        # The dummy device sleeps longer than its blocks last: the TV's audio is as slow.
        self.assertGreater(summary["audio_reanchors"], 0)
        did = [event for _, event, *_ in lines if event in ("pause", "resume", "seek", "stop")]
        self.assertEqual(did, ["pause", "resume", "pause", "resume", "seek", "stop"])

    def test_goes_on_without_a_display(self):
        environment = {key: value for key, value in os.environ.items()
                       if key not in ("DISPLAY", "WAYLAND_DISPLAY")}
        _, summary, error, status = self.run_window(f"{CLIPS}/24.mp4", (), environment)
        self.assertRegex(error, r"^korvane-tv: --window: .*; playing without a window\n$")
        self.assertEqual((status, summary["end"], summary["frames_in"]), (1, "complete", 72))

    def test_takes_no_virtual_clock(self):
        _, output, status = play([f"{CLIPS}/24.mp4", "--window", "--clock", "virtual"])
        self.assertEqual((output, status), ("", 2))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
