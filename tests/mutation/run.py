#!/usr/bin/env python3
"""Does the suite still catch the faults of mutants.txt?

Copies the checkout into a scratch directory (kept, so later runs rebuild
only what changed), builds it with the asan preset and runs the suite clean;
then for each mutant applies it, rebuilds, runs the suite until its first
failure and puts the file back. Killed: the suite failed.

    tests/mutation/run.py [ID-PREFIX...]   all mutants, or those whose id starts so
    tests/mutation/run.py --list           whether each mutant applies
    tests/mutation/run.py --from ID        resume a run that stopped before ID

Exit status 0 when every mutant run was killed, 1 when one survived or did
not apply or build, 2 when the clean tree fails.
"""
import argparse, os, subprocess, sys, time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))


def parse_mutants(path):
    mutants, lines = [], [l.rstrip("\n") for l in open(path, encoding="utf-8")]
    lines = [l for l in lines if l.strip() and not l.startswith("#")]
    for head, body in zip(lines[0::2], lines[1::2]):
        ident, _, rest = head.partition(" ")
        file, _, why = rest.partition(": ")
        old, sep, new = body.strip().replace("\u23ce", "\n").partition(" ==> ")
        if not sep or not old or old == new or body[0] != " ":
            sys.exit(f"mutants.txt: {ident}: want 'id file: why' then an indented 'old ==> new'")
        mutants.append(dict(id=ident, file=file, why=why, old=old, new=new))
    return mutants


def sync_tree(dst):
    """Copies only what differs, so the scratch build stays incremental, and
    removes what the checkout no longer has (the suite globs its sources)."""
    out = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=REPO,
                         check=True, capture_output=True).stdout.decode()
    files = [rel for rel in out.split("\0") if rel and os.path.isfile(os.path.join(REPO, rel))]
    manifest = os.path.join(dst, ".synced")
    for rel in set(open(manifest).read().split("\0")) - set(files) if os.path.isfile(manifest) else ():
        if rel and os.path.isfile(os.path.join(dst, rel)):
            os.remove(os.path.join(dst, rel))
    for rel in files:
        src, to = os.path.join(REPO, rel), os.path.join(dst, rel)
        data = open(src, "rb").read()
        if os.path.isfile(to) and open(to, "rb").read() == data:
            continue
        os.makedirs(os.path.dirname(to), exist_ok=True)
        open(to, "wb").write(data)
        os.chmod(to, os.stat(src).st_mode)
    open(manifest, "w").write("\0".join(files))


def run(cmd, cwd, log):
    with open(log, "w") as f:
        return subprocess.run(cmd, cwd=cwd, stdout=f, stderr=subprocess.STDOUT).returncode


def first_failure(log):
    for line in open(log, errors="replace"):
        if line.startswith("\t") and " - " in line:
            return line.split(" - ", 1)[1].rsplit(" (", 1)[0]
    return "the build or ctest itself"


def fastest_first(scratch):
    """ctest starts the costliest tests first; inverting the costs the clean
    run left makes a failure, and so the stop, come as early as it can."""
    path = os.path.join(scratch, "build/asan/Testing/Temporary/CTestCostData.txt")
    if not hasattr(fastest_first, "costs"):
        fastest_first.costs = [l.rsplit(" ", 2) for l in open(path).read().split("---")[0].splitlines() if l]
    with open(path, "w") as f:
        f.writelines(f"{name} 1 {1 / max(float(cost), 0.001):.6f}\n" for name, _, cost in fastest_first.costs)
        f.write("---\n")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("prefixes", nargs="*")
    ap.add_argument("--scratch", default=os.path.join(os.environ.get("TMPDIR", "/tmp"), "ravik-mutation"))
    ap.add_argument("--jobs", default="4", help="tests at a time")
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--from", dest="start", help="resume at this mutant, the clean run taken as passed")
    args = ap.parse_args()
    mutants = [m for m in parse_mutants(os.path.join(HERE, "mutants.txt"))
               if not args.prefixes or any(m["id"].startswith(p) for p in args.prefixes)]
    count = lambda root, m: open(os.path.join(root, m["file"]), encoding="utf-8").read().count(m["old"])
    if args.start:
        mutants = mutants[[m["id"] for m in mutants].index(args.start):]
    if args.list:
        for m in mutants:
            n = count(REPO, m)
            print(f"{m['id']:<26} {m['file']:<32} {'ok' if n == 1 else f'found {n} times'}")
        return 0

    os.makedirs(args.scratch, exist_ok=True)
    sync_tree(args.scratch)
    build = ["cmake", "--build", "--preset", "asan"]
    test = ["ctest", "--preset", "asan", "--stop-on-failure", "-j", args.jobs]
    log = os.path.join(args.scratch, "clean.log")
    t0 = time.monotonic()
    if run(["cmake", "--preset", "asan", "-DRAVIK_TEST_TIMEOUT=600"], args.scratch, log) or run(build, args.scratch, log) \
            or (not args.start and run(test, args.scratch, log)):
        print(f"the clean tree fails ({first_failure(log)}): see {log}")
        return 2
    print(f"clean build and suite: {time.monotonic() - t0:.0f} s; {len(mutants)} mutants")

    bad = []
    for m in mutants:
        path, mlog, t0 = os.path.join(args.scratch, m["file"]), os.path.join(args.scratch, f"{m['id']}.log"), time.monotonic()
        text = open(path, encoding="utf-8").read()
        if text.count(m["old"]) != 1:
            print(f"  n/a       {m['id']}: its text is found {text.count(m['old'])} times")
            bad.append(m["id"])
            continue
        fastest_first(args.scratch)
        try:
            open(path, "w", encoding="utf-8").write(text.replace(m["old"], m["new"]))
            verdict = "BROKEN" if run(build, args.scratch, mlog) else "killed" if run(test, args.scratch, mlog) else "SURVIVED"
        finally:
            open(path, "w", encoding="utf-8").write(text)
        what = f"by {first_failure(mlog)}" if verdict == "killed" else m["why"] if verdict == "SURVIVED" else f"does not build: {mlog}"
        print(f"  {verdict:<9} {m['id']:<26} {time.monotonic() - t0:4.0f} s  {what}", flush=True)
        if verdict != "killed":
            bad.append(m["id"])
    print(f"total: {len(mutants)} mutants, {len(mutants) - len(bad)} killed" + (f"; not: {', '.join(bad)}" if bad else ""))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
