# SPDX-License-Identifier: Apache-2.0
# Read by the test scripts: what a command is to end with and to print.
result=0 # 1 once something was not as expected

# expect STATUS TEXT COMMAND...
expect() {
    wanted=$1
    text=$2
    shift 2
    output=$("$@" 2>&1)
    status=$?
    if [ "$status" -ne "$wanted" ] || ! printf '%s\n' "$output" | grep -qE -- "$text"; then
        printf 'status %s, expected %s with "%s": %s\n%s\n' "$status" "$wanted" "$text" "$*" "$output"
        result=1
    fi
}
