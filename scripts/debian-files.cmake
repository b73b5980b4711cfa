# Run by CPack on the staged tree before it is packed. Debian wants manual pages and changelogs
# compressed, with no time in them.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share)
set(doc ${share}/doc/sonivane)

# Debian's zsh looks for a package's completions in a folder of its own.
file(RENAME ${share}/zsh/site-functions ${share}/zsh/vendor-completions)

file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
configure_file(${CMAKE_CURRENT_LIST_DIR}/../docs/changelog.Debian ${doc}/changelog.Debian COPYONLY)
execute_process(
  COMMAND gzip -9nf ${share}/man/man1/sonivane.1 ${doc}/changelog ${doc}/changelog.Debian
  COMMAND_ERROR_IS_FATAL ANY)
