# SPDX-License-Identifier: ISC
# Fails when DOC (docs/protocol.md, or the dissector's tables with
# MODE=--lua) differs from what proto_doc generates now.
execute_process(COMMAND ${GEN} ${MODE} -o ${OUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "proto_doc failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${OUT} ${DOC} RESULT_VARIABLE diff)
if(NOT diff EQUAL 0)
  message(FATAL_ERROR "${DOC} is stale: run `cmake --build <build dir> --target docs`")
endif()
