"""What scripts/bench runs inside: makes trees, runs the tool and its peers in turns, and leaves the
figures in a file. measure.py FOLDER [--quick], FOLDER holding morvane_cli and morvane_bench.

Each comparison first makes sure that both sides did the same work. Then every round runs each side
once, beginning with another one each time, and gives one ratio; the median of the ratios counts, so
that a machine that is busy for a while disturbs single rounds and no result.
"""

import hashlib
import json
import os
import shutil
import statistics
import subprocess
import sys
import time

FOLDER = os.path.abspath(sys.argv[1])
QUICK = "--quick" in sys.argv
CLI = os.path.join(FOLDER, "morvane_cli")
TOOL = os.path.join(FOLDER, "morvane_bench")
DEADLINE = time.monotonic() + 420  # by then the last and largest trees are begun
PATIENCE = 45  # seconds for one comparison
LEAST_ROUNDS = 5

APP = "com.bench.app"
DATA = "/var/mobile/Containers/Data/Application"
CONTAINER = DATA + "/app"
TREE = CONTAINER + "/Documents"
STORE = "/var/mobile/MorvaneBackups"
METADATA = ".com.apple.mobile_container_manager.metadata.plist"
FILES, FOLDERS = (3000, 250) if QUICK else (20000, 1700)

goals = []
tables = {}


def goal(what, value, limit, unit="", digits=2):
    """Notes whether `value` is within `limit`."""
    goals.append({"what": what, "is": f"{value:.{digits}f}{unit}", "goal": f"at most {limit}{unit}",
                  "met": value <= limit})


def note(text):
    print(f"bench: {text}", file=sys.stderr, flush=True)


def run(*words, status=0):
    result = subprocess.run(words, capture_output=True, check=False)
    if result.returncode != status:
        sys.exit(f"bench: {words} ended with {result.returncode}: {result.stderr.decode()}")
    return result


def gone(*paths):
    for path in paths:
        subprocess.run(["rm", "-rf", path], check=True)


def new_phone():
    """An empty /var with one app."""
    gone(*(entry.path for entry in os.scandir("/var")))
    os.makedirs(CONTAINER)
    with open(f"{CONTAINER}/{METADATA}", "w", encoding="ascii") as file:
        file.write(APP)


def make_tree(path, files=FILES, folders=FOLDERS, *percentages):
    run(TOOL, "tree", path, str(files), str(folders), *map(str, percentages))


# --- Both sides did the same work


def describe(root):
    """Every entry below `root` with all that a copy keeps, read by other means than the tool's."""
    entries = {}
    for folder, folders, files in os.walk(root):
        for name in folders + files + ["."]:
            path = os.path.join(folder, name)
            status = os.lstat(path)
            words = [status.st_mode, status.st_uid, status.st_gid, status.st_mtime_ns]
            words += [(x, os.getxattr(path, x, follow_symlinks=False))
                      for x in sorted(os.listxattr(path, follow_symlinks=False))]
            if os.path.islink(path):
                words.append(os.readlink(path))
            elif os.path.isfile(path):
                with open(path, "rb") as file:
                    words += [status.st_size, hashlib.sha256(file.read()).digest()]
            entries[os.path.relpath(path, root)] = words
    return entries


def require_same(what, expected, actual):
    if expected == actual and len(expected) > 1:
        return
    differing = [path for path in expected.keys() | actual.keys()
                 if expected.get(path) != actual.get(path)]
    sys.exit(f"bench: {what} did other work than it should: {len(differing)} differences, "
             f"such as {differing[:3]}")


# --- Running in turns


def timed(words, status=0):
    """(seconds, seconds of computing, kilobytes at most) of one run."""
    wall, cpu, memory, ended = run(TOOL, "time", *words).stdout.split()
    if int(ended) != status:
        sys.exit(f"bench: {words} ended with {int(ended)}")
    return int(wall) / 1e9, int(cpu) / 1e9, int(memory)


class Side:
    """A command, what is to be put in place before each run of it, and how it should end."""

    def __init__(self, name, words, prepare=lambda: None, status=0):
        self.name, self.words, self.prepare, self.status = name, words, prepare, status

    def run(self):
        self.prepare()
        return timed(self.words, self.status)


