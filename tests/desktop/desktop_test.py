#!/usr/bin/python3
"""The package as a desktop's user runs it: on a session bus, heard through a PulseAudio server.

usage: desktop_test.py --cpack PROGRAM --build DIR --pin LIBRARY

The package of the build is unpacked into a staging root and the daemon started from there. busctl,
gdbus and python-dbus each introspect it, call it, get all properties and let it speak a text of their
own until the signal says that it was played: first into a recording, then to the server, whose monitor
must hear the very samples that were recorded.
"""
import argparse
import array
import json
import os
import select
import shutil
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

PATIENCE = 30  # seconds
SERVICE, OBJECT = "com.wexel.Quillspeak", "/com/wexel/Quillspeak"
INTERFACE, PROPERTIES = "com.wexel.QuillspeakInterface1", "org.freedesktop.DBus.Properties"
MEMBERS = ("DoTTSAndPlay", "StopTTSPlay", "DoTTSFetchInFile", "ReloadConfig", "SetVolume",
           "ReportTTSPlayResult", "Version", "State", "GetAll", "PropertiesChanged")
RATE = 48000
AUDIBLE = 328  # 1 % of full scale


def expect(condition, what):
    if not condition:
        sys.exit(f"FAILED: {what}")


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True,
                          timeout=PATIENCE).stdout


def read_until(pipe, wanted):
    """What comes out of the pipe, up to the read with the wanted words."""
    seen, deadline = "", time.monotonic() + PATIENCE
    while wanted not in seen:
        ready, _, _ = select.select([pipe], [], [], max(0, deadline - time.monotonic()))
        part = os.read(pipe.fileno(), 65536).decode() if ready else ""
        expect(part, f"{wanted} is shown: {seen}")
        seen += part
    return seen


class Desktop:
    """A session bus, a sound server and the installed package, in a scratch folder."""

    def __init__(self, pin):
        self.pin = pin
        self.folder = Path(tempfile.mkdtemp(prefix="quillspeak-desktop."))
        self.root = self.folder / "root"
        self.processes = []

    def install(self, cpack, build):
        # Without the names of the packages that it depends on, which take Debian's own tools.
        output_of(cpack, "-G", "DEB", "-D", "CPACK_DEBIAN_PACKAGE_SHLIBDEPS=OFF", "-B",
                  self.folder / "package", "--config", build / "CPackConfig.cmake")
        package, = self.folder.glob("package/*.deb")
        output_of("dpkg-deb", "--extract", package, self.root)

    def begin(self):
        bus = f"unix:path={self.folder}/bus"
        os.environ.update(
            XDG_RUNTIME_DIR=str(self.folder), HOME=str(self.folder), LC_ALL="C.UTF-8",
            DBUS_SESSION_BUS_ADDRESS=bus, DBUS_SYSTEM_BUS_ADDRESS=bus,
            PULSE_SERVER=f"unix:{self.folder}/sound", QUILLSPEAK_RUN_DIR=str(self.folder),
            QUILLSPEAK_PROPERTIES=str(self.root / "etc/quillspeak/properties.conf"),
            QUILLSPEAK_TRACE=str(self.root / "etc/quillspeak/trace.conf"))
        read_until(self.start("dbus-daemon", "--session", "--nofork", f"--address={bus}",
                              "--print-address=1").stdout, "\n")
        self.start(
            "pulseaudio", "-n", "--daemonize=no", "--use-pid-file=no", "--exit-idle-time=-1",
            "--disallow-exit=yes", "--realtime=no", "--high-priority=no",
            "-L", f"module-native-protocol-unix auth-anonymous=1 socket={self.folder}/sound",
            "-L", f"module-null-sink sink_name=nul rate={RATE} channels=1 format=s16le norewinds=1")
        asked = time.monotonic()
        while subprocess.run(["pactl", "info"], capture_output=True).returncode != 0:
            expect(time.monotonic() - asked < PATIENCE, "the sound server starts")

    def start(self, *command, stderr=subprocess.DEVNULL, **more):
        process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=stderr, **more)
        self.processes.append(process)
        return process

    def daemon(self, audio):
        process = self.start(self.root / "usr/sbin/quillspeak-daemon", env=dict(
            os.environ, QUILLSPEAK_AUDIO=audio, LD_PRELOAD=self.pin, QS_TEST_NOISE="1"))
        output_of("gdbus", "wait", "--session", "--timeout", str(PATIENCE), SERVICE)
        return process

    def stop(self, process):
        process.terminate()
        process.wait(PATIENCE)
        self.processes.remove(process)

    def end(self):
        for process in reversed(self.processes[:]):
            self.stop(process)
        shutil.rmtree(self.folder)


