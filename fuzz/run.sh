#!/usr/bin/env bash
# Runs every fuzz target for the given number of seconds, growing the seed corpora in fuzz/corpus.
set -euo pipefail
seconds="${1:-300}"
root="$(cd "$(dirname "$0")/.." && pwd)"
build="$root/build/fuzz"
for fuzzer in "$build"/fuzz_*; do
  [ -x "$fuzzer" ] || continue
  name="${fuzzer##*/fuzz_}"
  echo "== fuzz $name for ${seconds}s"
  "$fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$build/crash-$name-" "$root/fuzz/corpus/$name"
done
