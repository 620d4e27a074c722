#!/usr/bin/env python3
"""Runs tables on three servers of etcd under load, and disturbs all that takes part.

    soak-cluster.py PROGRAM SECONDS SEED [networks]

PROGRAM is etcd_soak, whose subscribers check each state that they see. With `networks`, which needs
a network namespace of its own (scripts/soak-cluster.sh makes it), each process has a network of its
own, whose link can be cut; without, it is stopped instead.

At the end every subscriber, and every server by itself, must have byte for byte the rows of the
publisher.
"""

import base64
import collections
import json
import os
import random
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SUBSCRIBERS = 5
PREFIX = "korvo/soak/agent/"
# What is proved is about processes and links, not disks: those that sync in time are not at hand.
MEMORY = Path("/dev/shm")
MEMORY_NEEDED = 4 << 30


class Failure(Exception):
    pass


def clockLibrary(program):
    """The library that shifts a program's clock; none if it is not there or does not fit."""
    for library in Path("/usr/lib").glob("*/faketime/libfaketime.so.1"):
        try:
            tried = subprocess.run([program], capture_output=True, check=False, timeout=10,
                                   env={**os.environ, "LD_PRELOAD": str(library)})
        except subprocess.TimeoutExpired:
            return None
        if tried.returncode == 2 and tried.stderr.startswith(b"etcd_soak "):
            return str(library)
    return None


class Networks:
    """Networks of processes that talk over a bridge."""

    def __init__(self):
        self.ip("link", "set", "lo", "up")
        self.ip("link", "add", "name", "bridge", "type", "bridge")
        self.ip("address", "add", "10.213.7.254/24", "dev", "bridge")
        self.ip("link", "set", "dev", "bridge", "up")
        self.addresses = {}

    @staticmethod
    def ip(*words):
        subprocess.run(["ip", *words], check=True)

    def add(self, name):
        self.addresses[name] = f"10.213.7.{len(self.addresses) + 1}"
        self.ip("netns", "add", name)
        self.ip("link", "add", "name", name, "type", "veth", "peer", "name", "eth0", "netns", name)
        self.ip("link", "set", "dev", name, "master", "bridge", "up")
        self.ip("-n", name, "address", "add", f"{self.addresses[name]}/24", "dev", "eth0")
        self.ip("-n", name, "link", "set", "eth0", "up")
        self.ip("-n", name, "link", "set", "lo", "up")

    def cut(self, name, isCut):
        self.ip("link", "set", "dev", name, "down" if isCut else "up")

    def cutBetween(self, name, other, isCut):
        """What `name` sends to `other` gets lost; and so does each answer."""
        what = "add" if isCut else "del"
        self.ip("-n", name, "route", what, "blackhole", self.addresses[other] + "/32")

    @staticmethod
    def words(name):
        return ["nsenter", f"--net=/run/netns/{name}"]


class Process:
    """A program with its output in a file. It is ended by its process id."""

    def __init__(self, words, log, environment=None):
        self.log = log
        with open(log, "ab") as out:
            self.program = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *words], stdin=subprocess.DEVNULL,
                stdout=out, stderr=out, env={**os.environ, **(environment or {})})

    def end(self, number=signal.SIGKILL):
        if self.program.poll() is None:
            self.program.send_signal(number)
            self.program.send_signal(signal.SIGCONT)
        self.program.wait()

    def signal(self, number):
        if self.program.poll() is None:
            self.program.send_signal(number)

    def tail(self):
        return self.log.read_text(errors="replace")[-2000:]


class Member:
    def __init__(self, cluster, name, host, port, peerPort):
        self.cluster = cluster
        self.name = name
        self.client = f"{host}:{port}"
        self.peer = f"http://{host}:{peerPort}"
        self.data = cluster.folder / name
        self.log = cluster.folder / f"{name}.log"
        self.process = None

    def start(self, state="new"):
        words = self.cluster.networks.words(self.name) if self.cluster.networks else []
        if os.geteuid() == 0:
            # Each start has a clock of its own: that which only goes forward.
            ahead = self.cluster.random.randrange(10**6)
            words += ["unshare", "--time", "--monotonic", str(ahead)]
        url = f"http://{self.client}"
        self.process = Process(
            [*words, "etcd", "--name", self.name, "--data-dir", str(self.data),
             "--listen-client-urls", url, "--advertise-client-urls", url,
             "--listen-peer-urls", self.peer, "--initial-advertise-peer-urls", self.peer,
             "--initial-cluster", self.cluster.initial(), "--initial-cluster-state", state,
             "--snapshot-count", "2000", "--max-txn-ops", str(self.cluster.operations),
             "--logger", "zap"], self.log)

    def kill(self):
        self.process.end()


class Cluster:
    def __init__(self, folder, networks, chance):
        self.folder = folder
        self.networks = networks
        self.random = chance
        self.operations = chance.choice([128, 4096])
        self.members = []
        held = []
        for i in range(3):
            name = f"m{i}"
            if networks:
                networks.add(name)
                self.members.append(Member(self, name, networks.addresses[name], 2379, 2380))
                continue
            held += [socket.create_server(("127.0.0.1", 0)) for _ in range(2)]
            ports = [each.getsockname()[1] for each in held[-2:]]
            self.members.append(Member(self, name, "127.0.0.1", *ports))
        for each in held:
            each.close()
        for member in self.members:
            member.start()

    def initial(self):
        return ",".join(f"{m.name}={m.peer}" for m in self.members)

    def clients(self):
        return ",".join(m.client for m in self.members)

    def tool(self, *words, member=None, limit=10, mayFail=False):
        """What etcd's own tool says; None if it may fail and does."""
        command = ["etcdctl", f"--endpoints={member.client if member else self.clients()}",
                   "--command-timeout=8s", *words]
        try:
            done = subprocess.run(command, capture_output=True, timeout=limit, check=False,
                                  env={**os.environ, "ETCDCTL_API": "3"})
        except subprocess.TimeoutExpired:
            if mayFail:
                return None
            raise Failure(f"no answer: {' '.join(command)}") from None
        if done.returncode == 0:
            return done.stdout.decode()
        if mayFail:
            return None
        raise Failure(f"{' '.join(command)}: {done.stderr.decode()}")

    def waitUntilReady(self):
        for _ in range(300):
            for member in self.members:
                # One that was added may ask another that has not heard of it yet, and ends then.
                if member.process.program.poll() is not None:
                    member.start("existing")
            if all(self.status(member) for member in self.members) and self.leader():
                return
            time.sleep(0.1)
        raise Failure("the cluster does not come back: " + self.members[0].process.tail())

    def status(self, member):
        said = self.tool("endpoint", "status", "-w", "json", "--dial-timeout=1s",
                         "--command-timeout=1s", member=member, limit=3, mayFail=True)
        return json.loads(said)[0]["Status"] if said else None

    def leader(self):
        for member in self.members:
            status = self.status(member)
            if status and status.get("leader") == status["header"]["member_id"]:
                return member
        return None

    def rows(self, member, table):
        """A table's rows as a member has them: hexadecimal bytes by oid."""
        said = self.tool("get", "--prefix", "--consistency=s", f"{PREFIX}{table}/row/", "-w",
                         "json", member=member)
        return {int(base64.b64decode(each["key"])[-8:], 16): base64.b64decode(each["value"]).hex()
                for each in json.loads(said).get("kvs", [])}