def speak_with_busctl(desktop, text):
    def call(interface, method, *arguments):
        return json.loads(output_of("busctl", "--user", "--json=short", "call", SERVICE, OBJECT,
                                    interface, method, *arguments) or "null")

    seen = output_of("busctl", "--user", "introspect", SERVICE, OBJECT)
    expect(all(f".{member} " in seen for member in MEMBERS), f"busctl introspects: {seen}")
    seen = call(INTERFACE, "StopTTSPlay", "tii", "1", "0", "0")
    expect(seen == {"type": "t", "data": [0]}, f"busctl stops: {seen}")
    seen = call(PROPERTIES, "GetAll", "s", INTERFACE)["data"][0]
    expect({name: value["data"] for name, value in seen.items()} == {"Version": 1, "State": 0},
           f"busctl gets all properties: {seen}")
    monitor = desktop.start("busctl", "--user", "--json=short", "monitor", SERVICE,
                            stderr=subprocess.PIPE)
    read_until(monitor.stderr, "Monitoring")
    handle, = call(INTERFACE, "DoTTSAndPlay", "asiii", "1", text, "0", "7", "0")["data"]
    seen = read_until(monitor.stdout, "ReportTTSPlayResult").splitlines()[-1]
    expect(json.loads(seen)["payload"]["data"] == [[text], 0, 7, 0, 0, handle],
           f"busctl hears the result of {handle}: {seen}")
    desktop.stop(monitor)


def speak_with_gdbus(desktop, text):
    def call(method, *arguments):
        return output_of("gdbus", "call", "--session", "--dest", SERVICE, "--object-path", OBJECT,
                         "--method", method, *arguments)

    seen = output_of("gdbus", "introspect", "--session", "--dest", SERVICE, "--object-path", OBJECT)
    expect(all(member in seen for member in MEMBERS) and "readonly i State = 0" in seen,
           f"gdbus introspects: {seen}")
    seen = call(f"{INTERFACE}.SetVolume", "2")
    expect(seen == "()\n", f"gdbus sets the volume: {seen}")
    seen = call(f"{PROPERTIES}.GetAll", INTERFACE)
    expect(seen == "({'State': <0>, 'Version': <1>},)\n", f"gdbus gets all properties: {seen}")
    monitor = desktop.start("gdbus", "monitor", "--session", "--dest", SERVICE)
    read_until(monitor.stdout, "is owned by")
    handle = call(f"{INTERFACE}.DoTTSAndPlay", f"['{text}']", "0", "7", "0")[1:-3]
    seen = read_until(monitor.stdout, "ReportTTSPlayResult")
    expect(f"(['{text}'], uint32 0, uint32 7, uint32 0, uint32 0, {handle})" in seen,
           f"gdbus hears the result of {handle}: {seen}")
    desktop.stop(monitor)


