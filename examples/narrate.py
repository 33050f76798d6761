#!/usr/bin/env python3
"""Plays the demo tour through tessra-host and tells what happens, for people.

Each step of the tour goes to the host on its own; the narrator then waits until the host
has finished with it (it sends a zero-second "wait" with its own id after each step) and
prints the step's title, the host's lines in their order (console, delegate calls,
callbacks, platform effects, results, errors), then the requests the sandbox received
during the step. They come from the sandbox's request log, which it writes before it
answers, so a request is in the log by the time the host has seen its answer.

Usage (examples/demo.sh sets this up):
  narrate.py --bin build/bin --tour examples/tour.jsonl --requests STATE/requests.jsonl
             --home TESSRA_HOME [--sandbox-pid PID]
"""

import argparse
import json
import os
import queue
import resource
import signal
import socket
import subprocess
import sys
import textwrap
import threading
import time

STEP_TIMEOUT = 20.0   # seconds a step may take before the host counts as stuck
EXIT_TIMEOUT = 15.0   # seconds a host may take to end after its input closed
NARRATOR_KEYS = ("say", "expect")
WIDTH = 100
MAX_TEXT_LINES = 12

# ---- output --------------------------------------------------------------------------

def out(text=""):
    print(text, flush=True)


def clip(text, width):
    return text if len(text) <= width else text[: width - 3] + "..."


def compact(value):
    return json.dumps(value, ensure_ascii=False, separators=(", ", ": "))


def line(label, text):
    """One event under a step: a label column, then the text; later lines of a
    multi-line text are indented to the text's column."""
    pad = " " * 6
    parts = str(text).split("\n") or [""]
    out(f"{pad}{label:<9} {parts[0]}")
    for rest in parts[1:]:
        out(f"{pad}{'':<9} {rest}")


def heading(text):
    out()
    out(("== " + text + " ").ljust(WIDTH - 20, "="))


def wrapped(text, indent="   "):
    for part in textwrap.wrap(text, WIDTH - len(indent) - 10):
        out(indent + part)

# ---- the sandbox's request log -------------------------------------------------------

class RequestLog:
    """Reads the records the sandbox appended since the last look."""

    def __init__(self, path):
        self.path = path
        self.offset = 0
        self.all = []

    def new(self):
        records = []
        try:
            with open(self.path, "rb") as f:
                f.seek(self.offset)
                data = f.read()
        except OSError:
            return records
        end = data.rfind(b"\n")
        if end < 0:
            return records
        self.offset += end + 1  # a half-written last line waits for the next look
        for raw in data[: end + 1].splitlines():
            try:
                record = json.loads(raw)
            except ValueError:
                continue
            if isinstance(record, dict):
                records.append(record)
        self.all.extend(records)
        return records


def body_json(record):
    if record.get("body_base64"):
        return None
    try:
        return json.loads(record.get("body") or "")
    except ValueError:
        return None


def describe_request(record):
    method = record.get("method", "?")
    path = record.get("path", "?")
    status = record.get("status", 0)
    what = ""
    body = body_json(record)
    if path.startswith("/v2/campaign/"):
        what = f"campaign \"{path.rsplit('/', 1)[-1]}\""
    elif path.startswith("/t/"):
        what = "tracker hit"
    elif path.startswith("/img/"):
        what = "image download"
    elif path == "/landing":
        what = "web page"
    elif path.startswith("/tag/"):
        what = {200: "configuration document", 304: "not modified"}.get(status, "")
    elif path == "/v2/activity" and isinstance(body, dict):
        what = f"report \"{body.get('u')}\" (code {body.get('code')})"
    elif path == "/v2/users" and isinstance(body, dict):
        token = str(body.get("token") or "")
        what = "user record, token " + (token[:8] + "..." if len(token) > 8 else token or "none")
    elif path == "/post.php":
        query = dict(part.partition("=")[::2] for part in record.get("query", "").split("&") if part)
        what = f"crash record (version {query.get('ver', '?')}, code {query.get('code', '?')})"
    shown = "dropped" if status == 0 else str(status)
    return f"{method:<4} {clip(path, 40):<40} {shown:>4}  {what}".rstrip()

