# What an installation holds beside the programs: entries for the desktop, icons, manuals, completions of shells.
set(packaging ${PROJECT_SOURCE_DIR}/packaging)

install(FILES ${packaging}/dev.korvane.vorrel.desktop DESTINATION share/applications)
install(FILES ${packaging}/dev.korvane.vorrel.metainfo.xml DESTINATION share/metainfo)

install(FILES ${PROJECT_SOURCE_DIR}/resources/icons/korvane.svg
    DESTINATION share/icons/hicolor/scalable/apps RENAME dev.korvane.vorrel.svg)
foreach(size 16 22 24 32 48 64 128 256 512)
    install(FILES ${packaging}/icons/${size}.png
        DESTINATION share/icons/hicolor/${size}x${size}/apps RENAME dev.korvane.vorrel.png)
endforeach()

foreach(program korvane korvanectl)
    install(FILES ${packaging}/man/${program}.1 DESTINATION share/man/man1)
    install(FILES ${packaging}/completions/${program}.bash DESTINATION share/bash-completion/completions RENAME ${program})
    install(FILES ${packaging}/completions/${program}.zsh DESTINATION share/zsh/site-functions RENAME _${program})
    install(FILES ${packaging}/completions/${program}.fish DESTINATION share/fish/vendor_completions.d)
endforeach()
