# shellcheck shell=bash disable=SC2154
# The stages of ./test: each is a function stage_NAME that prints to its own log and leaves a
# status. Counts of tests are read from the logs of GoogleTest and pytest.

jobs=$(nproc)

# build_preset PRESET [TARGET...]
build_preset() {
    cmake --preset "$1" && cmake --build "build/$1" -j "$jobs" ${2:+--target "${@:2}"}
}

# Runs the unit tests of one build; address space randomisation off, as ThreadSanitizer needs where
# vm.mmap_rnd_bits is high.
run_unit() {
    setarch -R ctest --test-dir "build/$1" -j "$jobs" --output-on-failure --no-tests=error \
        "${@:2}" &&
        sed -n 's/^\[==========\] \([0-9]* tests\?\) from.*ran.*/\1/p' \
            "build/$1/Testing/Temporary/LastTest.log"
}

# run_system BUILD [ARGUMENT...]: what pytest is told, the tests among it.
run_system() { run_beside $((jobs * 2)) "$@"; }

# run_beside N BUILD [ARGUMENT...]: N tests at a time. Real programs on a clock that runs fast, pages
# in a browser: a machine that stalls for a second lets healthy links look dead, as many as run then.
# So what fails beside others runs once more with the machine to itself, and the log says so.
run_beside() {
    local beside=$1 preset=$2 output status=0 failed=()
    shift 2
    output=$(mktemp)
    run_pytest "$preset" -n "$beside" "$@" | tee "$output" || status=$?
    mapfile -t failed < <(sed -nE 's/^(FAILED|ERROR) ([^ ]+::.*)/\2/p' "$output" |
        sed 's/ - .*//' | sort -u)
    rm -f "$output"
    if [ $status = 1 ] && [ ${#failed[@]} -gt 0 ] && [ ${#failed[@]} -le "$beside" ]; then
        printf 'again, alone: %s\n' "${failed[@]}"
        run_pytest "$preset" "${failed[@]}"
    else
        return $status
    fi
}

run_pytest() {
    local preset=$1
    shift
    LUMD_BIN_DIR=$PWD/build/$preset/bin LUMD_LIB_DIR=$PWD/build/$preset/lib \
        setarch -R /usr/bin/python3 -m pytest -q -p no:cacheprovider "$@"
}

sources() { git ls-files '*.h' '*.c' '*.cpp'; }

# drawn N TEXT: a number from 0 to N-1 that follows from the commit and the text.
drawn() {
    local sum
    read -r sum _ < <(cksum <<<"$(git rev-parse HEAD) $2")
    echo $((sum % $1))
}

# sampled N: passes one in N of the lines on where every stage runs, all of them where one is asked
# for. Which ones follows from the commit: a run can be repeated, and the next commit has others.
sampled() {
    if [ -z "${sampling:-}" ]; then
        cat
        return
    fi
    local line
    echo "Sample: one in $1, chosen by commit $(git rev-parse HEAD)" >&2
    while read -r line; do
        [ "$(drawn "$1" "$line")" != 0 ] || echo "$line"
    done
}

# one_of NAME...: the one whose turn it is.
one_of() {
    local chosen=${*:$(drawn $# "$*") + 1:1}
    echo "Sample: of $* now $chosen, chosen by commit $(git rev-parse HEAD)" >&2
    echo "$chosen"
}

# one_of_each NAMES...: of each list of names.
one_of_each() {
    local names
    for names in "$@"; do
        # shellcheck disable=SC2086 # a list's names are words
        one_of $names
    done
}

# The subsystems whose unit tests another platform builds and runs, as CMake lists them: all of them
# or, where every stage runs, one of three groups that take as long as each other.
unit_groups=("service;lumctl" "driver;process" "platform;link;bus;apd")
all_units=$(IFS=';' && echo "${unit_groups[*]}")

# sampled_units PLATFORM
sampled_units() {
    if [ -z "${sampling:-}" ]; then
        echo "$all_units"
        return
    fi
    local group=${unit_groups[$(drawn ${#unit_groups[@]} "$1")]}
    echo "Sample: unit tests of $group, chosen by commit $(git rev-parse HEAD)" >&2
    echo "$group"
}

stage_format() { sources | xargs clang-format --dry-run -Werror; }

stage_shellcheck() {
    git grep -lE '^#!.*[/ ](ba|da)?sh( |$)|^# shellcheck shell=' | xargs shellcheck --external-sources
}

stage_pyflakes() {
    { git ls-files '*.py' && git grep -lE '^#!.*python'; } | sort -u | xargs pyflakes3
}

stage_schemas() { scripts/check-schemas; }

stage_dev_build() { build_preset dev; }
stage_dev_unit() { stage_dev_build && run_unit dev; }
stage_dev_system() { stage_dev_build && run_system dev tests/system; }

# The driver and the service logic belong to one thread each: the rest is what has threads.
threaded_tests=(test_platform test_process test_link test_bus)

stage_tsan_build() {
    build_preset tsan lumd msgbusd msgbusctl labkernel labclock "${threaded_tests[@]}"
}

# Lock order is looked at in the whole process (tsan-system) alone: a std::mutex on the stack of one
# test and another at the same address in the next are one mutex to ThreadSanitizer.
stage_tsan_unit() {
    stage_tsan_build &&
        TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp detect_deadlocks=0" run_unit tsan \
            -R "^($(IFS='|' && echo "${threaded_tests[*]}"))\$"
}

stage_tsan_system() {
    stage_tsan_build &&
        TSAN_OPTIONS="suppressions=$PWD/tests/tsan.supp" run_system tsan tests/system -m threads
}

stage_release_build() { build_preset release; }
stage_release_run() { ./run --once </dev/null; }
stage_clang() { scripts/clang; }

stage_tidy() {
    scripts/clang --configure &&
        sources | grep -E '^(src|platform|tools|lab|bench|fuzz)/.*\.(c|cpp)$' | sampled 6 |
        xargs -P "$jobs" -n 4 clang-tidy -p build/clang --quiet
}

stage_fuzz() { scripts/fuzz "$fuzz_seconds"; }
stage_musl() { scripts/musl; }
stage_mips() { units=$(sampled_units mips) scripts/mips; }
stage_debian13() { units=$(sampled_units debian13) scripts/debian13; }
stage_air() { stage_release_build && run_pytest release tests/air; }
stage_install() { scripts/install ${sampling:+--part "$(one_of packages access-point)"}; }
stage_oci() { scripts/oci; }
stage_faults() { stage_dev_build && scripts/faults; }
stage_soak() { stage_dev_build && scripts/soak; }

# Pages in a real browser, with the release build: two at a time, each with a browser of its own. With
# LUMD_CONSOLE_IMAGES=docs/images it makes the screenshots anew.
stage_console() {
    stage_release_build &&
        run_beside 2 release -rPfE tests/console \
            ${LUMD_CONSOLE_IMAGES:+--images "$LUMD_CONSOLE_IMAGES"}
}

# One room a run: to build the tests of all takes five times as long.
stage_mutate() {
    scripts/mutate --sample 8 --seed "$(drawn 1000000 mutate)" --unit-only \
        "$(one_of process bus link driver service)"
}

packages_of() {
    case $1 in
        format) echo format ;;
        shellcheck | pyflakes) echo scripts ;;
        schemas) echo schemas ;;
        clang) echo build test clang ;;
        tidy) echo build test clang tidy ;;
        fuzz) echo build fuzz ;;
        musl) echo build musl ;;
        mips) echo build test mips ;;
        debian13) echo root ;;
        console) echo build test console browser ;;
        air) echo build test air ;;
        install) echo build root package lint guest ;;
        oci) echo build root package schemas oci ;;
        mutate) echo build test mutate ;;
        *) echo build test ;;
    esac
}

declare -A purposes=(
    [format]="C and C++ stand as clang-format puts them"
    [shellcheck]="the shell scripts"
    [pyflakes]="the Python"
    [schemas]="schemas, examples, docs/protocol.md and fuzz/lumd.dict agree"
    [dev-build]="all with AddressSanitizer and UndefinedBehaviorSanitizer"
    [dev-unit]="the unit tests"
    [dev-system]="the system tests"
    [tsan-build]="what has threads with ThreadSanitizer"
    [tsan-unit]="its unit tests"
    [tsan-system]="its system tests"
    [release-build]="what an access point runs"
    [release-run]="./run --once"
    [clang]="clang's warnings, thread-safety annotations among them"
    [tidy]="clang-tidy; among all stages a sixth of the files"
    [fuzz]="each fuzz target from its seeds"
    [musl]="src, platform and tools against OpenWrt's C library"
    [mips]="unit tests (among all stages a third) and a part of the system tests, 32-bit big-endian"
    [debian13]="GCC, clang, unit tests (among all stages a third) and a part of the system tests"
    [install]="the Debian packages under a real systemd: boot, restart, upgrade, removal, confinement"
    [oci]="the image of one access point of a fleet, started as its Kubernetes manifest has it"
    [console]="the lab's pages in a browser: views, commands, load, access, accessibility"
    [air]="lumd, apd, hostapd and clients with real 802.11 frames, in a virtual machine"
    [faults]="every call of the agent fails once"
    [mutate]="8 faults put into one room of src/, to be noticed by its tests"
    [soak]="a day in protocol time"
)

