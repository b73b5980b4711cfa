# Run by CPack on the staged tree before it is packed: Debian wants manual pages and changelogs
# compressed, without a time in them so that two builds give the same bytes.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share)
set(doc ${share}/doc/sonivane)

file(RENAME ${doc}/CHANGELOG.md ${doc}/changelog)
configure_file(${CMAKE_CURRENT_LIST_DIR}/../docs/changelog.Debian ${doc}/changelog.Debian COPYONLY)
execute_process(
  COMMAND gzip -9nf ${share}/man/man1/sonivane.1 ${doc}/changelog ${doc}/changelog.Debian
  COMMAND_ERROR_IS_FATAL ANY)
