"""What is measured. Each function takes the `Bench`, and prints its table through the report."""

import contextlib
import json
import os
import shutil
import subprocess
import tempfile

from suite import programs
from suite.programs import Bare, Ccache, Direct, Distcc, Dorn, Failed, Floor, Kestrun, Sccache, Sem, TaskSpooler, run
from suite.stats import Report, Row, find, interleave, number, on_top_of, ratio_to

TRUE = "/bin/true"


class Bench:
    """What all measurements share: where the programs are, how long a run may be, and what has been brought up."""

    def __init__(self, program_folder, short):
        self.programs = program_folder
        self.short = short
        self.driver = programs.Driver(program_folder)
        self.report = Report()
        self.slots = len(os.sched_getaffinity(0))
        self.root = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))

    def pick(self, full, short):
        return short if self.short else full

    def program(self, name):
        return os.path.join(self.programs, name)


class Contest:
    """Contenders of one table: brings each up, gathers the rows, and ends them all when the table is done."""

    def __init__(self, bench):
        self.bench = bench
        self.stack = contextlib.ExitStack()
        self.rows = []
        self.folder = None

    def __enter__(self):
        self.folder = self.stack.enter_context(tempfile.TemporaryDirectory(prefix="bench-work-"))
        return self

    def __exit__(self, *details):
        return self.stack.__exit__(*details)

    def add(self, broker, make_sample, name=None):
        """A row whose samples come from make_sample(broker), once the broker is up. Gives the row."""
        row = Row(name or broker.name, None, needed=broker.name in (Direct.name, Floor.name, Kestrun.name, Dorn.name))
        try:
            row.sample = make_sample(self.stack.enter_context(broker))
        except Failed as failure:
            row.error = str(failure)
        self.rows.append(row)
        return row

    def timed(self, command, env=None, cwd=None):
        """A sample function: the wall time of one run, in seconds."""
        return lambda: [self.bench.driver.times(command, env=env, cwd=cwd)[0]]


def one(bench):
    """One invocation of /bin/true, one client."""
    count = bench.pick(50, 5)
    slots = bench.slots
    with Contest(bench) as contest:
        def each(runs, tool=None):
            def make(broker):
                def sample():
                    command = broker.command(tool or [TRUE])
                    return [time * 1e3 for time in bench.driver.times(command, runs, env=broker.env)[1]]
                return sample
            return make
        for broker in (Direct(), Floor(bench.programs, slots), Kestrun(bench.programs, slots),
                       Bare(bench.programs, slots), TaskSpooler(slots),
                       Ccache(), Distcc(slots)):
            contest.add(broker, each(count))
        # It takes nothing but compilers: a question that it passes on, against the same question asked directly.
        version = ["gcc", "--version"]
        question = contest.add(Direct(), each(count, version), "direct, gcc --version")
        answer = contest.add(Sccache(slots), each(count, version), "sccache, gcc --version")
        question.base = answer.base = question.name
        contest.add(Sem(slots), each(bench.pick(3, 1)))
        interleave(contest.rows, bench.pick(10, 1))
        top = on_top_of(contest.rows, Direct.name)

        def times_floor(row):
            floor, extra = find(contest.rows, Floor.name), top(row)
            return extra / top(floor) if floor and extra is not None else None
        bench.report.section("One invocation of /bin/true, one client",
                             "Target, time on top of direct: at most 1.3 times the floor, and below every peer.",
                             contest.rows, "ms", [("on top of direct", top), ("times the floor", times_floor)])


def clients(bench):
    """/bin/true by 8, 30 and 60 clients at once."""
    count = bench.pick(600, 60)
    for at_once in (8, 30, 60):
        with Contest(bench) as contest:
            def rate(broker, at_once=at_once):
                def sample():
                    return [count / bench.driver.times(broker.command([TRUE]), count, at_once, env=broker.env)[0]]
                return sample
            slots = bench.slots
            for broker in (Direct(), Floor(bench.programs, slots), Kestrun(bench.programs, slots), TaskSpooler(slots),
                           Ccache(), Distcc(slots)):
                contest.add(broker, rate)
            interleave(contest.rows, bench.pick(7, 1))
            bench.report.section(f"/bin/true by {at_once} clients at once", "Target: at least 0.85 times the floor.",
                                 contest.rows, "a second", [("times the floor", ratio_to(contest.rows, Floor.name))])


