if(TARGET elatectwn4_sim)
  elatectwn4_add_fuzzer(dispatch SOURCES ${CMAKE_CURRENT_LIST_DIR}/dispatch_fuzz.cpp LINK elatectwn4_static elatectwn4_sim)
endif()
