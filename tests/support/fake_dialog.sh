#!/bin/bash
# A stand-in for twn4-configure that speaks the dialog protocol as told, for
# tests that need no display.
#   FAKE_DIALOG_LOG      every line the component sends is appended here
#   FAKE_DIALOG_ACTIONS  after "show", steps separated by ";":
#     say:TEXT   writes TEXT and a line end ("\t" in TEXT becomes a tab)
#     read       reads one line (logged)
#     exit:N     exits with status N
#     kill       stops itself with SIGKILL
#   Unset: "ok" with the reader the component named as current.
log=${FAKE_DIALOG_LOG:-/dev/null}
current=""
while IFS= read -r line; do
    printf '%s\n' "$line" >>"$log"
    case $line in
        current$'\t'*) current=${line#current$'\t'} ;;
        show) break ;;
    esac
done
IFS=';' read -r -a steps <<<"${FAKE_DIALOG_ACTIONS:-say:ok\\t$current}"
for step in "${steps[@]}"; do
    case $step in
        say:*) printf '%b\n' "${step#say:}" ;;
        read) IFS= read -r line && printf '%s\n' "$line" >>"$log" ;;
        exit:*) exit "${step#exit:}" ;;
        kill) kill -KILL $$ ;;
    esac
done
exit 0
