# Completions of korvanectl for fish.

# Whether the line has just these first words so far.
function __korvanectl_said
    set -l said
    set -l skip 0
    for word in (commandline -opc)[2..-1]
        if test $skip = 1
            set skip 0
        else if contains -- $word --category --in --limit --agent --connect --allow
            set skip 1
        else if not string match -q -- '-*' $word
            set -a said $word
        end
    end
    test "$said" = "$argv"
end

# Whether the line's first word is this.
function __korvanectl_command
    set -l words (string match -v -- '-*' (commandline -opc)[2..-1])
    test "$words[1]" = "$argv"
end

complete -c korvanectl -f
complete -c korvanectl -l json -d 'Lists as a JSON array of objects'
complete -c korvanectl -l yes -d 'Give the consent that an action asks for'
complete -c korvanectl -l help -d 'Usage'
complete -c korvanectl -l version -d 'Version'
complete -c korvanectl -n '__korvanectl_command search' -l category -xa 'all applications files shortcuts' -d 'Only rows of one kind'
complete -c korvanectl -n '__korvanectl_command files' -l in -xa '(__fish_complete_directories)' -d 'Only below a folder'
complete -c korvanectl -n '__korvanectl_command files' -l limit -x -d 'At most so many'
complete -c korvanectl -n '__korvanectl_command ask' -l agent -xa '(korvanectl agents list 2>/dev/null | cut -f 2)' -d 'Ask one of your Agents'
complete -c korvanectl -n '__korvanectl_command ask' -l allow -x -d 'Allow a tool, or a server'
complete -c korvanectl -n '__korvanectl_command ask' -l connect -xa '(korvanectl mcp list 2>/dev/null)' -d 'Connect an MCP server for it'

complete -c korvanectl -n __korvanectl_said -a calc -d 'The value of an arithmetic expression'
complete -c korvanectl -n __korvanectl_said -a search -d 'The rows that the palette shows'
complete -c korvanectl -n __korvanectl_said -a run -d "Run a row's action"
complete -c korvanectl -n __korvanectl_said -a apps -d 'Installed applications'
complete -c korvanectl -n __korvanectl_said -a query -d 'The canonical text of a file search'
complete -c korvanectl -n __korvanectl_said -a files -d 'Paths of files, best first'
complete -c korvanectl -n __korvanectl_said -a index -d 'The index of file names'
complete -c korvanectl -n __korvanectl_said -a shortcuts -d 'Your own shortcuts'
complete -c korvanectl -n __korvanectl_said -a quicklink -d 'Saved addresses'
complete -c korvanectl -n __korvanectl_said -a clipboard -d 'Copied texts'
complete -c korvanectl -n __korvanectl_said -a secret -d 'Secrets in the keyring'
complete -c korvanectl -n __korvanectl_said -a agents -d 'The saved Agents'
complete -c korvanectl -n __korvanectl_said -a skills -d 'Skills that an Agent may be given'
complete -c korvanectl -n __korvanectl_said -a ask -d "A model's answer"
complete -c korvanectl -n __korvanectl_said -a mcp -d 'MCP servers'
complete -c korvanectl -n __korvanectl_said -a diagnostics -d 'Versions, the index, errors and search times'
complete -c korvanectl -n __korvanectl_said -a settings -d 'The settings'

complete -c korvanectl -n '__korvanectl_said index' -a status -d 'Number of files and of roots, and whether Korvane runs'
complete -c korvanectl -n '__korvanectl_said index' -a roots -d 'The indexed folders'
complete -c korvanectl -n '__korvanectl_said index' -a add -d 'Index a folder, too'
complete -c korvanectl -n '__korvanectl_said index' -a remove -d 'Forget one'
complete -c korvanectl -n '__korvanectl_said index' -a rebuild -d 'Scan them all anew'
complete -c korvanectl -n '__korvanectl_said shortcuts' -a list -d 'Your own shortcuts'
complete -c korvanectl -n '__korvanectl_said shortcuts' -a run -d 'Run one to its end'
complete -c korvanectl -n '__korvanectl_said quicklink' -a add -d 'Save an address under a name'
complete -c korvanectl -n '__korvanectl_said quicklink' -a list -d 'Saved addresses'
complete -c korvanectl -n '__korvanectl_said quicklink' -a remove -d 'Forget one'
complete -c korvanectl -n '__korvanectl_said clipboard' -a list -d 'Copied texts'
complete -c korvanectl -n '__korvanectl_said clipboard' -a copy -d 'Put one on the clipboard again'
complete -c korvanectl -n '__korvanectl_said clipboard' -a clear -d 'Forget them all'
complete -c korvanectl -n '__korvanectl_said secret' -a set -d 'Keep standard input in the keyring'
complete -c korvanectl -n '__korvanectl_said secret' -a has -d 'Whether there is one'
complete -c korvanectl -n '__korvanectl_said secret' -a delete -d 'Forget one'
complete -c korvanectl -n '__korvanectl_said agents' -a list -d 'The saved Agents'
complete -c korvanectl -n '__korvanectl_said agents' -a save -d 'Save the Agent that a file describes'
complete -c korvanectl -n '__korvanectl_said skills' -a scan -d 'Skills that an Agent may be given'
complete -c korvanectl -n '__korvanectl_said mcp' -a add -d 'Save the server that a file describes'
complete -c korvanectl -n '__korvanectl_said mcp' -a list -d 'The saved servers'
complete -c korvanectl -n '__korvanectl_said mcp' -a remove -d 'Forget one'
complete -c korvanectl -n '__korvanectl_said mcp' -a tools -d 'Start one and print what it offers'
complete -c korvanectl -n '__korvanectl_said mcp' -a call -d 'Start one and call a tool of it'
complete -c korvanectl -n '__korvanectl_said settings' -a get -d 'The settings as JSON values'
complete -c korvanectl -n '__korvanectl_said settings' -a set -d 'Change one'

complete -c korvanectl -n '__korvanectl_said index add' -a '(__fish_complete_directories)'
complete -c korvanectl -n '__korvanectl_said agents save; or __korvanectl_said mcp add' -F
complete -c korvanectl -n '__korvanectl_said mcp remove; or __korvanectl_said mcp tools; or __korvanectl_said mcp call' -a '(korvanectl mcp list 2>/dev/null)'
complete -c korvanectl -n '__korvanectl_said index remove' -a '(korvanectl index roots 2>/dev/null)'
complete -c korvanectl -n '__korvanectl_said shortcuts run' -a '(korvanectl shortcuts list 2>/dev/null)'
complete -c korvanectl -n '__korvanectl_said quicklink remove' -a '(korvanectl quicklink list 2>/dev/null)'
complete -c korvanectl -n '__korvanectl_said clipboard copy' -a '(korvanectl clipboard list 2>/dev/null | cut -f 1,3)'
complete -c korvanectl -n '__korvanectl_said settings get; or __korvanectl_said settings set' -a '(korvanectl settings get 2>/dev/null)'
complete -c korvanectl -n '__korvanectl_said secret set; or __korvanectl_said secret has; or __korvanectl_said secret delete' -a ai.openai