def in_turns(title, rounds, sides):
    """Runs all sides `rounds` times, or on a slow machine less often, and keeps the ratios of the
    first side to the others."""
    note(title)
    runs = {side.name: [] for side in sides}
    started = time.monotonic()
    for number in range(rounds):
        if number >= LEAST_ROUNDS and time.monotonic() - started > PATIENCE:
            rounds = number
            break
        shift = number % len(sides)
        for side in sides[shift:] + sides[:shift]:
            runs[side.name].append(side.run())
    ours = runs[sides[0].name]
    rows = []
    for side in sides:
        theirs = runs[side.name]
        ratios = sorted(a[0] / b[0] for a, b in zip(ours, theirs))
        quarters = statistics.quantiles(ratios, n=4) if len(ratios) > 1 else ratios * 3
        rows.append({"name": side.name, "seconds": statistics.median(x[0] for x in theirs),
                     "ratio": statistics.median(ratios), "low": quarters[0], "high": quarters[2],
                     "computing": statistics.median(a[1] / b[1] for a, b in zip(ours, theirs)
                                                    if b[1] > 0)})
    tables[title] = {"rounds": rounds, "rows": rows}
    return {row["name"]: row["ratio"] for row in rows}


# --- The comparisons


def backup_words(*keywords):
    return [CLI, "backup", APP, "b", *keywords]


def without(*paths):
    return lambda: gone(*paths)


def compare_copies():
    new_phone()
    make_tree(TREE)
    expected = describe(TREE)
    copies = [Side("full backup", backup_words(), without(STORE)),
              Side("cp -a", ["cp", "-a", TREE, "/var/peer"], without("/var/peer")),
              Side("rsync -aX", ["rsync", "-aX", TREE + "/", "/var/peer"], without("/var/peer")),
              Side("floor", [TOOL, "copy", TREE, "/var/peer"], without("/var/peer"))]
    kept = f"{STORE}/b.morvane/{APP}/Documents"
    for side in copies:
        side.run()
        copy = describe(kept if side is copies[0] else "/var/peer")
        if side.name == "floor":  # which does not do the root itself
            copy["."] = expected["."]
        require_same(side.name, expected, copy)
    nothing = "alpha|beta|gamma|delta|epsilon"
    filtered = Side("filtered backup", backup_words(nothing), without(STORE))
    filtered.run()
    require_same("filtered backup", expected, describe(kept))
    # Half of the twelve folders at the top, with most of what is below them.
    half = "|".join(f"folder{1000000 + i}" for i in range(1, 7))
    part = Side("most of it left out", backup_words(half), without(STORE))
    part.run()
    left = len(describe(kept)) / len(expected)
    goal("entries that a filter on half of the top folders copies", left, 0.5)
    if QUICK:
        return
    ratios = in_turns(f"Full backup of {FILES} files in {FOLDERS} folders", 15, copies)
    goal("full backup / cp -a", ratios["cp -a"], 0.65)
    goal("full backup / rsync -aX", ratios["rsync -aX"], 1.0)
    ratios = in_turns("Filtered backup, five keywords", 11, [filtered, copies[0], part])
    goal("filtered backup that leaves nothing out / full backup", ratios["full backup"], 1.1)
    share = ratios["full backup"] / ratios["most of it left out"]
    goal(f"backup of the {left:.0%} of the entries that a filter leaves / full backup", share,
         round(left + 0.15, 2))


def compare_large_files():
    new_phone()
    os.makedirs(TREE)
    for number in range(2):
        with open(f"{TREE}/large{number}", "wb") as file:
            for _ in range(256):
                file.write(os.urandom(1 << 20))
    with open(f"{TREE}/sparse", "wb") as file:
        for offset in range(0, 1 << 32, 1 << 28):
            file.seek(offset)
            file.write(b"data")
        file.truncate(1 << 32)
    sides = [Side("full backup", backup_words(), without(STORE)),
             Side("cp -a", ["cp", "-a", TREE, "/var/peer"], without("/var/peer"))]
    for side in sides:
        side.run()
    kept = f"{STORE}/b.morvane/{APP}/Documents"
    for name in ("large0", "large1", "sparse"):
        run("cmp", f"{TREE}/{name}", f"{kept}/{name}")
    blocks = os.stat(f"{kept}/sparse").st_blocks / os.stat(f"{TREE}/sparse").st_blocks
    goal("room of a sparse file's copy / its own", blocks, 1.0)
    ratios = in_turns("Two files of 256 MiB and a sparse one", 9, sides)
    goal("large files / cp -a", ratios["cp -a"], 1.05)  # both let the kernel do it: equal, but for chance


