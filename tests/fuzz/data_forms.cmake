elatectwn4_add_fuzzer(data_forms SOURCES ${CMAKE_CURRENT_LIST_DIR}/data_forms_fuzz.cpp LINK elatectwn4_cipher)
