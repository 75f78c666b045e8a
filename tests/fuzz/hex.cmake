elatectwn4_add_fuzzer(hex SOURCES ${CMAKE_CURRENT_LIST_DIR}/hex_fuzz.cpp LINK elatectwn4_cipher)
