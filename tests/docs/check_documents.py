#!/usr/bin/python3
"""Runs every command of the documents, or checks it where it cannot be run here.

usage: check_documents.py --source DIR --build DIR DOCUMENT...

Commands are indented by four blanks, fenced as `sh`, or quoted in the text. They run in a scratch folder, on a private bus,
with the daemon of the build, whose sound goes nowhere. Units, fenced as `ini`, are verified by systemd.
TROUBLESHOOTING.md must have every warning, error and refusal of the daemon, and its rows in order.
"""
import argparse
import itertools
import json
import os
import re
import select
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

PATIENCE = 30  # seconds
NO_COMMANDS = {"", "text", "ini", "xml"}  # what else a fence may hold

# What is quoted in the text and whole.
QUOTED = r"`((?:quillspeak|systemctl|cmake|tools/\w+) [^`]+)`"

# Run as they are: they reach the daemon over the bus.
RUN = [r"(\w+=\$\()?(busctl|gdbus (call|introspect)|quillspeak) "]

# Run until they have shown what a request was answered with.
ENDLESS = [r"gdbus monitor ", r"quillspeak watch"]

# Not run: what begins like this, why not, and what is looked at instead.
CHECKED = [
    (r"tools/", "builds, installs packages or takes minutes", "tool"),
    (r"cmake --preset ", "configures another build", "preset"),
    (r"cmake --build ", "builds for minutes", "build"),
    (r"build/(dev|fuzz|bench)/", "runs for as long as is asked for, or is not built here", "program"),
    (r"([A-Z_]+=\S+ )+quillspeak-daemon$", "serves for ever; the desktop's test does it", "daemon"),
    (r"systemd-analyze security ", "runs in the source's folder, on the unit", "exposure"),
    (r"apt-get install |adduser |install |systemd-sysusers |systemctl |journalctl ",
     "needs an installed system: the package's test boots one", "booted"),
    (r"cmake --install ", "changes the system", "install"),
]


def commands(text):
    """Pairs of a line number and a block's commands, continued lines joined."""
    blocks, block, fence, began = [], [], None, 0
    lines = text.splitlines() + [""]
    for number, line in enumerate(lines, 1):
        mark = re.match(r"```(\S*)", line)
        if mark:
            if fence is None:
                fence = mark[1]
                assert fence == "sh" or fence in NO_COMMANDS, f"line {number}: fence of {fence}"
            else:
                fence = None
        indented = fence is None and line.startswith("    ")
        if (indented or fence == "sh") and not mark:
            began = began or number
            block.append(line.strip())
        elif block:
            joined = "\n".join(block).replace("\\\n", " ")
            wanted = [c for c in joined.split("\n") if c and not c.startswith("#")]
            blocks.append((began, wanted))
            block, began = [], 0
        blocks += [(number, [command]) for command in re.findall(QUOTED, line) if fence is None]
    assert fence is None, "a fence is not closed"
    return blocks


def matches(patterns, command):
    return any(re.match(pattern, command) for pattern in patterns)


class Checks:
    """What can be said of a command without running it: an empty text, or what is wrong."""

    def __init__(self, source, build):
        self.source, self.build = source, build
        self.presets = json.loads((source / "CMakePresets.json").read_text())
        files = source.glob("**/CMakeLists.txt")
        self.cmake = "\n".join(f.read_text() for f in files if "build" not in f.parts)

    def booted(self, words):
        tests = [self.source / "tests/packaging/booted_service", self.source / "packaging/debian/postinst"]
        tried = "".join(f.read_text() for f in tests)
        wanted = itertools.takewhile(lambda word: "/" not in word, words)  # paths differ
        pattern = r" (?:\S+ )*".join(map(re.escape, wanted))
        return "" if re.search(rf"\b{pattern}\b", tried) else "the package's test does not run it"

    def tool(self, words):
        tool = self.source / words[0]
        if not os.access(tool, os.X_OK):
            return f"no program {words[0]}"
        asked = subprocess.run([tool, "--help"], capture_output=True, text=True, timeout=PATIENCE)
        for word in words[1:]:
            is_word = re.fullmatch(r"(--)?[a-z][-a-z]*", word)
            if is_word and not re.search(rf"(?<![-\w]){word}(?![-\w])", asked.stdout):
                return f"{words[0]} --help does not know {word}"
        return "" if asked.returncode == 0 else f"{words[0]} has no --help"

    def has_preset(self, kind, name):
        names = [p["name"] for p in self.presets[kind] if not p.get("hidden")]
        return "" if name in names else f"no preset {name}"

    def preset(self, words):
        return self.has_preset("configurePresets", words[2])

    def build_tree(self, folder):
        return self.has_preset("configurePresets", folder.split("/")[1])

    def target(self, name):
        made = rf"(add_executable|add_library|quillspeak_\w+|add_custom_target)\(\s*{name}\b"
        return "" if re.search(made, self.cmake) else f"no target {name}"

    def build_command(self, words):
        wrong = (self.has_preset("buildPresets", words[3]) if words[2] == "--preset"
                 else self.build_tree(words[2]))
        named = words[words.index("--target") + 1:] if "--target" in words else []
        return wrong or next(filter(None, map(self.target, named)), "")

    def program(self, words):
        return self.build_tree(words[0]) or self.target(Path(words[0]).name) or self.options(words)

    def options(self, words):
        """Test programs have no --help: their sources name what they take."""
        stem = Path(words[0]).name.removeprefix("daemon_")
        text = "".join(f.read_text() for f in self.source.glob(f"tests/*/{stem}.cpp"))
        for word in words[1:]:
            if word.startswith("--") and word.split("=")[0] not in text:
                return f"{words[0]} does not know {word}"
            if word.startswith("tests/") and not (self.source / word).exists():
                return f"there is no {word}"
        return ""

    def install(self, words):
        return self.build_tree(words[2])

    def exposure(self, words):
        done = subprocess.run(words, cwd=self.source, capture_output=True, text=True, timeout=PATIENCE)
        return "" if done.returncode == 0 else done.stdout[-100:] + done.stderr

    def daemon(self, words):
        known = "".join(f.read_text() for f in self.source.glob("src/platform/**/*.cpp"))
        unknown = [w.split("=")[0] for w in words if w.startswith("QUILLSPEAK_")
                   and w.split("=")[0] not in known]
        return f"nothing reads {unknown}" if unknown else self.target("quillspeak-daemon")

    def unit(self, text):
        """What systemd finds in a unit or what is added to ours, with the daemon of the build."""
        if "ExecStart" not in text and "[Service]" in text:
            ours = (self.source / "packaging/quillspeak.service").read_text()
            text = re.sub("^Documentation=.*|^.*modprobe@.*", "", ours, flags=re.M) + text
        with tempfile.TemporaryDirectory(prefix="quillspeak-unit.") as folder:
            file = Path(folder) / "documented.service"
            file.write_text(text.replace("/usr/sbin", str(self.build.resolve())))
            done = subprocess.run(["systemd-analyze", "verify", "--user", "--man=no", file],
                                  env=dict(os.environ, XDG_RUNTIME_DIR=folder), capture_output=True,
                                  text=True, timeout=PATIENCE)
            return (done.stdout + done.stderr).replace(f"{file}:", "").strip()

    def wrong(self, command):
        for part in command.split("&&"):
            part = part.strip().removeprefix("sudo ")
            kind = next((k for p, _, k in CHECKED if re.match(p, part)), None)
            if kind is None:
                return "unclassified: say in this script whether it can be run"
            words = shlex.split(part, comments=True)
            checked = getattr(self, {"build": "build_command"}.get(kind, kind))(words)
            if checked:
                return checked
        return ""


