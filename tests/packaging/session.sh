#!/bin/bash
# An ordinary user's session with the installed package, on a private screen: makes a small home in an empty one, indexes it,
# finds and starts an application and a file, by korvanectl and by the palette, and quits. Needs nothing of the sources.
set -eu
cd "$HOME"
fail() {
    echo "session: $*" >&2
    [ -s "$HOME/korvane.log" ] && cat "$HOME/korvane.log" >&2
    { xprop -root _NET_CLIENT_LIST _NET_ACTIVE_WINDOW && xwininfo -root -tree; } 2>/dev/null | grep -v 'has no name' >&2
    exit 1
}
# until_true SECONDS SENTENCE COMMAND...: waits for the command to succeed
until_true() {
    local deadline=$((SECONDS + $1)) sentence=$2
    shift 2
    until "$@"; do
        [ $SECONDS -lt $deadline ] || fail "$sentence"
        sleep 0.1
    done
}

if [ -z "${DBUS_SESSION_BUS_ADDRESS:-}" ]; then
    export XDG_RUNTIME_DIR=/tmp/ada
    mkdir -m 700 "$XDG_RUNTIME_DIR"
    mkdir -p -m 1777 /tmp/.X11-unix
    exec dbus-run-session -- bash "$0"
fi

mkdir -p Documents .local/share/applications .config/openbox .config/korvane/shortcuts
echo 'High water at six' >'Documents/tide table.txt'
printf '#!/bin/sh\ntouch "$HOME/shortcut ran"\n' >'.config/korvane/shortcuts/Water plants.sh'
printf '#!/bin/sh\nprintf "%%s\\n" "started $*" >>"$HOME/started"\n' >harbour
chmod +x harbour '.config/korvane/shortcuts/Water plants.sh'
cat >.local/share/applications/harbour.desktop <<END
[Desktop Entry]
Type=Application
Name=Harbour Notes
Exec=$HOME/harbour %f
MimeType=text/plain;
END
printf '[Default Applications]\ntext/plain=harbour.desktop\n' >.config/mimeapps.list
cat >tide-server <<'END'
#!/bin/bash
while IFS= read -r line; do
    case $line in
    *'"initialize"'*) echo '{"jsonrpc":"2.0","id":1,"result":{"protocolVersion":"2025-11-25","capabilities":{}}}' ;;
    *'"tools'*'list"'*) echo '{"jsonrpc":"2.0","id":2,"result":{"tools":[{"name":"high-water","inputSchema":{"type":"object"}}]}}' ;;
    esac
done
END
chmod +x tide-server
echo "{\"id\":\"tide\",\"name\":\"Tide\",\"command\":\"$HOME/tide-server\"}" >tide.json
# This window manager has Korvane's own key for its menu of windows.
sed 's/key="A-space"/key="A-F12"/' /etc/xdg/openbox/rc.xml >.config/openbox/rc.xml

Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp -noreset -fbdir "$XDG_RUNTIME_DIR" 3>"$XDG_RUNTIME_DIR/display" 2>"$XDG_RUNTIME_DIR/x.log" &
screen=$!
until_true 20 "The X server did not start." test -s "$XDG_RUNTIME_DIR/display"
DISPLAY=:$(cat "$XDG_RUNTIME_DIR/display")
export DISPLAY
openbox >/dev/null 2>&1 &
manager=$!
# It is ready when it manages a window; one that comes while it starts may be left alone for good.
managed() {
    local probe answer=0
    xev >/dev/null 2>&1 &
    probe=$!
    sleep 0.3
    xprop -root _NET_CLIENT_LIST 2>/dev/null | grep -q 0x || answer=1
    kill "$probe"
    wait "$probe" || true
    return $answer
}
until_true 20 "The window manager did not start." managed

korvane --show >"$HOME/korvane.log" 2>&1 &
korvane=$!
palette_has_the_keyboard() {
    local window
    window=$(xdotool search --onlyvisible --pid "$korvane" 2>/dev/null | tail -n 1)
    [ -n "$window" ] && [ "$(xdotool getwindowfocus 2>/dev/null)" = "$window" ]
}
palette_is_gone() { [ -z "$(xdotool search --onlyvisible --pid "$korvane" 2>/dev/null)" ]; }
until_true 20 "The palette did not appear." palette_has_the_keyboard

# By korvanectl
[ "$(korvanectl calc '3 * (4 + 5)')" = 27 ] || fail "korvanectl does not compute."
found() { [ "$(korvanectl files 'tide table')" = "$HOME/Documents/tide table.txt" ]; }
until_true 20 "The file is not found." found
id=$(korvanectl search 'harbour' | awk -F '\t' '$3 == "Harbour Notes" { print $2 }')
[ "$id" = "app:$HOME/.local/share/applications/harbour.desktop" ] || fail "The application is not found: $id"
korvanectl run "$id"
until_true 10 "korvanectl did not start the application." grep -qx 'started ' started
[ "$(korvanectl shortcuts list)" = 'Water plants' ] || fail "The shortcut is not found."
korvanectl shortcuts run 'Water plants' && [ -e 'shortcut ran' ] || fail "The shortcut did not run."

# By the palette: an application, then, after a second start, which shows it again, a file.
: >started
xdotool type --delay 30 'harbour'
sleep 1 # the last row that the text brings
xdotool key Return
until_true 10 "The palette did not start the application." grep -qx 'started ' started
until_true 10 "The palette did not hide." palette_is_gone
korvane 2>/dev/null
until_true 10 "A second start did not show the palette." palette_has_the_keyboard
xdotool type --delay 30 'tide table'
sleep 2 # the quiet time after typing, and the answer of the index
cp "$XDG_RUNTIME_DIR/Xvfb_screen0" "$HOME/palette.xwd"
xdotool key Return
until_true 10 "The palette did not open the file." grep -qxF "started $HOME/Documents/tide table.txt" started

kill -TERM "$korvane"
wait "$korvane" || fail "Korvane ended with status $?."
[ "$(korvanectl mcp add tide.json)" = tide ] || fail "The MCP server is not added."
korvanectl mcp tools tide --yes | grep -q '"high-water"' || fail "The MCP server's tools are not found."
echo "session: indexed $(korvanectl index status | awk '$1 == "files" { print $2 }') files, found and started an application and a file"
kill "$manager" "$screen"
wait
