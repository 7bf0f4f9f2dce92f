#!/bin/bash
# Runs a command in a Wayland session of its own: a compositor without a screen (sway) with its X server, a D-Bus session,
# home and XDG folders.
#
#   with-wayland.sh [--bring FILE]... [--timeout SECONDS] COMMAND...
#
# The command and what is brought are copied next to each other, with the program's resources: the compositor refuses to run
# as root, and another user may not be let into the folders of the build. The exit status is the command's; 124 when the time
# limit ended it; 77 where the compositor is not installed; 125 when it did not start. Nothing outlives the script.
set -u

limit=50 brought=()
while [ $# -gt 0 ]; do
    case $1 in
        --bring) brought+=("$2"); shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        *) break ;;
    esac
done
[ $# -gt 0 ] || { sed -n '5s/^# *//p' "$0" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)

# The second stage runs inside the session, in the process group that the first one ends as a whole.
if [ "${KORVANE_WAYLAND_STAGE:-}" != inside ]; then
    for tool in sway swaymsg Xwayland; do
        command -v "$tool" >/dev/null || { echo "$tool is not installed"; exit 77; }
    done
    . "$here/group.sh"
    folder=$(mktemp -d "${TMPDIR:-/tmp}/korvane-wayland.XXXXXX") || exit 125
    export KORVANE_WAYLAND_STAGE=inside KORVANE_WAYLAND_FOLDER=$folder HOME=$folder/home XDG_RUNTIME_DIR=$folder/run
    export XDG_CONFIG_HOME=$HOME/.config XDG_DATA_HOME=$HOME/.local/share XDG_CACHE_HOME=$HOME/.cache LC_ALL=C.UTF-8
    unset WAYLAND_DISPLAY DISPLAY DBUS_SESSION_BUS_ADDRESS XAUTHORITY XDG_CURRENT_DESKTOP QT_QPA_PLATFORM SWAYSOCK
    mkdir -p "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
    mkdir -m 700 "$XDG_RUNTIME_DIR"
    [ -d /tmp/.X11-unix ] || { mkdir -p /tmp/.X11-unix && chmod 1777 /tmp/.X11-unix; }
    mkdir -p "$folder/bin" "$folder/share/korvane"
    for file in "$1" ${brought[@]+"${brought[@]}"}; do cp "$(readlink -f "$file")" "$folder/bin/"; done
    cp -r "$here/../../resources/Korvane_Vorrel.bundle" "$folder/share/korvane/"
    cp "$here/with-wayland.sh" "$here/bare-bus.conf" "$folder/"
    command=$folder/bin/$(basename "$1")
    shift
    lower=()
    if [ "$(id -u)" = 0 ]; then
        chown -R nobody "$folder"
        lower=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    fi
    cd "$folder/bin" || exit 125
    setsid "${lower[@]}" dbus-run-session --config-file="$folder/bare-bus.conf" -- \
        "$folder/with-wayland.sh" --timeout "$limit" "$command" "$@" </dev/null >"$folder/said" 2>&1 &
    group=$!
    await_group
    cat "$folder/said"
    end_group
    exit "$status"
fi

unset KORVANE_WAYLAND_STAGE
environment=$KORVANE_WAYLAND_FOLDER/environment
cat >"$KORVANE_WAYLAND_FOLDER/config" <<END
xwayland enable
exec echo "\$WAYLAND_DISPLAY \$DISPLAY \$SWAYSOCK" >"$environment"
END
WLR_BACKENDS=headless WLR_LIBINPUT_NO_DEVICES=1 WLR_RENDERER=pixman sway -c "$KORVANE_WAYLAND_FOLDER/config" \
    >"$KORVANE_WAYLAND_FOLDER/sway.log" 2>&1 &
for _ in $(seq 200); do [ -s "$environment" ] && break; sleep 0.05; done
read -r WAYLAND_DISPLAY DISPLAY SWAYSOCK <"$environment" || { cat "$KORVANE_WAYLAND_FOLDER/sway.log"; exit 125; }
export WAYLAND_DISPLAY DISPLAY SWAYSOCK
timeout -k 2 "$limit" "$@"
exit $?
