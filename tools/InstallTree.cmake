# Lays out the platform tree: a link to the multi-call program for every row of Recipes.def, the
# links below, and the front end. Run by the installation, or by hand:
#   cmake -D TREE=DIR -D PROGRAM=FILE -D CLIENT=FILE [-D RECIPES=Recipes.def] -P InstallTree.cmake
# TREE is the tree, below $DESTDIR when that is set; PROGRAM the program and CLIENT the command-line
# client, both relative to TREE.

cmake_minimum_required(VERSION 3.25)
if(NOT DEFINED RECIPES)
  set(RECIPES "${CMAKE_CURRENT_LIST_DIR}/Recipes.def")
endif()

# Programs that are not part of the multi-call program, but lie beside it.
set(QUILLSIFT_TREE_PROGRAMS
  System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo quillsift-paneinfo)

# Path in the tree, and what stands there on this system. Some exist only on some machines: a link
# that leads nowhere counts as no link, and the next one of its name ("@2") is tried.
set(QUILLSIFT_TREE_LINKS
  # A directory that only root can enter. tmpfiles.d makes it, else the daemon at its start.
  private/tmp                                      /run/quillsift/tmp
  # Disk management: what the system log keeps for the programs that do it.
  private/var/log/stw                              /var/log/stw
  Volumes/StowageLog/io.vantor.stowage.log         /var/log/stw/stw.log
  # The kernel's last words before a crash.
  System/Volumes/Hardware/stashlogd                /sys/fs/pstore
  # Where Debian's images mount the firmware's boot volume, else where the service manager does.
  System/Volumes/Keelboot                          /boot/firmware
  System/Volumes/Keelboot@2                        /efi
  # Text reports of crashed programs; never the memory images themselves.
  Library/Logs/DiagnosticReports                   /var/log/quillsift/DiagnosticReports
  var/log/system.log                               /var/log/syslog
  var/log/system.log@2                             /var/log/messages
  # What the early system wrote about its own start, where that was asked for.
  var/log/rescueos.log                             /run/initramfs/initramfs.debug
  var/log/rescueos.log@2                           /run/initramfs/rdsosreport.txt
  var/log/rescueos.log@3                           /var/log/boot.log
  var/log/migration.log                            /var/log/apt/history.log
  # The check of the root file system, then those of all others.
  var/log/fsck_vellum.log                          /run/initramfs/fsck.log
  var/log/fsck_vellum.log@2                        /var/log/fsck/checkroot
  var/log/fsck_strata.log                          /var/log/fsck/checkfs
  var/log/io.vantor.weft.herdkeeper/herdkeeper.log /var/log/daemon.log)

# The tree counts only where nobody but its owner can write to it, whatever the umask was.
function(make_directory directory)
  cmake_path(GET directory PARENT_PATH parent)
  if(NOT IS_DIRECTORY "${parent}")
    make_directory("${parent}")
  endif()
  if(NOT IS_DIRECTORY "${directory}")
    file(MAKE_DIRECTORY "${directory}")
    file(CHMOD "${directory}" DIRECTORY_PERMISSIONS
         OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endfunction()

function(place_link path target)
  set(link "$ENV{DESTDIR}${TREE}/${path}")
  cmake_path(GET link PARENT_PATH directory)
  make_directory("${directory}")
  file(REMOVE "${link}")
  file(CREATE_LINK "${target}" "${link}" SYMBOLIC)
endfunction()

# A link to a program that is given relative to the tree.
function(place_program path program)
  cmake_path(GET path PARENT_PATH directory)
  cmake_path(RELATIVE_PATH TREE BASE_DIRECTORY "${TREE}/${directory}" OUTPUT_VARIABLE up)
  place_link("${path}" "${up}/${program}")
endfunction()

message(STATUS "Installing: $ENV{DESTDIR}${TREE}")
set(placed)
file(STRINGS "${RECIPES}" rows REGEX "^QUILLSIFT_RECIPE\\(")
foreach(row IN LISTS rows)
  string(REGEX REPLACE "^QUILLSIFT_RECIPE\\(\"/([^\"]+)\".*" "\\1" path "${row}")
  place_program("${path}" "${PROGRAM}")
  list(APPEND placed "${TREE}/${path}")
endforeach()

cmake_path(GET PROGRAM PARENT_PATH program_directory)
set(programs ${QUILLSIFT_TREE_PROGRAMS})
while(programs)
  list(POP_FRONT programs path program)
  place_program("${path}" "${program_directory}/${program}")
  list(APPEND placed "${TREE}/${path}")
endwhile()

set(links ${QUILLSIFT_TREE_LINKS})
while(links)
  list(POP_FRONT links path target)
  place_link("${path}" "${target}")
  list(APPEND placed "${TREE}/${path}")
endwhile()
# A script, as it is the way to the client that differs between installations.
set(front_end "System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI")
cmake_path(GET front_end PARENT_PATH directory)
make_directory("$ENV{DESTDIR}${TREE}/${directory}")
cmake_path(RELATIVE_PATH TREE BASE_DIRECTORY "${TREE}/${directory}" OUTPUT_VARIABLE up)
set(CLIENT "${up}/${CLIENT}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/front_end.sh.in" "$ENV{DESTDIR}${TREE}/${front_end}" @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                WORLD_READ WORLD_EXECUTE)
list(APPEND placed "${TREE}/${front_end}")

list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${placed})
