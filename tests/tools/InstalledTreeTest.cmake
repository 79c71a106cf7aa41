# Lays out a tree in a scratch directory and holds it against the program's own list.

file(REMOVE_RECURSE "${SCRATCH}")
set(tree /opt/libexec/quillsift/platform)
set(ENV{DESTDIR} "${SCRATCH}")
execute_process(
  COMMAND sh -c "umask 002 && exec \"$@\"" sh
          ${CMAKE_COMMAND} -D TREE=${tree} -D PROGRAM=../quillsift-platform
          -D CLIENT=../../../bin/quillsift -P ${INSTALL_SCRIPT}
  COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
# The program itself, where the links expect it.
file(COPY_FILE "${PLATFORM_PROGRAM}" "${SCRATCH}/opt/libexec/quillsift/quillsift-platform")

execute_process(COMMAND "${PLATFORM_PROGRAM}" --list OUTPUT_VARIABLE list
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" paths "${list}")
list(LENGTH paths count)
if(count LESS 22)
  message(FATAL_ERROR "The program offers only ${count} programs")
endif()
foreach(path IN LISTS paths)
  set(link "${SCRATCH}${tree}${path}")
  if(NOT IS_SYMLINK "${link}" OR NOT EXISTS "${link}")
    message(FATAL_ERROR "${path} is no link to the program")
  endif()
endforeach()

# Programs of their own, which lie beside it.
set(paneinfo /System/Library/PrivateFrameworks/Glasswork.framework/Resources/paneinfo)
file(COPY_FILE "${PLATFORM_PROGRAM}" "${SCRATCH}/opt/libexec/quillsift/quillsift-paneinfo")
if(NOT EXISTS "${SCRATCH}${tree}${paneinfo}")
  message(FATAL_ERROR "${paneinfo} is no link to its program")
endif()

# Every program of the daemon's plan is in the tree; none is when it can be written to by others.
file(COPY_FILE "${DAEMON}" "${SCRATCH}/opt/libexec/quillsiftd")
function(check_tree expected_result expected_output)
  execute_process(COMMAND "${SCRATCH}/opt/libexec/quillsift/quillsift-platform" --check
                  RESULT_VARIABLE result OUTPUT_VARIABLE output)
  if(NOT result EQUAL expected_result OR NOT output MATCHES "${expected_output}")
    message(FATAL_ERROR "The check of the tree: ${result}, ${output}")
  endif()
endfunction()
check_tree(0 "tree    relquery.txt  /usr/bin/relquery\n")
check_tree(0 "tree    Graphics/paneinfo.bin  ${paneinfo}\n")
file(RENAME "${SCRATCH}${tree}/usr/bin/relquery" "${SCRATCH}/relquery")
check_tree(69 "none    relquery.txt  /usr/bin/relquery  .not in the tree.\n")
file(RENAME "${SCRATCH}/relquery" "${SCRATCH}${tree}/usr/bin/relquery")
execute_process(COMMAND chmod 0777 "${SCRATCH}${tree}" COMMAND_ERROR_IS_FATAL ANY)
check_tree(69 "^no tree at ")
execute_process(COMMAND chmod 0755 "${SCRATCH}${tree}" COMMAND_ERROR_IS_FATAL ANY)
file(REMOVE "${SCRATCH}/opt/libexec/quillsiftd")
check_tree(69 "^no plan from ")

# As the collector starts it: the tree's file, under the plan's path.
execute_process(COMMAND "${SCRATCH}${tree}/usr/bin/relquery" unheard-of RESULT_VARIABLE result
                OUTPUT_VARIABLE output)
if(NOT result EQUAL 64 OR NOT output STREQUAL "relquery: unknown arguments: unheard-of\n")
  message(FATAL_ERROR "relquery in the tree: ${result}, ${output}")
endif()

# Links to files, and nothing for what must not be collected.
file(READ_SYMLINK "${SCRATCH}${tree}/var/log/system.log" target)
if(NOT target STREQUAL "/var/log/syslog")
  message(FATAL_ERROR "system.log leads to ${target}")
endif()
file(READ_SYMLINK "${SCRATCH}${tree}/var/log/rescueos.log@3" target)
if(NOT target STREQUAL "/var/log/boot.log")
  message(FATAL_ERROR "rescueos.log falls back on ${target}")
endif()
if(IS_SYMLINK "${SCRATCH}${tree}/var/log/automation_trampoline.log")
  message(FATAL_ERROR "automation_trampoline.log can hold secrets and must not be linked")
endif()

# The front end finds the client, whatever its own path looks like, and says when it cannot.
set(front_end "System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI")
file(CREATE_LINK "${SCRATCH}/opt" "${SCRATCH}/a link" SYMBOLIC)
set(start "${SCRATCH}/a link/libexec/quillsift/platform/${front_end}")
execute_process(COMMAND "${start}" RESULT_VARIABLE result ERROR_VARIABLE error)
if(NOT result EQUAL 69 OR NOT error MATCHES "no .*/bin/quillsift")
  message(FATAL_ERROR "The front end without a client: ${result}, ${error}")
endif()
file(MAKE_DIRECTORY "${SCRATCH}/opt/bin" "${SCRATCH}/path")
foreach(program opt/bin/quillsift path/openvt)
  file(WRITE "${SCRATCH}/${program}" "#!/bin/sh\necho \"$@\"\nexit 3\n")
  file(CHMOD "${SCRATCH}/${program}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endforeach()
execute_process(COMMAND ${CMAKE_COMMAND} -E env "PATH=${SCRATCH}/path:$ENV{PATH}" "${start}"
                RESULT_VARIABLE result OUTPUT_VARIABLE output)
if(NOT result EQUAL 3 OR NOT output MATCHES "^-f -s -w -- /.*/bin/quillsift watch\n$")
  message(FATAL_ERROR "The front end: ${result}, ${output}")
endif()

# Nobody but the owner may write to the tree, or it does not count.
execute_process(COMMAND find "${SCRATCH}${tree}" -type d -not -perm 0755 OUTPUT_VARIABLE open
                COMMAND_ERROR_IS_FATAL ANY)
if(open)
  message(FATAL_ERROR "Others can write to: ${open}")
endif()

# A second installation replaces the first.
execute_process(
  COMMAND ${CMAKE_COMMAND} -D TREE=${tree} -D PROGRAM=../quillsift-platform
          -D CLIENT=../../../bin/quillsift -P ${INSTALL_SCRIPT}
  COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
file(REMOVE_RECURSE "${SCRATCH}")
