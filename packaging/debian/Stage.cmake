# Adds what only the Debian package brings: the list of exports as a configuration file, and the licence's usual place.
set(root "${CPACK_TEMPORARY_DIRECTORY}")
set(package "${CMAKE_CURRENT_LIST_DIR}/..")
file(MAKE_DIRECTORY "${root}/etc/nfslib")
file(COPY_FILE "${package}/exports.example" "${root}/etc/nfslib/exports")
file(COPY_FILE "${package}/../LICENSE" "${root}/usr/share/doc/nfslib/copyright")