class Soak:
    def __init__(self, program, seconds, seed, networks, folder):
        self.program = program
        self.seconds = seconds
        self.random = random.Random(seed)
        self.folder = folder
        self.networks = networks
        self.counts = collections.Counter()
        self.clockLibrary = clockLibrary(program)
        self.clock = folder / "clock"
        self.clock.write_text("+0")
        self.cluster = Cluster(folder, networks, self.random)
        self.detail = ""  # for the diary
        self.heals = []  # (time, name, what to do), at most one for members and one for agents
        self.generation = 0
        self.layout = "new"
        self.written = collections.Counter()
        self.publisherLogs = []
        for name in ["publisher", "taker"] + [f"s{i}" for i in range(SUBSCRIBERS)]:
            if networks:
                networks.add(name)
        self.places = ["publisher", "taker"]  # where the next publishers run
        self.publisher = None
        self.subscribers = [None] * SUBSCRIBERS
        self.disturbances = [
            (3, self.killLeader), (2, self.killFollower), (1, self.killAll), (2, self.stopMember),
            (3, self.cutMember), (2, self.cutBetweenMembers), (1, self.cutMajority),
            (3, self.killPublisher), (2, self.stopPublisher), (2, self.cutPublisher),
            (1, self.takeOver), (3, self.killSubscriber), (2, self.stopSubscriber),
            (2, self.cutSubscriber), (2, self.compact), (1, self.defragment),
            (1, self.replaceMember), (2, self.jump), (2, self.sendRival)]

    # --- Agents

    def agent(self, place, words, log):
        environment = {}
        if self.clockLibrary:
            # The clock of the day, which may jump; not that which only goes forward.
            environment = {"LD_PRELOAD": self.clockLibrary, "FAKETIME_NO_CACHE": "1",
                           "FAKETIME_TIMESTAMP_FILE": str(self.clock),
                           "FAKETIME_DONT_FAKE_MONOTONIC": "1"}
        inside = self.networks.words(place) if self.networks else []
        return Process([*inside, self.program, *words], self.folder / log, environment)

    def address(self):
        members = [m.client for m in self.cluster.members]
        self.random.shuffle(members)
        return f"etcd://{','.join(members)}/soak/agent"

    def startPublisher(self, layout=None):
        self.generation += 1
        self.layout = layout or self.random.choice(["old", "new"])
        log = f"publisher{self.generation}.log"
        self.publisherLogs.append(self.folder / log)
        self.publisher = self.agent(
            self.places[0], ["publish", self.address(), self.layout, str(self.generation),
                             str(self.folder / "published")], log)

    def startSubscriber(self, i):
        layout = self.random.choice(["old", "new", "new"])
        self.subscribers[i] = self.agent(
            f"s{i}", ["subscribe", self.address(), layout, str(self.folder / f"copy{i}")],
            f"s{i}.log")

    def owner(self):
        return self.cluster.tool("get", "--print-value-only", PREFIX + "owner", mayFail=True) or ""

    def isOwner(self, process):
        return f"process {process.program.pid}," in self.owner()

    # --- What is disturbed

    def later(self, kind, what, seconds):
        self.detail += f" {seconds:.1f} s"
        self.heals.append((time.monotonic() + seconds, kind, what))

    def heal(self, isAll=False):
        now = time.monotonic()
        for each in [each for each in self.heals if isAll or each[0] <= now]:
            self.heals.remove(each)
            each[2]()

    def isDisturbed(self, kind):
        return any(each[1] == kind for each in self.heals)

    def someTime(self, most):
        return self.random.uniform(0, most)

    def killLeader(self):
        leader = self.cluster.leader()
        if not leader:
            return None
        leader.kill()
        self.detail += f" {leader.name}"
        self.later("members", leader.start, self.someTime(4))
        return "leaders killed"

    def killFollower(self):
        leader = self.cluster.leader()
        member = self.random.choice([m for m in self.cluster.members if m is not leader])
        member.kill()
        self.detail += f" {member.name}"
        self.later("members", member.start, self.someTime(6))
        return "followers killed"

    def killAll(self):
        for member in self.cluster.members:
            member.kill()
        for member in self.cluster.members:
            self.later("members", member.start, self.someTime(2))
        return "whole clusters killed"

    def stop(self, kind, process, most):
        self.detail += f" {process.log.stem}"
        process.signal(signal.SIGSTOP)
        self.later(kind, lambda: process.signal(signal.SIGCONT), self.someTime(most))

    def cut(self, kind, name, process, most):
        if not self.networks:
            return self.stop(kind, process, most)
        self.detail += f" {name}"
        self.networks.cut(name, True)
        self.later(kind, lambda: self.networks.cut(name, False), self.someTime(most))
        return None

    def stopMember(self):
        self.stop("members", self.random.choice(self.cluster.members).process, 6)
        return "members stopped"

    def cutMember(self):
        member = self.random.choice([self.cluster.leader() or self.cluster.members[0],
                                     *self.cluster.members])
        self.cut("members", member.name, member.process, 8)
        return "members cut off"

    def cutBetweenMembers(self):
        if not self.networks:
            return None
        one, two = self.random.sample(self.cluster.members, 2)
        self.networks.cutBetween(one.name, two.name, True)
        self.detail += f" {one.name} {two.name}"
        self.later("members", lambda: self.networks.cutBetween(one.name, two.name, False),
                   self.someTime(8))
        return "links between two members cut"

    def cutMajority(self):
        for member in self.random.sample(self.cluster.members, 2):
            self.cut("members", member.name, member.process, 4)
        return "majorities cut off"

    def killPublisher(self):
        self.publisher.end()
        time.sleep(self.someTime(0.3))
        self.startPublisher()
        return "publishers killed"

    def stopPublisher(self):
        self.stop("publisher", self.publisher, 6)
        return "publishers stopped"

    def cutPublisher(self):
        self.cut("publisher", self.places[0], self.publisher, 6)
        return "publishers cut off"

    def takeOver(self):
        """Another publisher gets the name of one that is stopped, and then goes on."""
        if self.isDisturbed("members"):
            return None
        former = self.publisher
        former.signal(signal.SIGSTOP)
        self.places.reverse()
        self.startPublisher()
        for _ in range(200):
            if self.isOwner(self.publisher):
                break
            time.sleep(0.1)
        else:
            raise Failure("a publisher does not get the name of one that is stopped: " +
                          self.publisher.tail())
        time.sleep(0.5)
        former.signal(signal.SIGCONT)
        time.sleep(1.5)
        former.end()
        owner = self.owner()
        if owner and f"process {self.publisher.program.pid}," not in owner:
            raise Failure(f"a publisher lost the name that it took over: {owner}")
        return "names taken over"

    def killSubscriber(self):
        i = self.random.randrange(SUBSCRIBERS)
        self.subscribers[i].end()
        self.detail += f" s{i}"
        self.startSubscriber(i)
        return "subscribers killed"

    def stopSubscriber(self):
        self.stop("subscribers", self.random.choice(self.subscribers), 4)
        return "subscribers stopped"

    def cutSubscriber(self):
        i = self.random.randrange(SUBSCRIBERS)
        self.cut("subscribers", f"s{i}", self.subscribers[i], 6)
        return "subscribers cut off"

    def compact(self):
        said = self.cluster.tool("get", PREFIX + "mark", "-w", "json", mayFail=True)
        if not said:
            return None
        revision = json.loads(said)["header"]["revision"] - self.random.choice([0, 0, 10, 100])
        words = ["compact", str(max(revision, 1))] + self.random.choice([[], ["--physical"]])
        return "compactions" if self.cluster.tool(*words, mayFail=True) else None

    def defragment(self):
        member = self.random.choice(self.cluster.members)
        return "defragmentations" if self.cluster.tool("defrag", member=member, limit=30,
                                                       mayFail=True) else None

    def replaceMember(self):
        """A member goes for good, and another one without data comes in its place."""
        self.healMembers()
        member = self.random.choice(self.cluster.members)
        gone = self.cluster.status(member)["header"]["member_id"]
        others = [m for m in self.cluster.members if m is not member]
        self.retry("member", "remove", f"{gone:x}", member=self.random.choice(others))
        member.kill()
        shutil.rmtree(member.data)
        self.retry("member", "add", member.name, f"--peer-urls={member.peer}",
                   member=self.random.choice(others))
        member.start("existing")
        self.cluster.waitUntilReady()
        return "members replaced"

    def restore(self):
        """The cluster begins again with what was saved a while before."""
        self.healMembers()
        saved = self.folder / "saved"
        saved.unlink(missing_ok=True)
        self.retry("snapshot", "save", str(saved), member=self.random.choice(self.cluster.members))
        time.sleep(1 + self.someTime(2))
        for member in self.cluster.members:
            member.kill()
            shutil.rmtree(member.data)
        token = f"restored{self.counts['restored']}"
        for member in self.cluster.members:
            self.cluster.tool("snapshot", "restore", str(saved), "--name", member.name,
                              "--data-dir", str(member.data), "--initial-cluster",
                              self.cluster.initial(), "--initial-cluster-token", token,
                              "--initial-advertise-peer-urls", member.peer, limit=30)
            member.start()
        self.cluster.waitUntilReady()
        return "snapshots restored"

    def retry(self, *words, member):
        """Servers refuse changes of members for a while after others were away."""
        for attempt in range(60):
            if self.cluster.tool(*words, member=member, limit=30, mayFail=attempt < 59):
                return
            time.sleep(0.5)

    def healMembers(self):
        for each in [each for each in self.heals if each[1] == "members"]:
            self.heals.remove(each)
            each[2]()
        self.cluster.waitUntilReady()

    def jump(self):
        """The agents' clock of the day goes to some other time within a month."""
        if not self.clockLibrary:
            return None
        new = self.clock.with_suffix(".new")
        new.write_text(f"{self.random.randrange(-10**6, 10**6):+d}")
        new.rename(self.clock)
        return "clock jumps"

    def sendRival(self):
        """Somebody wants the name of a publisher that is well."""
        if self.isDisturbed("publisher") or not self.isOwner(self.publisher):
            return None
        rival = self.agent(self.places[1], ["rival", self.address()], "rival.log")
        try:
            status = rival.program.wait(timeout=2)
        except subprocess.TimeoutExpired:
            rival.end()  # no member answered
            return None
        if status != 0:
            raise Failure("a rival ends: " + rival.tail())
        return "rivals refused"

    # --- The whole

    def lookForFailures(self):
        """Nobody ends by himself while the load lasts."""
        for process in [self.publisher, *self.subscribers]:
            if process.program.poll() is not None:
                raise Failure(f"{process.log.name} ended: {process.tail()}")

    def disturb(self):
        weights = [weight for weight, _ in self.disturbances]
        [(_, what)] = self.random.choices(self.disturbances, weights)
        members = (self.killLeader, self.killFollower, self.killAll, self.stopMember,
                   self.cutMember, self.cutBetweenMembers, self.cutMajority)
        if what in members and self.isDisturbed("members"):
            return
        publisher = (self.killPublisher, self.stopPublisher, self.cutPublisher, self.takeOver)
        if what in publisher and self.isDisturbed("publisher"):
            return
        if what in (self.killSubscriber, self.stopSubscriber, self.cutSubscriber) \
                and self.isDisturbed("subscribers"):
            return
        self.do(what)

    def do(self, what):
        began = time.monotonic()
        self.detail = ""
        done = what()
        if done:
            self.counts[done] += 1
            print(f"{began - self.began:6.1f} {done}:{self.detail}", file=self.diary, flush=True)

    def run(self):
        self.cluster.waitUntilReady()
        self.diary = open(self.folder / "diary", "w", encoding="ascii")
        self.began = time.monotonic()
        self.startPublisher()
        for i in range(SUBSCRIBERS):
            self.startSubscriber(i)
        end = self.began + self.seconds
        restores = [self.began + self.seconds * part / 4 for part in (3, 2, 1)][
            -max(1, min(3, self.seconds // 60)):]
        while time.monotonic() < end:
            time.sleep(self.someTime(1.2))
            self.heal()
            self.lookForFailures()
            if restores and time.monotonic() > restores[-1]:
                restores.pop()
                self.do(self.restore)
            else:
                self.disturb()
        self.settle()

    def settle(self):
        self.heal(isAll=True)
        self.cluster.waitUntilReady()
        self.lookForFailures()
        if self.layout == "old":
            self.publisher.end()
            self.startPublisher("new")
        limit = time.monotonic() + 90
        left = list(self.subscribers)
        while left:
            self.publisher.signal(signal.SIGUSR1)  # until it is listened to
            if self.publisher.program.poll() is not None:
                raise Failure("the publisher ended: " + self.publisher.tail())
            for process in [p for p in left if p.program.poll() is not None]:
                if process.program.returncode != 0:
                    raise Failure(f"{process.log.name} ended: {process.tail()}")
                left.remove(process)
            if time.monotonic() > limit:
                for process in left:
                    process.signal(signal.SIGUSR2)
                time.sleep(1)
                there = self.cluster.tool("get", "--prefix", PREFIX + "mark", "-w", "fields")
                raise Failure(f"{len(left)} subscribers did not converge: {left[0].tail()}"
                              f"owner: {self.owner()}{there}")
            time.sleep(0.05)
        self.compare()
        self.publisher.end(signal.SIGTERM)

    def compare(self):
        published = (self.folder / "published").read_text(encoding="ascii")
        if not published:
            raise Failure("no rows are published")
        for i in range(SUBSCRIBERS):
            if (self.folder / f"copy{i}").read_text(encoding="ascii") != published:
                raise Failure(f"subscriber {i} has other rows")
        expected = dict((int(oid), row) for oid, row in map(str.split, published.splitlines()))
        heads = []
        for member in self.cluster.members:
            for _ in range(100):  # those who were away catch up
                rows = self.cluster.rows(member, "net/port")
                if rows == expected:
                    break
                time.sleep(0.1)
            else:
                raise Failure(f"{member.name} has other rows")
            heads.append(self.cluster.rows(member, "net/head"))
        if heads[0] != heads[1] or heads[0] != heads[2] or len(heads[0]) != 1:
            raise Failure(f"the members' heads differ: {heads}")
        print(f"{SUBSCRIBERS} subscribers and 3 members have the publisher's {len(expected)} rows")

    def close(self):
        for process in [self.publisher, *self.subscribers, *(m.process for m in
                                                               self.cluster.members)]:
            if process:
                process.end()

    def tell(self):
        print(", ".join(f"{number} {name}" for name, number in sorted(self.counts.items())))
        totals = collections.Counter()
        for log in self.publisherLogs:
            last = ""
            for line in log.read_text(errors="replace").splitlines():
                if " transactions, " in line:
                    last = line
            for part in filter(None, last.split(", ")):
                number, name = part.split(" ", 1)
                totals[name] += int(number)
        print("publishers: " + ", ".join(f"{number} {name}" for name, number in totals.items()))
        for i in range(SUBSCRIBERS):
            lines = (self.folder / f"s{i}.log").read_text(errors="replace").splitlines()
            print(f"subscriber {i}: {lines[-1] if lines else ''}")


def main():
    program = os.path.realpath(sys.argv[1])
    seconds, seed = int(sys.argv[2]), int(sys.argv[3])
    # Inherited by all, for those who do not listen to it yet.
    signal.signal(signal.SIGUSR1, signal.SIG_IGN)
    signal.signal(signal.SIGUSR2, signal.SIG_IGN)
    networks = Networks() if sys.argv[4:] == ["networks"] else None
    print(f"{seconds} seconds, seed {seed}; " + (
        "each process has a network of its own" if networks else
        "no networks: those who would be cut off are stopped") + (
        "" if clockLibrary(program) else "; clocks stay"), flush=True)
    inMemory = MEMORY.is_dir() and shutil.disk_usage(MEMORY).free >= MEMORY_NEEDED
    folder = Path(tempfile.mkdtemp(prefix="korvo_soak_", dir=MEMORY if inMemory else None))
    soak = Soak(program, seconds, seed, networks, folder)
    try:
        soak.run()
        soak.tell()
    except Failure as failure:
        soak.tell()
        kept = Path(tempfile.mkdtemp(prefix="korvo_soak_logs_"))
        for log in [*folder.glob("*.log"), folder / "diary", *folder.glob("copy*"),
                    *folder.glob("published")]:
            shutil.copy(log, kept)
        sys.exit(f"soak-cluster: {failure}\nlogs: {kept}")
    finally:
        soak.close()
        shutil.rmtree(folder)


main()
