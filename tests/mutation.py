"""How strong the tests are: one-line faults in the library, one at a time, and who notices.

    /usr/bin/python3 tests/mutation.py [-n FAULTS] [-j WORKERS] [--again]      (make mutate)

Chosen by digests: the same sources give the same faults, a larger -n more besides them, and a file
gets its share by the lines that can be faulty. Every worker builds its own copy of the tree in
build/mutation with -O1 and runs the library's test programs until one fails or takes too long, twice in
a row. Answers stay in build/mutation/results.jsonl: a stopped run goes on where it was, --again tries
anew what nobody noticed. mutation_survivors.md says which faults change no behaviour and why: these do
not count. The exit status is 0 when 95 % of the others are noticed.
"""
import argparse
import collections
import concurrent.futures
import hashlib
import json
import pathlib
import re
import resource
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "mutation"

# Comments, directives, other processors' code, log lines and texts: no fault belongs there.
TEXT = r'"(?:\\.|[^"\\\n])*"'
NOT_CODE = re.compile(r"/\*.*?\*/|//.*|#if.*(?:__arm__|FP_FAST)[^#]*|#.*|if \(_m_n_debug_log.*|"
                      r"(?:VAD_(?:ERROR|DEBUG)|static_assert)\((?:" + TEXT + r'|[^;"])*;|' + TEXT)
# What an operator becomes; between blanks, which set it apart from pointers and templates.
OPERATORS = {old: (kind, new) for kind, olds, news in (
    ("relation", "< <= > >= == !=", "<= < >= > != =="),
    ("arithmetic", "+ - * / % += -= *= /= << >>", "- + / * * -= += /= *= >> <<"),
    ("logic", "&& || & |", "|| && | &")) for old, new in zip(olds.split(), news.split())}
NUMBER = re.compile(r"(?<![\w.])(0x[0-9A-Fa-f]+|\d+(?:\.\d*)?(?:e[+-]?\d+)?)")
STATEMENT = re.compile(r" *(?!(?:return|using|break|continue)\b)((?:\+\+|--)?\*?[\w:.>\-]+(?:\[.*\])?"
                       r"(?: [-+*/|&]?= .*|\(.*\)|\+\+)?;)$")
CONDITION = re.compile(r"\bif \((.*)\) \{$")
ARGUMENTS = re.compile(r"(?<!std::max)(?<!std::min)\(([\w.]+), ([\w.]+)(?=[,)])")


def faults_of(code):
    """(kind, start, end, replacement) in a line of code."""
    for match in re.finditer(r"(?<= )\S+(?= |$)", code):
        if match[0] in OPERATORS:
            yield OPERATORS[match[0]][0], *match.span(), OPERATORS[match[0]][1]
    for match in NUMBER.finditer(code):
        old = match[1]
        yield "constant", *match.span(), (
            hex(int(old, 16) + 1) if old.startswith("0x") else str(int(old) + 1) if old.isdigit()
            else repr(float(old) * 1.1 or 1.0))
    if match := STATEMENT.match(code):
        yield "dropped", *match.span(1), ";"
    if (match := CONDITION.search(code)) and " = " not in match[1]:
        yield "negated", *match.span(1), None
    if (match := ARGUMENTS.search(code)) and match[1] != match[2]:
        yield "swapped", match.start(1), match.end(2), f"{match[2]}, {match[1]}"


def plan(path):
    """The faults of a file in the order of choice: the kinds take turns, a line has one fault."""
    text = (ROOT / path).read_text()
    code_only = NOT_CODE.sub(lambda match: re.sub(".", " ", match[0]), text).split("\n")
    queues, seen, chosen = collections.defaultdict(list), collections.Counter(), {}
    for at, (old, code) in enumerate(zip(text.split("\n"), code_only)):
        for kind, start, end, replacement in faults_of(code.rstrip()):
            new = old[:start] + (replacement or f"!({old[start:end]})") + old[end:]
            name = f"{path}|{old.strip()}|{new.strip()}"
            seen[name] += 1
            key = hashlib.sha1(f"{name}|{seen[name]}".encode()).hexdigest()[:16]
            queues[kind].append(dict(key=key, file=path, line=at + 1, kind=kind, old=old, new=new))
    for queue in queues.values():
        queue.sort(key=lambda fault: fault["key"], reverse=True)
    while any(queues.values()):
        for kind in filter(queues.get, sorted(queues)):
            fault = queues[kind].pop()
            chosen.setdefault(fault["line"], fault)
    return list(chosen.values())


