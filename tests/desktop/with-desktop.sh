#!/bin/bash
# Runs a command on a desktop of its own: private X server, window manager, D-Bus session, home and XDG folders.
#
#   with-desktop.sh [--wm openbox|xfwm4|metacity|none] [--compositor own|picom|none] [--size WxH]
#                   [--accessibility] [--timeout SECONDS] COMMAND...
#
# The exit status is the command's; 124 when the time limit ended it; 125 when the desktop did not come up. What the
# desktop's own programs say goes to a file that is shown only in that last case. Nothing outlives the script.
set -u

wm=openbox compositor=none size=1920x1080 limit=60 accessibility=
while [ $# -gt 0 ]; do
    case $1 in
        --wm) wm=$2; shift 2 ;;
        --compositor) compositor=$2; shift 2 ;;
        --size) size=$2; shift 2 ;;
        --timeout) limit=$2; shift 2 ;;
        --accessibility) accessibility=--accessibility; shift ;;
        --) shift; break ;;
        -*) sed -n '2,7s/^# \{0,1\}//p' "$0" >&2; exit 2 ;;
        *) break ;;
    esac
done
[ $# -gt 0 ] || { sed -n '2,7s/^# \{0,1\}//p' "$0" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)

# The second stage runs inside the D-Bus session, in the process group that the first one ends as a whole.
if [ "${KORVANE_DESKTOP_STAGE:-}" != inside ]; then
    . "$here/group.sh"
    folder=$(mktemp -d "${TMPDIR:-/tmp}/korvane-desktop.XXXXXX") || exit 125
    export KORVANE_DESKTOP_STAGE=inside KORVANE_DESKTOP_FOLDER=$folder
    export HOME=$folder/home XDG_RUNTIME_DIR=$folder/run
    export XDG_CONFIG_HOME=$HOME/.config XDG_DATA_HOME=$HOME/.local/share XDG_CACHE_HOME=$HOME/.cache
    mkdir -p "$HOME" "$XDG_RUNTIME_DIR" "$XDG_CONFIG_HOME" "$XDG_DATA_HOME" "$XDG_CACHE_HOME"
    chmod 700 "$HOME" "$XDG_RUNTIME_DIR"
    [ -d /tmp/.X11-unix ] || { mkdir -p /tmp/.X11-unix && chmod 1777 /tmp/.X11-unix; } 2>/dev/null
    unset WAYLAND_DISPLAY DISPLAY DBUS_SESSION_BUS_ADDRESS XAUTHORITY XDG_CURRENT_DESKTOP DESKTOP_SESSION GTK_THEME QT_STYLE_OVERRIDE
    export QT_QPA_PLATFORM=xcb LC_ALL=C.UTF-8

    setsid dbus-run-session --config-file="$here/bare-bus.conf" -- \
        "$here/with-desktop.sh" --wm "$wm" --compositor "$compositor" --size "$size" $accessibility --timeout "$limit" -- "$@" </dev/null 2>"$folder/bus.log" 3>&2 &
    group=$!
    await_group
    [ -f "$folder/errors" ] && cat "$folder/errors" >&2
    [ "$status" -eq 125 ] && cat "$folder"/*.log >&2
    end_group
    exit "$status"
fi

log=$KORVANE_DESKTOP_FOLDER/desktop.log
unset KORVANE_DESKTOP_STAGE
Xvfb -displayfd 9 -screen 0 "${size}x24" -dpi 96 -nolisten tcp -noreset 9>"$KORVANE_DESKTOP_FOLDER/display" >>"$log" 2>&1 &
for _ in $(seq 200); do [ -s "$KORVANE_DESKTOP_FOLDER/display" ] && break; sleep 0.05; done
number=$(cat "$KORVANE_DESKTOP_FOLDER/display" 2>/dev/null)
[ -n "$number" ] || { echo "The X server did not start." >>"$log"; exit 125; }
export DISPLAY=:$number

if [ "$wm" != none ]; then
    # Two of them compose windows themselves unless told not to.
    case $wm in
        xfwm4) [ "$compositor" = own ] && compose=on || compose=off; xfwm4 --compositor=$compose >>"$log" 2>&1 & ;;
        metacity) [ "$compositor" = own ] && compose=xrender || compose=none; META_COMPOSITOR=$compose metacity >>"$log" 2>&1 & ;;
        openbox)
            # It has the program's own default key for its menu of windows.
            mkdir -p "$XDG_CONFIG_HOME/openbox"
            sed 's/key="A-space"/key="A-F12"/' /etc/xdg/openbox/rc.xml >"$XDG_CONFIG_HOME/openbox/rc.xml" 2>>"$log"
            openbox >>"$log" 2>&1 &
            ;;
        *) "$wm" >>"$log" 2>&1 & ;;
    esac
    for _ in $(seq 200); do
        xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' && break
        sleep 0.05
    done
    xprop -root _NET_SUPPORTING_WM_CHECK 2>/dev/null | grep -q 'window id' || { echo "The window manager did not start." >>"$log"; exit 125; }
fi
[ "$compositor" = none ] || hsetroot -solid '#3b6ea5' >>"$log" 2>&1
if [ "$compositor" = picom ]; then
    picom --backend xrender >>"$log" 2>&1 &
    sleep 0.5
fi
if [ -n "$accessibility" ]; then
    export QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1
    /usr/libexec/at-spi-bus-launcher --launch-immediately >>"$log" 2>&1 &
fi
timeout -k 2 "$limit" "$@" 2>"$KORVANE_DESKTOP_FOLDER/errors"
exit $?
