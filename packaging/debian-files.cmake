# Run by cpack once the package's files are staged (CPACK_PRE_BUILD_SCRIPTS):
# what a Debian package holds beyond the installed tree, as Debian's own
# packaging tools would make it.
#   - The manual pages compressed with gzip -9n (no name or time stamp in
#     the archive, so the same pages always give the same bytes).
#   - The package's changelog, packaging/changelog, as
#     /usr/share/doc/quillet/changelog.gz.
#   - Its lintian overrides, packaging/lintian-overrides, as
#     /usr/share/lintian/overrides/quillet.
#   - The programs stripped of their symbols and debugging information, and
#     of the sections .comment and .note, which only name the tools that
#     built them.
# The copyright file is installed with the program (packaging/copyright).
set(stage "${CPACK_TEMPORARY_INSTALL_DIRECTORY}")
set(package "${CPACK_PACKAGE_NAME}")
set(folder_permissions OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(file_permissions OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

find_program(gzip_program gzip REQUIRED)

# Compresses `input` into `output` with gzip -9n; the output is the
# package's, readable by all.
function(gzip_into input output)
    execute_process(COMMAND "${gzip_program}" -9n -c "${input}" OUTPUT_FILE "${output}"
        RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "gzip ${input}: ${status}")
    endif()
    file(CHMOD "${output}" FILE_PERMISSIONS ${file_permissions})
endfunction()

# A folder of the package, made with the mode of every other.
function(package_folder path)
    file(MAKE_DIRECTORY "${path}")
    file(CHMOD "${path}" DIRECTORY_PERMISSIONS ${folder_permissions})
endfunction()

# Every ELF file of the package, told by its first four bytes.
file(GLOB_RECURSE staged LIST_DIRECTORIES false "${stage}/*")
foreach(path IN LISTS staged)
    if(IS_SYMLINK "${path}")
        continue()
    endif()
    file(READ "${path}" magic LIMIT 4 HEX)
    if(magic STREQUAL "7f454c46")
        execute_process(COMMAND "${CPACK_QUILLET_STRIP}" --remove-section=.comment --remove-section=.note
            "${path}" RESULT_VARIABLE status)
        if(NOT status EQUAL 0)
            message(FATAL_ERROR "strip ${path}: ${status}")
        endif()
    endif()
endforeach()

file(GLOB_RECURSE pages LIST_DIRECTORIES false "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/man/*")
foreach(page IN LISTS pages)
    if(IS_SYMLINK "${page}")
        message(FATAL_ERROR "${page}: a manual page that is a link would point at the uncompressed name")
    endif()
    if(NOT page MATCHES "\\.gz$")
        gzip_into("${page}" "${page}.gz")
        file(REMOVE "${page}")
    endif()
endforeach()

set(docs "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${package}")
package_folder("${docs}")
gzip_into("${CPACK_QUILLET_PACKAGING_DIR}/changelog" "${docs}/changelog.gz")

set(overrides "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian/overrides")
foreach(folder "${stage}${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian" "${overrides}")
    package_folder("${folder}")
endforeach()
file(COPY_FILE "${CPACK_QUILLET_PACKAGING_DIR}/lintian-overrides" "${overrides}/${package}")
file(CHMOD "${overrides}/${package}" FILE_PERMISSIONS ${file_permissions})