def work(tree, todo, results, log):
    """Takes files from `todo`, [(how many, file, faults)], and tries their faults in a copy of the tree."""
    seconds = {}  # of each test program

    def succeeds(*words, limit=3600):
        command = ["env", f"TMPDIR={tree}", "timeout", "-sKILL", str(limit), *words]
        null = subprocess.DEVNULL
        return subprocess.run(command, cwd=tree, stdin=null, stdout=null, stderr=null).returncode == 0

    def write(name, content):
        (tree / name).parent.mkdir(parents=True, exist_ok=True)
        if not (tree / name).exists() or (tree / name).read_bytes() != content:
            (tree / name).write_bytes(content)

    def passes(program):
        return succeeds("ninja", "-C", "build", "-j2", program) and \
            succeeds(f"build/tests/{program}", "--gtest_fail_fast", limit=3 * seconds.get(program, 60) + 10)

    names = subprocess.check_output(["git", "-C", ROOT, "ls-files", "-z"], text=True).split("\0")[:-1]
    for name in names:
        write(name, (ROOT / name).read_bytes())
    succeeds("cmake", "-S", ".", "-B", "build", "-G", "Ninja", "-DDNNVAD_BUILD_TESTS=ON",
             "-DDNNVAD_BUILD_APP=OFF", "-DCMAKE_CXX_FLAGS_RELEASE=-O1")
    programs = re.findall(r"tests/((?!program_)\w+_test)\.cpp", "\n".join(names))
    succeeds("ninja", "-C", "build", "-j2", *programs)
    for program in programs:
        start = time.time()
        if not passes(program):
            raise RuntimeError(f"{program} fails without a fault, in {tree}")
        seconds[program] = time.time() - start
    while todo:
        wanted, path, faults = todo.pop()
        text, noticed = (ROOT / path).read_text(), collections.Counter()
        for fault in faults:
            if wanted > 0 and fault["key"] not in results:
                start, lines = time.time(), text.split("\n")
                lines[fault["line"] - 1] = fault["new"]
                write(path, "\n".join(lines).encode())
                order = sorted(seconds, key=lambda name: (-noticed[name], seconds[name]))  # keenest first
                by = "compiler" if not succeeds("ninja", "-C", "build", "-j2", "dnnvad_static") else next(
                    (program for program in order if not passes(program) and not passes(program)), "")
                noticed[by] += 1
                results[fault["key"]] = {**fault, "by": by, "seconds": round(time.time() - start, 1)}
                print(json.dumps(results[fault["key"]]) + "\n", end="", file=log, flush=True)
            wanted -= wanted > 0 and results[fault["key"]]["by"] != "compiler"
        write(path, text.encode())


def report(results):
    """Prints who noticed what; the share of the faults that count, in percent."""
    explained = {(part.split("\n")[0], *pair)
                 for part in (ROOT / "tests/mutation_survivors.md").read_text().split("\n## ")[1:]
                 for pair in re.findall(r"^- `(.*)`\n  `(.*)`\n  \w", part, re.M)}
    table, idle = collections.defaultdict(collections.Counter), set(explained)
    for fault in sorted(results, key=lambda fault: (fault["file"], fault["line"])):
        name = (fault["file"], fault["old"].strip(), fault["new"].strip())
        verdict = "noticed" if fault["by"] else "harmless" if name in explained else "missed"
        for row in (fault["kind"], fault["file"], "all"):
            table[row][verdict] += 1
        idle.discard(name if not fault["by"] else None)
        if verdict == "missed":
            print(f"{name[0]}:{fault['line']}: {fault['kind']}\n    {name[1]}\n    {name[2]}")
    for name in sorted(idle):
        print("explained for nothing:", *name, sep="\n    ")
    print(f"{'':40}  noticed   missed harmless")
    for row, counts in sorted(table.items(), key=lambda item: ("/" in item[0], item[0])):
        print(f"{row:40}" + "".join(f"{counts[kind]:9}" for kind in ("noticed", "missed", "harmless")))
    counted = table["all"]["noticed"] + table["all"]["missed"]
    print(f"{table['all']['noticed']} of {counted} faults that change behaviour are noticed; "
          f"{sum(fault['seconds'] for fault in results) / max(len(results), 1):.1f} s per fault")
    return 100 * table["all"]["noticed"] / max(counted, 1)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawTextHelpFormatter)
    parser.add_argument("-n", type=int, default=180, help="faults")
    parser.add_argument("-j", type=int, default=2, help="workers")
    parser.add_argument("--again", action="store_true", help="try anew what nobody noticed")
    args = parser.parse_args()
    for limit, value in (("CORE", 0), ("FSIZE", 5 << 30), ("AS", 12 << 30)):  # faults know no bounds
        resource.setrlimit(getattr(resource, "RLIMIT_" + limit), (value, value))
    paths = subprocess.check_output(["git", "-C", ROOT, "ls-files", "dnnvad/*.[ch]*"], text=True).split()
    files = {path: faults for path in paths if "ne10" not in path and (faults := plan(path))}
    keys = [fault["key"] for faults in files.values() for fault in faults]
    share = args.n / len(keys)
    todo = sorted((max(round(share * len(faults)), 2), path, faults) for path, faults in files.items())
    WORK.mkdir(parents=True, exist_ok=True)
    with open(WORK / "results.jsonl", "a+", encoding="utf-8") as log:
        log.seek(0)
        results = {result["key"]: result for result in map(json.loads, log) if result["key"] in keys}
        results = {key: result for key, result in results.items() if result["by"] or not args.again}
        with concurrent.futures.ThreadPoolExecutor(args.j) as pool:
            for worker in [pool.submit(work, WORK / str(i), todo, results, log) for i in range(args.j)]:
                worker.result()
    sys.exit(report([result for result in results.values() if result["by"] != "compiler"]) < 95)


if __name__ == "__main__":
    main()
