#!/usr/bin/env python3
"""Changes one place of the sources at a time and looks whether a test fails.

Places are drawn at random by a seed, so that a run can be repeated. Each change
is made in a copy of the tree: the one object is compiled anew and its library
linked, nothing else. Then the unit tests run, those of the changed file first,
as many in one process as bear one another; what they let through meets the
tests that --also names. A failure counts when it happens twice. A change that
no test notices is a gap, or changes nothing that could be noticed.

  mutate.py places discovery --seed 1 --count 100
  mutate.py run discovery --seed 1 --count 100 --work /var/tmp/mutants
  mutate.py run ozf/xml --only 7 --work /var/tmp/mutants --also 'Service|Stress'
  mutate.py report --work /var/tmp/mutants

A run may be ended and begun again: what has its line in <work>/results.tsv is
not run again. The work folder holds the copy and its build, some 2 GB. A tree
that is a copy already can be changed in place.
"""

import argparse
import concurrent.futures
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Which programs test a room; the tests of the first that fails end the search.
PROGRAMS = {
    "discovery": ["unit_discovery"],
    "ozf/base": ["unit_ozf_base"],
    "ozf/sync": ["unit_ozf_sync"],
    "ozf/log": ["unit_ozf_log"],
    "ozf/config": ["unit_ozf_config"],
    "ozf/xml": ["unit_ozf_xml", "unit_discovery"],
    "ozf/plugin": ["unit_ozf_plugin", "unit_discovery"],
    "ozf/orb": ["unit_ozf_orb", "unit_discovery"],
}

# What is looked for, and what takes its place. Binary operators stand between
# blanks in these sources, which tells them from templates and references.
RULES = [
    (re.compile(r" == "), " != "),
    (re.compile(r" != "), " == "),
    (re.compile(r" < "), " <= "),
    (re.compile(r" <= "), " < "),
    (re.compile(r" > "), " >= "),
    (re.compile(r" >= "), " > "),
    (re.compile(r" && "), " || "),
    (re.compile(r" \|\| "), " && "),
    (re.compile(r" \+ "), " - "),
    (re.compile(r" - "), " + "),
    (re.compile(r" \+= "), " -= "),
    (re.compile(r" -= "), " += "),
    (re.compile(r"\btrue\b"), "false"),
    (re.compile(r"\bfalse\b"), "true"),
    (re.compile(r"(?<=[(\s])!(?=[A-Za-z_(])"), ""),
    (re.compile(r"\bcontinue;"), "break;"),
    (re.compile(r"(?<=\bif \()(?=[^)\n]*\)$)"), "false && "),
    (re.compile(r"(?<=\bif \()(?=[^)\n]*\)$)"), "true || "),
    (re.compile(r"(?<![\w.\"'x])[1-9]\d{0,8}(?![\w.\"'])"), lambda m: str(int(m.group()) + 1)),
]
# A statement that is a call or an assignment by itself goes.
STATEMENT = re.compile(r"^( +)((?:[\w.:>\[\]*()-]+(?:\.|->))?\w+\(.*\)|[\w.>\[\]-]+ [+-]?= .*);$")
NOT_A_STATEMENT = re.compile(r"^\s*(return|throw|using|delete|case|else|for|while|if|switch)\b")


def without_texts(line):
    """The line with its strings and comments blanked out, as long as it was."""
    line = re.sub(r'"(?:\\.|[^"\\])*"', lambda m: '"' + "_" * (len(m.group()) - 2) + '"', line)
    line = re.sub(r"'(?:\\.|[^'\\])'", lambda m: "'" + "_" * (len(m.group()) - 2) + "'", line)
    comment = line.find("//")
    return line if comment < 0 else line[:comment] + " " * (len(line) - comment)


def places_of(path):
    """All changes to a file: line number, old line, new line."""
    found = []
    for number, line in enumerate(path.read_text().split("\n"), 1):
        code = without_texts(line)
        if line.startswith("#") or "OZF_LOG(" in code or "static_assert" in code:
            continue
        for pattern, new in RULES:
            for match in pattern.finditer(code):
                text = new(match) if callable(new) else new
                found.append((number, line, line[: match.start()] + text + line[match.end() :]))
        if STATEMENT.match(code) and not NOT_A_STATEMENT.match(code):
            found.append((number, line, STATEMENT.match(code).group(1) + ";"))
    return found


def draw(room, seed, count):
    files = sorted(p for p in (ROOT / room).rglob("*.cpp"))
    everything = [(f.relative_to(ROOT), *place) for f in files for place in places_of(f)]
    random.Random(f"{room} {seed}").shuffle(everything)
    chosen = []
    lines = set()
    for place in everything:  # at most one a line
        if (place[0], place[1]) not in lines:
            lines.add((place[0], place[1]))
            chosen.append(place)
    return chosen[:count]


def program_room(path):
    parts = path.parts
    return "/".join(parts[:2]) if parts[0] == "ozf" else parts[0]


