#compdef korvane
# Completions of korvane for zsh.
_arguments \
    '--show[show the palette as soon as Korvane is ready]' \
    '--settings[show the settings]' \
    '--rebuild-index[scan all indexed folders anew]' \
    '--keychain-selftest[check that the keyring lets Korvane read what it has kept]' \
    '--keychain-selftest-clean[remove what that check has kept]' \
    '--help[usage]' \
    '--version[version]'
