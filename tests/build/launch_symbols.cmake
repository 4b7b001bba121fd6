# SPDX-License-Identifier: ISC
# cmake -DNM=nm -DARCHIVES="a.a;b.a" -DLAUNCHER=proc.cpp.o -DENGINE=e.a -P launch_symbols.cmake
# Fails when any object but LAUNCHER references a function that starts or
# forks a program, or when an object of ENGINE references one of the database
# library's unquoted shell helpers.
set(starts "system|popen|execve|execl|execlp|execle|execv|execvp|execvpe|fexecve|fork|vfork|_Fork|clone|clone3|posix_spawn|posix_spawnp")
set(found "")
foreach(a ${ARCHIVES})
  execute_process(COMMAND ${NM} -A -u ${a} OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${NM} ${a} failed: ${err}")
  endif()
  string(REPLACE "\n" ";" lines "${out}")
  foreach(l ${lines})
    # "archive.a:object.o:                 U name[@version]"
    if(l MATCHES "^([^:]*):([^:]*):[ \t]*U[ \t]+(${starts})(@.*)?$")
      if(NOT CMAKE_MATCH_2 STREQUAL LAUNCHER)
        get_filename_component(lib "${CMAKE_MATCH_1}" NAME)
        string(APPEND found "\n  ${lib}(${CMAKE_MATCH_2}) calls ${CMAKE_MATCH_3}")
      endif()
    endif()
    if(a STREQUAL ENGINE AND l MATCHES "^[^:]*:([^:]*):[ \t]*U[ \t]+(lrgbin_system|lrgbin_run_shell)$")
      string(APPEND found "\n  the engine's ${CMAKE_MATCH_1} calls ${CMAKE_MATCH_2} (compose with platform/command.h)")
    endif()
  endforeach()
endforeach()
if(found)
  message(FATAL_ERROR "programs started outside the launcher (use platform/proc.h):${found}")
endif()
list(LENGTH ARCHIVES n)
message(STATUS "${n} archives start programs only through ${LAUNCHER}")