def compile_one(bench):
    """gcc -c of 20 lines, one client."""
    with Contest(bench) as contest:
        source = os.path.join(contest.folder, "small.c")
        with open(source, "w", encoding="ascii") as file:
            file.writelines(f"int Times{i}(int a) {{ return a * {i}; }}\n" for i in range(20))
        count = bench.pick(20, 2)

        def each(broker):
            tool = ["gcc", "-c", source, "-o", os.path.join(broker.folder, "small.o")]
            return lambda: [time * 1e3 for time in bench.driver.times(broker.command(tool), count, env=broker.env)[1]]
        slots = bench.slots
        for broker in (Direct(), Floor(bench.programs, slots), Kestrun(bench.programs, slots),
                       Bare(bench.programs, slots), TaskSpooler(slots),
                       Ccache(), Distcc(slots), Sccache(slots)):
            contest.add(broker, each)
        interleave(contest.rows, bench.pick(10, 1))
        bench.report.section("gcc -c of 20 lines, one client", "Target: at most 1.03 times direct.", contest.rows, "ms",
                             [("on top of direct", on_top_of(contest.rows, Direct.name)),
                              ("times direct", ratio_to(contest.rows, Direct.name))])


def write_batch(folder, count):
    """The same batch of /bin/true as a job script, a makefile and a ninja file."""
    with open(os.path.join(folder, "script"), "w", encoding="ascii") as file:
        file.write(f"{TRUE}\n" * count)
    targets = " ".join(f"t{i}" for i in range(count))
    with open(os.path.join(folder, "makefile"), "w", encoding="ascii") as file:
        file.write(f"all: {targets}\n.PHONY: all {targets}\n{targets}:\n\t@{TRUE}\n")
    with open(os.path.join(folder, "build.ninja"), "w", encoding="ascii") as file:
        file.write(f"rule run\n  command = {TRUE}\n")
        file.writelines(f"build t{i}: run\n" for i in range(count))


def add_batch_runners(contest, count, slots):
    """A row for each program that can run the batch in the contest's folder."""
    bench = contest.bench
    folder = contest.folder
    script = os.path.join(folder, "script")
    direct = {
        "make -j": ["make", "-s", "-f", os.path.join(folder, "makefile"), f"-j{slots}"],
        "ninja -j": ["ninja", "-C", folder, "--quiet", f"-j{slots}"],
        "xargs -P": ["sh", "-c", f"seq {count} | xargs -P {slots} -n 1 {TRUE}"],
        "spawn with two pipes": [bench.program("floor"), "batch", str(count), str(slots), TRUE],
    }

    def rate(command, broker):
        def sample():
            # Without its log it has no knowledge of an earlier run, as all the others.
            for log in (".ninja_log", ".ninja_deps"):
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(os.path.join(folder, log))
            return [count / bench.driver.times(command, env=broker.env)[0]]
        return sample
    contest.add(Kestrun(bench.programs, slots), lambda broker: rate(broker.script(script), broker))
    for name, command in direct.items():
        contest.add(Direct(), lambda broker, command=command: rate(command, broker), name)
    if count <= 1000:
        enqueue = f'i=0; while [ $i -lt {count} ]; do tsp -n {TRUE}; i=$((i + 1)); done; tsp -w'
        contest.add(TaskSpooler(slots), lambda broker: rate(["sh", "-c", enqueue], broker))
        parallel = ["sh", "-c", f"seq {count} | parallel -j {slots} -n 1 {TRUE}"]
        contest.add(Sem(slots), lambda broker: rate(parallel, broker), "GNU parallel")


