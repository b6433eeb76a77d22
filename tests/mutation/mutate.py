#!/usr/bin/env python3
"""Changes one place of the sources at a time and looks whether a test fails.

Places are drawn at random by a seed, so that a run can be repeated. Each change
is made in a copy of the tree, which is built anew only where the change is, and
the tests that are named after the changed file run first, then the rest of the
unit tests of its room, then what is named besides. A change that no test
notices is a gap, or changes nothing that could be noticed.

  mutate.py places discovery --seed 1 --count 100
  mutate.py run discovery --seed 1 --count 100 --work /var/tmp/mutants
  mutate.py run ozf/xml --only 7 --work /var/tmp/mutants --also 'Service|Stress'
  mutate.py report --work /var/tmp/mutants

A run may be ended and begun again: what has its line in <work>/results.tsv is
not run again. The work folder holds the copy and its build, some 2 GB. A tree
that is a copy already can be changed in place.
"""

import argparse
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys

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


def run(command, cwd, log, limit):
    """Its exit status; None when it took too long, and all it started is gone."""
    with open(log, "ab") as out:
        process = subprocess.Popen(command, cwd=cwd, stdout=out, stderr=out, start_new_session=True)
        try:
            return process.wait(timeout=limit)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            return None


class Workshop:
    def __init__(self, work, jobs, also, in_place):
        self.work = work
        self.in_place = in_place
        self.tree = ROOT if in_place else work / "tree"
        self.build = self.tree / "build" / "dev"
        self.jobs = str(jobs)
        self.also = also
        self.results = work / "results.tsv"
        work.mkdir(parents=True, exist_ok=True)

    def prepare(self, programs):
        if self.in_place:
            if self.compile(programs, self.work / "prepare.log") != 0:
                sys.exit(f"the tree cannot be built, see {self.work}/prepare.log")
            return
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
        log = self.work / "prepare.log"
        # A change may well deserve a warning, which is for the tests to notice.
        if run(["cmake", "--preset", "dev", "-DCMAKE_CXX_FLAGS=-w"], self.tree, log, None) != 0:
            sys.exit(f"the copy cannot be configured, see {log}")
        if self.compile(programs, log) != 0:
            sys.exit(f"the copy cannot be built, see {log}")

    def compile(self, programs, log):
        return run(["cmake", "--build", self.build, "--parallel", self.jobs, "--target", *programs],
                   self.tree, log, 1800)

    def tests(self, which, log):
        return run(["ctest", "--test-dir", self.build, "--parallel", str(2 * int(self.jobs)),
                    "--stop-on-failure", "--no-tests=ignore", *which], self.tree, log, 1200)

    def judge(self, number, place):
        path, line, old, new = place
        programs = PROGRAMS[program_room(path)]
        log = self.work / f"{program_room(path).replace('/', '_')}-{number}.log"
        log.unlink(missing_ok=True)
        target = self.tree / path
        original = target.read_text()
        text = original.split("\n")
        assert text[line - 1] == old
        text[line - 1] = new
        try:
            target.write_text("\n".join(text))
            if self.compile(programs, log) != 0:
                return "does not compile"
            # CTest calls tests after their files, and labels them with their programs.
            narrow = f"^{path.stem}"
            steps = [["-R", narrow]] + [["-L", f"^{p}$", "-E", narrow] for p in programs]
            if self.also:
                steps.append(["-R", self.also])
            for which in steps:
                status = self.tests(which, log)
                if status != 0:
                    return "noticed, by its time" if status is None else "noticed"
            return "not noticed"
        finally:
            target.write_text(original)

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
    options = parser.parse_args()

    workshop = Workshop(options.work, options.jobs, options.also, options.in_place)
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
            verdict = workshop.judge(number, place)
            with open(workshop.results, "a") as results:
                results.write("\t".join([*key, verdict, told]) + "\n")
            print(f"{number}\t{verdict}\t{told}", flush=True)


if __name__ == "__main__":
    main()
