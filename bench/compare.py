#!/usr/bin/env python3
"""Says what the library does slower than in an earlier run of the benchmarks.

usage: compare.py EARLIER NOW      two files of results

What was measured beside raw system calls is compared by its ratio to them, which other programs on the machine hardly
move; the rest by its own figures. Something is slower when the 95 % confidence intervals of the two medians do not meet.
Ends with 1 when something is slower, or does not run any more; with 2 when there is nothing to compare.
"""
import pathlib
import sys

from report import MORE_IS_BETTER, Results, median_interval, number, plain_table

FEWEST = 5  # values, whose extremes hold the median in 94 of 100 runs


def interval(results, benchmark, against):
    if against:
        return results.ratio(benchmark, "library", against)
    return median_interval(results.values[benchmark, "library"])


def shown(median, low, high):
    return f"{number(median)} ({number(low)} to {number(high)})"


def compare(earlier, now):
    """@return rows of what is slower and of what is faster, what does not run any more, what was measured too seldom, and
    how many there were"""
    slower, faster, gone, few = [], [], [], []
    benchmarks = [benchmark for benchmark, implementation in earlier.values if implementation == "library"]
    for benchmark in benchmarks:
        if not now.has(benchmark, "library"):
            gone.append(benchmark)
            continue
        base = earlier.base(benchmark)
        comparable = all(results.has(benchmark, base) and all(results.values[benchmark, base])
                         for results in (earlier, now))
        against = base if comparable else ""
        if min(len(results.values[benchmark, name]) for results in (earlier, now)
               for name in filter(None, ["library", against])) < FEWEST:
            few.append(benchmark)
            continue
        before, after = (interval(results, benchmark, against) for results in (earlier, now))
        unit = now.units[benchmark]
        row = [benchmark, f"of {against}" if against else unit, shown(*before), shown(*after)]
        if after[1] > before[2] or after[2] < before[1]:
            grown = after[1] > before[2]
            (faster if grown == (unit in MORE_IS_BETTER) else slower).append(row)
    return slower, faster, gone, few, len(benchmarks)


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        earlier, now = (Results(pathlib.Path(name)) for name in sys.argv[1:])
    except (OSError, ValueError) as error:
        print(f"compare: {error}", file=sys.stderr)
        return 2
    slower, faster, gone, few, count = compare(earlier, now)
    if not count or len(few) == count:
        print("compare: nothing in the earlier results was measured often enough", file=sys.stderr)
        return 2
    for results, when in (earlier, "earlier"), (now, "now"):
        if max(results.busy.values(), default=0) > 10:
            print(f"{when}, other programs ran: {max(results.busy.values())} % of the processors were busy\n")
    for title, rows in ("slower", slower), ("faster", faster):
        if rows:
            print(plain_table([title, "", "earlier", "now"], rows) + "\n")
    for benchmark in gone:
        print(f"does not run any more: {benchmark}")
    print(f"of {count}: {len(slower)} slower, {len(faster)} faster, {len(gone)} gone, "
          f"{len(few)} measured too seldom to tell")
    return 1 if slower or gone else 0


if __name__ == "__main__":
    sys.exit(main())
