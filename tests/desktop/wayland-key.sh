#!/bin/bash
# Under a Wayland compositor (sway, without a screen) a key of the compositor's own that starts the program once more opens
# and closes the palette.
#
#   wayland-key.sh KORVANE
#
# Ends with 0 when it does, 1 when it does not, 77 where the compositor or the key sender is not installed. Nothing
# outlives the script.
set -u

korvane=$(readlink -f "$1")
here=$(cd "$(dirname "$0")" && pwd)

# The second stage runs inside the session, in the process group that the first one ends as a whole.
if [ "${KORVANE_WAYLAND_STAGE:-}" != inside ]; then
    for tool in sway swaymsg Xwayland wtype; do
        command -v "$tool" >/dev/null || { echo "$tool is not installed"; exit 77; }
    done
    folder=$(mktemp -d "${TMPDIR:-/tmp}/korvane-wayland.XXXXXX") || exit 1
    export KORVANE_WAYLAND_STAGE=inside KORVANE_WAYLAND_FOLDER=$folder HOME=$folder/home XDG_RUNTIME_DIR=$folder/run
    export XDG_CONFIG_HOME=$HOME/.config XDG_DATA_HOME=$HOME/.local/share XDG_CACHE_HOME=$HOME/.cache LC_ALL=C.UTF-8
    unset WAYLAND_DISPLAY DISPLAY DBUS_SESSION_BUS_ADDRESS XAUTHORITY XDG_CURRENT_DESKTOP QT_QPA_PLATFORM SWAYSOCK
    mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
    mkdir -m 700 "$XDG_RUNTIME_DIR"
    [ -d /tmp/.X11-unix ] || { mkdir -p /tmp/.X11-unix && chmod 1777 /tmp/.X11-unix; }
    # Of its own, for another user may not be let into the folders of the build.
    mkdir -p "$folder/bin" "$folder/share/korvane"
    cp "$korvane" "$folder/bin/"
    cp -r "$here/../../resources/Korvane_Vorrel.bundle" "$folder/share/korvane/"
    cp "$here/wayland-key.sh" "$here/bare-bus.conf" "$folder/"
    lower=()
    if [ "$(id -u)" = 0 ]; then # the compositor refuses to run as root
        chown -R nobody "$folder"
        lower=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    fi
    setsid "${lower[@]}" dbus-run-session --config-file="$folder/bare-bus.conf" -- "$folder/wayland-key.sh" "$folder/bin/korvane" \
        </dev/null >"$folder/said" 2>&1 &
    group=$!
    end() {
        kill -TERM -- "-$group" 2>/dev/null
        for _ in 1 2 3 4 5 6 7 8 9 10; do
            kill -0 -- "-$group" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL -- "-$group" 2>/dev/null
        rm -rf "$folder"
    }
    trap 'end; exit 143' TERM INT HUP
    wait "$group"
    status=$?
    [ "$status" -eq 0 ] || cat "$folder/said"
    end
    exit "$status"
fi

log=$KORVANE_WAYLAND_FOLDER/korvane.log
cat >"$KORVANE_WAYLAND_FOLDER/config" <<END
xwayland enable
bindsym Mod1+space exec "$korvane" >>"$log" 2>&1
exec "$korvane" >>"$log" 2>&1
END
WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman sway -c "$KORVANE_WAYLAND_FOLDER/config" &

soon() { # COMMAND...: whether it succeeds within ten seconds
    for _ in $(seq 200); do "$@" && return 0; sleep 0.05; done
    return 1
}
has_socket() {
    SWAYSOCK=$(find "$XDG_RUNTIME_DIR" -name 'sway-ipc.*' | head -n 1)
    WAYLAND_DISPLAY=$(find "$XDG_RUNTIME_DIR" -name 'wayland-[0-9]' -printf '%f' | head -n 1)
    export SWAYSOCK WAYLAND_DISPLAY
    [ -n "$SWAYSOCK" ] && [ -n "$WAYLAND_DISPLAY" ]
}
is_ready() { grep -q 'Korvane is ready' "$log" 2>/dev/null; }
is_open() { swaymsg -t get_tree | grep -q '"name": "Korvane Vorrel"'; }
is_closed() { ! is_open; }
press_key() { wtype -M alt -k space -m alt; }
fail() { echo "$1"; cat "$log"; exit 1; }

soon has_socket || fail "The compositor did not start."
soon is_ready || fail "The program did not start."
is_closed || fail "The palette is open already."
for _ in 1 2; do
    press_key
    soon is_open || fail "The key did not open the palette."
    press_key
    soon is_closed || fail "The key did not close the palette."
done
exit 0
