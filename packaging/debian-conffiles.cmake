# Run by cpack once the package's files are staged (CPACK_PRE_BUILD_SCRIPTS):
# every file the package puts in /etc is a configuration file of the
# package, which dpkg keeps when the administrator changed it and leaves in
# place on removal until the package is purged, as Debian packages do. The
# list is made from what was staged, so a file that a later change installs
# in /etc is listed without anyone having to remember it.
file(GLOB_RECURSE staged LIST_DIRECTORIES false RELATIVE "${CPACK_TEMPORARY_INSTALL_DIRECTORY}"
    "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/etc/*")
list(SORT staged)
set(conffiles "")
foreach(file IN LISTS staged)
    string(APPEND conffiles "/${file}\n")
endforeach()
file(WRITE "${CPACK_QUILLET_CONFFILES}" "${conffiles}")
