#!/usr/bin/env bash
# Mutation test: plants each fault listed in scripts/mutants.txt, one at a
# time, in a scratch copy of the tree, rebuilds it, runs the quick tests and
# counts the faults the tests catch. The working tree is never touched.
#   scripts/mutation-test.sh [mutants file] [first line of the list to run]
# Environment:
#   MUTATION_DIR    scratch directory (default /tmp/ftrace-mutation-<tree name>);
#                   its build directory is kept, so later runs rebuild incrementally
#   MUTATION_EXCLUDE  labels left out (default: install|memcheck|fuzz)
#   MUTATION_CTEST    further ctest arguments (default: -E AgentSoakTest)
# A mutant whose tree does not build, or whose text is not found exactly once,
# is "invalid", not killed. The tests without the kernel label run first; only
# when they all pass do the kernel tests run, under the ZEV lock.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=$(realpath "${1:-$root/scripts/mutants.txt}")
work=${MUTATION_DIR:-/tmp/ftrace-mutation-$(basename "$root")}
excluded=${MUTATION_EXCLUDE:-install|memcheck|fuzz}
read -r -a selection <<<"${MUTATION_CTEST:--E AgentSoakTest}"
src=$work/src
build=$work/build
log=$work/log
mkdir -p "$src" "$log"

# Copies what differs and drops what is gone, so that the kept build only
# recompiles what changed since the last run.
(cd "$root" && git ls-files -co --exclude-standard -z) | python3 -c '
import filecmp, os, shutil, sys
root, src = sys.argv[1], sys.argv[2]
files = {f for f in sys.stdin.read().split("\0") if f and os.path.isfile(os.path.join(root, f))}
for f in files:
    a, b = os.path.join(root, f), os.path.join(src, f)
    if not os.path.exists(b) or not filecmp.cmp(a, b, shallow=False):
        os.makedirs(os.path.dirname(b), exist_ok=True)
        shutil.copy(a, b)  # a new time stamp: the build must see the change
for d, _, names in os.walk(src):
    for n in names:
        if os.path.relpath(os.path.join(d, n), src) not in files:
            os.remove(os.path.join(d, n))
' "$root" "$src"
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFTRACE_BUILD_BENCH=OFF >"$log/cmake" 2>&1 ||
    { echo "configure failed, see $log/cmake" >&2; exit 2; }

reset_zev() {  # what a killed test may leave behind
    local zev=/sys/kernel/tracing/instances/ZEV
    [ -d "$zev" ] || return 0
    pgrep -x ftrace-agent >/dev/null && return 0
    echo 0 >"$zev/events/enable" 2>/dev/null
    : >"$zev/set_event_pid" 2>/dev/null
    rmdir "$zev" 2>/dev/null
}

run_tests() {  # run_tests <log file>: 0 when every selected test passes
    ctest --test-dir "$build" -j2 --stop-on-failure --output-on-failure -LE "kernel|$excluded" "${selection[@]}" >"$1" 2>&1 ||
        return 1
    flock /tmp/ftrace-zev.lock bash -c '
        ctest --test-dir "$1" -j2 --stop-on-failure --output-on-failure -L kernel -LE "$3" "${@:4}" >>"$2" 2>&1; rc=$?
        '"$(declare -f reset_zev)"'; reset_zev; exit $rc' _ "$build" "$1" "$excluded" "${selection[@]}"
}

# mutate <file> <original> <replacement>: replaces the one occurrence; 1 if not exactly one.
mutate() {
    python3 - "$@" <<'EOF'
import sys
path, old, new = sys.argv[1], sys.argv[2].replace('\\n', '\n'), sys.argv[3].replace('\\n', '\n')
text = open(path).read()
if text.count(old) != 1:
    sys.exit(1)
open(path, 'w').write(text.replace(old, new))
EOF
}

echo "building the unmutated tree in $build"
cmake --build "$build" -j2 >"$log/build-base" 2>&1 || { echo "the unmutated tree does not build" >&2; exit 2; }
run_tests "$log/ctest-base" || { echo "the unmutated tree fails its tests, see $log/ctest-base" >&2; exit 2; }

killed=0 survived=0 invalid=0 n=0
survivors=()
first=${2:-1}
while IFS=$'\t' read -r file original replacement description; do
    [[ -z "$file" || "$file" == \#* ]] && continue
    n=$((n + 1))
    [ "$n" -lt "$first" ] && continue
    target=$src/$file
    cp -p "$target" "$work/saved" 2>/dev/null || { echo "  [$n] invalid (no $file): $description"; invalid=$((invalid + 1)); continue; }
    if ! mutate "$target" "$original" "$replacement"; then
        result=invalid
    elif ! cmake --build "$build" -j2 >"$log/build-$n" 2>&1; then
        result=invalid
    elif run_tests "$log/ctest-$n"; then
        result=survived
    else
        result=killed
    fi
    # Restored with a new time stamp, so that the next build recompiles it.
    cp "$work/saved" "$target"
    touch "$target"
    case $result in
        killed) killed=$((killed + 1)) ;;
        survived) survived=$((survived + 1)); survivors+=("[$n] $file: $description") ;;
        invalid) invalid=$((invalid + 1)) ;;
    esac
    echo "  [$n] $result: $file: $description"
done <"$list"

echo "mutants: $killed killed of $((killed + survived + invalid)) ($survived survived, $invalid invalid)"
for s in "${survivors[@]}"; do echo "  survived $s"; done