def script(bench):
    """A script of 1000 and 10 000 jobs of /bin/true, 2 and 30 at once."""
    for count in bench.pick((1000, 10000), (100,)):
        for slots in (2, 30):
            with Contest(bench) as contest:
                write_batch(contest.folder, count)
                add_batch_runners(contest, count, slots)
                interleave(contest.rows, bench.pick(5 if count <= 1000 else 3, 1))
                bench.report.section(f"{count} jobs of /bin/true, {slots} at once",
                                     "Target: at least make's, and never below ninja's.", contest.rows, "jobs a second",
                                     [("times make", ratio_to(contest.rows, "make -j"))])


def growth(bench):
    """Whether the cost of a job stays flat as a master gets older, and what it keeps of a finished job."""
    lines = []
    for count in bench.pick((100, 1000, 10000, 100000), (20, 100)):
        with tempfile.TemporaryDirectory(prefix="bench-work-") as folder, Kestrun(bench.programs, bench.slots) as master:
            write_batch(folder, count)
            before = master.resident_bytes()
            seconds = bench.driver.times(master.script(os.path.join(folder, "script")), env=master.env)[0]
            kept = (master.resident_bytes() - before) / count
            lines.append([count, number(count / seconds), number(kept)])
    bench.report.plain("A master that gets older", "A fresh master for each line; jobs of /bin/true. Target: flat.",
                       ["jobs", "jobs a second", "resident bytes more, a job"], lines)


def discard(bench):
    """What a master keeps of jobs with output, and one invocation's time, with and without DiscardOutput."""
    size = 4096
    lines = []
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="bench-work-"))
        masters = [stack.enter_context(Kestrun(bench.programs, bench.slots, ("EagerScheduling", *more)))
                   for more in ((), ("DiscardOutput",))]
        script_path = os.path.join(folder, "script")

        def milliseconds(master):
            command = master.command([TRUE])
            return lambda: [time * 1e3 for time in bench.driver.times(command, bench.pick(50, 5), env=master.env)[1]]
        # In small scripts: what waits in a master for its turn is not what it keeps.
        batch = bench.pick(500, 50)
        with open(script_path, "w", encoding="ascii") as file:
            file.write(f"{bench.program('driver')} emit {size}\n" * batch)
        done = 0
        for count in bench.pick((0, 1000, 10000, 50000, 100000), (0, 100)):
            for done in range(done + batch, count + 1, batch):
                for master in masters:
                    run(master.script(script_path), env=master.env)
            rows = [Row(master.id, milliseconds(master), needed=True) for master in masters]
            interleave(rows, bench.pick(10, 1))
            for row in rows:
                if row.error:
                    raise Failed(row.error)
            lines.append([count] + [number(master.resident_bytes() / 2**20) for master in masters]
                         + [number(row.median()) for row in rows])
    bench.report.plain(f"Jobs with {size // 1024} KiB of output each",
                       "Two masters side by side, each with all jobs so far behind it. Target: flat with `DiscardOutput`.",
                       ["jobs", "all kept: MiB", "DiscardOutput: MiB", "all kept: one invocation, ms",
                        "DiscardOutput: one invocation, ms"], lines)


def memory(bench):
    """Resident memory of a master, idle and with finished jobs."""
    count = bench.pick(10000, 100)
    with tempfile.TemporaryDirectory(prefix="bench-work-") as folder, Kestrun(bench.programs, bench.slots) as master:
        write_batch(folder, count)
        lines = [["idle", number(master.resident_bytes() / 2**20)]]
        run(master.script(os.path.join(folder, "script")), env=master.env)
        lines.append([f"after {count} jobs without output", number(master.resident_bytes() / 2**20)])
    bench.report.plain("Memory of a master", "Target: at most 20 MiB idle, 40 MiB after 10 000 jobs.",
                       ["", "resident, MiB"], lines)