def limit_process():
    """A change may well make a loop endless that fills the memory."""
    resource.setrlimit(resource.RLIMIT_AS, (8 << 30, 8 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def run(command, cwd, log, limit):
    """Its exit status; None when it took too long, and all it started is gone."""
    with open(log, "ab") as out:
        process = subprocess.Popen(command, cwd=cwd, stdout=out, stderr=out, start_new_session=True,
                                   shell=isinstance(command, str), preexec_fn=limit_process)
        try:
            return process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            return None


class Batch:
    """Tests of one file that run in one process."""

    def __init__(self, program, file, tests, seconds):
        self.program = program
        self.file = file
        self.tests = tests
        self.seconds = seconds

    def command(self):
        return [str(self.program), "--gtest_fail_fast", "--gtest_brief=1",
                "--gtest_filter=" + ":".join(self.tests)]

    def limit(self):
        return 10 * self.seconds + 60


class Workshop:
    def __init__(self, options):
        self.work = options.work
        self.in_place = options.in_place
        self.tree = ROOT if self.in_place else self.work / "tree"
        self.build = self.tree / "build" / "dev"
        self.jobs = options.jobs
        self.also = options.also
        self.link_flags = options.link_flags
        self.results = self.work / "results.tsv"
        self.programs = {}
        self.work.mkdir(parents=True, exist_ok=True)

    def prepare(self, programs):
        log = self.work / "prepare.log"
        if not self.in_place:
            self.copy_tree()
            if run(["cmake", "--preset", "dev"], self.tree, log, None) != 0:
                sys.exit(f"the copy cannot be configured, see {log}")
        # All programs, so that --also finds them built, too.
        targets = [] if self.also else ["--target", *programs]
        if run(["cmake", "--build", self.build, "--parallel", str(self.jobs), *targets],
               self.tree, log, None) != 0:
            sys.exit(f"the tree cannot be built, see {log}")
        commands = json.loads((self.build / "compile_commands.json").read_text())
        self.commands = {entry["file"]: entry["command"] for entry in commands}
        for program in programs:
            self.programs[program] = self.batches(program)

    def copy_tree(self):
        names = subprocess.run(
            ["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
            capture_output=True, text=True).stdout.split("\n")
        for name in filter(None, names):
            source, target = ROOT / name, self.tree / name
            if not source.is_file():
                continue
            target.parent.mkdir(parents=True, exist_ok=True)
            if not target.exists() or target.read_bytes() != source.read_bytes():
                shutil.copy2(source, target)

    def batches(self, name):
        """The tests of a program by their files. Those of a file that fail in one
        process run each in its own, which is how CTest runs all of them."""
        program = self.build / "bin" / name
        kept = self.work / f"{name}.json"
        if not kept.exists() or kept.stat().st_mtime < program.stat().st_mtime:
            listed = self.work / f"{name}.list.json"
            subprocess.run([program, "--gtest_list_tests", f"--gtest_output=json:{listed}"],
                           cwd=self.build / "tests", check=True, capture_output=True)
            files = {}
            for suite in json.loads(listed.read_text())["testsuites"]:
                for test in suite["testsuite"]:
                    file = pathlib.Path(test["file"]).stem
                    files.setdefault(file, []).append(f"{suite['name']}.{test['name']}")
            found = []
            for file, tests in files.items():
                found += self.runs_together(Batch(program, file, tests, 60))
            kept.write_text(json.dumps([[b.file, b.tests, b.seconds] for b in found]))
        return [Batch(program, *batch) for batch in json.loads(kept.read_text())]

    def runs_together(self, batch):
        begin = time.monotonic()
        status = run(batch.command(), self.build / "tests", self.work / "baseline.log", 600)
        batch.seconds = round(time.monotonic() - begin, 2)
        if status == 0:
            return [batch]
        if len(batch.tests) == 1:
            print(f"fails without any change, and is left out: {batch.tests[0]}", flush=True)
            return []
        return [b for test in batch.tests
                for b in self.runs_together(Batch(batch.program, batch.file, [test], 60))]

    def compile(self, path, log):
        """The object of a source, and the libraries that it goes into."""
        command = self.commands[str(self.tree / path)]
        made = re.search(r" -o (\S+)", command).group(1)
        # A change may well deserve a warning, which is for the tests to notice.
        if run(command + " -w -g0", self.build, log, 1800) != 0:
            return False
        return self.link(made, log)

    def link(self, made, log):
        query = subprocess.run(["ninja", "-t", "query", made], cwd=self.build, check=True,
                               capture_output=True, text=True).stdout
        for library in re.findall(r"^    (lib/\S+)$", query.split("outputs:")[1], re.M):
            command = subprocess.run(["ninja", "-t", "commands", "-s", library], cwd=self.build,
                                     check=True, capture_output=True, text=True).stdout
            command = command.replace(" -shared ", f" -shared {self.link_flags} ")
            if run(command, self.build, log, 600) != 0:
                return False
        return True

    def fails(self, batch, log):
        """What of it fails twice, or nothing."""
        own = log.with_suffix(f".{threading.get_ident()}.log")
        own.unlink(missing_ok=True)
        status = run(batch.command(), self.build / "tests", own, batch.limit())
        if status == 0:
            own.unlink()
            return ""
        text = own.read_text(errors="replace")
        failed = re.search(r"\[  FAILED  \] ([\w./]+)", text)
        again = batch
        if failed and failed.group(1) in batch.tests:
            again = Batch(batch.program, batch.file, [failed.group(1)], batch.seconds)
        if run(again.command(), self.build / "tests", own, again.limit()) != 0:
            what = " " + again.tests[0] if len(again.tests) == 1 else ""
            return f"{batch.file}{what}" + (" (too long)" if status is None else "")
        if len(batch.tests) == 1:
            return ""
        for test in batch.tests:
            found = self.fails(Batch(batch.program, batch.file, [test], batch.seconds), log)
            if found:
                return found
        return ""

    def first_failure(self, batches, log):
        found = []
        stop = threading.Event()

        def one(batch):
            if not stop.is_set():
                failure = self.fails(batch, log)
                if failure:
                    found.append(failure)
                    stop.set()

        # Tests wait most of the time.
        with concurrent.futures.ThreadPoolExecutor(2 * self.jobs) as pool:
            list(pool.map(one, batches))
        return found[0] if found else ""

    def judge(self, number, place):
        """The verdict, and the test that noticed."""
        path, line, old, new = place
        log = self.work / f"{program_room(path).replace('/', '_')}-{number}.log"
        log.unlink(missing_ok=True)
        target = self.tree / path
        stat = target.stat()
        original = target.read_text()
        text = original.split("\n")
        assert text[line - 1] == old
        text[line - 1] = new
        made = self.build / re.search(r" -o (\S+)", self.commands[str(target)]).group(1)
        kept = self.work / "original.o"
        shutil.copy2(made, kept)
        try:
            target.write_text("\n".join(text))
            if not self.compile(path, log):
                return "does not compile", ""
            batches = [b for p in PROGRAMS[program_room(path)] for b in self.programs[p]]
            batches.sort(key=lambda b: (-self.nearness(path.stem, b.file), b.seconds))
            noticed = self.first_failure(batches, log)
            if noticed:
                return "noticed", noticed
            if self.also and run(["ctest", "--test-dir", self.build, "--parallel",
                                  str(2 * self.jobs), "--stop-on-failure", "--no-tests=ignore",
                                  "--repeat", "until-pass:2", "-R", self.also],
                                 self.tree, log, 1800) != 0:
                return "noticed", self.also
            return "not noticed", ""
        finally:
            target.write_text(original)
            os.utime(target, ns=(stat.st_atime_ns, stat.st_mtime_ns))
            shutil.copy2(kept, made)
            self.link(str(made.relative_to(self.build)), log)

    @staticmethod
    def nearness(source, test):
        """How many letters two names begin with alike, when that is a word or more."""
        return len(os.path.commonprefix([source, test])) // 4

    def done(self):
        if not self.results.exists():
            return {}
        rows = [r.split("\t") for r in self.results.read_text().split("\n") if r]
        return {(r[0], r[1], r[2]): r for r in rows}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("what", choices=["places", "run", "report"])
    parser.add_argument("room", nargs="?", default="discovery")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=100)
    parser.add_argument("--only", type=int, help="just the place of that number")
    parser.add_argument("--work", type=pathlib.Path, default=pathlib.Path("/var/tmp/mutants"))
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("--in-place", action="store_true",
                        help="change this very tree, which is a copy already, and its build/dev")
    parser.add_argument("--also", help="names of further tests, as ctest -R takes them")
    parser.add_argument("--link-flags", default="", help="such as -fuse-ld=mold")
    options = parser.parse_args()

    workshop = Workshop(options)
    if options.what == "report":
        counts = {}
        for row in workshop.done().values():
            counts[row[3]] = counts.get(row[3], 0) + 1
            if row[3] == "not noticed":
                print("\t".join(row[4:]))
        print("; ".join(f"{verdict}: {count}" for verdict, count in sorted(counts.items())))
        return

    places = list(enumerate(draw(options.room, options.seed, options.count)))
    if options.only is not None:
        places = [places[options.only]]
    if options.what == "run":
        workshop.prepare(sorted({p for _, place in places for p in PROGRAMS[program_room(place[0])]}))
    done = workshop.done()
    for number, place in places:
        path, line, old, new = place
        told = f"{path}:{line}\t{old.strip()}\t{new.strip()}"
        key = (options.room, str(options.seed), str(number))
        if options.what == "places":
            print(f"{number}\t{told}")
        elif key not in done or options.only is not None:
            verdict, test = workshop.judge(number, place)
            with open(workshop.results, "a") as results:
                results.write("\t".join([*key, verdict, told, test]) + "\n")
            print(f"{number}\t{verdict}\t{told}\t{test}", flush=True)


if __name__ == "__main__":
    main()