def compare_wipes():
    def fresh(path):
        def prepare():
            gone(path)
            make_tree(path)
        return prepare

    new_phone()
    sides = [Side("reset", [CLI, "reset", APP, "clear", "sys=0"], fresh(TREE)),
             Side("rm -rf", ["rm", "-rf", "/var/peer"], fresh("/var/peer")),
             Side("find -delete", ["find", "/var/peer", "-delete"], fresh("/var/peer")),
             Side("floor", [TOOL, "remove", "/var/peer"], fresh("/var/peer"))]
    for side in sides:
        side.run()
        left = TREE if side is sides[0] else "/var/peer"
        if os.path.exists(left) and os.listdir(left):
            sys.exit(f"bench: {side.name} left something")
    if QUICK:
        return
    ratios = in_turns(f"Wipe of {FILES} files in {FOLDERS} folders", 15, sides)
    goal("wipe / rm -rf", ratios["rm -rf"], 0.95)
    goal("wipe / find -delete", ratios["find -delete"], 1.0)


def compare_searches():
    new_phone()
    run(TOOL, "containers", DATA, "5000")
    sides = [Side("backup of an app that is not there", [CLI, "backup", "com.absent", "b"], status=1),
             Side("grep -rlF", ["grep", "-rlF", "com.absent", DATA], status=1),
             Side("floor", [TOOL, "locate", DATA, "com.absent"], status=1)]
    found = run("grep", "-rlF", "com.vendor4321.app", DATA).stdout.decode().strip()
    log = run(CLI, "reset", "com.vendor4321.app", "clear", "sys=0").stderr.decode()
    if f"container wiped: {os.path.dirname(found)}\n" not in log:
        sys.exit(f"bench: grep found {found}, the tool logged {log}")
    ratios = in_turns("Locating one app among 5,000", 31, sides)
    goal("locate / grep -rlF", ratios["grep -rlF"], 0.4)


def compare_starts():
    new_phone()
    sides = [Side("usage", [CLI], status=2), Side("/bin/true", ["/bin/true"])]
    goal("start-up / /bin/true", in_turns("Start-up", 301, sides)["/bin/true"], 4)


def bind_disk():
    """Another /var, on the disk that the project is on."""
    disk = os.path.join(FOLDER, "disk")
    os.makedirs(disk)
    run("mount", "--bind", disk, "/var")
    return lambda: run("umount", "/var")


def compare_syncs():
    release = bind_disk()
    new_phone()
    make_tree(TREE, 5000, 425)
    copy = f"cp -a {TREE} /var/peer && sync -f /var/peer"
    sides = [Side("backup", backup_words(), without(STORE)),
             Side("cp -a, sync -f", ["sh", "-c", copy], without("/var/peer"))]
    in_turns("Backup of 5,000 files to the disk, synced", 7, sides)
    gone(*(entry.path for entry in os.scandir("/var")))
    release()


# --- What does not depend on the machine


def calls(*words):
    """How many system calls a run makes."""
    counts = os.path.join(FOLDER, "calls")
    run("strace", "-f", "-c", "-o", counts, *words)
    with open(counts, encoding="utf-8") as file:
        return int([line.split() for line in file if line.rstrip().endswith(" total")][0][3])


def calls_on(files, folders, attributes, words):
    new_phone()
    make_tree(TREE, files, folders, 100, attributes)
    return calls(*words)


def count_calls():
    note("system calls")
    rows = []
    for name, words, limits in (
            ("full backup", backup_words(), (10, 14)),
            ("filtered backup", backup_words("alpha|beta|gamma|delta|epsilon"), (10, 14)),
            ("cp -a", ["cp", "-a", TREE, "/var/peer"], None)):
        few = calls_on(1000, 100, 0, words)
        file = (calls_on(3000, 100, 0, words) - few) / 2000
        folder = (calls_on(1000, 500, 0, words) - few) / 400
        rows.append({"name": name, "file": file, "folder": folder})
        if limits:
            goal(f"system calls of a {name}, per plain file", file, limits[0])
            goal(f"system calls of a {name}, per folder", folder, limits[1])
    wipe = calls_on(FILES, FOLDERS, 10, [CLI, "reset", APP, "clear", "sys=0"]) / (FILES + FOLDERS)
    new_phone()
    make_tree("/var/peer")
    peer = calls("rm", "-rf", "/var/peer") / (FILES + FOLDERS)
    goal("system calls of a wipe, per entry", wipe, 1.4)
    new_phone()
    run(TOOL, "containers", DATA, "2000")
    locate = calls(CLI, "removebackup", "ALL")  # so much for starting
    locate = (calls_failing(CLI, "backup", "com.absent", "b") - locate) / 2000
    goal("system calls of a search, per container", locate, 3.1)
    tables["calls"] = {"copies": rows, "wipe": wipe, "rm": peer, "locate": locate}


