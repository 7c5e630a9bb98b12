# shellcheck shell=bash
# Steps of a check: each runs in the background with its output in a log, so that one that waits and one that computes
# can overlap. For sourcing; the caller sets "logs", the folder of the logs, and uses stdout for nothing else.
#
# Job control gives every step a process group of its own, so that a step can be ended with all that it started.
set -m

logs=${logs:?set it to the folder of the logs}
declare -A step_pid step_begin step_advice
ticks=0

report() {
    [[ -t 1 ]] && printf '\r\e[K'
    printf '%3d:%02d  %-6s  %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$1" "$2"
}

# start NAME ADVICE COMMAND [ARGUMENT...]: begins a step. ADVICE is what to do when it fails.
start() {
    local name=$1
    step_begin[$name]=$SECONDS
    step_advice[$name]=$2
    shift 2
    rm -f "$logs/$name".*
    report begin "$name"
    ("$@") >"$logs/$name.log" 2>&1 </dev/null &
    step_pid[$name]=$!
}

# finish NAME...: waits until these steps have ended. The first step that fails, named or not, ends the check.
finish() {
    local name
    for name in "$@"; do
        while [[ ${step_pid[$name]-} ]]; do
            show_running
            sleep 0.1 # pause: looked at again, to show what is running
            collect
        done
    done
}

# run NAME ADVICE COMMAND [ARGUMENT...]: a step that nothing overlaps from here.
run() {
    start "$@"
    finish "$1"
}

collect() {
    local name
    for name in "${!step_pid[@]}"; do
        kill -0 "${step_pid[$name]}" 2>/dev/null && continue
        if wait "${step_pid[$name]}"; then
            unset "step_pid[$name]"
            report ok "$name, $((SECONDS - step_begin[$name])) s$(counted "$name")"
        else
            unset "step_pid[$name]"
            stop "$name"
        fi
    done
}

show_running() {
    [[ -t 1 ]] || return 0
    local marks='.oOo' name text=
    for name in "${!step_pid[@]}"; do
        text+="  $name $((SECONDS - step_begin[$name])) s"
    done
    printf '\r\e[K  %s%s' "${marks:ticks++ % 4:1}" "$text"
}

# A step of tests leaves "PASSED FAILED" in NAME.count.
counted() {
    local passed failed
    [[ -e $logs/$1.count ]] || return 0
    read -r passed failed <"$logs/$1.count"
    printf ', %d passed, %d failed' "$passed" "$failed"
}

closing_line() {
    local passed failed passed_sum=0 failed_sum=0 name
    for name in "$logs"/*.count; do
        read -r passed failed <"$name"
        ((passed_sum += passed, failed_sum += failed, 1))
    done
    printf '%d passed, %d failed\n' "$passed_sum" "$failed_sum"
}

stop() {
    local name=$1
    end_steps
    report FAILED "$name, $((SECONDS - step_begin[$name])) s$(counted "$name")"
    printf '\n----- end of %s\n' "$logs/$name.log"
    tail -n 60 "$logs/$name.log"
    printf -- '-----\n%s failed. %s\n' "$name" "${step_advice[$name]}"
    if [[ -e $logs/$name.count ]]; then
        closing_line
    fi
    exit 1
}

end_steps() {
    local pid
    for pid in "${step_pid[@]}"; do
        # The shell would name each job that was ended so.
        { kill -TERM -- "-$pid" && wait "$pid"; } 2>/dev/null || true
    done
    step_pid=()
}
trap end_steps EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP
