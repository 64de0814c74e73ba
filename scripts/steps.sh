# Sourced by the Windows build and test scripts: named steps with their durations, failing with a
# message, and checking a Windows program's output.

step_started=$SECONDS
step() {  # step NAME: ends the previous step (printing its duration) and starts the next
    if [ -n "${step_name:-}" ]; then
        echo "    $step_name: $((SECONDS - step_started)) s"
    fi
    step_name=$1
    step_started=$SECONDS
    [ -z "$step_name" ] || echo "==> $step_name"
}

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# check NAME OUTPUT PATTERN...: every pattern (grep -E) must occur in OUTPUT, whose lines end
# in CR LF (standard output of a Windows program is in text mode).
check() {
    local name=$1 output=${2//$'\r'/}
    shift 2
    for pattern in "$@"; do
        grep -qE -- "$pattern" <<<"$output" || fail "$name: no line matching '$pattern' in:
$output"
    done
}