list_stages() {
    local name names
    for name in "${all_stages[@]}"; do
        printf '%-14s %s\n' "$name" "${purposes[$name]:-}"
    done
    for names in "${turns[@]}"; do
        echo "One of these, chosen by the commit:"
        for name in $names; do
            printf '%-14s %s\n' "$name" "${purposes[$name]:-}"
        done
    done
}

# Number of tests that a stage's log tells of, as "passed failed".
counts_of() {
    awk '
        /^again, alone: / { failed = 0 }
        /^\[  PASSED  \]|^[0-9]+: \[  PASSED  \]/ { next }
        /^[0-9]+ tests?$/ { passed += $1 }
        /^\[  FAILED  \] [0-9]+ tests?, listed below|: \[  FAILED  \] [0-9]+ tests?, listed/ {
            for (i = 1; i <= NF; i++) if ($i ~ /^[0-9]+$/) { failed += $i; break } }
        / in [0-9.]+s/ && /passed|failed|error/ {
            for (i = 2; i <= NF; i++) {
                if ($i ~ /^passed/) passed += $(i - 1)
                if ($i ~ /^(failed|error)/) failed += $(i - 1) } }
        END { print passed + 0, failed + 0 }' "$1"
}

# tell_alone LOG: which tests passed only alone, and what they said beside others.
tell_alone() {
    grep -q '^again, alone' "$1" || return 0
    sed -n 's/^again, alone/    passed only alone/p' "$1"
    sed '/^again, alone/,$d' "$1" | grep '^E  ' | head -n 12 | cut -c1-160 | sed 's/^/      /'
}

run_stages() {
    local name log started status passed failed total_passed=0 total_failed=0 broken=()
    mkdir -p "$logs"
    for name in "$@"; do
        log=$logs/$name.log
        started=$SECONDS
        printf '%-14s ' "$name"
        # shellcheck disable=SC2046
        { scripts/install-packages $(packages_of "$name") && "stage_${name//-/_}"; } \
            >"$log" 2>&1 </dev/null
        status=$?
        read -r passed failed <<<"$(counts_of "$log")"
        total_passed=$((total_passed + passed))
        total_failed=$((total_failed + failed))
        if [ $status = 0 ]; then
            printf 'ok      %5d tests  %4d s\n' "$passed" $((SECONDS - started))
            tell_alone "$log"
        else
            [ "$failed" -gt 0 ] || total_failed=$((total_failed + 1))
            broken+=("$name")
            printf 'FAILED  %5d tests  %4d s, the end of %s:\n' "$passed" $((SECONDS - started)) "$log"
            tail -n 60 "$log" | sed 's/^/    /'
        fi
    done
    [ ${#broken[@]} = 0 ] || echo "Failed stages: ${broken[*]}"
    echo "$total_passed passed, $total_failed failed"
    [ ${#broken[@]} = 0 ]
}
