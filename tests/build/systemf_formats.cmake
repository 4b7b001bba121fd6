# cmake -DCXX=c++ -DSRC=repo -DCASES=systemf_cases.cc -P systemf_formats.cmake
# Each case of CASES compiles, or fails for the reason expected.
set(expect
  "0=" "1=text_must_go_through_the_command_composer" "2=text_must_go_through_the_command_composer"
  "3=format_and_arguments_differ" "4=format_and_arguments_differ" "5=format_and_arguments_differ"
  "6=format_and_arguments_differ" "7=format_and_arguments_differ" "8=format_and_arguments_differ"
  "9=constant")
set(wrong "")
foreach(e ${expect})
  string(REGEX MATCH "^([0-9]+)=(.*)$" _ "${e}")
  set(n ${CMAKE_MATCH_1})
  set(why "${CMAKE_MATCH_2}")
  execute_process(COMMAND ${CXX} -std=c++20 -fsyntax-only -DCASE=${n} -I${SRC} ${CASES}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(why STREQUAL "" AND NOT rc EQUAL 0)
    string(APPEND wrong "\ncase ${n} should compile:\n${out}")
  elseif(NOT why STREQUAL "" AND (rc EQUAL 0 OR NOT out MATCHES "${why}"))
    string(APPEND wrong "\ncase ${n} should fail with ${why}:\n${out}")
  endif()
endforeach()
if(wrong)
  message(FATAL_ERROR "${wrong}")
endif()