def project(bench):
    """A C library and its programs: make and ninja, as they are and with each compile through a broker."""
    sources = run([os.path.join(bench.root, "scripts", "real-project"), os.path.join(bench.root, "build/bench-project")],
                  stdout=subprocess.PIPE).stdout.decode().strip()
    slots = 2
    for tool in ("make", "ninja"):
        with Contest(bench) as contest:
            def build(broker, tool=tool, contest=contest):
                copy = os.path.join(contest.folder, broker.name)
                shutil.copytree(sources, copy, symlinks=True)
                prepare = prepare_make if tool == "make" else prepare_ninja
                clean, again = prepare(copy, broker, slots)

                def sample():
                    run(clean, env=broker.env)
                    return [bench.driver.times(broker.around(again), env=broker.env)[0]]
                return sample
            for broker in (Direct(), Floor(bench.programs, slots), Dorn(bench.programs, slots)):
                contest.add(broker, build)
            interleave(contest.rows, bench.pick(3, 1))
            files = [name for part in ("library", "programs") for _, _, names in os.walk(os.path.join(sources, part))
                     for name in names if name.endswith(".c")]
            bench.report.section(f"A library and its programs, {len(files)} C files, {tool} -j{slots}",
                                 "Target: at most 1.01 times direct, dorn included.",
                                 contest.rows, "s", [("times direct", ratio_to(contest.rows, Direct.name))])


def dorn(bench):
    """What dorn costs a build that has nothing to do."""
    count = bench.pick(20, 3)
    for title, prepare in (("true", None), ("make with nothing to do", "makefile"), ("ninja with nothing to do", "ninja")):
        with Contest(bench) as contest:
            folder = contest.folder
            target = os.path.join(folder, "made")
            with open(os.path.join(folder, "makefile"), "w", encoding="ascii") as file:
                file.write(f"{target}:\n\t@touch {target}\n")
            with open(os.path.join(folder, "build.ninja"), "w", encoding="ascii") as file:
                file.write(f"rule run\n  command = touch $out\nbuild {target}: run\n")
            command = {None: [TRUE], "makefile": ["make", "-s", "-C", folder],
                       "ninja": ["ninja", "-C", folder, "--quiet"]}[prepare]
            run(command)

            def each(broker, command=command):
                return lambda: [time * 1e3 for time in
                                bench.driver.times(broker.around(command), count, env=broker.env)[1]]
            for broker in (Direct(), Dorn(bench.programs, bench.slots)):
                contest.add(broker, each)
            interleave(contest.rows, bench.pick(10, 1))
            bench.report.section(f"dorn around {title}", "Target: at most 10 ms on top of direct.", contest.rows, "ms",
                                 [("on top of direct", on_top_of(contest.rows, Direct.name))])


def prepare_make(copy, broker, slots):
    make = ["make", "-s", "-C", copy]
    return make + ["clean"], make + [f"-j{slots}", "CC=" + " ".join(broker.command(["gcc"])), "programs"]


def prepare_ninja(copy, broker, slots):
    build = os.path.join(copy, "build-ninja")
    launcher = ";".join(broker.command([]))
    run(["cmake", "-G", "Ninja", "-S", copy, "-B", build, "-DCMAKE_BUILD_TYPE=Release", "-DENABLE_TESTING=OFF",
         f"-DCMAKE_C_COMPILER_LAUNCHER={launcher}"], env=broker.env)
    ninja = ["ninja", "-C", build]
    return ninja + ["-t", "clean"], ninja + ["--quiet", f"-j{slots}"]


def ring(bench):
    """Bytes between two processes: the ring, a pipe, a Unix socket."""
    path = bench.program("ring_bench")
    roads = (("ring", True), ("pipe", False), ("unix", False))

    def measured(arguments, convert, env):
        def sample():
            done = run([path] + arguments, env=env, stdout=subprocess.PIPE)
            return [convert(float(done.stdout))]
        return sample

    with tempfile.TemporaryDirectory(prefix="kestrun-bench-", dir="/dev/shm") as objects:
        env = dict(os.environ, KESTRUN_OBJECT_DIR=objects)
        trips = bench.pick(50000, 1000)
        rows = [Row(road, measured([road, "latency", str(trips)], lambda s: s / trips * 1e6, env), needed)
                for road, needed in roads]
        interleave(rows, bench.pick(5, 1))
        bench.report.section("Round trip of 64 bytes between two processes", "Target: at most the pipe's.", rows, "us",
                             [("times the pipe", ratio_to(rows, "pipe"))])
        for block in (8192, 65536):
            size = bench.pick(2**30, 2**25)
            rows = [Row(road, measured([road, "throughput", str(size), str(block)], lambda s: size / 2**30 / s, env),
                        needed) for road, needed in roads]
            interleave(rows, bench.pick(5, 1))
            bench.report.section(f"{size // 2**20} MiB in writes of {block // 1024} KiB",
                                 "Target: at least the Unix socket's.", rows, "GiB/s",
                                 [("times the socket", ratio_to(rows, "unix"))])