# ---- one tessra-host process ---------------------------------------------------------

class Host:
    """tessra-host as a child process; its stdout and stderr lines arrive on one queue."""

    def __init__(self, binary, env, cwd, arguments=()):
        self.proc = subprocess.Popen([os.path.abspath(binary), *arguments], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, env=env, cwd=cwd)
        self.events = queue.Queue()
        self.open_streams = 2
        for stream, name in ((self.proc.stdout, "stdout"), (self.proc.stderr, "stderr")):
            threading.Thread(target=self._read, args=(stream, name), daemon=True).start()
        self.syncs = 0

    def _read(self, stream, name):
        for raw in iter(stream.readline, b""):
            self.events.put((name, raw.decode("utf-8", "replace").rstrip("\n")))
        self.events.put((name, None))

    def send(self, request):
        try:
            self.proc.stdin.write((json.dumps(request) + "\n").encode())
            self.proc.stdin.flush()
            return True
        except (BrokenPipeError, OSError):
            return False

    def step(self, request):
        """Sends one operation; returns (events, finished) where finished is False when the
        host neither finished the step nor ended in time."""
        self.syncs += 1
        sync_id = f"tour-sync-{self.syncs}"
        if self.send(request):
            self.send({"op": "wait", "seconds": 0, "id": sync_id})
        events = []
        deadline = time.time() + STEP_TIMEOUT
        while True:
            if self.open_streams == 0:
                return events, True
            try:
                stream, text = self.events.get(timeout=max(0.0, deadline - time.time()))
            except queue.Empty:
                return events, False
            if text is None:
                self.open_streams -= 1
                continue
            if stream == "stdout":
                try:
                    message = json.loads(text)
                except ValueError:
                    message = None
                if isinstance(message, dict) and message.get("id") == sync_id:
                    return events, True
            events.append((stream, text))

    def ended(self):
        return self.open_streams == 0

    def finish(self):
        """Closes the input and waits for the end; returns the remaining events and the exit
        status (negative for a signal, None when it had to be killed)."""
        try:
            self.proc.stdin.close()
        except OSError:
            pass
        events = []
        deadline = time.time() + EXIT_TIMEOUT
        while self.open_streams > 0:
            try:
                stream, text = self.events.get(timeout=max(0.0, deadline - time.time()))
            except queue.Empty:
                break
            if text is None:
                self.open_streams -= 1
            else:
                events.append((stream, text))
        try:
            return events, self.proc.wait(timeout=max(0.1, deadline - time.time()))
        except subprocess.TimeoutExpired:
            self.kill()
            return events, None

    def kill(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()

# ---- notification contents -----------------------------------------------------------

def content_text(content):
    """A notification content (as the host prints it) in one line: what the user sees."""
    if not isinstance(content, dict):
        return compact(content)
    parts = [compact(content.get("title", ""))]
    if content.get("subtitle"):
        parts.append(compact(content["subtitle"]))
    if content.get("body"):
        parts.append(compact(content["body"]))
    extras = []
    if content.get("categoryIdentifier"):
        extras.append("category " + str(content["categoryIdentifier"]))
    attachments = content.get("attachments") or []
    if attachments:
        extras.append("image " + ", ".join(os.path.basename(str(a.get("url", ""))) for a in attachments if isinstance(a, dict)))
    if content.get("sound"):
        extras.append("sound " + str(content["sound"]))
    if content.get("badge") is not None:
        extras.append(f"badge {content['badge']}")
    return " / ".join(parts) + (f"  [{'; '.join(extras)}]" if extras else "")


def trigger_text(trigger):
    if not isinstance(trigger, dict):
        return "now"
    every = "every" if trigger.get("repeats") else "in"
    return f"{every} {trigger.get('interval')} s"


def listed_text(result):
    """Lists of notifications or categories, one line each; None for anything else."""
    if not isinstance(result, list) or not result or not all(isinstance(item, dict) for item in result):
        return None
    rows = []
    for item in result:
        if "content" in item:
            row = f"{item.get('identifier')}: {content_text(item['content'])}"
            if "trigger" in item:
                row += f"  ({trigger_text(item['trigger'])})"
            rows.append(row)
        elif "actions" in item:
            buttons = ", ".join(f"{a.get('title')} ({'/'.join(a.get('options') or []) or 'plain'})"
                                for a in item["actions"] if isinstance(a, dict))
            rows.append(f"{item.get('identifier')}: {buttons or 'no buttons'}")
        else:
            return None
    return "\n".join(clip(row, WIDTH - 16) for row in rows)

# ---- the narration -------------------------------------------------------------------

def with_addresses(value):
    """The sandbox's addresses in place of "{{https}}" and "{{http}}": its ports change
    from run to run."""
    if isinstance(value, str):
        https = os.environ.get("TESSRA_TRACKING_HOST", "")
        http = os.environ.get("TESSRA_AD_HOST", "")
        pictures = os.environ.get("TESSRA_DEMO_PICTURES", "")
        return (value.replace("{{https}}", "https://" + https).replace("{{http}}", "http://" + http)
                .replace("{{pictures}}", pictures))
    if isinstance(value, list):
        return [with_addresses(v) for v in value]
    if isinstance(value, dict):
        return {k: with_addresses(v) for k, v in value.items()}
    return value


def status_text(code):
    if code is None:
        return "did not end in time and was killed"
    if code < 0:
        try:
            return "ended by " + signal.Signals(-code).name
        except ValueError:
            return f"ended by signal {-code}"
    return f"exited with {code}"


class Narrator:
    def __init__(self, args):
        self.args = args
        self.host_binary = os.path.join(args.bin, "tessra-host")
        self.log = RequestLog(args.requests)
        self.host = None
        self.failures = []
        self.scene_number = 0
        self.scene = {}
        self.skipping = False
        self.hosts_started = 0

    # -- events --

    def show(self, events):
        """The host's lines in their order, then the requests the sandbox logged meanwhile.
        The two are not merged by time: the host's lines carry none, and the moment the
        narrator reads a line can be later than a request it caused."""
        errors = []
        for stream, text in events:
            if stream == "stderr":
                line("stderr", text)
                continue
            error = self.show_host_line(text)
            if error is not None:
                errors.append(error)
        for record in self.log.new():
            line("sandbox", describe_request(record))
        return errors

    def show_host_line(self, text):
        """Prints one JSON line of the host; returns the error text of an error line."""
        try:
            message = json.loads(text)
        except ValueError:
            message = None
        if not isinstance(message, dict):
            line("stdout", clip(text, WIDTH))  # written past the host's JSON lines
            return None
        if "console" in message:
            line("console", str(message["console"]))
        elif "delegate" in message:
            args = message.get("args") or {}
            inner = ", ".join(f"{k}: {clip(compact(v), 40)}" for k, v in args.items()) if isinstance(args, dict) else compact(args)
            line("delegate", f"{message['delegate']}({inner})")
        elif "callback" in message and isinstance(message.get("args"), dict) and "content" in message["args"]:
            line("callback", f"{message['callback']}({content_text(message['args']['content'])})")
        elif "callback" in message:
            args = message.get("args")
            inner = ", ".join(f"{k}: {compact(v)}" for k, v in args.items()) if isinstance(args, dict) else compact(args)
            line("callback", f"{message['callback']}({inner})")
        elif "platform" in message and isinstance(message.get("content"), dict):
            rest = " ".join(f"{k}={compact(v)}" for k, v in message.items() if k not in ("platform", "content", "trigger"))
            when = f" ({trigger_text(message['trigger'])})" if "trigger" in message else ""
            line("platform", clip(f"{message['platform']} {rest}{when}: {content_text(message['content'])}", WIDTH))
        elif "platform" in message:
            rest = " ".join(f"{k}={compact(v)}" for k, v in message.items() if k != "platform")
            line("platform", clip(f"{message['platform']} {rest}".strip(), WIDTH))
        elif "error" in message:
            line("error", str(message["error"]))
            return str(message["error"])
        elif "result" in message:
            result = message["result"]
            if isinstance(result, str) and "\n" in result:
                # A text (such as a crash report) reads better as its lines.
                rows = result.rstrip("\n").split("\n")
                shown = [clip(row, WIDTH - 16) for row in rows[:MAX_TEXT_LINES]]
                if len(rows) > MAX_TEXT_LINES:
                    shown.append(f"... ({len(rows) - MAX_TEXT_LINES} more lines)")
                line("result", "\n".join(shown))
            elif listed_text(result) is not None:
                line("result", listed_text(result))
            elif result is not None:
                line("result", clip(compact(result), WIDTH - 16))
        else:
            line("host", clip(text, WIDTH))
        return None

    # -- hosts --

    def start_host(self, extension=None):
        self.end_host()
        self.hosts_started += 1
        os.makedirs(self.args.home, exist_ok=True)
        arguments = ("--extension", extension) if extension else ()
        self.host = Host(self.host_binary, dict(os.environ, TESSRA_HOME=self.args.home), cwd=self.args.home,
                         arguments=arguments)
        what = f"the app's service extension {extension}" if extension else "the app"
        out(f"   (tessra-host starts as {what}: run {self.hosts_started} on this TESSRA_HOME, pid {self.host.proc.pid})")

    def end_host(self, expect_crash=False):
        """Ends the running host; false when it did not end the way the tour expects."""
        if not self.host:
            return True
        events, code = self.host.finish()
        self.show(events)
        out(f"   (tessra-host {status_text(code)})")
        self.host = None
        ok = (code is not None and code < 0) if expect_crash else code == 0
        if not ok:
            expected = "to crash" if expect_crash else "to exit with 0"
            self.failures.append(f"tessra-host {status_text(code)} in \"{self.scene.get('scene')}\" (expected {expected})")
        return ok

    def stop_sandbox(self):
        pid = self.args.sandbox_pid
        if not pid:
            return
        out("   (the sandbox stops)")
        try:
            os.kill(pid, signal.SIGTERM)
        except ProcessLookupError:
            return
        address = os.environ.get("TESSRA_TRACKING_HOST", "")
        host, _, port = address.rpartition(":")
        deadline = time.time() + 10
        while time.time() < deadline and port.isdigit():
            try:
                socket.create_connection((host or "127.0.0.1", int(port)), timeout=0.5).close()
            except OSError:
                return
            time.sleep(0.1)

    # -- the tour --

    def scene_line(self, scene):
        if scene.get("host") == "new":
            self.end_host()
        self.scene_number += 1
        self.scene = scene
        self.skipping = False
        heading(f"{self.scene_number}. {scene['scene']}")
        if scene.get("about"):
            wrapped(scene["about"])
        if scene.get("sandbox") == "stop":
            self.stop_sandbox()
        if scene.get("host") == "new" or self.host is None:
            self.start_host(scene.get("extension"))

    def op_line(self, request):
        if self.skipping:
            return
        request = with_addresses(request)
        title = request.get("say") or request["op"]
        expect_crash = request.get("expect") == "crash"
        sent = {k: v for k, v in request.items() if k not in NARRATOR_KEYS}
        out(f"\n  > {title}")
        line("", clip(compact(sent), WIDTH - 16))
        events, finished = self.host.step(sent)
        errors = self.show(events)
        if "unknown operation" in errors and self.scene.get("later"):
            out(f"      (this tessra-host has no \"{request['op']}\" operation yet; the rest of this part is skipped)")
            self.skipping = True
            return
        for error in errors:
            self.failures.append(f"\"{request['op']}\" answered \"{error}\"")
        if not finished:
            self.failures.append(f"\"{request['op']}\" did not finish within {STEP_TIMEOUT:.0f} s")
            self.host.kill()
            self.end_host()
            self.skipping = True
        elif self.host.ended() or expect_crash:
            # A host that ended (or should have) takes the rest of its part with it.
            if not self.end_host(expect_crash=expect_crash) or expect_crash:
                self.skipping = True

    def play(self):
        with open(self.args.tour, encoding="utf-8") as f:
            lines = f.read().splitlines()
        for number, text in enumerate(lines, 1):
            text = text.strip()
            if not text or text.startswith("#"):
                continue
            try:
                entry = json.loads(text)
            except ValueError as error:
                raise SystemExit(f"{self.args.tour}:{number}: not JSON: {error}")
            if "scene" in entry:
                self.scene_line(entry)
            elif "op" in entry:
                if self.host is None and not self.skipping:
                    self.start_host(self.scene.get("extension"))
                if self.host is not None:
                    self.op_line(entry)
            else:
                raise SystemExit(f"{self.args.tour}:{number}: neither a scene nor an op")
        self.end_host()
        self.show([])

    # -- the summary --

    def summary(self):
        heading("Summary")
        records = self.log.all
        reports = [body_json(r) for r in records if r.get("path") == "/v2/activity" and r.get("method") == "POST"]
        reports = [r for r in reports if isinstance(r, dict)]
        out(f"   The sandbox received {len(records)} requests; {len(reports)} were activity reports"
            + (":" if reports else "."))
        by_code = {}
        for report in reports:
            by_code.setdefault(report.get("code"), []).append(str(report.get("u")))
        for code in sorted(by_code, key=str):
            subjects = by_code[code]
            counted = {}
            for subject in subjects:
                counted[subject] = counted.get(subject, 0) + 1
            names = ", ".join(s if n == 1 else f"{s} x{n}" for s, n in counted.items())
            out(f"     code {code}: {len(subjects)}  ({names})")
        users = [body_json(r) for r in records if r.get("path") == "/v2/users" and r.get("method") == "POST"]
        tokens = sorted({str(u.get("token")) for u in users if isinstance(u, dict) and u.get("token")})
        out(f"   Users registered: {len(users)}" + (f" (tokens: {', '.join(t[:8] + '...' for t in tokens)})" if tokens else ""))
        campaigns = sum(1 for r in records if r.get("path", "").startswith("/v2/campaign/"))
        trackers = sum(1 for r in records if r.get("path", "").startswith("/t/"))
        out(f"   Campaigns fetched: {campaigns}; tracker hits: {trackers}")
        crashes = [r for r in records if r.get("path") == "/post.php"]
        out(f"   Crash reports uploaded: {len(crashes)}")
        not_modified = sum(1 for r in records if r.get("path", "").startswith("/tag/") and r.get("status") == 304)
        out(f"   Configuration documents answered 304 (unchanged): {not_modified}")
        self.show_store()

    def show_store(self):
        tool = os.path.join(self.args.bin, "tessra-defaults")
        env = dict(os.environ, TESSRA_HOME=self.args.home)

        def run(*words):
            try:
                done = subprocess.run([tool, *words], env=env, capture_output=True, timeout=15)
            except (OSError, subprocess.TimeoutExpired) as error:
                return None, str(error)
            return done, done.stderr.decode("utf-8", "replace").strip()

        done, problem = run("--json", "suites")
        if done is None or done.returncode != 0:
            out(f"   (tessra-defaults could not list the stores: {problem})")
            self.failures.append("tessra-defaults suites failed")
            return
        for suite in json.loads(done.stdout or b"[]"):
            out(f"   The app group's store, as `tessra-defaults read {suite}` shows it:")
            done, problem = run("read", suite)
            if done is None or done.returncode != 0:
                out(f"     ({problem})")
                self.failures.append("tessra-defaults read failed")
                continue
            for text in done.stdout.decode("utf-8", "replace").splitlines():
                out("     " + clip(text, WIDTH - 5))


def main():
    parser = argparse.ArgumentParser(description="Plays the TessraKite demo tour.")
    parser.add_argument("--bin", required=True, help="folder of tessra-host and tessra-defaults")
    parser.add_argument("--tour", required=True, help="the tour, JSON lines")
    parser.add_argument("--requests", required=True, help="the sandbox's requests.jsonl")
    parser.add_argument("--home", required=True, help="TESSRA_HOME for the hosts")
    parser.add_argument("--sandbox-pid", type=int, default=0, help="the sandbox, for the offline part")
    args = parser.parse_args()

    # The crash part crashes hosts on purpose: no core files.
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    # A stop from outside still ends the hosts (the finally below).
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    narrator = Narrator(args)
    try:
        narrator.play()
        narrator.summary()
    except KeyboardInterrupt:
        return 130
    finally:
        if narrator.host:
            narrator.host.kill()
    if narrator.failures:
        heading("The tour did not go as written")
        for failure in narrator.failures:
            out("   " + failure)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
