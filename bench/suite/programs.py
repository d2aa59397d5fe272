"""The programs that are compared: how each is started, asked to run a command, and ended."""

import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from suite.stats import Failed

TIME_LIMIT = 600


def run(command, env=None, cwd=None, stdin=None, stdout=subprocess.DEVNULL):
    """Runs a command to its end; Failed with what it said if it does not exit with 0."""
    try:
        done = subprocess.run(command, env=env, cwd=cwd, stdin=stdin or subprocess.DEVNULL, stdout=stdout,
                              stderr=subprocess.PIPE, timeout=TIME_LIMIT, check=False)
    except FileNotFoundError as error:
        raise Failed(f"{command[0]} is not installed") from error
    except subprocess.TimeoutExpired as error:
        raise Failed(f"{command[0]} did not end within {TIME_LIMIT} s") from error
    said = done.stderr.decode(errors="replace")
    if done.returncode != 0:
        raise Failed(f"exit code {done.returncode}: {' / '.join(said.split(chr(10))[:3])}")
    # A stub that falls back to running the tool itself ends well, but it is not what is to be measured.
    if "KESTRUN: " in said:
        raise Failed(said.split("\n")[0])
    return done


class Driver:
    """The harness in bench/driver.cc: times many runs of a command."""

    def __init__(self, programs):
        self.path = os.path.join(programs, "driver")

    def times(self, command, count=1, at_once=1, env=None, cwd=None):
        """Seconds: all runs together, and a list of each."""
        line = [self.path, "run", "-n", str(count), "-c", str(at_once)] + command
        done = run(line, env=env, cwd=cwd, stdout=subprocess.PIPE)
        values = [int(word) / 1e9 for word in done.stdout.split()]
        return values[0], values[1:]


def wait_until(condition, what, process=None, limit=30):
    """Looks again and again until something that we start has come up."""
    end = time.monotonic() + limit
    while not condition():
        if process is not None and process.poll() is not None:
            raise Failed(f"{what} ended at once with exit code {process.returncode}")
        if time.monotonic() > end:
            raise Failed(f"{what} did not come up within {limit} s")
        time.sleep(0.01)


def end(process, with_signal=signal.SIGTERM):
    """Ends a process that we started and waits for it."""
    if process is None or process.poll() is not None:
        return
    process.send_signal(with_signal)
    try:
        process.wait(timeout=30)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def installed(program):
    if shutil.which(program) is None:
        raise Failed(f"{program} is not installed")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Broker:
    """Something that runs commands for us: a context manager, with an environment and a form for the command.

    While it runs it has a folder of its own. `slots` is how many commands it may run at once.
    """

    name = ""
    process = None

    def __init__(self, slots=2):
        self.slots = slots
        self.env = dict(os.environ)
        self.folder = None

    def __enter__(self):
        self.folder = tempfile.mkdtemp(prefix="bench-")
        # A daemon may run as a user of its own and have to write there.
        os.chmod(self.folder, 0o755)
        try:
            self.start()
        except BaseException:
            self.__exit__(None, None, None)
            raise
        return self

    def __exit__(self, *_):
        try:
            self.stop()
        finally:
            shutil.rmtree(self.folder, ignore_errors=True)

    def start(self):
        pass

    def stop(self):
        end(self.process)

    def command(self, tool):
        """How this broker is asked to run a tool."""
        return tool

    def around(self, build):
        """How a whole build is started, for those that stand around it."""
        return build


class Direct(Broker):
    name = "direct"


class Floor(Broker):
    """The least client and broker, bench/floor.cc."""

    name = "floor"

    def __init__(self, programs, slots=2):
        super().__init__(slots)
        self.path = os.path.join(programs, "floor")

    def start(self):
        self.address = os.path.join(self.folder, "socket")
        self.process = subprocess.Popen([self.path, "serve", self.address, str(self.slots)], stdin=subprocess.DEVNULL)
        wait_until(lambda: os.path.exists(self.address), "floor", self.process)

    def command(self, tool):
        return [self.path, "run", self.address] + tool


# What dorn's first settings turn on, which is what people get.
FIRST_SETTINGS = ("EagerScheduling", "CancelOrphanedJobs", "EnforceJobTimeout", "DiscardOutput", "ReclaimPlaces",
                  "TransparentTools")


