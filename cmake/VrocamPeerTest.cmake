# SPDX-License-Identifier: Apache-2.0
# vrocam_add_peer_test(NAME name COMMAND command [arg...] [FAULTS rule...] [PEER_FLAGS flag...]
#                      [WORKING_DIRECTORY dir])
# Adds a test that runs command (a target's name, or a program) under a private peer of its own:
# vrocam_peer_run starts the peer on a fresh name in the abstract namespace, puts it into
# VROCAM_IPC_SOCKET, runs the command, stops the peer, and prints the peer's log when the command
# failed. Tests so added stay apart under ctest -j, and leave nothing behind when ctest times one out.
function(vrocam_add_peer_test)
  cmake_parse_arguments(ARG "" "NAME;WORKING_DIRECTORY" "COMMAND;FAULTS;PEER_FLAGS" ${ARGN})
  if(NOT ARG_NAME OR NOT ARG_COMMAND)
    message(FATAL_ERROR "vrocam_add_peer_test: NAME and COMMAND are needed")
  endif()
  set(run $<TARGET_FILE:vrocam::peer_run>)
  foreach(rule IN LISTS ARG_FAULTS)
    list(APPEND run --fault ${rule})
  endforeach()
  foreach(flag IN LISTS ARG_PEER_FLAGS)
    list(APPEND run --peer-flag=${flag})
  endforeach()
  list(POP_FRONT ARG_COMMAND program)
  if(TARGET ${program})
    # Built from this tree, the runner is built with the program it runs.
    if(TARGET vrocam_peer_run)
      add_dependencies(${program} vrocam_peer_run)
    endif()
    set(program $<TARGET_FILE:${program}>)
  endif()
  set(directory)
  if(ARG_WORKING_DIRECTORY)
    set(directory WORKING_DIRECTORY ${ARG_WORKING_DIRECTORY})
  endif()
  add_test(NAME ${ARG_NAME} COMMAND ${run} -- ${program} ${ARG_COMMAND} ${directory})
endfunction()
