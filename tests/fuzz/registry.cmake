elatectwn4_add_fuzzer(registry SOURCES ${CMAKE_CURRENT_LIST_DIR}/registry_fuzz.cpp LINK elatectwn4_registry)
