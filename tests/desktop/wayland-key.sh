#!/bin/bash
# A key of the compositor's own that starts the program once more opens and closes the palette. Runs inside with-wayland.sh,
# which has brought the program.
#
# Ends with 0 when it does, 1 when it does not, 77 where the key sender is not installed.
set -u

korvane=$(cd "$(dirname "$0")" && pwd)/korvane
log=$KORVANE_WAYLAND_FOLDER/korvane.log
command -v wtype >/dev/null || { echo "wtype is not installed"; exit 77; }

soon() { # COMMAND...: whether it succeeds within ten seconds
    for _ in $(seq 200); do "$@" && return 0; sleep 0.05; done
    return 1
}
is_ready() { grep -q 'Korvane is ready' "$log" 2>/dev/null; }
is_open() { swaymsg -t get_tree | grep -q '"name": "Korvane Vorrel"'; }
is_closed() { ! is_open; }
is_told() { swaymsg -t get_tree | grep -q '"name": "Korvane Settings"'; }
press_key() { wtype -M alt -k space -m alt; }
fail() { echo "$1"; cat "$log"; exit 1; }

swaymsg -q "bindsym Mod1+space exec '$korvane' >>'$log' 2>&1"
swaymsg -q "exec '$korvane' >>'$log' 2>&1"
soon is_ready || fail "The program did not start."
is_closed || fail "The palette is open already."
soon is_told || fail "The settings did not open to tell that there are no global shortcuts here."
for _ in 1 2; do
    press_key
    soon is_open || fail "The key did not open the palette."
    press_key
    soon is_closed || fail "The key did not close the palette."
done
exit 0
