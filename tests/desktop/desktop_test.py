#!/usr/bin/python3
"""The daemon as a desktop's user runs it: on a session bus, heard through a PulseAudio server.

usage: desktop_test.py --daemon PROGRAM --pin LIBRARY

Drives it with busctl, gdbus and python-dbus, and compares what the server's monitor hears with the
daemon's own recording of the same text.
"""
import argparse
import array
import operator
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PATIENCE = 30  # seconds
TEXT = "What is spoken here is heard on a desktop"
SERVICE, OBJECT = "com.wexel.Quillspeak", "/com/wexel/Quillspeak"
INTERFACE = "com.wexel.QuillspeakInterface1"
RATE = 48000
AUDIBLE = 328  # 1 % of full scale
# Equal but for what the server rounds; measured 1.0000.
LIKENESS = 0.999


class Desktop:
    """A session bus and a sound server, in a scratch folder."""

    def __init__(self, pin):
        self.pin = pin
        self.folder = Path(tempfile.mkdtemp(prefix="quillspeak-desktop."))
        self.processes = []

    def begin(self):
        (self.folder / "properties.conf").write_text("device.accessibility.qs_enabled = true\n")
        bus = f"unix:path={self.folder}/bus"
        os.environ.update(
            XDG_RUNTIME_DIR=str(self.folder), HOME=str(self.folder), LC_ALL="C.UTF-8",
            DBUS_SESSION_BUS_ADDRESS=bus, DBUS_SYSTEM_BUS_ADDRESS=bus,
            PULSE_SERVER=f"unix:{self.folder}/sound",
            QUILLSPEAK_PROPERTIES=str(self.folder / "properties.conf"),
            QUILLSPEAK_RUN_DIR=str(self.folder))
        dbus = self.start(["dbus-daemon", "--session", "--nofork", f"--address={bus}",
                           "--print-address=1"], stdout=subprocess.PIPE)
        dbus.stdout.readline()
        self.start([
            "pulseaudio", "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1",
            "--disallow-exit=yes", "--realtime=no", "--high-priority=no",
            "-L", f"module-native-protocol-unix auth-anonymous=1 socket={self.folder}/sound",
            "-L", f"module-null-sink sink_name=nul rate={RATE} channels=1 format=s16le norewinds=1"])
        asked = time.monotonic()
        while subprocess.run(["pactl", "info"], capture_output=True).returncode != 0:
            expect(time.monotonic() - asked < PATIENCE, "the sound server starts")

    def start(self, command, **more):
        process = subprocess.Popen(command, stderr=subprocess.DEVNULL, **more)
        self.processes.append(process)
        return process

    def daemon(self, program, audio):
        process = self.start([program], env=dict(
            os.environ, QUILLSPEAK_AUDIO=audio, LD_PRELOAD=self.pin, QS_TEST_NOISE="1"))
        subprocess.run(["gdbus", "wait", "--session", "--timeout", str(PATIENCE), SERVICE], check=True)
        return process

    def end(self):
        for process in reversed(self.processes):
            process.terminate()
            process.wait(PATIENCE)
        shutil.rmtree(self.folder)


def output_of(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=PATIENCE).stdout


def expect(condition, what):
    if not condition:
        sys.exit(f"FAILED: {what}")


def drive_with_programs():
    """What busctl and gdbus show and call."""
    seen = output_of("busctl", "--user", "introspect", SERVICE, OBJECT)
    for member in ("DoTTSAndPlay", "StopTTSPlay", "ReportTTSPlayResult", "Version", "State"):
        expect(f".{member} " in seen, f"busctl introspects {member}: {seen}")
    seen = output_of("gdbus", "introspect", "--session", "--dest", SERVICE, "--object-path", OBJECT)
    expect("readonly i State = 0" in seen, f"gdbus introspects the state: {seen}")
    seen = output_of("busctl", "--user", "call", SERVICE, OBJECT, INTERFACE, "StopTTSPlay", "tii",
                     "1", "0", "0")
    expect(seen == "t 0\n", f"busctl stops: {seen}")
    seen = output_of("gdbus", "call", "--session", "--dest", SERVICE, "--object-path", OBJECT,
                     "--method", f"{INTERFACE}.SetVolume", "2")
    expect(seen == "()\n", f"gdbus sets the volume: {seen}")


