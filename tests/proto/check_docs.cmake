# SPDX-License-Identifier: ISC
# Fails when docs/protocol.md differs from what proto_doc generates now.
execute_process(COMMAND ${GEN} -o ${OUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "proto_doc failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT} ${DOC} RESULT_VARIABLE diff)
if(NOT diff EQUAL 0)
  message(FATAL_ERROR "docs/protocol.md is stale: run `cmake --build <build dir> --target docs`")
endif()
