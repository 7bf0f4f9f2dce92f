# Sourced by scripts that run a session in a process group of its own, `group`, with its files in `folder`.

# Ends what is left of the session.
end_group() {
    kill -TERM -- "-$group" 2>/dev/null
    for _ in 1 2 3 4 5 6 7 8 9 10; do
        kill -0 -- "-$group" 2>/dev/null || break
        sleep 0.05
    done
    kill -KILL -- "-$group" 2>/dev/null
    rm -rf "$folder"
}

# Waits for the session's command, whose status is then in `status`; a signal ends all of it.
await_group() {
    trap 'end_group; exit 143' TERM INT HUP
    wait "$group"
    status=$?
}