class Service:
    """A bus and the daemon on it, in a scratch folder."""

    def __init__(self, source, build):
        self.folder = Path(tempfile.mkdtemp(prefix="quillspeak-docs."))
        address = f"unix:path={self.folder}/bus"
        (self.folder / "properties.conf").write_text("device.accessibility.qs_enabled = true\n")
        self.environment = dict(
            os.environ, DBUS_SYSTEM_BUS_ADDRESS=address, QUILLSPEAK_AUDIO="null",
            QUILLSPEAK_RUN_DIR=str(self.folder), LC_ALL="C.UTF-8",
            QUILLSPEAK_PROPERTIES=str(self.folder / "properties.conf"),
            PATH=f"{build}:{build}/client:{os.environ['PATH']}")
        self.bus = subprocess.Popen(
            ["dbus-daemon", f"--config-file={source}/tools/bus.conf", f"--address={address}",
             "--nofork", "--print-address=1"], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.bus.stdout.readline()
        self.daemon = subprocess.Popen([build / "quillspeak-daemon"], env=self.environment,
                                       stderr=subprocess.DEVNULL)
        gdbus = ["gdbus", "wait", "--system", "--timeout", str(PATIENCE), "com.wexel.Quillspeak"]
        subprocess.run(gdbus, env=self.environment, check=True)

    def run(self, script):
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=self.folder, text=True,
                              env=self.environment, capture_output=True, timeout=4 * PATIENCE)
        return "" if done.returncode == 0 else f"status {done.returncode}: {done.stderr.strip()}"

    def watch(self, command):
        """Lets the command see requests until it shows the result of one."""
        shown = subprocess.Popen(command, shell=True, stdout=subprocess.PIPE, cwd=self.folder,
                                 env=self.environment, start_new_session=True)
        play = ("busctl --system call com.wexel.Quillspeak /com/wexel/Quillspeak "
                "com.wexel.QuillspeakInterface1 DoTTSAndPlay asiii 1 Documented 0 0 0")
        seen, deadline = b"", time.monotonic() + PATIENCE
        try:
            while b"Documented" not in seen and time.monotonic() < deadline:
                wrong = self.run(play)
                if wrong:
                    return wrong
                # One that was played before it listened is not seen: after a second, another.
                while b"Documented" not in seen and select.select([shown.stdout], [], [], 1)[0]:
                    part = os.read(shown.stdout.fileno(), 65536)
                    if not part:
                        return f"ended: {seen}"
                    seen += part
            return "" if b"Documented" in seen else f"showed no result: {seen}"
        finally:
            os.killpg(shown.pid, 15)
            shown.communicate()

    def end(self):
        for process in (self.daemon, self.bus):
            process.terminate()
            process.wait(PATIENCE)
        shutil.rmtree(self.folder)


def unexplained(document, source):
    """Warnings, errors and refusals of the daemon that have no row, and rows out of order."""
    tables = [re.findall(r"^\| (.*?) \|", part, re.M)[1:] for part in document.read_text().split("\n\n")]
    rows = "\n".join(sum(tables, []))
    text = "".join(file.read_text() for file in source.glob("src/**/*.cpp"))
    said = re.findall(r"(?:\bsyslog\(\s*LOG_(?:WARNING|ERR|CRIT),|\bDBus::Error\w*\([^;\"]*|\breturn)"
                      r'\s*"((?:[^"\\]|\\.|"\s*")*)"', text)
    for words in said:
        first = re.split(r"; | \(", re.sub(r'"\s*"', "", words))[0]
        fixed = max(re.split(r"%\w+|QS_\w+:|\\.", first), key=len).strip(" :.-")
        if " " in fixed and fixed not in rows:
            yield f"{document.name}: no row for: {fixed}"
    for table in tables:
        keys = [" ".join(re.findall(r"\w+", row.casefold())) for row in table]
        yield from (f"{document.name}: out of order: {b}" for a, b in zip(keys, keys[1:]) if a > b)


def check(documents, checks, service):
    ran, looked_at, wrongs = 0, 0, []
    for document in documents:
        if document.name == "TROUBLESHOOTING.md":
            wrongs += unexplained(document, checks.source)
        text = document.read_text()
        for unit in re.findall(r"^```ini\n(.*?)^```$", text, re.M | re.S):
            found, looked_at = checks.unit(unit), looked_at + 1
            wrongs += [f"{document.name}: {unit}\n    {found}"] if found else []
        for line, block in commands(text):
            script = []
            for command in block:
                if matches(ENDLESS, command):
                    wrong, ran = service.watch(command), ran + 1
                elif matches(RUN, command):
                    wrong, ran = service.run("\n".join([*script, command])), ran + 1
                    script += [command] if re.match(r"\w+=", command) else []
                else:
                    wrong, looked_at = checks.wrong(command), looked_at + 1
                if wrong:
                    wrongs.append(f"{document.name}:{line}: {command}\n    {wrong}")
    return ran, looked_at, wrongs


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("--source", type=Path, required=True)
    arguments.add_argument("--build", type=Path, required=True)
    arguments.add_argument("documents", type=Path, nargs="+")
    given = arguments.parse_args()
    service = Service(given.source, given.build)
    try:
        ran, looked_at, wrongs = check(given.documents, Checks(given.source, given.build), service)
    finally:
        service.end()
    print(f"{ran} commands run, {looked_at} only checked")
    print("\n".join(wrongs))
    return 1 if wrongs or ran == 0 else 0


sys.exit(main())
