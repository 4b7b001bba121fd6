# SPDX-License-Identifier: ISC
# cmake -DROOT=<source dir> [-DPLANT=<file>|<header>] -P layers.cmake
#
# The device code is layered, and includes may only point down:
#   proto, util        the wire format, base64 (bottom, independent)
#   platform           launcher, command composer, frame output
#   lrgbin             configuration database client
#   tavc               the engine
#   tavc/admin, tavc/maint, tavc/wireless   handler groups (top, independent)
# A file may include its own folder and any lower layer; never a higher or a
# sideways one, and never the off-device folders (sim, tests, tools, lab,
# bench, fuzz). PLANT adds one include to one file, as if written there, so a
# test can show that a wrong arrow is caught.
cmake_minimum_required(VERSION 3.25)
set(rank_proto 0)
set(rank_util 0)
set(rank_platform 1)
set(rank_lrgbin 2)
set(rank_tavc 3)
set(rank_tavc/admin 4)
set(rank_tavc/maint 4)
set(rank_tavc/wireless 4)
set(device_dirs proto util platform lrgbin tavc tavc/admin tavc/maint tavc/wireless)

# The layer folder of a repository path, or "" for one outside the device.
function(layer_of path out)
  get_filename_component(dir "${path}" DIRECTORY)
  if(dir IN_LIST device_dirs)
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "" PARENT_SCOPE)
  endif()
endfunction()

set(planted_file "")
if(PLANT)
  string(REPLACE "|" ";" plant "${PLANT}")
  list(GET plant 0 planted_file)
  list(GET plant 1 planted_header)
endif()

set(errors "")
set(checked 0)
foreach(d ${device_dirs})
  file(GLOB sources RELATIVE "${ROOT}" "${ROOT}/${d}/*.h" "${ROOT}/${d}/*.cpp" "${ROOT}/${d}/*.c")
  foreach(f ${sources})
    math(EXPR checked "${checked} + 1")
    file(STRINGS "${ROOT}/${f}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    set(headers "")
    foreach(l ${lines})
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]*)\".*" "\\1" h "${l}")
      list(APPEND headers "${h}")
    endforeach()
    if(f STREQUAL planted_file)
      list(APPEND headers "${planted_header}")
    endif()
    foreach(h ${headers})
      if(NOT h MATCHES "/")
        continue()  # a header beside the file
      endif()
      layer_of("${h}" to)
      if(to STREQUAL "")
        string(APPEND errors "\n  ${f} includes ${h}: outside the device code")
      elseif(NOT to STREQUAL d AND NOT rank_${to} LESS rank_${d})
        string(APPEND errors "\n  ${f} includes ${h}: ${to} is not below ${d}")
      endif()
    endforeach()
  endforeach()
endforeach()
if(errors)
  message(FATAL_ERROR "includes that do not point down:${errors}")
endif()
message(STATUS "${checked} device files include only their own folder and lower layers")
