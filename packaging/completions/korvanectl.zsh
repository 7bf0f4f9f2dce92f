#compdef korvanectl
# Completions of korvanectl for zsh.

_korvanectl_column() { # DESCRIPTION COLUMN COMMAND...: offers one column of what the command lists
    local description=$1 column=$2 expl
    shift 2
    local -a values=("${(@f)$(korvanectl "$@" 2>/dev/null | cut -f $column)}")
    [[ -n $values[1] ]] && _wanted values expl "$description" compadd -a values
}

_korvanectl_tasks() { # COMMAND: what may follow it
    local -a tasks
    case $1 in
    index) tasks=('status:number of files and of roots, and whether Korvane runs' 'roots:the indexed folders'
        'add:index a folder, too' 'remove:forget one' 'rebuild:scan them all anew') ;;
    shortcuts) tasks=('list:your own shortcuts' 'run:run one to its end') ;;
    quicklink) tasks=('add:save an address under a name' 'list:saved addresses' 'remove:forget one') ;;
    clipboard) tasks=('list:copied texts' 'copy:put one on the clipboard again' 'clear:forget them all') ;;
    secret) tasks=('set:keep standard input in the keyring' 'has:whether there is one' 'delete:forget one') ;;
    agents) tasks=('list:the saved Agents' 'save:save the Agent that a file describes') ;;
    mcp) tasks=('add:save the server that a file describes' 'list:the saved servers' 'remove:forget one'
        'tools:start one and print what it offers' 'call:start one and call a tool of it') ;;
    skills) tasks=('scan:skills that an Agent may be given') ;;
    settings) tasks=('get:the settings as JSON values' 'set:change one') ;;
    *) return 1 ;;
    esac
    _describe -t tasks task tasks
}

_korvanectl_argument() { # COMMAND TASK: what may follow both
    local expl
    case "$1 $2" in
    'index add') _directories ;;
    'agents save' | 'mcp add') _files ;;
    'mcp remove' | 'mcp tools' | 'mcp call') _korvanectl_column server 1 mcp list ;;
    'index remove') _korvanectl_column folder 1 index roots ;;
    'shortcuts run') _korvanectl_column shortcut 1 shortcuts list ;;
    'quicklink remove') _korvanectl_column quicklink 1 quicklink list ;;
    'clipboard copy') _korvanectl_column text 1 clipboard list ;;
    'settings get' | 'settings set') _korvanectl_column setting 1 settings get ;;
    secret\ *) _wanted accounts expl account compadd ai.openai ;;
    esac
}

_korvanectl() {
    local -a commands=(
        'calc:the value of an arithmetic expression'
        'search:the rows that the palette shows'
        "run:run a row's action"
        'apps:installed applications'
        'query:the canonical text of a file search'
        'files:paths of files, best first'
        'index:the index of file names'
        'shortcuts:your own shortcuts'
        'quicklink:saved addresses'
        'clipboard:copied texts'
        'secret:secrets in the keyring'
        'agents:the saved Agents'
        'skills:skills that an Agent may be given'
        "ask:a model's answer"
        'mcp:MCP servers'
        'diagnostics:versions, the index, errors and search times'
        'settings:the settings'
    )
    local curcontext=$curcontext state line
    local -A opt_args
    local -a options=(
        '--json[lists as a JSON array of objects]'
        '--yes[give the consent that an action asks for]'
        '--help[usage]'
        '--version[version]'
    )
    case ${words[(r)(search|files|ask)]} in
    search) options+=('--category=[only rows of one kind]:category:(all applications files shortcuts)') ;;
    files) options+=('--in=[only below a folder]:folder:_directories' '--limit=[at most so many]:number:') ;;
    ask) options+=('--agent=[ask one of your Agents]:Agent:_korvanectl_column Agent 2 agents list'
        '*--connect=[connect an MCP server for it]:server:_korvanectl_column server 1 mcp list' '*--allow=[allow a tool, or a server]:name:') ;;
    esac
    _arguments -C $options '1:command:->command' '2:task:->task' '3:argument:->argument' '*::' && return
    case $state in
    command) _describe -t commands command commands ;;
    task) _korvanectl_tasks $line[1] ;;
    argument) _korvanectl_argument $line[1] $line[2] ;;
    esac
}

_korvanectl "$@"
