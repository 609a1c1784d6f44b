#!/usr/bin/env python3
"""Runs everything at once for a long time: mounts, commands, a second device, sign-ins and a failing service.

usage: soak.py BUILD-FOLDER SECONDS [SEED]

Meant for a sanitizer's build, for instance after ./test --tsan: tests/soak/soak.py build/tsan 2700. Two machines (two homes) mount one account and a third mounts
another; programs work in them while another device changes the account, a third account is revoked, unlinked and linked
again, and the service fails in turns: errors, rate limits, cuts, silence, cursor resets. At the end everything must have
settled: both mounts show the service's tree, every acknowledged line is there once, nothing waits, every program ended
in order, and no sanitizer has reported. Calls that took more than 10 s although the service answered are listed and
count as failures. Exit status 0 when all of this holds.
"""
import atexit
import collections
import concurrent.futures
import errno
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

SLOWEST_ALLOWED = 10.0  # seconds, for a call while the service answers
CALM_BEFORE = 45.0  # seconds after a fault in which its consequences (pauses, retries) may still be waited for
REPORTS = re.compile(r"ThreadSanitizer|AddressSanitizer|LeakSanitizer|runtime error:|broken invariant")
EXPECTED = {errno.EIO, errno.EBUSY, errno.ENOENT, errno.EEXIST, errno.ENOTEMPTY, errno.ESTALE, errno.EACCES,
            errno.ENOTDIR, errno.EISDIR, errno.ETIMEDOUT, errno.EAGAIN, errno.EINTR, errno.ECONNRESET}

build = pathlib.Path(sys.argv[1]).resolve()
duration = float(sys.argv[2])
seed = int(sys.argv[3]) if len(sys.argv) > 3 else random.randrange(1 << 30)
work = pathlib.Path(tempfile.mkdtemp(prefix="kzv-soak-"))
over = threading.Event()
failures = []
counts = collections.Counter()
slow = []


def fail(text):
    failures.append(text)
    print("FAILED:", text, flush=True)


class Weather:
    """Which faults the service is ordered to commit, and since when none."""

    def __init__(self):
        self.calm_since = time.monotonic()

    def is_calm(self, start):
        return self.calm_since is not None and start - self.calm_since >= CALM_BEFORE


weather = Weather()


def measured(kind, call, *args, **options):
    """Runs a call that may fail while the service does, and notes how long it took."""
    start = time.monotonic()
    calm = weather.is_calm(start)
    try:
        return call(*args, **options)
    finally:
        taken = time.monotonic() - start
        counts[kind] += 1
        if calm and weather.is_calm(start) and taken > SLOWEST_ALLOWED:
            slow.append(f"{kind}: {taken:.1f} s")


class Service:
    def __init__(self):
        self.process = subprocess.Popen(
            [build / "bin/kzv-service", "--admin", "--approve", "auto",
             "--account", "Ada:ada@example.com:ada-token", "--account", "Bob:bob@example.com:bob-token",
             "--account", "Cid:cid@example.com:cid-token"],
            stdout=subprocess.PIPE, stderr=open(work / "service.log", "wb"), text=True)
        self.url = self.process.stdout.readline().split()[-1]

    def request(self, method, route, body=None, headers=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.url + route, data, {"Content-Type": "application/json", **(headers or {})},
                                         method=method)
        with urllib.request.urlopen(request, timeout=60) as answer:
            return json.loads(answer.read() or b"null")

    def admin(self, name, /, **body):
        return self.request("POST", "/admin/" + name, body)

    def tree(self):
        ask = lambda route, **arg: self.request("POST", "/2/files/" + route, arg, {"Authorization": "Bearer ada-token"})
        page, items = ask("list_folder", path="", recursive=True, limit=2000), {}
        while True:
            for entry in page["entries"]:
                items[entry["path_display"].lower()] = entry.get("size", -1)
            if not page["has_more"]:
                return items
            page = ask("list_folder/continue", cursor=page["cursor"])


