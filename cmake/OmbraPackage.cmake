# The Debian package: cpack -G DEB in the build folder.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ombra)
set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_CONTACT "The developers of Ombra <ombra@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "mount folders of servers as disks")
set(CPACK_PACKAGE_DESCRIPTION
"Ombra logs in to a server, mounts one of its folders below /Volumes, and every
program can use it like a local disk. It speaks SFTP, FTP with and without TLS,
WebDAV and S3.

Listings are remembered, files are readable as soon as their first bytes have
arrived, and a program that closes or syncs a file is told whether the server
has it.")
# The user unit names the command by its path, so the installation must know the prefix that the package has.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
# What is packed has been built before; the tests need not have been.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON CACHE INTERNAL "")
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What is run rather than linked: the unprivileged mount, the bus where there is no desktop.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fuse3, dbus-daemon")
# For "ombra sample"; for loading the kernel's module.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "openssh-sftp-server, kmod")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "bash-completion, openssh-client, pkexec | sudo")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
                                       ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
# The modes of the scripts are those of the sources, whatever the umask of the checkout was.
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The folders of the package must not take the builder's umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
