#!/usr/bin/env bash
# Mutation testing: puts each mutant of a list (tools/mutants.txt) into the
# code in turn, rebuilds, runs the whole suite of the debug build and tells
# whether some test failed (the mutant is killed) and which ones. Not a test
# and not run by CI; see "Mutation testing" in the README.
#
#   bash tools/mutate.sh [options] [NAME...]
#     NAME...             only these mutants (default: every one on the list)
#     --list FILE         the mutant list (default tools/mutants.txt)
#     --time-limit S      seconds one suite run may take (default: three times
#                         the clean run, at least 120)
#     --jobs N            parallel builds and tests (default 2)
#     --first-kill        stop a suite run at its first failing test: faster,
#                         but names only one killer
#     --no-clean-run      skip the suite run without mutants (default limit 900 s)
#     --exclude REGEX     leave out the tests ctest -E would (say, tests that
#                         change the system and race with other runs on it)
#
# A failure counts as a kill only when the failed tests fail again on a
# second run of theirs; a test that passes then was flaky, and is reported.
# Every mutated file is restored after its run, also when the script fails or
# is interrupted. The build lives in build/mutate, the logs in build/mutate/mutants.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
list=tools/mutants.txt
build=build/mutate
limit=0
jobs=2
first_kill=0
clean_run=1
exclude=""
names=()
while [ $# -gt 0 ]; do
    case $1 in
    --list) list=$2; shift 2 ;;
    --time-limit) limit=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    --first-kill) first_kill=1; shift ;;
    --no-clean-run) clean_run=0; shift ;;
    --exclude) exclude=$2; shift 2 ;;
    -h | --help) sed -n '2,24p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) names+=("$1"); shift ;;
    esac
done

helper() { python3 "$root/tools/mutants.py" "$@"; }
helper check "$list" "$root"
[ ${#names[@]} -gt 0 ] || mapfile -t names < <(helper names "$list")
logs=$build/mutants
mkdir -p "$logs"

# The one file a mutant has changed, and its original bytes.
mutated=""
backup=$logs/original
suite_group=""

restore() {
    if [ -n "$mutated" ]; then
        cp "$backup" "$mutated"
        mutated=""
    fi
}
stop_suite() {
    if [ -n "$suite_group" ]; then
        kill -TERM -- "-$suite_group" 2>/dev/null || true
        suite_group=""
    fi
}
trap 'stop_suite; restore' EXIT
trap 'exit 130' INT TERM

build_tree() {
    cmake --build "$build" -j"$jobs" >"$1" 2>&1
}

# Runs ctest (with the arguments given after the log) in a process group of
# its own, so that a run over the time limit ends with every test it started.
# Answers 0 (all passed), 1 (some failed) or 124 (time limit).
run_suite() {
    local log=$1 started=$SECONDS
    shift
    setsid ctest --test-dir "$build" -j"$jobs" --output-on-failure "$@" >"$log" 2>&1 &
    suite_group=$!
    while kill -0 "$suite_group" 2>/dev/null; do
        if [ $((SECONDS - started)) -ge "$limit" ]; then
            stop_suite
            sleep 5
            echo "Time limit of $limit s reached." >>"$log"
            return 124
        fi
        sleep 1
    done
    local status=0
    wait "$suite_group" || status=$?
    suite_group=""
    [ "$status" = 0 ] && return 0 || return 1
}

# The names of the tests a ctest log reports as failed, one a line.
failed_tests() {
    sed -n '/The following tests FAILED:/,$p' "$1" | sed -n -E 's/^[[:space:]]+[0-9]+ - (.*) \([^)]*\)$/\1/p' |
        sed -E 's/ +# GetParam\(\).*$//' # a parameterized test's value is no part of its name
}

# Runs the suite over the built mutant and sets `outcome`. A failure is
# confirmed by running the failed tests again; tests that pass then were
# flaky, and the suite runs once more without them.
judge() {
    local name=$1 log=$logs/$1.log skip=$exclude status=0 stop=() killers failed
    [ "$first_kill" = 1 ] && stop=(--stop-on-failure)
    while :; do
        status=0
        run_suite "$log" ${skip:+-E "$skip"} "${stop[@]}" || status=$?
        [ "$status" = 0 ] && { outcome="SURVIVED${flaky:+ (flaky: $flaky)}"; return; }
        killers=$(failed_tests "$log" | paste -sd ' ' -)
        [ "$status" = 124 ] && { outcome="killed (time limit): $killers"; return; }
        failed="^($(failed_tests "$log" | paste -sd '|' -))\$"
        status=0
        run_suite "$logs/$name.again.log" --no-tests=error -R "$failed" || status=$?
        [ "$status" = 0 ] || { outcome="killed by $killers"; return; }
        flaky="${flaky:+$flaky }$killers"
        skip="${skip:+$skip|}$failed"
    done
}

echo "Configuring and building $build..."
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQFS_WERROR=OFF >"$logs/configure.log" 2>&1
build_tree "$logs/build.log" || { echo "The unmutated tree does not build: $logs/build.log" >&2; exit 1; }
if [ "$clean_run" = 1 ]; then
    echo "Running the suite without mutants..."
    started=$SECONDS
    [ "$limit" -gt 0 ] || limit=3600
    if ! run_suite "$logs/clean.log" ${exclude:+-E "$exclude"}; then
        echo "The suite fails without mutants; see $logs/clean.log:" >&2
        failed_tests "$logs/clean.log" >&2
        exit 1
    fi
    clean_seconds=$((SECONDS - started))
    echo "Clean run: $clean_seconds s."
    [ "$limit" != 3600 ] || limit=$((clean_seconds * 3 > 120 ? clean_seconds * 3 : 120))
fi
[ "$limit" -gt 0 ] || limit=900

killed=0
survived=0
unbuilt=0
survivors=()
summary=$logs/summary.txt
: >"$summary"
all_started=$SECONDS
count=${#names[@]}
index=0
for name in "${names[@]}"; do
    index=$((index + 1))
    file=$(helper file "$list" "$name")
    fault=$(helper fault "$list" "$name")
    log=$logs/$name.log
    started=$SECONDS
    cp "$file" "$backup"
    mutated=$file
    helper apply "$list" "$name" "$root"
    outcome=""
    flaky=""
    if ! build_tree "$logs/$name.build.log"; then
        outcome="not built"
        unbuilt=$((unbuilt + 1))
    else
        judge "$name"
        case $outcome in
        killed*) killed=$((killed + 1)) ;;
        *) survived=$((survived + 1)); survivors+=("$name") ;;
        esac
    fi
    restore
    line="[$index/$count] $name ($file; $fault): $outcome [$((SECONDS - started)) s]"
    echo "$line" | tee -a "$summary"
done

total=$((SECONDS - all_started))
{
    echo
    echo "Mutants: $count; killed: $killed; survived: $survived; not built: $unbuilt."
    echo "Time: $((total / 60)) min $((total % 60)) s for the mutants (time limit $limit s a suite run)."
    [ ${#survivors[@]} -eq 0 ] || echo "Survivors: ${survivors[*]}"
} | tee -a "$summary"
# The last mutant's objects are rebuilt from the restored code at the next run.
[ "$survived" = 0 ] && [ "$unbuilt" = 0 ]
