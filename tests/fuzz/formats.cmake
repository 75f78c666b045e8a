if(TARGET twn4_cli AND TARGET elatectwn4_vpcd)
  elatectwn4_add_fuzzer(formats SOURCES ${CMAKE_CURRENT_LIST_DIR}/formats_fuzz.cpp
                        LINK elatectwn4_cipher elatectwn4_registry twn4_cli elatectwn4_vpcd)
endif()
