# Completions of korvane for bash.
_korvane() {
    local options='--show --settings --rebuild-index --keychain-selftest --keychain-selftest-clean --help --version'
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -F _korvane korvane
