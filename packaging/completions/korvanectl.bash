# Completions of korvanectl for bash.

# The first words of a line: a command, and what may follow it.
declare -gA _korvanectl_commands=(
    [calc]='' [search]='' [run]='' [apps]='' [query]='' [files]=''
    [index]='status roots add remove rebuild'
    [shortcuts]='list run'
    [quicklink]='add list remove'
    [clipboard]='list copy clear'
    [secret]='set has delete'
    [agents]='list save'
    [skills]='scan'
    [ask]='' [diagnostics]=''
    [mcp]='add list remove tools call'
    [settings]='get set'
)
declare -gA _korvanectl_options=([search]='--category' [files]='--in --limit' [ask]='--agent --connect --allow')

# Offers those lines of the standard input that begin with the word under the cursor.
_korvanectl_offer() {
    local line begun=${COMP_WORDS[COMP_CWORD]//\\/}
    while IFS= read -r line; do
        [[ -n $line && $line == "$begun"* ]] && COMPREPLY+=("$(printf %q "$line")")
    done
}

_korvanectl() {
    local word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} said=() i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; ++i)); do
        case ${COMP_WORDS[i]} in
        --category | --in | --limit | --agent | --connect | --allow) ((++i)) ;;
        -*) ;;
        *) said+=("${COMP_WORDS[i]}") ;;
        esac
    done
    local command=${said[0]-} task=${said[1]-}

    case $previous in
    --category) mapfile -t COMPREPLY < <(compgen -W 'all applications files shortcuts' -- "$word"); return ;;
    --in) mapfile -t COMPREPLY < <(compgen -d -- "$word"); compopt -o filenames 2>/dev/null; return ;;
    --agent) _korvanectl_offer < <(korvanectl agents list 2>/dev/null | cut -f 2); return ;;
    --connect) _korvanectl_offer < <(korvanectl mcp list 2>/dev/null | cut -f 1); return ;;
    --limit | --allow) return ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "--json --yes --help --version ${_korvanectl_options[${command:-none}]-}" -- "$word")
    elif [[ -z $command ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${!_korvanectl_commands[*]}" -- "$word")
    elif [[ -z $task && -n ${_korvanectl_commands[$command]-} ]]; then
        mapfile -t COMPREPLY < <(compgen -W "${_korvanectl_commands[$command]}" -- "$word")
    elif ((${#said[@]} == 2)); then
        case "$command $task" in
        'index add') mapfile -t COMPREPLY < <(compgen -d -- "$word"); compopt -o filenames 2>/dev/null ;;
        'agents save' | 'mcp add') mapfile -t COMPREPLY < <(compgen -f -- "$word"); compopt -o filenames 2>/dev/null ;;
        'index remove') _korvanectl_offer < <(korvanectl index roots 2>/dev/null | cut -f 1) ;;
        'shortcuts run') _korvanectl_offer < <(korvanectl shortcuts list 2>/dev/null) ;;
        'quicklink remove') _korvanectl_offer < <(korvanectl quicklink list 2>/dev/null | cut -f 1) ;;
        'clipboard copy') _korvanectl_offer < <(korvanectl clipboard list 2>/dev/null | cut -f 1) ;;
        'mcp remove' | 'mcp tools' | 'mcp call') _korvanectl_offer < <(korvanectl mcp list 2>/dev/null | cut -f 1) ;;
        'settings get' | 'settings set') _korvanectl_offer < <(korvanectl settings get 2>/dev/null | cut -f 1) ;;
        secret\ *) mapfile -t COMPREPLY < <(compgen -W 'ai.openai' -- "$word") ;;
        esac
    fi
}
complete -F _korvanectl korvanectl