def play_with_python():
    """Plays the text and waits for its result."""
    import dbus
    from dbus.mainloop.glib import DBusGMainLoop
    from gi.repository import GLib
    connection = dbus.bus.BusConnection(os.environ["DBUS_SESSION_BUS_ADDRESS"],
                                        mainloop=DBusGMainLoop())
    service = connection.get_object(SERVICE, OBJECT)
    every = service.GetAll(INTERFACE, dbus_interface=dbus.PROPERTIES_IFACE)
    expect(dict(every) == {"Version": 1, "State": 0}, f"python gets all properties: {every}")
    loop, results = GLib.MainLoop(), []

    def reported(*result):
        results.append(result)
        loop.quit()

    service.connect_to_signal("ReportTTSPlayResult", reported, dbus_interface=INTERFACE)
    handle = service.DoTTSAndPlay([TEXT], 0, 7, 0, dbus_interface=INTERFACE)
    GLib.timeout_add_seconds(PATIENCE, loop.quit)
    loop.run()
    expect(results == [([TEXT], 0, 7, 0, 0, handle)], f"python hears the result: {results}")
    connection.close()


def speech_in(samples):
    audible = [i for i, sample in enumerate(samples) if abs(sample) > AUDIBLE]
    expect(audible, "something is heard")
    return audible[0], audible[-1]


def likeness(heard, sent):
    """The best cross-correlation of the speech sent with what was heard, a few ms to and fro."""
    (first, last), (begin, _) = speech_in(sent), speech_in(heard)
    part = sent[first:last]

    def at(start):
        other = heard[start:start + len(part)]
        product = sum(map(operator.mul, part, other))
        return product / (sum(x * x for x in part) * sum(x * x for x in other)) ** 0.5

    return max(at(start) for start in range(max(0, begin - 96), begin + 97))


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--daemon", required=True)
    arguments.add_argument("--pin", required=True, help="the library that pins the voice's noise")
    program, pin = vars(arguments.parse_args()).values()
    desktop = Desktop(pin)
    try:
        desktop.begin()
        wave = desktop.folder / "sent.wav"
        recorder = desktop.daemon(program, f"wav:{wave}")
        play_with_python()
        recorder.terminate()
        recorder.wait(PATIENCE)

        heard_file = desktop.folder / "heard"
        with heard_file.open("wb") as written:
            monitor = desktop.start(["parec", "-d", "nul.monitor", "--format=s16le", f"--rate={RATE}",
                                     "--channels=1", "--latency-msec=20", "--raw"], stdout=written)
        asked = time.monotonic()
        while not heard_file.stat().st_size:
            expect(time.monotonic() - asked < PATIENCE, "the monitor records")
        desktop.daemon(program, "alsa:pulse")
        drive_with_programs()
        play_with_python()
        asked, size = time.monotonic(), heard_file.stat().st_size
        while heard_file.stat().st_size < size + RATE:  # what was still on its way: half a second
            expect(time.monotonic() - asked < PATIENCE, "the monitor goes on")
        monitor.terminate()

        heard, sent = array.array("h"), array.array("h")
        recorded = heard_file.read_bytes()
        heard.frombytes(recorded[:len(recorded) // 2 * 2])
        sent.frombytes(wave.read_bytes()[44:])
        found = likeness(heard, sent)
        print(f"likeness {found:.4f}")
        expect(found >= LIKENESS, "what is heard is what was sent")
    finally:
        desktop.end()


main()
