"""The test suite's wall time by group, from ctest's own lines: the unit tests, the failure sweep,
the runner's host tests, each VM test file and the fuzz targets, with the build and the whole run.
Usage: suite_times.py BUILD_SECONDS TOTAL_SECONDS CTEST_OUTPUT..."""
import re
import sys

LINE = re.compile(r"Test\s+#\d+: (\S+).*?\s([\d.]+) sec")


def group(name):
    if "FailureSweep" in name:
        return "sweep"
    if name.startswith("vm_"):
        return name[3:]
    if name.startswith("host_"):
        return "runner host tests"
    if name.startswith("fuzz_") or "corpus" in name:
        return "fuzz"
    return "unit"


def main(argv):
    build, total, outputs = float(argv[0]), float(argv[1]), argv[2:]
    times = {}
    for path in outputs:
        try:
            text = open(path, errors="replace").read()
        except OSError:
            continue
        fuzz = "fuzz" in path
        for name, seconds in LINE.findall(text):
            key = "fuzz" if fuzz else group(name)
            times[key] = times.get(key, 0.0) + float(seconds)
    print(f"SUITE build {build:.0f} s")
    for key in ["unit", "sweep", "runner host tests"] + sorted(k for k in times if k.startswith("test_")) + ["fuzz"]:
        if key in times:
            print(f"SUITE {key} {times[key]:.0f} s")
    print(f"SUITE total {total:.0f} s wall ({total / 60:.1f} min; the unit, sweep and fuzz figures add up the "
          f"time of tests that ran side by side)")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
