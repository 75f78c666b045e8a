if(TARGET twn4_cli)
  elatectwn4_add_fuzzer(script SOURCES ${CMAKE_CURRENT_LIST_DIR}/script_fuzz.cpp LINK twn4_cli)
endif()
