# The host directories orvane expects, installed empty at their fixed paths
# (under DESTDIR when staging). The program itself installs with its target.
set(ORVANE_HOST_DIRECTORIES
  /usr/libexec/orvane/plugins
  /etc/talvek/orvane
  /var/run/talvek
  /var/log
  /bootbank
  /usr/lib/talvek/qorcli
  /usr/lib/talvek/qorcli/int
  /usr/lib/talvek/qorcli/int/ext
  /usr/lib/talvek/qorcli/ext
)
foreach(directory IN LISTS ORVANE_HOST_DIRECTORIES)
  install(DIRECTORY DESTINATION ${directory})
endforeach()

install(FILES ${PROJECT_SOURCE_DIR}/packaging/orvane.tmpfiles.conf
        DESTINATION /usr/lib/tmpfiles.d RENAME orvane.conf)

# The manual pages, each in its section's directory (orvane-analyze's page
# installs with its program).
foreach(page orvane.8 qorcli.8 orvane-plugins.5 orvane-cli-definitions.5)
  string(REGEX MATCH "[0-9]$" section ${page})
  install(FILES ${PROJECT_SOURCE_DIR}/doc/man/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