class Machine:
    """A home folder of its own: settings, tokens, journal; with a mount of its account, if wanted."""

    def __init__(self, name, service):
        self.name = name
        self.home = work / name
        self.home.mkdir(mode=0o700)
        self.root = work / (name + "-mount")
        self.root.mkdir()
        self.logs = 0
        self.mounted = None
        self.environment = {**os.environ, "KZV_HOME": str(self.home), "KZV_SERVICE_URL": service.url,
                            "KZV_TOKEN_STORE": "file", "KZV_POLL_SECONDS": "2",
                            "KZV_SIGN_IN_PORT": str(random.randrange(20000, 60000)),
                            "KZV_BUNDLE": str(build / "lib/kzv/KZVDropboxFS.bundle")}

    def start(self, *words, **options):
        self.logs += 1
        log = open(work / f"{self.name}-{words[0].strip('-')}-{self.logs}.log", "wb")
        return subprocess.Popen([build / "bin/kzv", *words], env=self.environment, stderr=log,
                                stdin=options.pop("stdin", subprocess.DEVNULL),
                                stdout=options.pop("stdout", subprocess.DEVNULL), **options)

    def kzv(self, *words, text=None, allowed=(0, 1, 3)):
        process = self.start(*words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            output, _ = process.communicate(text.encode() if text else None, timeout=600)
        except subprocess.TimeoutExpired:
            process.kill()
            fail(f"{self.name}: kzv {' '.join(words)} did not end in 600 s")
            return -1, b""
        if process.returncode not in allowed:
            fail(f"{self.name}: kzv {' '.join(words)}: status {process.returncode}")
        return process.returncode, output

    def mount(self):
        self.mounted = self.start("mount", "--foreground", str(self.root))
        for _ in range(600):
            if os.path.ismount(self.root):
                return
            time.sleep(0.1)
        fail(f"{self.name}: not mounted")

    def unmount(self):
        self.kzv("umount", str(self.root), allowed=(0,))
        try:
            if self.mounted.wait(120) != 0:
                fail(f"{self.name}: the mount ended with {self.mounted.returncode}")
        except subprocess.TimeoutExpired:
            fail(f"{self.name}: the mount did not end")
            self.mounted.kill()

    def waiting(self):
        return [entry for entry in self.home.rglob("pending/*.json")]

    def tree(self):
        items = {}
        for folder, folders, files in os.walk(self.root):
            for name in folders:
                items["/" + os.path.relpath(os.path.join(folder, name), self.root).lower()] = -1
            for name in files:
                path = os.path.join(folder, name)
                items["/" + os.path.relpath(path, self.root).lower()] = os.stat(path).st_size
        return items


def forever(worker):
    """Calls a worker's step until the end; errors that a failing service explains are part of the game."""
    def run(*args):
        while not over.is_set():
            try:
                worker(*args)
            except OSError as error:
                if not isinstance(error, (urllib.error.URLError, TimeoutError)) and error.errno not in EXPECTED:
                    fail(f"{worker.__name__}: {error}")
                    time.sleep(1)
    return run


@forever
def work_in_mount(machine, dice):
    folder = machine.root / f"shared {dice.randrange(4)}"
    path, other = (folder / f"Document {dice.randrange(12)}.txt" for _ in range(2))
    what = dice.choice(["write", "append", "read", "list", "rename", "remove", "make", "walk", "save"])
    def step():
        if what == "write":
            path.write_bytes(os.urandom(dice.choice([10, 5000, 300000])))
        elif what == "append":
            with open(path, "ab") as file:
                file.write(b"more\n")
        elif what == "read":
            path.read_bytes()
        elif what == "list":
            sorted(entry.stat().st_size for entry in os.scandir(folder) if entry.is_file())
        elif what == "rename":
            path.rename(other)
        elif what == "remove":
            path.unlink()
        elif what == "make":
            folder.mkdir(exist_ok=True)
        elif what == "walk":
            for _ in os.walk(machine.root):
                pass
        else:  # as an editor saves
            swap = folder / f".Document.{dice.randrange(1 << 20)}.swp"
            swap.write_text("lock")
            temporary = folder / f"Document.{dice.randrange(1 << 20)}~"
            temporary.write_text("saved\n" * dice.randrange(1, 100))
            temporary.rename(path)
            swap.unlink()
    measured("mount " + what, step)


def append_lines(machine, number, acknowledged):
    """Only this thread writes its file: every line that close(2) acknowledged, or kept, must be there once."""
    path = machine.root / f"log of {machine.name} {number}"
    line = 0
    while not over.is_set():
        line += 1
        text = f"{machine.name} {number} {line}\n"
        try:
            file = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o600)
        except OSError:
            continue
        try:
            measured("append", os.write, file, text.encode())
            acknowledged.append(text)
        except OSError:
            pass
        finally:
            try:
                measured("close", os.close, file)
            except OSError:
                pass  # kept in the journal
        time.sleep(0.2)


