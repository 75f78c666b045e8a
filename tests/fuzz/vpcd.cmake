if(TARGET elatectwn4_vpcd)
  elatectwn4_add_fuzzer(vpcd SOURCES ${CMAKE_CURRENT_LIST_DIR}/vpcd_fuzz.cpp LINK elatectwn4_vpcd)
endif()
