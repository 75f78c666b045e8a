#!/usr/bin/env bash
# Checks that includes point the way the README's layout table allows.
#
# The table lists the folders lowest first. Each row's "May use" column says
# what the folder's files may include besides their own folder and the public
# headers (elatectwn4/...):
#   "rows above"   every folder listed above it, never one below;
#   "everything"   anything (tests, benchmarks);
#   otherwise      the folders it names in backticks (`com/`, `sim/simulation/`).
# It also fails when files include each other in a loop (a .cpp and its .h count
# as one unit), which the folder order alone cannot see inside one folder.
#
#   check-includes.sh [SOURCE_ROOT]     exit status 1 on any violation
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
cd "$root"

# The layout table: "folder<TAB>may use" per row, in order.
rows=$(awk '
    /^## Layout/ { inside = 1; next }
    inside && /^## / { exit }
    inside && /^\| `[^`]*\/`/ {
        n = split($0, cell, "|")
        folder = cell[2]; sub(/^[^`]*`/, "", folder); sub(/`.*/, "", folder)
        use = cell[4]; gsub(/^ +| +$/, "", use)
        print folder "\t" use
    }' README.md)
[ -n "$rows" ] || { echo "check-includes: no layout table in README.md" >&2; exit 1; }

# A folder's include prefix: what an #include "..." of one of its headers
# starts with. The public headers are included as "elatectwn4/...".
prefix_of() {
    case $1 in
        include/elatectwn4/) echo "elatectwn4/" ;;
        *) echo "$1" ;;
    esac
}

status=0
above=()
edges=$(mktemp)
trap 'rm -f "$edges"' EXIT
while IFS=$'\t' read -r folder use; do
    own=$(prefix_of "$folder")
    allowed=("$own" "elatectwn4/")
    anything=0
    case $use in
        *"rows above"*) allowed+=("${above[@]}") ;;
        *everything*) anything=1 ;;
        *)
            # shellcheck disable=SC2016  # backticks, not a command substitution
            for named in $(printf '%s\n' "$use" | grep -o '`[^`]*/`' | tr -d '`'); do
                allowed+=("$named")
            done
            ;;
    esac
    above+=("$own")
    [ -d "$folder" ] || continue
    [ $anything -eq 0 ] || continue

    while IFS= read -r hit; do
        file=${hit%%:*}
        rest=${hit#*:}
        line=${rest%%:*}
        included=$(printf '%s\n' "$rest" | sed -n 's/^[0-9]*:[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p')
        [ -n "$included" ] || continue
        ok=0
        case $included in
            */*) for p in "${allowed[@]}"; do [[ $included == "$p"* ]] && ok=1; done ;;
            *) ok=1 ;;  # beside the including file
        esac
        if [ $ok -eq 0 ]; then
            echo "check-includes: $file:$line includes \"$included\", which $folder may not use (README layout: ${use:-nothing})" >&2
            status=1
        fi
        if [[ $included == */* && $included != elatectwn4/* ]]; then
            echo "${file%.*} ${included%.*}" >>"$edges"
        fi
    done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include[[:space:]]*"' "$folder" \
                 --include='*.h' --include='*.hpp' --include='*.c' --include='*.cpp' || true)
done <<<"$rows"

# Units that include each other, directly or through others. A loop already
# known is named here by the edge that closes it, until its files are split:
known=(
    "command/encoder_command command/command_table"  # the table's Params live in encoder_command.h
)
for edge in "${known[@]}"; do
    grep -qxF "$edge" "$edges" || echo "check-includes: the known loop through \"$edge\" is gone; drop it from the list" >&2
done
if ! loop=$(awk '$1 != $2' "$edges" | grep -vxF -f <(printf '%s\n' "${known[@]}") | tsort 2>&1 >/dev/null) ||
    [ -n "$loop" ]; then
    echo "check-includes: files include each other in a loop:" >&2
    printf '%s\n' "$loop" | sed -n 's/^tsort: \([^:-]\)/    \1/p' >&2
    status=1
fi

[ $status -ne 0 ] || echo "check-includes: every include follows the README's layout"
exit $status