@forever
def run_commands(machine, dice):
    target = work / f"copy-{dice.randrange(1 << 30)}"
    command = dice.choice([("ls", "-R", "/"), ("stat", "/shared 1"), ("df",), ("accounts",), ("get", "/shared 0", str(target)),
                           ("put", str(build / "configured-as"), "/from a command.txt"), ("mkdir", "/shared 2"),
                           ("mv", "/from a command.txt", "/moved by a command.txt"), ("rm", "-f", "/moved by a command.txt")])
    measured("kzv " + command[0], machine.kzv, *command)
    shutil.rmtree(target, ignore_errors=True)


@forever
def another_device(service, dice):
    path = f"/shared {dice.randrange(4)}/Document {dice.randrange(12)}.txt"
    if dice.random() < 0.7:
        service.admin("write", account="ada-token", path=path, text="elsewhere " * dice.randrange(1000))
    else:
        service.admin("delete", account="ada-token", path=path)
    time.sleep(0.3)


def sign_in(machine):
    process = machine.start("link", "--no-browser", stdout=subprocess.PIPE)
    url = process.stdout.readline().decode().strip()
    try:
        with urllib.request.urlopen(url, timeout=60) as page:  # the service says yes and leads back to the program
            page.read()
    except OSError:
        process.terminate()  # it would wait for the page for ever, and keep its port
        process.wait(60)
        raise
    return process.wait(300)


@forever
def lose_and_regain_an_account(service, machine, dice):
    service.admin("settings", approve="auto", approve_as="cid@example.com")
    if measured("sign-in", sign_in, machine) != 0:
        return time.sleep(1)
    watch = machine.start("watch", "/")
    measured("kzv ls", machine.kzv, "ls", "/")
    # While the line fails, the account's name may not be known here: then unlink has nothing to go by.
    if dice.random() < 0.5 or machine.kzv("unlink", "Cid")[0] != 0:
        service.admin("settings", revoke="cid@example.com")
    try:
        if watch.wait(300) not in (1, 3):  # 1: the account went before its first folder was listed
            fail(f"watch ended with {watch.returncode} after its account was gone")
    except subprocess.TimeoutExpired:
        fail("watch did not notice within 300 s that its account was gone")
        watch.kill()
    for account in machine.kzv("--json", "accounts")[1].splitlines():
        machine.kzv("unlink", json.loads(account)["id"])


def bad_weather(service, dice):
    every = lambda n, **fault: {"route": "*", "every": n, "times": 0, **fault}
    kinds = {"errors": [every(9, status=500)], "rate limits": [every(5, status=429, retry_after=2)],
             "cuts": [every(7, cut_response_after=20), every(11, cut_request_after=0)], "lost answers": [every(13, drop_answer=True)],
             "slow": [every(2, delay_ms=1500)], "silent": [every(1, delay_ms=600000)],
             "polls refused": [{"route": "files/list_folder/continue", "times": 0, "status": 429, "retry_after": 5}],
             "damage": [{"route": "files/download", "every": 4, "times": 0, "corrupt": True}]}
    while not over.is_set():
        name, rules = dice.choice(sorted(kinds.items()))
        weather.calm_since = None
        print(f"{time.strftime('%H:%M:%S')} {name}; so far {sum(counts.values())} calls", flush=True)
        for rule in rules:
            service.admin("faults", **rule)
        over.wait(dice.uniform(5, 20))
        service.request("DELETE", "/admin/faults")
        service.admin("settings", page_size=dice.choice([0, 1, 7]), reset_cursors=dice.random() < 0.3)
        weather.calm_since = time.monotonic()
        over.wait(dice.choice([3, 20, CALM_BEFORE + 30]))


def settled(service, machines):
    """Waits until all that was written has arrived and every mount shows it; says what differs."""
    deadline = time.monotonic() + 420
    while True:
        waiting = [str(entry) for machine in machines for entry in machine.waiting()]
        expected = {path: size for path, size in service.tree().items()}
        differing = {}
        for machine in machines:
            shown = {path: size for path, size in machine.tree().items() if not path.endswith(".swp")}
            differing.update({f"{machine.name}:{path}": (shown.get(path), expected.get(path))
                              for path in shown.keys() | expected.keys() if shown.get(path) != expected.get(path)})
        if not waiting and not differing:
            return
        if time.monotonic() > deadline:
            return fail(f"not settled: waiting {waiting[:5]}, shown and expected {dict(list(differing.items())[:5])}")
        time.sleep(2)


def clean_up(service, machines):
    """Leaves no process and no mount behind, whatever went wrong."""
    for machine in machines:
        subprocess.run(["umount", "-l", str(machine.root)], stderr=subprocess.DEVNULL, check=False)
        if machine.mounted and machine.mounted.poll() is None:
            machine.mounted.kill()
    if service.process.poll() is None:
        service.process.kill()


def main():
    print(f"seed {seed}, in {work}", flush=True)
    dice = random.Random(seed)
    service = Service()
    machines = [Machine("one", service), Machine("two", service), Machine("bob", service)]
    wanderer = Machine("cid", service)
    atexit.register(clean_up, service, machines)
    for machine, token in zip(machines, ("ada-token", "ada-token", "bob-token")):
        machine.kzv("link", "--token-stdin", text=token + "\n", allowed=(0,))
        machine.mount()
    for number in range(4):
        service.admin("folder", account="ada-token", path=f"/shared {number}")
    logs = {(machine.name, number): [] for machine in machines for number in range(2)}
    jobs = [(another_device, service), (run_commands, machines[0]), (lose_and_regain_an_account, service, wanderer),
            (bad_weather, service)]
    jobs += [(work_in_mount, machine) for machine in machines for _ in range(2)]
    with concurrent.futures.ThreadPoolExecutor(40) as pool:
        running = [pool.submit(job, *args, random.Random(dice.random())) for job, *args in jobs]
        for machine in machines:
            running += [pool.submit(append_lines, machine, number, logs[machine.name, number]) for number in range(2)]
        over.wait(duration)
        over.set()
        for job in running:
            if error := job.exception():
                fail(f"a worker ended with {error!r}")
    service.request("DELETE", "/admin/faults")
    settled(service, machines[:2])
    for (name, number), lines in logs.items():
        root = work / (name + "-mount")
        text = "".join(path.read_text() for path in sorted(root.glob(f"log of {name} {number}*")))
        lost = [line for line in lines if text.count(line) == 0]
        if lost:
            fail(f"log of {name} {number}: {len(lost)} of {len(lines)} lines are lost, the first is {lost[0]!r}")
        counts["lines kept"] += len(lines)
    for machine in machines:
        machine.unmount()
    service.process.terminate()
    if service.process.wait(60) != 0:
        fail(f"the service ended with {service.process.returncode}")
    for log in sorted(work.glob("*.log")):
        if found := REPORTS.search(log.read_text(errors="replace")):
            fail(f"{log}: {found.group()}")
    for entry in slow:
        fail("slow although the service answered: " + entry)
    for kind, count in sorted(counts.items()):
        print(f"{count:8} {kind}")
    print(f"{'failed' if failures else 'passed'}: {sum(counts.values())} calls in {duration:.0f} s, {len(failures)} failures")
    if not failures:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failures else 0


sys.exit(main())
