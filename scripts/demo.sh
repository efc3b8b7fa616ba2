#!/usr/bin/env bash
# Builds the library with its reference host, starts an agent in a scratch directory and shows it at
# work. Ends with 0 only if every step did what it says.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-dependencies.sh

build=build/demo
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build"
agent=$PWD/$build/examples/agent/kiv-agent
console_program=$PWD/$build/examples/agent/kiv-console

scratch=$(mktemp -d)
agent_pid=
clean_up() {
    if [[ -n $agent_pid ]] && kill -0 "$agent_pid" 2>/dev/null; then
        kill "$agent_pid"
        while kill -0 "$agent_pid" 2>/dev/null; do sleep 0.05; done
    fi
    rm -r "$scratch"
}
trap clean_up EXIT

config=$scratch/agent.conf
output=$scratch/output
log=$scratch/log/agent.log

step() { printf '\n== %s\n' "$*"; }

fail() {
    printf 'demo: %s\n' "$*" >&2
    exit 1
}

# Waits for a condition; the limit is for broken runs only.
wait_for() {
    local what=$1
    shift
    for ((i = 0; i < 600; i++)); do
        if "$@"; then
            return
        fi
        sleep 0.05
    done
    fail "waited in vain: $what"
}

# Runs a console command, shows it with what it says, and keeps that in $output.
console() {
    printf '$ kiv-console %s\n' "$*"
    local code=0
    "$console_program" --port-file "$scratch/agent.port" "$@" >"$output" 2>&1 || code=$?
    cat "$output"
    return "$code"
}

expect() { grep -q -- "$1" "$output" || fail "the answer should have: $1"; }

step "An agent writes its default configuration"
"$agent" --config "$config" --check
grep -q '^# Settings of kiv-agent' "$config" || fail "the default configuration has no comments"

# A free port, an hourly log, a directory of files to read, and three jobs.
mkdir "$scratch/files"
sed -i -e 's/^port = .*/port = 0/' -e 's/^rotation = .*/rotation = hourly/' \
    -e 's/^# directory = .*/directory = files/' "$config"
cat >>"$config" <<'END'
# The jobs of the demo.
count = /bin/sh -c "for i in one two three; do echo $i; sleep 0.2; done; exit 3"
family = /bin/sh -c "sleep 600 & (sleep 600 & wait) & wait"
missing = /no/such/program

END
cp "$config" "$scratch/before.conf"

step "It becomes a daemon on a free loopback port"
"$agent" --config "$config"
has_pid() { [[ -s $scratch/agent.pid ]]; }
wait_for "the daemon writes its pid" has_pid
agent_pid=$(<"$scratch/agent.pid")
console status
expect "^pid: $agent_pid\$"
expect '^uptime: 0 days, 0 hours, '

step "The load of the machine, once its first seconds are measured"
has_figures() {
    "$console_program" --port-file "$scratch/agent.port" top >"$output" &&
        grep -q '^cpu 0 .*[1-9].*%$' "$output" && grep -q '^memory .*%' "$output"
}
wait_for "the monitor has figures" has_figures
console top
expect '^cpu 0 '
expect '^memory .* of .*iB$'
expect '^count '

step "Properties, in the order they were set: the agent's own first"
console set greeting "hello from the console"
console get greeting
expect '^hello from the console$'
console properties
expect '^-- agent.port = [0-9]*$'
expect '^ct greeting = hello from the console$'
console set agent.port 1 && fail "the agent's own properties should be read-only"
expect "the agent's own"

step "Files: a digest, and every byte through Base64"
head -c 1000000 /dev/urandom >"$scratch/files/noise"
console md5 noise
(cd "$scratch/files" && md5sum --check "$output")
printf '$ kiv-console cat noise | cmp - files/noise\n'
"$console_program" --port-file "$scratch/agent.port" cat noise | cmp - "$scratch/files/noise"
console md5 ../agent.conf && fail "nothing outside the directory should be read"
expect 'not a path below the files directory'

step "A job, its output as it comes, and its exit code"
code=0
console run count || code=$?
[[ $code == 3 ]] || fail "the console should end with the job's exit code 3, not $code"
expect '^three$'
expect '^job count ended with exit code 3$'

step "A job that cannot be started"
console run missing && fail "a missing program should not start"
expect 'No such file or directory'

step "A process tree, and its end"
"$console_program" --port-file "$scratch/agent.port" run family >"$scratch/family" 2>&1 &
family_console=$!
has_grown() { # sh, sleep, sh, sleep
    "$console_program" --port-file "$scratch/agent.port" tree "$agent_pid" >"$output" &&
        (($(grep -c '^ *sleep ' "$output") == 2))
}
wait_for "the family is complete" has_grown
console jobs
expect '^family: running (pid [0-9]*)'
console tree "$agent_pid"
expect '^    sleep ([0-9]*)$'
expect '^      sleep ([0-9]*)$'
mapfile -t family < <(grep -o '[0-9]*)$' "$output" | tr -d ')' | tail -n +2)
console kill family
expect '^killed 4 processes$'
code=0
wait "$family_console" || code=$?
[[ $code == 137 ]] || fail "the waiting console should end with 128 + 9, not $code"
is_dead() { [[ ! -e /proc/$1 ]] || grep -q '^State:.*zombie' "/proc/$1/status"; }
for pid in "${family[@]}"; do
    wait_for "process $pid ends" is_dead "$pid"
done

step "A configuration change that keeps the comments"
console config set agent silence_limit 90
console config get agent silence_limit
expect '^90$'
diff "$scratch/before.conf" "$config" && fail "the file should have changed"
grep '^#' "$scratch/before.conf" | while read -r comment; do
    grep -qxF -- "$comment" "$config" || fail "lost: $comment"
done
console config set agent silence_limit soon && fail "a bad value should be refused"
expect 'not a number'

step "A rotation now"
console rotate
rotated=$(<"$output")
ls "$scratch/log"
[[ -s $rotated ]] || fail "the rotated file is missing"
grep -q 'listening on 127.0.0.1' "$rotated" || fail "the rotated file lost its lines"

step "The end of the log"
console tail 5
expect 'log rotated to'

step "The end of the agent"
console stop
is_over() { [[ ! -e $scratch/agent.pid ]]; }
wait_for "the agent ends" is_over
tail -n 1 "$log" | tee "$output"
expect '\[agent\] ended$'
[[ ! -e $scratch/agent.port ]] || fail "the port file is left behind"

printf '\nEvery step did what it should.\n'
