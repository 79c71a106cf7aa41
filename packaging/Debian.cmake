# The Debian packages: quillsiftd with its client, and quillsift-platform. `cpack` in the build
# directory makes both; see CONTRIBUTING.md.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "Quillsift Maintainers <maintainers@quillsift.example>")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
# Where the packages install to, whatever this build directory itself would.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL daemon platform)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Manual pages are compressed, and each package gets its papers.
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_BINARY_DIR}/DebianFiles.cmake")
configure_file(DebianFiles.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/DebianFiles.cmake" @ONLY)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# The package's scripts: called by its name in the source, and not in the package.
macro(debian_scripts component package)
  foreach(script postinst prerm postrm)
    configure_file("debian/${package}.${script}" "${package}/${script}" COPYONLY
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                       WORLD_EXECUTE)
    list(APPEND CPACK_DEBIAN_${component}_PACKAGE_CONTROL_EXTRA
      "${CMAKE_CURRENT_BINARY_DIR}/${package}/${script}")
  endforeach()
endmacro()

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME quillsiftd)
set(CPACK_DEBIAN_DAEMON_DESCRIPTION
"gathers diagnostics of a machine in a recovery environment
A daemon for the small system that one boots to repair or examine a machine
that no longer works. It gathers processes and threads, open files, disks and
volumes, boot settings, kernel modules, firmware logs, device trees, stack
samples and log files, keeps them in memory, and hands them over as one archive
or as a directory, with or without what is sensitive.
.
This package holds the daemon, its command-line client quillsift and the units
for the service manager.")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
  "init-system-helpers (>= 1.54), systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS
  "quillsift-platform (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), udev")
debian_scripts(DAEMON quillsiftd)

set(CPACK_DEBIAN_PLATFORM_PACKAGE_NAME quillsift-platform)
set(CPACK_DEBIAN_PLATFORM_DESCRIPTION
"tools that give quillsiftd its diagnostics on Linux
The collection plan of quillsiftd names programs and files that other systems
have. This package is the tree that quillsiftd looks them up in first: small
programs that give the same diagnostics on Linux, on their own or by way of
the tools of this system, and links to this system's logs.
.
Whatever of the recommended tools is not installed is named in the archive, in
the place of what it would have told.")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_ENHANCES quillsiftd)
# What the tools ask, and what changes nothing on a machine by being installed. Services, and what
# writes to boot volumes, are for the maker of the system to choose.
set(CPACK_DEBIAN_PLATFORM_PACKAGE_RECOMMENDS
  "attr" "btrfs-progs" "cryptsetup-bin" "dmidecode" "drm-info" "e2fsprogs" "edid-decode"
  "efibootmgr" "elfutils" "fdisk" "kbd" "kmod" "lsof" "lvm2" "mokutil" "pciutils" "procps"
  "smartmontools" "tpm2-tools" "zstd")
set(CPACK_DEBIAN_PLATFORM_PACKAGE_SUGGESTS
  "apparmor" "auditd" "grub-common" "ipmitool" "libubootenv-tool"
  "logrotate" "mdadm" "policycoreutils" "rsyslog" "systemd" "systemd-boot"
  "systemd-coredump")
foreach(relation RECOMMENDS SUGGESTS)
  list(JOIN CPACK_DEBIAN_PLATFORM_PACKAGE_${relation} ", " CPACK_DEBIAN_PLATFORM_PACKAGE_${relation})
endforeach()
debian_scripts(PLATFORM quillsift-platform)
# What a package manager asks about before it replaces it.
list(JOIN configuration "\n" conffiles)
file(CONFIGURE OUTPUT quillsift-platform/conffiles CONTENT "${conffiles}\n" @ONLY)
list(APPEND CPACK_DEBIAN_PLATFORM_PACKAGE_CONTROL_EXTRA
  "${CMAKE_CURRENT_BINARY_DIR}/quillsift-platform/conffiles")

include(CPack)