class Kestrun(Broker):
    """A master of its own: own settings, own folder for its named objects, so that several can run side by side."""

    name = "kestrun"
    count = 0

    def __init__(self, programs, slots=2, extensions=FIRST_SETTINGS):
        super().__init__(slots)
        self.path = os.path.join(programs, "kestrun")
        self.extensions = extensions
        Kestrun.count += 1
        self.id = f"bench{os.getpid()}n{Kestrun.count}"

    def prepare(self):
        """Settings, and an environment apart from any other master."""
        installed(self.path)
        self.objects = tempfile.mkdtemp(prefix="kestrun-bench-", dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        self.env.update(RV_COMMON_PATH=self.folder, KESTRUN_OBJECT_DIR=self.objects, KESTRUN_ID=self.id)
        for variable in ("KESTRUN_OPTS", "KESTRUN_LOG", "KESTRUN_PROJECT"):
            self.env.pop(variable, None)
        os.mkdir(os.path.join(self.folder, "DORN"))
        with open(os.path.join(self.folder, "DORN", "Zelvo.ini"), "w", encoding="ascii") as settings:
            settings.write(f"[LocalSettings]\nMaxConcurrentJobs=int:{self.slots}\nMaxStubs=int:60\n\n"
                           "[Extensions]\n" + "".join(f"{name}=bool:true\n" for name in self.extensions))

    def start(self):
        self.prepare()
        self.process = subprocess.Popen([self.path, "-master", "-id", self.id], env=self.env,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        wait_until(self.answers, "the master", self.process)

    def answers(self):
        # Without a master a client runs the tool alone, which would look like an answer.
        if "TransparentTools" in self.extensions:
            return os.path.exists(os.path.join(self.objects, f"stream.slots.{self.id}"))
        try:
            tool = subprocess.run(self.command(["/bin/true"]), env=self.env, stdin=subprocess.DEVNULL,
                                  capture_output=True, timeout=20, check=False)
        except subprocess.TimeoutExpired:
            return False
        return tool.returncode == 0 and not tool.stderr

    def stop(self):
        super().stop()
        shutil.rmtree(getattr(self, "objects", ""), ignore_errors=True)

    def command(self, tool):
        return [self.path] + tool

    def script(self, path):
        return [self.path, "-s", path]

    def resident_bytes(self):
        """Of the master and of whatever helper it has beside it."""
        pids, total = [self.process.pid], 0
        for pid in pids:
            with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as status:
                total += sum(int(line.split()[1]) * 1024 for line in status if line.startswith("VmRSS:"))
            for task in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{task}/children", encoding="ascii") as children:
                    pids += [int(child) for child in children.read().split()]
        return total


class Bare(Kestrun):
    """Kestrun's master with the least client there can be, bench/bare_client.c: what a client's start may cost."""

    name = "least client, no C library"

    def start(self):
        installed(self.bare)
        super().start()
        self.env["BARE_SOCKET"] = os.path.join(self.objects, f"stream.slots.{self.id}")

    @property
    def bare(self):
        return os.path.join(os.path.dirname(self.path), "bare_client")

    def command(self, tool):
        return [self.bare, shutil.which(tool[0])] + tool[1:]


class Dorn(Kestrun):
    """As people use it: dorn around the whole build, with its own first settings."""

    name = "dorn and kestrun"

    def start(self):
        self.prepare()
        self.env.pop("KESTRUN_ID")

    def around(self, build):
        return [os.path.join(os.path.dirname(self.path), "dorn")] + build


class TaskSpooler(Broker):
    name = "task-spooler"

    def start(self):
        installed("tsp")
        self.env.update(TS_SOCKET=os.path.join(self.folder, "socket"), TMPDIR=self.folder)
        run(["tsp", "-S", str(self.slots)], env=self.env)

    def stop(self):
        if "TS_SOCKET" in self.env:
            subprocess.run(["tsp", "-K"], env=self.env, capture_output=True, check=False)

    def command(self, tool):
        return ["tsp", "-nf"] + tool


class Ccache(Broker):
    name = "ccache, cache off"

    def start(self):
        installed("ccache")
        self.env.update(CCACHE_DISABLE="1", CCACHE_DIR=self.folder)

    def command(self, tool):
        return ["ccache"] + tool


class Distcc(Broker):
    """With a server on this machine. It compiles and nothing else, so a plain tool is given to it as the compiler of a
    file that needs no preprocessor."""

    name = "distcc, local server"

    def start(self):
        installed("distccd")
        port = free_port()
        log = os.path.join(self.folder, "log")
        with open(log, "w", encoding="ascii"):
            os.chmod(log, 0o666)
        command = ["distccd", "--daemon", "--no-detach", "--listen", "127.0.0.1", "--port", str(port),
                   "--allow", "127.0.0.1/32", "--enable-tcp-insecure", "--jobs", str(self.slots),
                   "--log-file", log, "--log-level", "error"]
        if os.geteuid() == 0:
            command += ["--user", "distccd"]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        # A client that finds the host's places taken sleeps for a while; the limit is the server's, so none has to.
        self.env.update(DISTCC_DIR=self.folder, DISTCC_HOSTS=f"127.0.0.1:{port}/100", DISTCC_FALLBACK="0",
                        DISTCC_SKIP_LOCAL_RETRY="1", DISTCC_BACKOFF_PERIOD="0")
        self.input = os.path.join(self.folder, "empty.i")
        with open(self.input, "w", encoding="ascii"):
            pass

        def listens():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0
        wait_until(listens, "distccd", self.process)

    def command(self, tool):
        if len(tool) == 1:
            tool = tool + ["-c", self.input, "-o", self.input[:-1] + "o"]
        return ["distcc"] + tool


class Sccache(Broker):
    """Told to compile again whatever it has in its cache."""

    name = "sccache, recaching"

    def start(self):
        installed("sccache")
        self.env.update(SCCACHE_DIR=self.folder, SCCACHE_SERVER_PORT=str(free_port()), SCCACHE_IDLE_TIMEOUT="0",
                        SCCACHE_RECACHE="1")
        run(["sccache", "--start-server"], env=self.env)

    def stop(self):
        if "SCCACHE_DIR" in self.env:
            subprocess.run(["sccache", "--stop-server"], env=self.env, capture_output=True, check=False)

    def command(self, tool):
        return ["sccache"] + tool


class Sem(Broker):
    name = "GNU parallel's sem"

    def start(self):
        installed("sem")
        self.env.update(HOME=self.folder)

    def command(self, tool):
        return ["sem", "--id", "bench", "-j", str(self.slots), "--fg"] + tool
