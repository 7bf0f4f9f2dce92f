# Completions of korvane for fish.
complete -c korvane -f
complete -c korvane -l show -d 'Show the palette as soon as Korvane is ready'
complete -c korvane -l settings -d 'Show the settings'
complete -c korvane -l rebuild-index -d 'Scan all indexed folders anew'
complete -c korvane -l keychain-selftest -d 'Check that the keyring lets Korvane read what it has kept'
complete -c korvane -l keychain-selftest-clean -d 'Remove what that check has kept'
complete -c korvane -l help -d 'Usage'
complete -c korvane -l version -d 'Version'