def output(bench):
    """A tool's output, from the tool to the client's standard output."""
    size = bench.pick(64, 8) * 2**20
    tool = [bench.program("driver"), "emit", str(size)]
    with Contest(bench) as contest:
        def seconds(command, broker):
            written = len(run(command, env=broker.env, stdout=subprocess.PIPE).stdout)
            if written != size:
                raise Failed(f"{written} bytes came out of {size}")
            return contest.timed(command, env=broker.env)
        contest.add(Direct(), lambda broker: seconds(["sh", "-c", " ".join(tool) + " | cat"], broker), "tool piped into cat")
        for broker in (Floor(bench.programs), Kestrun(bench.programs)):
            contest.add(broker, lambda broker: seconds(broker.command(tool), broker))
        interleave(contest.rows, bench.pick(15, 1))
        bench.report.section(f"{size // 2**20} MiB of output of one job", "Target: at most 1.3 times the plain pipe.",
                             contest.rows, "s", [("times the pipe", ratio_to(contest.rows, "tool piped into cat"))])


def start(bench):
    """From the start of a process to the end of its main."""
    count = bench.pick(100, 10)
    with Contest(bench) as contest:
        def each(command):
            def make(broker):
                return lambda: [time * 1e3 for time in bench.driver.times(command, count, env=broker.env)[1]]
            return make
        contest.add(Direct(), each([bench.program("hello")]), "C program that prints a line")
        contest.add(Direct(), each([bench.program("kestrun"), "--version"]), "kestrun --version")
        interleave(contest.rows, bench.pick(10, 1))
        bench.report.section("Start of a process", "Target: at most 1.3 times the C program.", contest.rows, "ms",
                             [("times the C program", ratio_to(contest.rows, "C program that prints a line"))])


def micro(bench):
    """The hot paths one by one, by kestrun_bench."""
    with tempfile.TemporaryDirectory(prefix="kestrun-bench-", dir="/dev/shm") as objects:
        env = dict(os.environ, KESTRUN_OBJECT_DIR=objects)
        done = run([bench.program("kestrun_bench"), "--benchmark_format=json", "--benchmark_repetitions=3",
                    "--benchmark_report_aggregates_only", f"--benchmark_min_time={bench.pick(0.3, 0.005)}"],
                   env=env, stdout=subprocess.PIPE)
    found = json.loads(done.stdout)["benchmarks"]
    broken = [entry["name"] for entry in found if entry.get("error_occurred")]
    if broken:
        raise Failed(", ".join(broken))
    nanoseconds = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
    lines = [[entry["run_name"].removeprefix("BM_").removesuffix("/real_time"),
              number(entry["real_time"] * nanoseconds[entry["time_unit"]]),
              number(entry["bytes_per_second"] / 2**30) if "bytes_per_second" in entry else ""]
             for entry in found if entry["aggregate_name"] == "median"]
    bench.report.plain("The hot paths", "Wall time of one turn; medians of three.", ["", "ns", "GiB/s"], lines)


# In the order in which they are run; those of SLOW are left out of the short form.
SCENARIOS = {"one": one, "clients": clients, "compile": compile_one, "script": script, "growth": growth,
             "discard": discard, "memory": memory, "dorn": dorn, "project": project, "ring": ring, "output": output, "start": start,
             "micro": micro}
SLOW = ("project",)