def speak_with_python(_, text):
    import dbus
    from dbus.mainloop.glib import DBusGMainLoop
    from gi.repository import GLib
    connection = dbus.bus.BusConnection(os.environ["DBUS_SESSION_BUS_ADDRESS"],
                                        mainloop=DBusGMainLoop())
    service = connection.get_object(SERVICE, OBJECT)
    seen = service.Introspect(dbus_interface=dbus.INTROSPECTABLE_IFACE)
    expect(all(f'name="{member}"' in seen for member in MEMBERS), f"python introspects: {seen}")
    service.ReloadConfig(0, dbus_interface=INTERFACE)
    seen = dict(service.GetAll(INTERFACE, dbus_interface=dbus.PROPERTIES_IFACE))
    expect(seen == {"Version": 1, "State": 0}, f"python gets all properties: {seen}")
    loop, results = GLib.MainLoop(), []

    def reported(*result):
        results.append(result)
        loop.quit()

    service.connect_to_signal("ReportTTSPlayResult", reported, dbus_interface=INTERFACE)
    handle = service.DoTTSAndPlay([text], 0, 7, 0, dbus_interface=INTERFACE)
    GLib.timeout_add_seconds(PATIENCE, loop.quit)
    loop.run()
    expect(results == [([text], 0, 7, 0, 0, handle)], f"python hears the result: {results}")
    connection.close()


SPEAKERS = {"Asked for by busctl": speak_with_busctl,
            "Asked for by gdbus": speak_with_gdbus,
            "Asked for by python": speak_with_python}


class Monitor:
    """What the sound server's monitor hears, as it comes."""

    def __init__(self, desktop):
        self.sound, self.more = bytearray(), threading.Condition()
        self.pipe = desktop.start("parec", "-d", "nul.monitor", "--format=s16le", f"--rate={RATE}",
                                  "--channels=1", "--latency-msec=20", "--raw").stdout
        threading.Thread(target=self.listen, daemon=True).start()
        self.bytes_after(1)

    def listen(self):
        while part := self.pipe.read1():
            with self.more:
                self.sound += part
                self.more.notify()

    def bytes_after(self, count):
        """All that was heard, once there are so many more bytes."""
        with self.more:
            wanted = len(self.sound) + count
            expect(self.more.wait_for(lambda: len(self.sound) >= wanted, PATIENCE), "more is heard")
            return bytes(self.sound)


def spoken(desktop, recording):
    """The samples of each text, out of what `recording` returns after it."""
    parts = []
    for text, speak in SPEAKERS.items():
        begin = len(recording())
        speak(desktop, text)
        end = recording()
        parts.append(array.array("h", end[begin // 2 * 2:len(end) // 2 * 2]))
    return parts


def expect_heard(sent, heard):
    """Each sample of the speech is heard unchanged, in its order. Zeros do not count: the server puts
    them in wherever a busy machine lets it run dry."""
    audible = [i for i, sample in enumerate(sent) if abs(sample) > AUDIBLE]
    speech = array.array("h", filter(None, sent[audible[0]:audible[-1]] if audible else []))
    expect(len(speech) > RATE // 2, f"speech is recorded: {len(speech)} samples")
    place = array.array("h", filter(None, heard)).tobytes().find(speech.tobytes())
    expect(place >= 0 and place % 2 == 0, f"all {len(speech)} samples are heard as they were sent")
    print(f"{len(speech)} samples are heard as they were sent")


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--cpack", required=True)
    arguments.add_argument("--build", type=Path, required=True)
    arguments.add_argument("--pin", required=True, help="the library that pins the voice's noise")
    given = arguments.parse_args()
    desktop = Desktop(given.pin)
    try:
        desktop.install(given.cpack, given.build)
        desktop.begin()
        wave = desktop.folder / "sent.wav"
        recorder = desktop.daemon(f"wav:{wave}")
        sent = spoken(desktop, lambda: wave.read_bytes() if wave.exists() else bytes(44))
        desktop.stop(recorder)

        monitor = Monitor(desktop)
        desktop.daemon("alsa:pulse")
        heard = spoken(desktop, lambda: monitor.bytes_after(RATE))  # half a second more, on its way
        for one_sent, one_heard in zip(sent, heard):
            expect_heard(one_sent, one_heard)
    finally:
        desktop.end()


main()