def calls_failing(*words):
    counts = os.path.join(FOLDER, "calls")
    run("strace", "-f", "-c", "-o", counts, *words, status=1)
    with open(counts, encoding="utf-8") as file:
        return int([line.split() for line in file if line.rstrip().endswith(" total")][0][3])


def grow():
    """Time and memory of trees that grow: a tenth of the entries folders, a quarter with content."""
    sizes = (1000, 10000, 100000) if QUICK else (1000, 10000, 100000, 1000000)
    rows = []
    for size in sizes:
        note(f"{size} entries")
        runs = {"backup": [], "cp -a": [], "reset": [], "rm -rf": []}
        started = time.monotonic()
        most = 1 if QUICK else 2 if size == sizes[-1] else 7
        while len(runs["backup"]) < most:
            new_phone()
            make_tree(TREE, size * 9 // 10, size // 10, 25)
            one = [("backup", backup_words()), ("cp -a", ["cp", "-a", TREE, "/var/peer"])]
            other = [("reset", [CLI, "reset", APP, "clear", "sys=0"]), ("rm -rf", ["rm", "-rf", "/var/peer"])]
            for pair in (one, other):
                for name, words in pair if len(runs["backup"]) % 2 == 0 else pair[::-1]:
                    runs[name].append(timed(words))
            now = time.monotonic()
            took = (now - started) / len(runs["reset"])
            if now + took > DEADLINE or (size < sizes[-1] and now - started + took > PATIENCE):
                break
        row = {"size": size, "rounds": len(runs["reset"])}
        for name, values in runs.items():
            seconds = [value[0] for value in values]
            row[name] = {"seconds": statistics.median(seconds), "low": min(seconds),
                         "high": max(seconds), "memory": max(value[2] for value in values)}
        rows.append(row)
    new_phone()
    tables["growth"] = rows
    last = rows[-1]
    for name in ("backup", "reset"):
        goal(f"memory of a {name} of {last['size']} entries", last[name]["memory"] / 1024, 8, " MiB")
        if not QUICK:
            growth = last[name]["seconds"] / last["size"] / (rows[1][name]["seconds"] / rows[1]["size"])
            goal(f"time per entry of a {name}, at 1,000,000 / at 10,000", growth, 2)


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = [line.split(":")[1].strip() for line in file if line.startswith("model name")]
    with open("/proc/meminfo", encoding="utf-8") as file:
        memory = int(file.readline().split()[1]) / 1048576
    disk = run("findmnt", "-n", "-o", "FSTYPE", "-T", FOLDER).stdout.decode().strip()
    return {"processor": model[0] if model else os.uname().machine, "cores": os.cpu_count(),
            "memory": f"{memory:.0f} GiB", "kernel": os.uname().release, "disk": disk,
            "load": os.getloadavg()[0], "date": time.strftime("%Y-%m-%d")}


def main():
    run("mount", "-t", "tmpfs", "-o", "size=80%,nr_inodes=0", "morvane-bench", "/var")
    if run("findmnt", "-n", "-o", "SOURCE", "/var").stdout.strip() != b"morvane-bench" or os.listdir("/var"):
        sys.exit("bench: /var is not ours")
    os.environ["LC_ALL"] = "C"
    os.umask(0o022)
    described = machine()
    count_calls()
    compare_copies()
    compare_wipes()
    if not QUICK:
        compare_large_files()
        compare_searches()
        compare_starts()
        compare_syncs()
    grow()
    described["load after"] = os.getloadavg()[0]
    with open(os.path.join(FOLDER, "results.json"), "w", encoding="utf-8") as file:
        json.dump({"machine": described, "goals": goals, "tables": tables}, file, indent=1)
    shutil.rmtree(os.path.join(FOLDER, "disk"), ignore_errors=True)


main()
